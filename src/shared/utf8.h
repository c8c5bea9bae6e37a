#pragma once

// Well-formed UTF-8 (RFC 3629): shortest forms only, no surrogates, nothing above U+10FFFF.

#include <cstddef>
#include <cstdint>
#include <string_view>

// The length (1 to 4) of the well-formed UTF-8 sequence at text[at], its code point in
// *codePoint; 0 when none starts there.
size_t LDDecodeUTF8(std::string_view text, size_t at, uint32_t* codePoint);

// Whether the whole of text is well-formed UTF-8.
bool LDIsWellFormedUTF8(std::string_view text);
