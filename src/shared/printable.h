#pragma once

// Text that carries data from outside (certificate names, manifest fields, file paths) on its
// way into a message or a line of output. A name that holds LF, ESC or a bidirectional override
// must not be able to start a line of its own or rewrite what the reader sees.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// The length (1 to 4) of the well-formed UTF-8 sequence at text[at], its code point in
// *codePoint; 0 when none starts there (shortest forms only, no surrogates, nothing above
// U+10FFFF).
size_t LDDecodeUTF8(std::string_view text, size_t at, uint32_t* codePoint);

// text with every byte that is not part of well-formed UTF-8, every C0 and C1 control, DEL,
// and every line separator and bidirectional control written as \xNN or \u{NNNN}. Printable
// text comes back unchanged, so escaping twice changes nothing.
std::string LDPrintable(std::string_view text);
