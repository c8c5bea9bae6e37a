// How long a legitimate client waits for its transfer while hostile peers keep the helper's
// admission as busy as they can, as root in a private network namespace.
//
//   hostile_admission HELPER CLIENT WORKDIR [ROUNDS [HOSTILE [NICE [STALLED STALL_FILE_SYSTEM [LINGERING]]]]]
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
// With STALLED, that many more peers (at the same nice value) are each kept frozen inside an exec
// while connected: they connect with a file open close-on-exec on STALL_FILE_SYSTEM, mounted in
// WORKDIR, whose FLUSH holds them for 2 s, far past the helper's inspection deadline, and are
// replaced as soon as the helper drops them.
// With LINGERING, that many of the HOSTILE peers instead connect and, before Hello, send a TCP
// socket of their own set to linger for 2^31-1 s with data it cannot send, whose last reference
// the helper's side then holds; each reconnects once dropped. Where the kernel has SO_PASSRIGHTS
// (6.16+) the helper turns it off and their sendmsg fails; on older kernels the socket arrives.

#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/time.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_support.h"
#include "platform/seqpacket.h"

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

// Keeps one peer frozen inside an exec and connected, until killed. The peer opens the stalling
// file before its socket, so the exec flushes the file (and stops) before it would close the
// socket; it hands a copy of its end over, by which the keeper sees the helper drop it.
pid_t startStalledPeer(const std::string& stallFile, const std::string& socket, int nice) {
  const pid_t keeper = ::fork();
  if (keeper != 0) return keeper;
  ::setpriority(PRIO_PROCESS, 0, nice);
  becomeNobody();
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() == 1) ::_exit(1);  // as a hostile peer
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
  for (int frozen = 0;;) {
    int channel[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, channel) != 0) ::_exit(1);
    const pid_t peer = ::fork();
    if (peer == 0) {
      const int held = ::open(stallFile.c_str(), O_RDONLY | O_CLOEXEC);
      const int connection = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
      if (held < 0 || ::connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) ::_exit(1);
      (void)LDSendPacket(channel[1], "s", {connection}, false);
      ::execl("/bin/true", "true", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(channel[1]);
    LDReceivedPacket packet;
    int errorNumber = 0;
    if (LDReceivePacket(channel[0], 1, &packet, &errorNumber) == LDReceiveResult::packet && packet.descriptors.size() == 1) {
      pollfd dropped{packet.descriptors[0].fileDescriptor(), POLLRDHUP, 0};
      while (::poll(&dropped, 1, -1) < 0 && errno == EINTR) {
      }
    }
    ::close(channel[0]);
    // Each stays frozen for the file system's hold; at most four per keeper at a time.
    for (++frozen; ::waitpid(-1, nullptr, frozen >= 4 ? 0 : WNOHANG) > 0;) --frozen;
  }
}

