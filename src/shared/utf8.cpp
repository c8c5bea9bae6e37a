#include "shared/utf8.h"

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

bool LDIsWellFormedUTF8(std::string_view text) {
  uint32_t codePoint = 0;
  for (size_t at = 0; at < text.size();) {
    const size_t length = LDDecodeUTF8(text, at, &codePoint);
    if (length == 0) return false;
    at += length;
  }
  return true;
}
