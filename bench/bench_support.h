#pragma once

// What the benchmark drivers share: the clock, the way out, and starting the helper the way
// systemd does once a connection is waiting.

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "shared/file_handle.h"

namespace ldbench {

inline int64_t now() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

[[noreturn]] inline void die(const std::string& why) {
  std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, why.c_str());
  std::exit(1);
}

// Enters a private network namespace with loopback up, where port 80 is free.
inline void bringLoopbackUp() {
  if (::unshare(CLONE_NEWNET) != 0) die("unshare(CLONE_NEWNET) needs root");
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  if (::ioctl(fd, SIOCGIFFLAGS, &request) != 0) die("SIOCGIFFLAGS");
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  if (::ioctl(fd, SIOCSIFFLAGS, &request) != 0) die("SIOCSIFFLAGS");
  ::close(fd);
}

// A listening AF_UNIX SOCK_SEQPACKET socket at path, mode 0666, as the socket unit makes it.
inline LDFileHandle listenAt(const std::string& path, int backlog) {
  LDFileHandle socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ::unlink(path.c_str());
  if (::bind(socket.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::chmod(path.c_str(), 0666) != 0 || ::listen(socket.fileDescriptor(), backlog) != 0) {
    die("cannot listen at " + path);
  }
  return socket;
}

// The helper with `listening` as its activated socket (descriptor 3, LISTEN_PID, LISTEN_FDS).
inline pid_t activateHelper(const std::string& helper, int listening, bool quiet) {
  const pid_t child = ::fork();
  if (child == 0) {
    const int target = 3;
    if (!LDPlaceDescriptorsForExec(&listening, &target, 1)) ::_exit(125);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    ::setenv("LISTEN_FDS", "1", 1);
    if (quiet) ::dup2(::open("/dev/null", O_WRONLY), 1);
    ::execl(helper.c_str(), helper.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  return child;
}

}  // namespace ldbench
