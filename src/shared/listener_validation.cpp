#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>

#include <cerrno>

#include "shared/loopback_listeners.h"

namespace {

// How long the probe waits for its own connection to show up on the listener.
constexpr int kProbeReadableTimeoutMilliseconds = 1000;

}  // namespace

bool LDSocketOption(int fd, int level, int optionName, int* value, LDErrorPlace error,
                    LDSystemCalls& systemCalls) {
  socklen_t length = sizeof(int);
  const LDSystemCallResult read = systemCalls.getsockopt(fd, level, optionName, value, &length);
  if (read.value != 0) {
    if (error) {
      *error = LDSystemCallError("getsockopt(" + std::to_string(optionName) + ")",
                                 read.errorNumber);
    }
    return false;
  }
  return true;
}

namespace {

// Sets close-on-exec and reads it back: a descriptor that does not keep the flag is refused
// (deliberately reported as a failed check, not as a failed system call).
bool keepsCloseOnExec(int fd, const LDListenerEndpoint& expected, LDErrorPlace error, LDSystemCalls& systemCalls) {
  if (!LDSetCloseOnExec(fd, error, systemCalls)) return false;
  const LDSystemCallResult flags = systemCalls.fcntl(fd, F_GETFD, 0);
  if (flags.value >= 0 && (flags.value & FD_CLOEXEC) != 0) return true;
  if (error) *error = LDEndpointError("FD_CLOEXEC is not set for " + expected.description());
  return false;
}

bool isStreamSocket(int fd, const LDListenerEndpoint& received, LDErrorPlace error, LDSystemCalls& systemCalls) {
  int type = 0;
  if (!LDSocketOption(fd, SOL_SOCKET, SO_TYPE, &type, error, systemCalls)) return false;
  if (type == SOCK_STREAM) return true;
  if (error) *error = LDEndpointError("Received " + received.description() + " is not SOCK_STREAM");
  return false;
}

// An IPv6 listener must be IPv6-only, or it would also take the IPv4 connections of its port.
bool isIPv6OnlyIfIPv6(int fd, const LDListenerEndpoint& received, LDErrorPlace error, LDSystemCalls& systemCalls) {
  if (received.family() != AF_INET6) return true;
  int v6only = 0;
  if (!LDSocketOption(fd, IPPROTO_IPV6, IPV6_V6ONLY, &v6only, error, systemCalls)) return false;
  if (v6only == 1) return true;
  if (error) *error = LDEndpointError("Received " + received.description() + " is not IPv6-only");
  return false;
}

}  // namespace

bool LDLoopbackListeners::validateReceivedFileDescriptor(int fd,
                                                         const LDListenerEndpoint& expected,
                                                         LDErrorPlace error,
                                                         LDSystemCalls& systemCalls) {
  if (!keepsCloseOnExec(fd, expected, error, systemCalls)) return false;
  const std::optional<LDListenerEndpoint> received = endpointForFileDescriptor(fd, error, systemCalls);
  if (!received) return false;
  if (!received->isEqualToEndpoint(expected)) {
    if (error) *error = LDEndpointError("Expected " + expected.description() + ", received " + received->description());
    return false;
  }
  return isStreamSocket(fd, *received, error, systemCalls) && validateAccepting(fd, *received, error, systemCalls) &&
         isIPv6OnlyIfIPv6(fd, *received, error, systemCalls);
}

bool LDLoopbackListeners::validateAccepting(int fd, const LDListenerEndpoint& endpoint,
                                            LDErrorPlace error, LDSystemCalls& systemCalls) {
  int accepting = 0;
  socklen_t length = sizeof accepting;
  const LDSystemCallResult read =
      systemCalls.getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &length);
  if (read.value == 0) {
    if (accepting == 1) {
      return true;
    }
    if (error) *error = LDEndpointError("Received " + endpoint.description() + " is not accepting");
    return false;
  }
  if (read.errorNumber != ENOPROTOOPT) {
    if (error) *error = LDSystemCallError("getsockopt(SO_ACCEPTCONN)", read.errorNumber);
    return false;
  }

  // The kernel cannot say whether fd listens: prove it by connecting and accepting. Whatever
  // connection is first in the queue is taken and closed, which need not be the probe's own.
  if (!connectToEndpoint(endpoint, error, systemCalls)) {
    return false;
  }
  pollfd entry{fd, POLLIN, 0};
  const LDSystemCallResult ready = systemCalls.poll(&entry, 1, kProbeReadableTimeoutMilliseconds);
  if (ready.value != 1 || (entry.revents & POLLIN) == 0) {
    if (error) {
      *error = LDEndpointError("Received " + endpoint.description() + " did not become readable");
    }
    return false;
  }
  const LDSystemCallResult accepted = systemCalls.accept(fd, nullptr, nullptr);
  if (accepted.value < 0) {
    if (error) {
      *error = LDSystemCallError("accept(" + endpoint.description() + ")", accepted.errorNumber);
    }
    return false;
  }
  LDCloseDescriptor(static_cast<int>(accepted.value));
  return true;
}

bool LDLoopbackListeners::connectToEndpoint(const LDListenerEndpoint& endpoint,
                                            LDErrorPlace error, LDSystemCalls& systemCalls) {
  // A plain blocking socket: no close-on-exec, no options, no time-out. It lives only for the
  // duration of this call.
  const LDSystemCallResult created = systemCalls.socket(endpoint.family(), SOCK_STREAM, 0);
  if (created.value < 0) {
    if (error) *error = LDSystemCallError("socket(client)", created.errorNumber);
    return false;
  }
  LDFileHandle client(static_cast<int>(created.value));
  const std::string address = endpoint.address().value_or("");

  LDSystemCallResult connected{};
  if (endpoint.family() == AF_INET) {
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(endpoint.port());
    if (systemCalls.inet_pton(AF_INET, address.c_str(), &ipv4.sin_addr).value != 1) {
      client.reset();
      if (error) *error = LDEndpointError("Invalid IPv4 endpoint " + endpoint.description());
      return false;
    }
    connected = systemCalls.connect(client.fileDescriptor(),
                                    reinterpret_cast<const sockaddr*>(&ipv4), sizeof ipv4);
  } else {
    sockaddr_in6 ipv6{};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(endpoint.port());
    if (systemCalls.inet_pton(AF_INET6, address.c_str(), &ipv6.sin6_addr).value != 1) {
      client.reset();
      if (error) *error = LDEndpointError("Invalid IPv6 endpoint " + endpoint.description());
      return false;
    }
    connected = systemCalls.connect(client.fileDescriptor(),
                                    reinterpret_cast<const sockaddr*>(&ipv6), sizeof ipv6);
  }
  client.reset();  // errno is already saved in `connected`
  if (connected.value == 0) {
    return true;
  }
  if (error) {
    *error = LDSystemCallError("connect(" + endpoint.description() + ")", connected.errorNumber);
  }
  return false;
}

bool LDLoopbackListeners::canConnectToEndpoint(const LDListenerEndpoint& endpoint,
                                               LDSystemCalls& systemCalls) {
  return connectToEndpoint(endpoint, nullptr, systemCalls);
}
