#include "signing/trust_anchors.h"

#include <cstdint>

namespace {

constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view kEnd = "-----END CERTIFICATE-----";

int base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

// Base64 with line breaks, as PEM writes it; false on any other character or a bad end.
bool decodeBase64(std::string_view text, std::string& out) {
  uint32_t bits = 0;
  int count = 0, padding = 0;
  for (const char c : text) {
    if (c == '\n' || c == '\r' || c == ' ' || c == '\t') continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    const int value = base64Value(c);
    if (value < 0 || padding > 0) return false;
    bits = bits << 6 | static_cast<uint32_t>(value);
    if (++count == 4) {
      out.push_back(static_cast<char>(bits >> 16));
      out.push_back(static_cast<char>(bits >> 8));
      out.push_back(static_cast<char>(bits));
      bits = 0;
      count = 0;
    }
  }
  if (count == 2 && padding == 2) {
    out.push_back(static_cast<char>(bits >> 4));
  } else if (count == 3 && padding == 1) {
    out.push_back(static_cast<char>(bits >> 10));
    out.push_back(static_cast<char>(bits >> 2));
  } else if (count != 0 || padding != 0) {
    return false;
  }
  return true;
}

}  // namespace

const LDTrustAnchors& LDTrustAnchors::compiledIn() {
  static const LDTrustAnchors* const anchors = new LDTrustAnchors(fromPEM(LDCompiledInAnchorsPEM));
  return *anchors;
}

LDTrustAnchors& LDTrustAnchors::operator=(const LDTrustAnchors& other) {
  if (this != &other) {
    _der = other._der;
    reparse();
  }
  return *this;
}

void LDTrustAnchors::reparse() {
  _certificates.clear();
  LDDerReader reader(LDBytes(reinterpret_cast<const uint8_t*>(_der.data()), _der.size()));
  while (const std::optional<LDDerElement> element = reader.readAny()) {
    _certificates.push_back(*LDParseCertificate(element->encoding));
  }
}

LDTrustAnchors LDTrustAnchors::fromPEM(std::string_view pem, std::string* error) {
  LDTrustAnchors anchors;
  size_t start = 0;
  while ((start = pem.find(kBegin, start)) != std::string_view::npos) {
    const size_t body = start + kBegin.size();
    const size_t end = pem.find(kEnd, body);
    std::string der;
    if (end == std::string_view::npos || !decodeBase64(pem.substr(body, end - body), der) ||
        !LDParseCertificate(LDBytes(reinterpret_cast<const uint8_t*>(der.data()), der.size()))) {
      if (error) *error = "an anchor certificate is unreadable or outside the signing profile";
      return LDTrustAnchors();
    }
    anchors._der += der;
    start = end + kEnd.size();
  }
  anchors.reparse();
  if (anchors.isEmpty() && error) *error = "no certificate in the anchor PEM";
  return anchors;
}
