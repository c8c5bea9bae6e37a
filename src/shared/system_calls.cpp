#include "shared/system_calls.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>

#include "shared/pidfd.h"

namespace {

LDSystemCallResult fromInt(int value) { return {value, value == -1 ? errno : 0}; }

}  // namespace

LDSystemCalls& LDSystemCalls::real() {
  static LDSystemCalls instance;
  return instance;
}

LDSystemCallResult LDSystemCalls::socket(int family, int type, int protocol) {
  return fromInt(::socket(family, type, protocol));
}

LDSystemCallResult LDSystemCalls::setsockopt(int fd, int level, int name, const void* value,
                                             socklen_t length) {
  return fromInt(::setsockopt(fd, level, name, value, length));
}

LDSystemCallResult LDSystemCalls::getsockopt(int fd, int level, int name, void* value,
                                             socklen_t* length) {
  return fromInt(::getsockopt(fd, level, name, value, length));
}

LDSystemCallResult LDSystemCalls::bind(int fd, const sockaddr* address, socklen_t length) {
  return fromInt(::bind(fd, address, length));
}

LDSystemCallResult LDSystemCalls::listen(int fd, int backlog) {
  return fromInt(::listen(fd, backlog));
}

LDSystemCallResult LDSystemCalls::connect(int fd, const sockaddr* address, socklen_t length) {
  return fromInt(::connect(fd, address, length));
}

LDSystemCallResult LDSystemCalls::accept(int fd, sockaddr* address, socklen_t* length) {
  return fromInt(::accept(fd, address, length));
}

LDSystemCallResult LDSystemCalls::getsockname(int fd, sockaddr* address, socklen_t* length) {
  return fromInt(::getsockname(fd, address, length));
}

LDSystemCallResult LDSystemCalls::poll(pollfd* fds, nfds_t count, int timeoutMilliseconds) {
  return fromInt(::poll(fds, count, timeoutMilliseconds));
}

LDSystemCallResult LDSystemCalls::dup(int fd) { return fromInt(::dup(fd)); }

LDSystemCallResult LDSystemCalls::fcntl(int fd, int command, int argument) {
  return fromInt(command == F_GETFD || command == F_GETFL ? ::fcntl(fd, command) : ::fcntl(fd, command, argument));
}

LDSystemCallResult LDSystemCalls::inet_pton(int family, const char* text, void* address) {
  return fromInt(::inet_pton(family, text, address));
}

LDSystemCallResult LDSystemCalls::inet_ntop(int family, const void* address, char* text,
                                            socklen_t size) {
  const char* converted = ::inet_ntop(family, address, text, size);
  return {converted == nullptr ? -1 : 0, converted == nullptr ? errno : 0};
}

LDSystemCallResult LDSystemCalls::getrandom(void* buffer, size_t length, unsigned flags) {
  const ssize_t written = ::getrandom(buffer, length, flags);
  return {written, written == -1 ? errno : 0};
}

LDSystemCallResult LDSystemCalls::epoll_create1(int flags) { return fromInt(::epoll_create1(flags)); }

LDSystemCallResult LDSystemCalls::epoll_ctl(int epoll, int operation, int fd, epoll_event* event) {
  return fromInt(::epoll_ctl(epoll, operation, fd, event));
}

LDSystemCallResult LDSystemCalls::epoll_wait(int epoll, epoll_event* events, int count, int timeoutMilliseconds) {
  return fromInt(::epoll_wait(epoll, events, count, timeoutMilliseconds));
}

LDSystemCallResult LDSystemCalls::accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
  return fromInt(::accept4(fd, address, length, flags));
}

pid_t LDSystemCalls::fork() { return ::fork(); }

LDSystemCallResult LDSystemCalls::pidfd_send_signal(int pidfd, int signal) {
  return fromInt(LDSendSignal(pidfd, signal));
}
