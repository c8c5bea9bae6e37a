#include "support/network_namespace.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ldtest {

namespace {

std::string bringLoopbackUp() {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return std::string("socket for ioctl: ") + std::strerror(errno);
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  std::string failure;
  if (::ioctl(fd, SIOCGIFFLAGS, &request) != 0) {
    failure = std::string("SIOCGIFFLAGS lo: ") + std::strerror(errno);
  } else {
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    if (::ioctl(fd, SIOCSIFFLAGS, &request) != 0) {
      failure = std::string("SIOCSIFFLAGS lo: ") + std::strerror(errno);
    }
  }
  ::close(fd);
  return failure;
}

}  // namespace

std::string runInPrivateNetworkNamespace(const std::function<std::string()>& body) {
  if (::geteuid() != 0) {
    return "a private network namespace needs root: run the test command as root";
  }
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) return std::string("pipe2: ") + std::strerror(errno);
  const pid_t child = ::fork();
  if (child < 0) {
    ::close(report[0]);
    ::close(report[1]);
    return std::string("fork: ") + std::strerror(errno);
  }
  if (child == 0) {
    ::close(report[0]);
    ::signal(SIGPIPE, SIG_IGN);  // a test writing to a child that already exited gets EPIPE
    std::string failure;
    if (::unshare(CLONE_NEWNET) != 0) {
      failure = std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno);
    } else {
      failure = bringLoopbackUp();
    }
    if (failure.empty()) failure = body();
    const char* data = failure.data();
    size_t left = failure.size();
    while (left > 0) {
      const ssize_t written = ::write(report[1], data, left);
      if (written <= 0) break;
      data += written;
      left -= static_cast<size_t>(written);
    }
    ::_exit(failure.empty() ? 0 : 1);
  }
  ::close(report[1]);
  std::string failure;
  char buffer[512];
  ssize_t got;
  while ((got = ::read(report[0], buffer, sizeof buffer)) > 0) {
    failure.append(buffer, static_cast<size_t>(got));
  }
  ::close(report[0]);
  int status = 0;
  if (::waitpid(child, &status, 0) != child) return "waitpid failed";
  if (!WIFEXITED(status)) return "child in the namespace died by signal " + std::to_string(WTERMSIG(status));
  if (WEXITSTATUS(status) != 0 && failure.empty()) return "child in the namespace exited non-zero";
  return failure;
}

}  // namespace ldtest
