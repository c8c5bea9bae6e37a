#include "shared/hex.h"

void LDAppendHex(std::string& out, uint32_t value, int digits) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) out.push_back(kDigits[(value >> shift) & 0xf]);
}

std::string LDHex(const uint8_t* bytes, size_t length) {
  std::string hex;
  hex.reserve(2 * length);
  for (size_t i = 0; i < length; ++i) LDAppendHex(hex, bytes[i], 2);
  return hex;
}
