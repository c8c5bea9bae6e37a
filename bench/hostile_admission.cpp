// How long a legitimate client waits for its transfer while hostile peers keep the helper's
// admission as busy as they can, as root in a private network namespace.
//
//   hostile_admission HELPER CLIENT WORKDIR [ROUNDS [HOSTILE [NICE]]]
//
// CLIENT is the signed transfer_client installed set-group-ID, as an application is. Each hostile
// peer runs that very client, the one program a keyless user can get admitted that far, again
// and again with 1030 inherited descriptors: admission then pays every check, a full signature
// check and the descriptor scan up to its limit before it refuses. The helper is restarted as
// soon as it exits, the way systemd starts it while connections wait. Prints the legitimate
// transfer time (the client's connect to its exit) with and without the hostile peers, in ms.
// With NICE, the hostile peers' own processes run at that nice value: on 2 cores, 20 processes
// that fork and exec as fast as they can slow everything down, helper or not; niced, what is
// left of the delay is what the helper's admission of them costs the legitimate client.

#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_support.h"

namespace {

using ldbench::die;
using ldbench::now;

void becomeNobody() {
  if (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) {
    ::_exit(126);
  }
}

// Runs the client with 1030 inherited descriptors, over and over, until killed.
pid_t startHostilePeer(const std::string& client, const std::string& socket, int nice) {
  const pid_t peer = ::fork();
  if (peer != 0) return peer;
  ::setpriority(PRIO_PROCESS, 0, nice);
  becomeNobody();
  // After the change of user, which clears it: a benchmark that dies leaves no flood running.
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() == 1) ::_exit(1);
  const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  for (;;) {
    const pid_t run = ::fork();
    if (run == 0) {
      rlimit limit{2048, 2048};
      ::setrlimit(RLIMIT_NOFILE, &limit);
      ::dup2(null, 1);
      ::dup2(null, 2);
      for (int i = 0; i < 1030; ++i) (void)::fcntl(0, F_DUPFD, 3);
      ::execl(client.c_str(), client.c_str(), socket.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::waitpid(run, nullptr, 0);
  }
}

// Until port 80 on 127.0.0.1 can be bound. An admission worker forked while its helper held the
// listeners keeps copies of them until it has closed its descriptors or died, which under the
// flood can come after the helper's exit; systemd starts no new helper before every process of
// the last one is gone, so neither does this benchmark.
void waitForPortToBeFree() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(80);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (int attempt = 0; attempt < 2000; ++attempt) {
    const LDFileHandle probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    (void)::setsockopt(probe.fileDescriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(probe.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return;
    ::usleep(1000);
  }
  die("port 80 stayed taken after the helper exited");
}

// One legitimate transfer, in ms from the client's connect to its exit; the helper that served
// it is reaped and, once nothing of it holds the port, a fresh one started.
double legitimateTransfer(const std::string& client, const std::string& socket, const std::string& helper,
                          int listening, pid_t* helperPid) {
  int output[2];
  if (::pipe2(output, O_CLOEXEC) != 0) die("pipe2");
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(output[1], 1);
    becomeNobody();
    ::execl(client.c_str(), client.c_str(), socket.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(output[1]);
  int status = 0;
  ::waitpid(child, &status, 0);
  const int64_t end = now();
  char text[64] = {};
  const ssize_t got = ::read(output[0], text, sizeof text - 1);
  ::close(output[0]);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || got <= 0) die("a legitimate transfer failed");
  ::waitpid(*helperPid, &status, 0);
  waitForPortToBeFree();
  *helperPid = ldbench::activateHelper(helper, listening, false);
  return static_cast<double>(end - std::atoll(text)) / 1e6;
}

void report(const char* what, std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const auto at = [&](double q) { return values[static_cast<size_t>(q * static_cast<double>(values.size() - 1))]; };
  std::printf("%-34s median %7.2f ms   p99 %7.2f ms   max %7.2f ms   (%zu transfers)\n", what, at(0.5), at(0.99),
              values.back(), values.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) die("usage: hostile_admission HELPER CLIENT WORKDIR [ROUNDS [HOSTILE]]");
  const std::string helper = argv[1], client = argv[2], socket = std::string(argv[3]) + "/hostile.sock";
  const int rounds = argc > 4 ? std::atoi(argv[4]) : 200;
  const int hostile = argc > 5 ? std::atoi(argv[5]) : 20;
  const int nice = argc > 6 ? std::atoi(argv[6]) : 0;
  ldbench::bringLoopbackUp();
  // As deep as systemd's default backlog, so the flood queues rather than blocks.
  LDFileHandle listening = ldbench::listenAt(socket, SOMAXCONN);
  pid_t helperPid = ldbench::activateHelper(helper, listening.fileDescriptor(), false);
  std::vector<double> quiet, underAttack;
  for (int i = 0; i < rounds / 4; ++i) {
    quiet.push_back(legitimateTransfer(client, socket, helper, listening.fileDescriptor(), &helperPid));
  }
  std::vector<pid_t> peers;
  for (int i = 0; i < hostile; ++i) peers.push_back(startHostilePeer(client, socket, nice));
  ::usleep(500'000);  // let the flood build up
  for (int i = 0; i < rounds; ++i) {
    underAttack.push_back(legitimateTransfer(client, socket, helper, listening.fileDescriptor(), &helperPid));
  }
  for (const pid_t peer : peers) ::kill(peer, SIGKILL);
  ::kill(helperPid, SIGKILL);
  report("legitimate transfer, quiet", quiet);
  report(("legitimate transfer, " + std::to_string(hostile) + " hostile peers, nice " + std::to_string(nice)).c_str(),
         underAttack);
  return 0;
}
