#pragma once

// The seam between the system's logic and the kernel. Every operation that can fail in a way the
// system must report goes through an LDSystemCalls handed in by the caller; the default instance
// makes the real calls. Tests derive from it and make chosen calls fail with a chosen result and
// errno. The error number is captured in the same expression as the call, so nothing above this
// seam ever reads errno.

#include <poll.h>
#include <sys/types.h>
#include <sys/socket.h>

#include <cstddef>

struct epoll_event;

struct LDSystemCallResult {
  long value;       // what the call returned
  int errorNumber;  // errno when the call reported failure, otherwise 0
};

class LDSystemCalls {
 public:
  LDSystemCalls() = default;
  virtual ~LDSystemCalls() = default;
  LDSystemCalls(const LDSystemCalls&) = delete;
  LDSystemCalls& operator=(const LDSystemCalls&) = delete;

  // The process-wide instance that reaches the kernel.
  static LDSystemCalls& real();

  virtual LDSystemCallResult socket(int family, int type, int protocol);
  virtual LDSystemCallResult setsockopt(int fd, int level, int name, const void* value,
                                        socklen_t length);
  virtual LDSystemCallResult getsockopt(int fd, int level, int name, void* value,
                                        socklen_t* length);
  virtual LDSystemCallResult bind(int fd, const sockaddr* address, socklen_t length);
  virtual LDSystemCallResult listen(int fd, int backlog);
  virtual LDSystemCallResult connect(int fd, const sockaddr* address, socklen_t length);
  virtual LDSystemCallResult accept(int fd, sockaddr* address, socklen_t* length);
  virtual LDSystemCallResult getsockname(int fd, sockaddr* address, socklen_t* length);
  virtual LDSystemCallResult poll(pollfd* fds, nfds_t count, int timeoutMilliseconds);
  virtual LDSystemCallResult dup(int fd);
  // Only the argument-less F_GETFD and F_GETFL and the int-argument F_SETFD and F_SETFL are needed.
  virtual LDSystemCallResult fcntl(int fd, int command, int argument);
  // value: 1 converted, 0 not a valid address, -1 with errorNumber for an unknown family.
  virtual LDSystemCallResult inet_pton(int family, const char* text, void* address);
  // value: 0 on success, -1 with errorNumber on failure.
  virtual LDSystemCallResult inet_ntop(int family, const void* address, char* text,
                                       socklen_t size);
  // value: the number of bytes written into buffer, or -1.
  virtual LDSystemCallResult getrandom(void* buffer, size_t length, unsigned flags);

  // The helper's run loop and listener.
  virtual LDSystemCallResult epoll_create1(int flags);
  virtual LDSystemCallResult epoll_ctl(int epoll, int operation, int fd, epoll_event* event);
  virtual LDSystemCallResult epoll_wait(int epoll, epoll_event* events, int count, int timeoutMilliseconds);
  virtual LDSystemCallResult accept4(int fd, sockaddr* address, socklen_t* length, int flags);
  // Called in the keepers' zygote, once for each keeper.
  virtual pid_t fork();
  virtual LDSystemCallResult pidfd_send_signal(int pidfd, int signal);
};
