#include "signing/der.h"

#include <algorithm>
#include <string_view>

#include "shared/utf8.h"

namespace {

// Base-128 subidentifiers, each in its shortest form, the last one complete.
bool isObjectIdentifier(LDBytes contents) {
  if (contents.empty() || (contents.back() & 0x80)) return false;
  bool startOfSubidentifier = true;
  for (const uint8_t octet : contents) {
    if (startOfSubidentifier && octet == 0x80) return false;
    startOfSubidentifier = !(octet & 0x80);
  }
  return true;
}

// Two's complement in the fewest octets (X.690 8.3.2): the first nine bits are never all equal.
bool isMinimalInteger(LDBytes contents) {
  if (contents.empty()) return false;
  if (contents.size() == 1) return true;
  return !(contents[0] == 0x00 && !(contents[1] & 0x80)) && !(contents[0] == 0xff && (contents[1] & 0x80));
}

}  // namespace

std::optional<uint8_t> LDDerReader::peekTag() const {
  if (_rest.empty()) return std::nullopt;
  return _rest[0];
}

std::optional<LDDerElement> LDDerReader::readAny() {
  if (_rest.size() < 2) return std::nullopt;
  const uint8_t tag = _rest[0];
  // High tag numbers (0x1f) never occur in the structures read here.
  if ((tag & 0x1f) == 0x1f) return std::nullopt;
  size_t length = _rest[1];
  size_t header = 2;
  if (length & 0x80) {
    // Indefinite (0x80) is BER, not DER; more than three length octets is more than 16 MiB.
    const size_t octets = length & 0x7f;
    if (octets == 0 || octets > 3 || _rest.size() < 2 + octets) return std::nullopt;
    length = 0;
    for (size_t i = 0; i < octets; ++i) length = length << 8 | _rest[2 + i];
    // The shortest form only: no leading zero octet, and no long form below 128.
    if (_rest[2] == 0 || length < 0x80) return std::nullopt;
    header += octets;
  }
  if (_rest.size() - header < length) return std::nullopt;
  LDDerElement element{tag, _rest.subspan(header, length), _rest.first(header + length)};
  if (tag == LDDerObjectIdentifier && !isObjectIdentifier(element.contents)) return std::nullopt;
  _rest = _rest.subspan(header + length);
  return element;
}

std::optional<LDDerElement> LDDerReader::read(uint8_t tag) {
  if (peekTag() != tag) return std::nullopt;
  return readAny();
}

std::optional<LDDerReader> LDDerReader::enter(uint8_t tag) {
  const std::optional<LDDerElement> element = read(tag);
  if (!element) return std::nullopt;
  return LDDerReader(element->contents);
}

std::optional<LDDerElement> LDDerReadOnly(LDBytes bytes, uint8_t tag) {
  LDDerReader reader(bytes);
  std::optional<LDDerElement> element = reader.read(tag);
  if (!element || !reader.atEnd()) return std::nullopt;
  return element;
}

std::optional<LDBytes> LDDerUnsignedInteger(const LDDerElement& integer) {
  LDBytes value = integer.contents;
  if (integer.tag != LDDerInteger || !isMinimalInteger(value) || (value[0] & 0x80)) return std::nullopt;
  return value.size() > 1 && value[0] == 0 ? value.subspan(1) : value;
}

std::optional<int32_t> LDDerSmallInteger(const LDDerElement& integer) {
  const std::optional<LDBytes> value = LDDerUnsignedInteger(integer);
  if (!value || value->size() > 4 || (value->size() == 4 && (*value)[0] & 0x80)) return std::nullopt;
  int32_t result = 0;
  for (const uint8_t octet : *value) result = result << 8 | octet;
  return result;
}

std::optional<LDBytes> LDDerOctetAlignedBits(const LDDerElement& bitString) {
  if (bitString.tag != LDDerBitString || bitString.contents.empty() || bitString.contents[0] != 0) {
    return std::nullopt;
  }
  return bitString.contents.subspan(1);
}

bool LDDerEqual(LDBytes a, LDBytes b) { return std::equal(a.begin(), a.end(), b.begin(), b.end()); }

bool LDIsUTF8(LDBytes text) {
  return LDIsWellFormedUTF8(std::string_view(reinterpret_cast<const char*>(text.data()), text.size()));
}
