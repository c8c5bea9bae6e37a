#pragma once

// Lower-case hexadecimal: the one spelling of digests, tokens and escaped bytes.

#include <cstddef>
#include <cstdint>
#include <string>

// Two digits per byte, most significant nibble first.
std::string LDHex(const uint8_t* bytes, size_t length);

// The low digits nibbles of value, most significant first, appended to out.
void LDAppendHex(std::string& out, uint32_t value, int digits);
