#include "shared/printable.h"

namespace {

// Code points that move or end a line, or reorder what follows, as a terminal shows it.
bool isInvisibleControl(uint32_t codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7f && codePoint <= 0x9f) || codePoint == 0x200e ||
         codePoint == 0x200f || (codePoint >= 0x2028 && codePoint <= 0x202e) ||
         (codePoint >= 0x2066 && codePoint <= 0x2069);
}

void appendHex(std::string& out, uint32_t value, int digits) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) out.push_back(kDigits[(value >> shift) & 0xf]);
}

}  // namespace

size_t LDDecodeUTF8(std::string_view text, size_t at, uint32_t* codePoint) {
  const auto lead = static_cast<uint8_t>(text[at]);
  size_t length = 1;
  uint32_t minimum = 0, value = lead;
  if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4, minimum = 0x10000, value = lead & 0x07u;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3, minimum = 0x800, value = lead & 0x0fu;
  } else if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2, minimum = 0x80, value = lead & 0x1fu;
  } else if (lead >= 0x80) {
    return 0;
  }
  if (text.size() - at < length) return 0;
  for (size_t k = 1; k < length; ++k) {
    const auto next = static_cast<uint8_t>(text[at + k]);
    if ((next & 0xc0) != 0x80) return 0;
    value = value << 6 | (next & 0x3fu);
  }
  if (value < minimum || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff)) return 0;
  *codePoint = value;
  return length;
}

std::string LDPrintable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    uint32_t codePoint = 0;
    const size_t length = LDDecodeUTF8(text, at, &codePoint);
    if (length == 0 || (length == 1 && isInvisibleControl(codePoint))) {
      out += "\\x";
      appendHex(out, static_cast<uint8_t>(text[at]), 2);
      ++at;
    } else if (isInvisibleControl(codePoint)) {
      out += "\\u{";
      appendHex(out, codePoint, 4);
      out += "}";
      at += length;
    } else {
      out.append(text.substr(at, length));
      at += length;
    }
  }
  return out;
}
