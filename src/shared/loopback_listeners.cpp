#include "shared/loopback_listeners.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>

namespace {

constexpr int kListenBacklog = 128;

// The option value and length that every boolean socket option here is set with.
constexpr int kOptionOn = 1;

}  // namespace

bool LDSetCloseOnExec(int fd, LDErrorPlace error, LDSystemCalls& systemCalls) {
  const LDSystemCallResult flags = systemCalls.fcntl(fd, F_GETFD, 0);
  if (flags.value < 0) {
    if (error) *error = LDSystemCallError("fcntl(F_GETFD)", flags.errorNumber);
    return false;
  }
  const LDSystemCallResult set =
      systemCalls.fcntl(fd, F_SETFD, static_cast<int>(flags.value) | FD_CLOEXEC);
  if (set.value != 0) {
    if (error) *error = LDSystemCallError("fcntl(F_SETFD)", set.errorNumber);
    return false;
  }
  const LDSystemCallResult reread = systemCalls.fcntl(fd, F_GETFD, 0);
  if (reread.value >= 0 && (reread.value & FD_CLOEXEC) != 0) {
    return true;
  }
  if (error) *error = LDEndpointError("Unable to set FD_CLOEXEC");
  return false;
}

int LDLoopbackListeners::makeSocketWithFamily(int family, LDErrorPlace error,
                                              LDSystemCalls& systemCalls) {
  const LDSystemCallResult created = systemCalls.socket(family, SOCK_STREAM, 0);
  if (created.value < 0) {
    if (error) *error = LDSystemCallError("socket", created.errorNumber);
    return -1;
  }
  // Close-on-exec is its own step after creation, as for every descriptor of the system.
  LDFileHandle fd(static_cast<int>(created.value));
  if (!LDSetCloseOnExec(fd.fileDescriptor(), error, systemCalls)) {
    return -1;
  }
  const LDSystemCallResult reuse = systemCalls.setsockopt(
      fd.fileDescriptor(), SOL_SOCKET, SO_REUSEADDR, &kOptionOn, sizeof kOptionOn);
  if (reuse.value != 0) {
    fd.reset();
    if (error) *error = LDSystemCallError("setsockopt(SO_REUSEADDR)", reuse.errorNumber);
    return -1;
  }
  return fd.release();
}

bool LDLoopbackListeners::bindAndListen(int fd, const sockaddr* address, socklen_t length,
                                        LDErrorPlace error, LDSystemCalls& systemCalls) {
  const LDSystemCallResult bound = systemCalls.bind(fd, address, length);
  if (bound.value != 0) {
    if (error) *error = LDSystemCallError("bind", bound.errorNumber);
    return false;
  }
  const LDSystemCallResult listening = systemCalls.listen(fd, kListenBacklog);
  if (listening.value != 0) {
    if (error) *error = LDSystemCallError("listen", listening.errorNumber);
    return false;
  }
  return true;
}

