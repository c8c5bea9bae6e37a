// What the monitor's children cost: a keeper forked by the zygote (request, fork, pidfd back, one
// report, SIGKILL, exit seen), a keeper forked straight from a monitor that already runs a thread
// (what the zygote replaces), and the parsing child (fork, sandbox entered, verdict, reap).
// Prints medians and p99s in microseconds.
//
//   keeper_cost [ROUNDS]

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "admission/peer_keeper.h"
#include "admission/parser_sandbox.h"

namespace {

void report(const char* what, std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const auto at = [&](double q) { return values[static_cast<size_t>(q * static_cast<double>(values.size() - 1))]; };
  std::printf("%-58s median %7.1f us   p99 %7.1f us\n", what, at(0.5), at(0.99));
}

void awaitExit(int pidfd) {
  pollfd exited{pidfd, POLLIN, 0};
  while (::poll(&exited, 1, -1) != 1) {
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 1000;
  int errorNumber = 0;
  std::optional<LDKeeperZygote> zygote = LDKeeperZygote::start(
      [](LDKeeperStart& start) {
        LDKeeperReport inspected{};
        inspected.kind = LDKeeperReportKind::inspected;
        (void)LDSendRecord(start.channel.fileDescriptor(), inspected);
      },
      LDSystemCalls::real(), &errorNumber);
  if (!zygote) ldbench::die("no zygote");
  // From here on the process runs a second thread, as the helper's monitor does.
  std::thread utility([] { ::pause(); });
  utility.detach();
  std::vector<double> zygoteKeepers, directKeepers, parsers;
  for (int i = 0; i < rounds; ++i) {
    int64_t started = ldbench::now();
    int pair[2], channel[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0 ||
        ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, channel) != 0) {
      ldbench::die("socketpair");
    }
    LDFileHandle client(pair[1]), monitorEnd(channel[0]);
    LDKeeperStart start;
    start.socket.reset(pair[0]);
    start.channel.reset(channel[1]);
    start.peer.pid = ::getpid();
    start.peer.pidfd.reset(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0u)));
    start.peer.processDirectory.reset(::open("/proc/self", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::optional<LDKeeperZygote::Keeper> keeper = zygote->spawn(start);
    if (!keeper) ldbench::die("no keeper");
    start = LDKeeperStart{};
    LDKeeperReport said{};
    bool ended = false;
    pollfd readable{monitorEnd.fileDescriptor(), POLLIN, 0};
    while (::poll(&readable, 1, -1) != 1) {
    }
    if (!LDReceiveRecord(monitorEnd.fileDescriptor(), &said, &ended)) ldbench::die("no report");
    (void)::syscall(SYS_pidfd_send_signal, keeper->pidfd.fileDescriptor(), SIGKILL, nullptr, 0u);
    awaitExit(keeper->pidfd.fileDescriptor());
    zygoteKeepers.push_back(static_cast<double>(ldbench::now() - started) / 1000);

    started = ldbench::now();
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) ldbench::die("pipe");
    const pid_t direct = ::fork();
    if (direct == 0) {
      (void)!::write(ends[1], "i", 1);
      ::_exit(0);
    }
    ::close(ends[1]);
    char byte;
    (void)!::read(ends[0], &byte, 1);
    ::close(ends[0]);
    (void)::waitpid(direct, nullptr, 0);
    directKeepers.push_back(static_cast<double>(ldbench::now() - started) / 1000);

    started = ldbench::now();
    const pid_t parser = ::fork();
    if (parser == 0) {
      std::string reason;
      ::_exit(LDEnterParserSandbox(&reason) ? 0 : 1);
    }
    int status = 0;
    if (::waitpid(parser, &status, 0) != parser || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      ldbench::die("the sandbox could not be entered");
    }
    parsers.push_back(static_cast<double>(ldbench::now() - started) / 1000);
  }
  report("keeper from the zygote (spawn, report, kill, exit seen)", zygoteKeepers);
  report("child forked by a threaded monitor (fork, byte, reap)", directKeepers);
  report("parsing child (fork, sandbox entered, reap)", parsers);
  return 0;
}
