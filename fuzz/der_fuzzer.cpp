// The DER reader on its own: every element it accepts is walked to the bottom, must be in the
// shortest encoding, and certificates, keys and anchors are parsed from the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "signing/certificate.h"
#include "signing/trust_anchors.h"

namespace {

// The header DER gives (tag, length): one length octet below 128, else the fewest octets.
size_t headerSize(size_t length) {
  size_t octets = 0;
  for (size_t rest = length; rest > 0; rest >>= 8) ++octets;
  return length < 0x80 ? 2 : 2 + octets;
}

void walk(LDDerReader reader, int depth) {
  while (std::optional<LDDerElement> element = reader.readAny()) {
    if (element->encoding.size() != headerSize(element->contents.size()) + element->contents.size()) std::abort();
    if ((element->tag & 0x20) && depth < 32) walk(LDDerReader(element->contents), depth + 1);
    (void)LDDerUnsignedInteger(*element);
    (void)LDDerSmallInteger(*element);
    (void)LDDerOctetAlignedBits(*element);
    (void)LDParsePublicKey(*element);
    (void)LDParseDigestAlgorithm(*element);
    (void)LDParseSignatureAlgorithm(*element, true);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const LDBytes bytes(data, size);
  walk(LDDerReader(bytes), 0);
  if (const std::optional<LDCertificate> certificate = LDParseCertificate(bytes)) {
    (void)LDSingleOrganizationalUnit(*certificate);
    (void)LDNameText(certificate->subject);
    (void)LDCertificateIsSignedBy(*certificate, *certificate);
  }
  (void)LDIsUTF8(bytes);
  (void)LDTrustAnchors::fromPEM(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}