// A loopback TCP connection whose client end lingers with unsendable data; *server never reads.
int lingeringSocket(int* server) {
  const LDFileHandle listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const int small = 4096;
  ::setsockopt(listener.fileDescriptor(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  if (::bind(listener.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener.fileDescriptor(), 1) != 0 ||
      ::getsockname(listener.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return -1;
  }
  const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  (void)::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address);
  *server = ::accept4(listener.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC);
  const linger forever{1, 0x7fffffff};
  ::setsockopt(client, SOL_SOCKET, SO_LINGER, &forever, sizeof forever);
  const std::string chunk(65536, 'x');
  while (::send(client, chunk.data(), chunk.size(), MSG_NOSIGNAL) > 0) {
  }
  return client;
}

pid_t startLingeringPeer(const std::string& socket, int nice) {
  const pid_t peer = ::fork();
  if (peer != 0) return peer;
  ::setpriority(PRIO_PROCESS, 0, nice);
  becomeNobody();
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() == 1) ::_exit(1);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
  for (;;) {
    const LDFileHandle connection(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (::connect(connection.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      ::usleep(1000);
      continue;
    }
    int server = -1;
    const int lingering = lingeringSocket(&server);
    if (lingering < 0 || server < 0) ::_exit(1);
    const bool sent = LDSendPacket(connection.fileDescriptor(), "x", {lingering}, false) == 0;
    // Ours alone when unsent: the server end goes first, so that a reset ends the linger.
    if (sent) LDCloseDescriptor(lingering);
    pollfd dropped{connection.fileDescriptor(), POLLRDHUP, 0};
    while (::poll(&dropped, 1, -1) < 0 && errno == EINTR) {
    }
    const linger reset{1, 0};
    ::setsockopt(server, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    LDCloseDescriptor(server);
    if (!sent) LDCloseDescriptor(lingering);
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
  if (argc < 4 || argc == 8) {
    die("usage: hostile_admission HELPER CLIENT WORKDIR [ROUNDS [HOSTILE [NICE [STALLED STALL_FILE_SYSTEM "
        "[LINGERING]]]]]");
  }
  const std::string helper = argv[1], client = argv[2], socket = std::string(argv[3]) + "/hostile.sock";
  const int rounds = argc > 4 ? std::atoi(argv[4]) : 200;
  const int hostile = argc > 5 ? std::atoi(argv[5]) : 20;
  const int nice = argc > 6 ? std::atoi(argv[6]) : 0;
  const int stalled = argc > 7 ? std::atoi(argv[7]) : 0;
  const int lingering = argc > 9 ? std::min(std::atoi(argv[9]), hostile) : 0;
  ldbench::bringLoopbackUp();
  const std::string stallMount = std::string(argv[3]) + "/stall";
  pid_t stallServer = -1;
  if (stalled > 0) {
    ::mkdir(stallMount.c_str(), 0755);
    stallServer = ::fork();
    if (stallServer == 0) {
      ::dup2(::open("/dev/null", O_WRONLY), 2);  // libfuse 3.14 warns of a thread limit it never set
      ::execl(argv[8], argv[8], stallMount.c_str(), "2000", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    for (int i = 0; i < 200 && ::access((stallMount + "/stall").c_str(), F_OK) != 0; ++i) ::usleep(10'000);
    if (::access((stallMount + "/stall").c_str(), F_OK) != 0) die("the stalling file system did not come up");
  }
  // As deep as systemd's default backlog, so the flood queues rather than blocks.
  LDFileHandle listening = ldbench::listenAt(socket, SOMAXCONN);
  pid_t helperPid = ldbench::activateHelper(helper, listening.fileDescriptor(), false);
  std::vector<double> quiet, underAttack;
  for (int i = 0; i < rounds / 4; ++i) {
    quiet.push_back(legitimateTransfer(client, socket, helper, listening.fileDescriptor(), &helperPid));
  }
  std::vector<pid_t> peers;
  for (int i = 0; i < hostile - lingering; ++i) peers.push_back(startHostilePeer(client, socket, nice));
  for (int i = 0; i < lingering; ++i) peers.push_back(startLingeringPeer(socket, nice));
  for (int i = 0; i < stalled; ++i) peers.push_back(startStalledPeer(stallMount + "/stall", socket, nice));
  ::usleep(500'000);  // let the flood build up
  for (int i = 0; i < rounds; ++i) {
    underAttack.push_back(legitimateTransfer(client, socket, helper, listening.fileDescriptor(), &helperPid));
  }
  for (const pid_t peer : peers) ::kill(peer, SIGKILL);
  ::kill(helperPid, SIGKILL);
  if (stallServer > 0) {  // the frozen execs go on once their file system is gone
    ::umount2(stallMount.c_str(), MNT_DETACH);
    ::kill(stallServer, SIGKILL);
  }
  report("legitimate transfer, quiet", quiet);
  const std::string stalledPeers = (lingering > 0 ? " (" + std::to_string(lingering) + " lingering)" : "") +
                                   (stalled > 0 ? " + " + std::to_string(stalled) + " stalled" : "");
  report(("legitimate transfer, " + std::to_string(hostile) + stalledPeers + " hostile peers, nice " +
          std::to_string(nice)).c_str(),
         underAttack);
  return 0;
}
