#pragma once

#include <cstdint>
#include <optional>
#include <string>

// Where a listening socket is bound: address family, numeric address text, port (host order).
// Immutable. Two endpoints are the same only by isEqualToEndpoint: the address is compared as
// text, so two spellings of one address are different endpoints.
class LDListenerEndpoint {
 public:
  // Nothing is checked: any family number, any text (also none) and any port are accepted.
  LDListenerEndpoint(int32_t family, std::optional<std::string> address, uint16_t port)
      : _family(family), _address(std::move(address)), _port(port) {}

  int32_t family() const { return _family; }
  const std::optional<std::string>& address() const { return _address; }
  uint16_t port() const { return _port; }

  // False for a different family or port, or an address (on other's side) that is absent or
  // differs by a character.
  bool isEqualToEndpoint(const LDListenerEndpoint& other) const;

  // "[::1]:80" for AF_INET6, "127.0.0.1:80" for every other family.
  std::string description() const;

 private:
  int32_t _family;
  std::optional<std::string> _address;
  uint16_t _port;
};
