#include "platform/socket_activation.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
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

int intOption(int fd, int level, int name) {
  int value = -1;
  socklen_t length = sizeof value;
  return ::getsockopt(fd, level, name, &value, &length) == 0 ? value : -1;
}

bool fillAddress(const std::string& path, sockaddr_un* address, std::string* error) {
  *address = sockaddr_un{};
  address->sun_family = AF_UNIX;
  if (path.size() >= sizeof address->sun_path) {
    *error = "socket path too long: " + path;
    return false;
  }
  std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
  return true;
}

}  // namespace

std::string LDServiceSocketPath() { return "/run/" + std::string(LDMachServiceName) + ".sock"; }

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

std::optional<LDFileHandle> LDBindServiceSocket(const std::string& path, std::string* error) {
  sockaddr_un address;
  if (!fillAddress(path, &address, error)) return std::nullopt;
  struct stat existing {};
  if (::lstat(path.c_str(), &existing) == 0) {
    if (!S_ISSOCK(existing.st_mode)) {
      *error = path + " exists and is not a socket; refusing to replace it";
      return std::nullopt;
    }
    LDFileHandle probe(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (probe.isValid() &&
        ::connect(probe.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
      *error = "another helper is already listening at " + path;
      return std::nullopt;
    }
    ::unlink(path.c_str());  // stale: nobody listens there
  }
  LDFileHandle socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.isValid() ||
      ::bind(socket.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::chmod(path.c_str(), 0666) != 0 || ::listen(socket.fileDescriptor(), 16) != 0) {
    *error = "cannot listen at " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  return socket;
}
