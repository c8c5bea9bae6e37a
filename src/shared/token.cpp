#include <array>
#include <cstdint>

#include "shared/hex.h"
#include "shared/token.h"

namespace {

constexpr size_t kTokenBytes = 32;

}  // namespace

std::optional<std::string> LDUnpredictableToken(LDErrorPlace error, LDSystemCalls& systemCalls) {
  std::array<uint8_t, kTokenBytes> bytes{};
  // Up to 256 bytes, getrandom from the blocking pool either fills the buffer or fails; a short
  // count is treated as a failure all the same.
  const LDSystemCallResult drawn = systemCalls.getrandom(bytes.data(), bytes.size(), 0);
  if (drawn.value != static_cast<long>(bytes.size())) {
    if (error) *error = LDSigningError("SecRandomCopyBytes failed");
    return std::nullopt;
  }
  return LDHex(bytes.data(), bytes.size());
}
