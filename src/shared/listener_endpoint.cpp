#include "shared/listener_endpoint.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

#include "shared/loopback_listeners.h"

bool LDListenerEndpoint::isEqualToEndpoint(const LDListenerEndpoint& other) const {
  if (other.family() != _family || other.port() != _port) return false;
  // other's address is the one asked: when it has none, nothing equals it.
  return other.address().has_value() && _address.has_value() && *other.address() == *_address;
}

std::string LDListenerEndpoint::description() const {
  // An absent address prints the way a nil object prints in the system's message formats.
  const std::string address = _address.value_or("(null)");
  const std::string port = std::to_string(_port);
  if (_family == AF_INET6) {
    return "[" + address + "]:" + port;
  }
  return address + ":" + port;
}

std::optional<LDListenerEndpoint> LDLoopbackListeners::endpointForFileDescriptor(
    int fd, LDErrorPlace error, LDSystemCalls& systemCalls) {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  const LDSystemCallResult named =
      systemCalls.getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length);
  if (named.value != 0) {
    if (error) *error = LDSystemCallError("getsockname", named.errorNumber);
    return std::nullopt;
  }
  const int family = storage.ss_family;
  if (family == AF_INET) {
    sockaddr_in ipv4;
    std::memcpy(&ipv4, &storage, sizeof ipv4);
    char text[INET_ADDRSTRLEN] = {};
    const LDSystemCallResult converted =
        systemCalls.inet_ntop(AF_INET, &ipv4.sin_addr, text, sizeof text);
    if (converted.value != 0) {
      if (error) *error = LDSystemCallError("inet_ntop(IPv4)", converted.errorNumber);
      return std::nullopt;
    }
    return LDListenerEndpoint(AF_INET, std::string(text), ntohs(ipv4.sin_port));
  }
  if (family == AF_INET6) {
    sockaddr_in6 ipv6;
    std::memcpy(&ipv6, &storage, sizeof ipv6);
    char text[INET6_ADDRSTRLEN] = {};
    const LDSystemCallResult converted =
        systemCalls.inet_ntop(AF_INET6, &ipv6.sin6_addr, text, sizeof text);
    if (converted.value != 0) {
      if (error) *error = LDSystemCallError("inet_ntop(IPv6)", converted.errorNumber);
      return std::nullopt;
    }
    return LDListenerEndpoint(AF_INET6, std::string(text), ntohs(ipv6.sin6_port));
  }
  if (error) *error = LDEndpointError("Unexpected socket family " + std::to_string(family));
  return std::nullopt;
}