int LDLoopbackListeners::makeIPv4ListenerWithPort(uint16_t port, LDErrorPlace error,
                                                  LDSystemCalls& systemCalls) {
  LDFileHandle fd(makeSocketWithFamily(AF_INET, error, systemCalls));
  if (!fd.isValid()) {
    return -1;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (systemCalls.inet_pton(AF_INET, "127.0.0.1", &address.sin_addr).value != 1) {
    fd.reset();
    if (error) *error = LDEndpointError("Unable to encode IPv4 loopback");
    return -1;
  }
  if (!bindAndListen(fd.fileDescriptor(), reinterpret_cast<const sockaddr*>(&address),
                     sizeof address, error, systemCalls)) {
    return -1;
  }
  return fd.release();
}

int LDLoopbackListeners::makeIPv6ListenerWithPort(uint16_t port, LDErrorPlace error,
                                                  LDSystemCalls& systemCalls) {
  LDFileHandle fd(makeSocketWithFamily(AF_INET6, error, systemCalls));
  if (!fd.isValid()) {
    return -1;
  }
  // IPv6-only before binding, so that it never takes IPv4-mapped traffic and coexists with the
  // IPv4 listener on the same port.
  const LDSystemCallResult v6only = systemCalls.setsockopt(
      fd.fileDescriptor(), IPPROTO_IPV6, IPV6_V6ONLY, &kOptionOn, sizeof kOptionOn);
  if (v6only.value != 0) {
    fd.reset();
    if (error) *error = LDSystemCallError("setsockopt(IPV6_V6ONLY)", v6only.errorNumber);
    return -1;
  }
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  address.sin6_flowinfo = 0;
  address.sin6_addr = in6addr_loopback;
  address.sin6_scope_id = 0;
  if (!bindAndListen(fd.fileDescriptor(), reinterpret_cast<const sockaddr*>(&address),
                     sizeof address, error, systemCalls)) {
    return -1;
  }
  return fd.release();
}

std::unique_ptr<LDLoopbackListeners> LDLoopbackListeners::initWithPort(
    uint16_t port, LDErrorPlace error, LDSystemCalls& systemCalls) {
  LDFileHandle ipv4(makeIPv4ListenerWithPort(port, error, systemCalls));
  if (!ipv4.isValid()) {
    return nullptr;
  }
  LDFileHandle ipv6(makeIPv6ListenerWithPort(port, error, systemCalls));
  if (!ipv6.isValid()) {
    return nullptr;  // the handle closes the IPv4 listener; the IPv6 error stands
  }
  std::unique_ptr<LDLoopbackListeners> listeners(new LDLoopbackListeners(systemCalls));
  listeners->_ipv4FileDescriptor = ipv4.release();
  listeners->_ipv6FileDescriptor = ipv6.release();
  return listeners;
}

LDLoopbackListeners::~LDLoopbackListeners() { closeOriginals(); }

bool LDLoopbackListeners::duplicateIntoIPv4(LDFileHandle& ipv4, LDFileHandle& ipv6,
                                            LDErrorPlace error) {
  ipv4.reset();
  ipv6.reset();
  const LDSystemCallResult duplicated4 = _systemCalls.dup(ipv4FileDescriptor());
  if (duplicated4.value < 0) {
    if (error) *error = LDSystemCallError("dup(IPv4)", duplicated4.errorNumber);
    return false;
  }
  LDFileHandle duplicate4(static_cast<int>(duplicated4.value));
  if (!LDSetCloseOnExec(duplicate4.fileDescriptor(), error, _systemCalls)) {
    return false;
  }
  const LDSystemCallResult duplicated6 = _systemCalls.dup(ipv6FileDescriptor());
  if (duplicated6.value < 0) {
    duplicate4.reset();
    if (error) *error = LDSystemCallError("dup(IPv6)", duplicated6.errorNumber);
    return false;
  }
  LDFileHandle duplicate6(static_cast<int>(duplicated6.value));
  if (!LDSetCloseOnExec(duplicate6.fileDescriptor(), error, _systemCalls)) {
    duplicate4.reset();  // the IPv4 duplicate first, then the IPv6 one
    return false;
  }
  ipv4 = std::move(duplicate4);
  ipv6 = std::move(duplicate6);
  return true;
}

void LDLoopbackListeners::closeOriginals() {
  int ipv4 = -1;
  int ipv6 = -1;
  {
    LDLockGuard guard(_closeLock);
    if (_originalsClosed) {
      return;
    }
    _originalsClosed = true;
    ipv4 = _ipv4FileDescriptor;
    ipv6 = _ipv6FileDescriptor;
  }
  if (ipv4 >= 0) LDCloseDescriptor(ipv4);
  if (ipv6 >= 0) LDCloseDescriptor(ipv6);
}

bool LDLoopbackListeners::originalsAreClosed() {
  LDLockGuard guard(_closeLock);
  return _originalsClosed;
}
