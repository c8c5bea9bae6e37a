#include "platform/socket_activation.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "shared/constants.h"

namespace {

constexpr int kFirstActivatedDescriptor = 3;  // SD_LISTEN_FDS_START

std::optional<long> numberFromEnvironment(const char* name) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0') return std::nullopt;
  return value;
}

int intOption(int fd, int level, int name) {
  int value = -1;
  socklen_t length = sizeof value;
  return ::getsockopt(fd, level, name, &value, &length) == 0 ? value : -1;
}

}  // namespace

std::string LDServiceSocketPath() { return "/run/" + std::string(LDMachServiceName) + ".sock"; }

std::string LDNotSocketActivatedMessage() {
  return "not started by socket activation; start " + std::string(LDMachServiceName) +
         ".socket or run it under systemd-socket-activate --seqpacket -l PATH";
}

std::optional<LDFileHandle> LDTakeActivatedSocket(bool* activated, std::string* error) {
  const std::optional<long> pid = numberFromEnvironment("LISTEN_PID");
  const std::optional<long> count = numberFromEnvironment("LISTEN_FDS");
  ::unsetenv("LISTEN_PID");
  ::unsetenv("LISTEN_FDS");
  ::unsetenv("LISTEN_FDNAMES");
  *activated = pid && *pid == ::getpid();
  if (!*activated) return std::nullopt;
  if (!count || *count != 1) {
    *error = "socket activation must pass exactly one socket";
    return std::nullopt;
  }
  LDFileHandle socket(kFirstActivatedDescriptor);
  (void)::fcntl(socket.fileDescriptor(), F_SETFD, FD_CLOEXEC);
  if (intOption(socket.fileDescriptor(), SOL_SOCKET, SO_DOMAIN) != AF_UNIX ||
      intOption(socket.fileDescriptor(), SOL_SOCKET, SO_TYPE) != SOCK_SEQPACKET ||
      intOption(socket.fileDescriptor(), SOL_SOCKET, SO_ACCEPTCONN) != 1) {
    *error = "the activated socket is not a listening AF_UNIX SOCK_SEQPACKET socket";
    return std::nullopt;
  }
  const int flags = ::fcntl(socket.fileDescriptor(), F_GETFL);
  (void)::fcntl(socket.fileDescriptor(), F_SETFL, flags | O_NONBLOCK);
  return socket;
}

size_t LDRefuseWaitingConnections(const LDFileHandle& socket, size_t maximum) {
  size_t refused = 0;
  while (refused < maximum) {
    const int connection = ::accept4(socket.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    const int errorNumber = connection < 0 ? errno : 0;
    if (connection < 0) {
      if (errorNumber == EINTR || errorNumber == ECONNABORTED) continue;
      break;  // EAGAIN: none left
    }
    LDFileHandle closing(connection);
    ++refused;
  }
  return refused;
}
