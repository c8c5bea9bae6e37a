#pragma once

// Text that carries data from outside (certificate names, manifest fields, file paths) on its
// way into a message or a line of output. A name that holds LF, ESC, a bidirectional override
// or a character that shows nothing must not be able to start a line of its own, rewrite what
// the reader sees, or look like another name.

#include <cstdint>
#include <string>
#include <string_view>

#include "shared/utf8.h"

// Untrusted text with every byte that is not part of well-formed UTF-8 written as \xNN, every
// invisible code point as \xNN (below U+0080) or \u{NNNN}, and every backslash as \x5c, so that
// each escape in the result was made here and none was spelled by the text.
std::string LDPrintable(std::string_view text);

// A message whose untrusted parts went through LDPrintable already: the same escapes, but
// backslashes are kept, so the message stays one visible line whatever a part left unescaped
// and escaping it again changes nothing.
std::string LDPrintableMessage(std::string_view text);
