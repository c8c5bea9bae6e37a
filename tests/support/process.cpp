#include "support/process.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "platform/seqpacket.h"

namespace ldtest {

namespace {

int64_t nowMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

[[noreturn]] void execAs(const std::vector<std::string>& argv, int uid) {
  std::vector<char*> arguments;
  for (const std::string& word : argv) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  if (uid >= 0) {
    const auto id = static_cast<uid_t>(uid);  // and as its group: nobody's is nogroup, 65534 too
    if (::setgroups(0, nullptr) != 0 || ::setresgid(id, id, id) != 0 || ::setresuid(id, id, id) != 0) {
      ::_exit(126);
    }
  }
  ::execv(arguments[0], arguments.data());
  ::_exit(127);
}

}  // namespace

ChildProcess ChildProcess::start(const std::vector<std::string>& argv, int uid, int listeningSocket) {
  int input[2], output[2], error[2];
  if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0 || ::pipe2(error, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe2");
  }
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("fork");
  if (child == 0) {
    ::dup2(input[0], 0);
    ::dup2(output[1], 1);
    ::dup2(error[1], 2);
    if (listeningSocket >= 0) {
      const int target = 3;
      if (!LDPlaceDescriptorsForExec(&listeningSocket, &target, 1)) ::_exit(125);
      ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
      ::setenv("LISTEN_FDS", "1", 1);
    }
    execAs(argv, uid);
  }
  for (const int end : {input[0], output[1], error[1]}) ::close(end);
  return ChildProcess(child, input[1], output[0], error[0]);
}

ChildProcess::~ChildProcess() {
  if (_pid > 0 && !_reaped) {
    ::kill(_pid, SIGKILL);
    wait(5000);
  }
  for (const int fd : {_input, _output, _error}) {
    if (fd >= 0) ::close(fd);
  }
}

std::string ChildProcess::readLine(int milliseconds) {
  const int64_t deadline = nowMilliseconds() + milliseconds;
  for (;;) {
    const size_t end = _buffered.find('\n');
    if (end != std::string::npos) {
      std::string line = _buffered.substr(0, end);
      _buffered.erase(0, end + 1);
      return line;
    }
    const int64_t left = deadline - nowMilliseconds();
    pollfd entry{_output, POLLIN, 0};
    char buffer[4096];
    const ssize_t got = left > 0 && ::poll(&entry, 1, static_cast<int>(left)) == 1 ? ::read(_output, buffer, sizeof buffer) : 0;
    if (got <= 0) return "(nothing)";
    _buffered.append(buffer, static_cast<size_t>(got));
  }
}

void ChildProcess::writeLine(const std::string& line) {
  const std::string text = line + "\n";
  (void)::write(_input, text.data(), text.size());
}

int ChildProcess::wait(int milliseconds) {
  if (_reaped) return _status;
  // Readable once the child has exited.
  const LDFileHandle pidfd(static_cast<int>(::syscall(SYS_pidfd_open, _pid, 0u)));
  pollfd exited{pidfd.fileDescriptor(), POLLIN, 0};
  int status = 0;
  if ((milliseconds >= 0 && ::poll(&exited, 1, milliseconds) != 1) || ::waitpid(_pid, &status, 0) != _pid) return -1;
  _reaped = true;
  return _status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

ProcessResult ChildProcess::finish() {
  ::close(std::exchange(_input, -1));
  ProcessResult result{-1, std::exchange(_buffered, ""), ""};
  pollfd entries[2] = {{_output, POLLIN, 0}, {_error, POLLIN, 0}};
  while ((entries[0].fd >= 0 || entries[1].fd >= 0) && ::poll(entries, 2, -1) > 0) {
    for (int i = 0; i < 2; ++i) {
      if (entries[i].fd < 0 || entries[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t got = ::read(entries[i].fd, buffer, sizeof buffer);
      if (got > 0) {
        (i == 0 ? result.standardOutput : result.standardError).append(buffer, static_cast<size_t>(got));
      } else {
        entries[i].fd = -1;
      }
    }
  }
  result.exitStatus = wait(-1);
  return result;
}

}  // namespace ldtest
