#include "platform/socket_activation.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

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

int intOption(LDSystemCalls& calls, int fd, int level, int name) {
  int value = -1;
  socklen_t length = sizeof value;
  return calls.getsockopt(fd, level, name, &value, &length).value == 0 ? value : -1;
}

// The activated socket made close-on-exec and non-blocking; an error text if it could not be.
std::string prepareActivatedSocket(LDSystemCalls& calls, int fd) {
  LDSystemCallResult result = calls.fcntl(fd, F_SETFD, FD_CLOEXEC);
  if (result.value == 0) result = calls.fcntl(fd, F_GETFL, 0);
  if (result.value >= 0) result = calls.fcntl(fd, F_SETFL, static_cast<int>(result.value) | O_NONBLOCK);
  if (result.value == -1) return std::string("fcntl on the activated socket failed: ") + std::strerror(result.errorNumber);
  return "";
}

}  // namespace

std::string LDServiceSocketPath() { return "/run/" + std::string(LDMachServiceName) + ".sock"; }

std::string LDNotSocketActivatedMessage() {
  return "not started by socket activation; start " + std::string(LDMachServiceName) +
         ".socket or run it under systemd-socket-activate --seqpacket -l PATH";
}

std::optional<LDFileHandle> LDTakeActivatedSocket(bool* activated, std::string* error, LDSystemCalls& calls) {
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
  const int fd = socket.fileDescriptor();
  if (intOption(calls, fd, SOL_SOCKET, SO_DOMAIN) != AF_UNIX || intOption(calls, fd, SOL_SOCKET, SO_TYPE) != SOCK_SEQPACKET ||
      intOption(calls, fd, SOL_SOCKET, SO_ACCEPTCONN) != 1) {
    *error = "the activated socket is not a listening AF_UNIX SOCK_SEQPACKET socket";
    return std::nullopt;
  }
  // A socket that stayed blocking would stop the whole helper in accept once a peer gave up.
  *error = prepareActivatedSocket(calls, fd);
  if (!error->empty()) return std::nullopt;
  return socket;
}

size_t LDRefuseWaitingConnections(int socket, size_t maximum) {
  size_t refused = 0;
  while (refused < maximum) {
    const int connection = ::accept4(socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
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
