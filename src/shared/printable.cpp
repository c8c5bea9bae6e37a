#include "shared/printable.h"

#include <algorithm>
#include <iterator>

#include "shared/hex.h"

namespace {

struct Range {
  uint32_t first, last;
};

// Cc, Cf, Zl and Zp of Unicode 15, and the default-ignorable code points (DerivedCoreProperties)
// that are none of these: U+034F, the Hangul fillers, the Khmer inherent vowels, the Mongolian
// and other variation selectors, and the unassigned U+FFF0-U+FFF8 and U+E0000-U+E0FFF, so that
// a character assigned there later is escaped before any terminal learns to hide it.
constexpr Range kInvisible[] = {
    {0x0000, 0x001f}, {0x007f, 0x009f}, {0x00ad, 0x00ad}, {0x034f, 0x034f}, {0x0600, 0x0605},
    {0x061c, 0x061c}, {0x06dd, 0x06dd}, {0x070f, 0x070f}, {0x0890, 0x0891}, {0x08e2, 0x08e2},
    {0x115f, 0x1160}, {0x17b4, 0x17b5}, {0x180b, 0x180f}, {0x200b, 0x200f}, {0x2028, 0x202e},
    {0x2060, 0x206f}, {0x3164, 0x3164}, {0xfe00, 0xfe0f}, {0xfeff, 0xfeff}, {0xffa0, 0xffa0},
    {0xfff0, 0xfffb}, {0x110bd, 0x110bd}, {0x110cd, 0x110cd}, {0x13430, 0x1343f},
    {0x1bca0, 0x1bca3}, {0x1d173, 0x1d17a}, {0xe0000, 0xe0fff},
};

// Whether a code point shows nothing on its own: Unicode's controls (Cc), format characters
// (Cf, the bidirectional controls and tags among them), line and paragraph separators (Zl, Zp),
// and the other default-ignorable code points (variation selectors, Hangul fillers).
bool isInvisible(uint32_t codePoint) {
  const Range* after = std::upper_bound(std::begin(kInvisible), std::end(kInvisible), codePoint,
                                        [](uint32_t value, const Range& range) { return value < range.first; });
  return after != std::begin(kInvisible) && codePoint <= std::prev(after)->last;
}

std::string escape(std::string_view text, bool backslash) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    uint32_t codePoint = 0;
    const size_t length = LDDecodeUTF8(text, at, &codePoint);
    if (length == 0 || (length == 1 && (isInvisible(codePoint) || (backslash && codePoint == '\\')))) {
      out += "\\x";
      LDAppendHex(out, static_cast<uint8_t>(text[at]), 2);
      ++at;
    } else if (isInvisible(codePoint)) {
      out += "\\u{";
      LDAppendHex(out, codePoint, codePoint > 0xffff ? 5 : 4);  // kInvisible ends at U+E0FFF
      out += "}";
      at += length;
    } else {
      out.append(text.substr(at, length));
      at += length;
    }
  }
  return out;
}

}  // namespace

std::string LDPrintable(std::string_view text) { return escape(text, true); }

std::string LDPrintableMessage(std::string_view text) { return escape(text, false); }
