#pragma once

// A reader for DER, the distinguished encoding only: single-byte tags, definite lengths in their
// shortest form, and nothing after the last element. It never allocates and never reads outside
// the bytes it is given; object identifiers are checked as they are read, INTEGERs (in their
// fewest octets) when their value is taken (LDDerUnsignedInteger, which also serves INTEGERs
// under an implicit tag); every accessor reports a violation as "nothing" rather than guessing.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

using LDBytes = std::span<const uint8_t>;


enum LDDerTag : uint8_t {
  LDDerBoolean = 0x01,
  LDDerInteger = 0x02,
  LDDerBitString = 0x03,
  LDDerOctetString = 0x04,
  LDDerNull = 0x05,
  LDDerObjectIdentifier = 0x06,
  LDDerUTF8String = 0x0c,
  LDDerPrintableString = 0x13,
  LDDerIA5String = 0x16,
  LDDerUTCTime = 0x17,
  LDDerGeneralizedTime = 0x18,
  LDDerSequence = 0x30,
  LDDerSet = 0x31,
};

// [n] with constructed contents (explicit tagging, or implicit tagging of a SEQUENCE or SET).
constexpr uint8_t LDDerContextConstructed(uint8_t number) { return static_cast<uint8_t>(0xa0 | number); }
// [n] with primitive contents.
constexpr uint8_t LDDerContextPrimitive(uint8_t number) { return static_cast<uint8_t>(0x80 | number); }

struct LDDerElement {
  uint8_t tag = 0;
  LDBytes contents;  // the value octets
  LDBytes encoding;  // tag, length and contents
};

class LDDerReader {
 public:
  explicit LDDerReader(LDBytes bytes) : _rest(bytes) {}

  bool atEnd() const { return _rest.empty(); }

  // The tag of the next element, without consuming it; nothing at the end.
  std::optional<uint8_t> peekTag() const;

  // Consumes the next element if it is well-formed and carries this tag.
  std::optional<LDDerElement> read(uint8_t tag);

  // Consumes the next element whatever its tag, if it is well-formed.
  std::optional<LDDerElement> readAny();

  // The contents of the next element if it has this tag, as a reader of its own.
  std::optional<LDDerReader> enter(uint8_t tag);

 private:
  LDBytes _rest;
};

// The whole of bytes is exactly one element with this tag.
std::optional<LDDerElement> LDDerReadOnly(LDBytes bytes, uint8_t tag);

// The magnitude of a non-negative INTEGER in its minimal encoding, without the 0x00 that keeps
// it positive; nothing for a negative or non-minimal INTEGER.
std::optional<LDBytes> LDDerUnsignedInteger(const LDDerElement& integer);

// A small non-negative INTEGER (at most 2^31 - 1).
std::optional<int32_t> LDDerSmallInteger(const LDDerElement& integer);

// The bits of a BIT STRING that has no unused bits (keys and signatures).
std::optional<LDBytes> LDDerOctetAlignedBits(const LDDerElement& bitString);

bool LDDerEqual(LDBytes a, LDBytes b);

// Well-formed UTF-8: shortest forms, no surrogates, nothing above U+10FFFF.
bool LDIsUTF8(LDBytes text);

template <size_t N>
constexpr LDBytes LDDerLiteral(const uint8_t (&bytes)[N]) {
  return LDBytes(bytes, N);
}
