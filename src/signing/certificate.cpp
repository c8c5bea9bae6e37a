#include "signing/certificate.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "shared/printable.h"

namespace {

constexpr uint8_t kOrganizationalUnit[] = {0x55, 0x04, 0x0b};
constexpr uint8_t kBasicConstraints[] = {0x55, 0x1d, 0x13};
constexpr uint8_t kKeyUsage[] = {0x55, 0x1d, 0x0f};
constexpr uint8_t kExtendedKeyUsage[] = {0x55, 0x1d, 0x25};
constexpr uint8_t kSubjectKeyIdentifier[] = {0x55, 0x1d, 0x0e};
constexpr uint8_t kAuthorityKeyIdentifier[] = {0x55, 0x1d, 0x23};
constexpr uint8_t kNameConstraints[] = {0x55, 0x1d, 0x1e};
constexpr uint8_t kCodeSigning[] = {0x2b, 0x06, 0x01, 0x05, 0x05, 0x07, 0x03, 0x03};

// Far above what any real certificate carries (about ten of each), and low enough that nothing
// an attacker sends before a signature is checked costs more than a few milliseconds.
constexpr size_t kMaximumExtensions = 256;
constexpr size_t kMaximumAttributes = 128;

bool isPrintableStringCharacter(uint8_t c) {
  static constexpr std::string_view kPunctuation = " '()+,-./:=?";
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
         kPunctuation.find(static_cast<char>(c)) != std::string_view::npos;
}

// A string value of a Name, in the character set of its type (X.680 41, RFC 5280 4.1.2.4).
bool isWellFormedString(const LDDerElement& value) {
  const LDBytes text = value.contents;
  switch (value.tag) {
    case LDDerUTF8String:
      return LDIsUTF8(text);
    case LDDerPrintableString:
      return std::all_of(text.begin(), text.end(), isPrintableStringCharacter);
    case LDDerIA5String:
      return std::all_of(text.begin(), text.end(), [](uint8_t c) { return c < 0x80; });
    default:
      return false;
  }
}

// Calls visit(type, value, rdn) for every attribute of a Name, rdn counting its relative
// distinguished names from 0; false if it is malformed, has more than kMaximumAttributes, or
// holds anything but UTF8String, PrintableString or IA5String values within their character sets.
template <class Visit>
bool forEachAttribute(LDBytes name, Visit visit) {
  const std::optional<LDDerElement> sequence = LDDerReadOnly(name, LDDerSequence);
  if (!sequence) return false;
  LDDerReader names(sequence->contents);
  size_t attributes = 0;
  for (size_t rdn = 0; !names.atEnd(); ++rdn) {
    std::optional<LDDerReader> set = names.enter(LDDerSet);
    if (!set || set->atEnd()) return false;
    while (!set->atEnd()) {
      std::optional<LDDerReader> attribute = set->enter(LDDerSequence);
      if (!attribute || ++attributes > kMaximumAttributes) return false;
      const std::optional<LDDerElement> type = attribute->read(LDDerObjectIdentifier);
      const std::optional<LDDerElement> value = attribute->readAny();
      if (!type || !value || !attribute->atEnd() || !isWellFormedString(*value)) return false;
      visit(type->contents, *value, rdn);
    }
  }
  return true;
}

bool isWellFormedName(LDBytes name) {
  return forEachAttribute(name, [](LDBytes, const LDDerElement&, size_t) {});
}

// A string value as OpenSSL's asn1_string_canon makes it: ASCII white space cut at both ends
// and each inner run of it one space, ASCII letters in lower case, other octets as they are.
std::string canonicalValue(LDBytes value) {
  const auto isSpace = [](uint8_t c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
  size_t begin = 0, end = value.size();
  while (begin < end && isSpace(value[begin])) ++begin;
  while (end > begin && isSpace(value[end - 1])) --end;
  std::string out;
  for (size_t at = begin; at < end; ++at) {
    const uint8_t c = value[at];
    if (isSpace(c)) {
      if (!isSpace(value[at - 1])) out.push_back(' ');
    } else {
      out.push_back(static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c));
    }
  }
  return out;
}

// A Name's relative distinguished names in a form compared byte for byte: each attribute as its
// type and canonical value, each length-prefixed, in ascending order within its RDN (as DER
// sorts the SET that OpenSSL encodes); nothing when the Name is malformed.
std::optional<std::vector<std::string>> canonicalName(LDBytes name) {
  std::vector<std::vector<std::string>> rdns;
  const auto prefixed = [](std::string_view text) { return std::to_string(text.size()) + ":" + std::string(text); };
  const bool wellFormed = forEachAttribute(name, [&](LDBytes type, const LDDerElement& value, size_t rdn) {
    if (rdn == rdns.size()) rdns.emplace_back();
    const std::string_view oid(reinterpret_cast<const char*>(type.data()), type.size());
    rdns.back().push_back(prefixed(oid) + prefixed(canonicalValue(value.contents)));
  });
  if (!wellFormed) return std::nullopt;
  std::vector<std::string> canonical;
  for (std::vector<std::string>& entries : rdns) {
    std::sort(entries.begin(), entries.end());
    std::string joined;
    for (const std::string& entry : entries) joined += entry;
    canonical.push_back(std::move(joined));
  }
  return canonical;
}

bool parseBasicConstraints(LDBytes value, LDCertificate& certificate) {
  const std::optional<LDDerElement> sequence = LDDerReadOnly(value, LDDerSequence);
  if (!sequence) return false;
  LDDerReader fields(sequence->contents);
  if (const std::optional<LDDerElement> authority = fields.read(LDDerBoolean)) {
    // DER omits a FALSE default, so an explicit cA is TRUE (0xff).
    if (authority->contents.size() != 1 || authority->contents[0] != 0xff) return false;
    certificate.isAuthority = true;
  }
  if (const std::optional<LDDerElement> length = fields.read(LDDerInteger)) {
    certificate.pathLength = LDDerSmallInteger(*length);
    if (!certificate.pathLength || !certificate.isAuthority) return false;
  }
  return fields.atEnd();
}

// A named bit list in DER (X.690 11.2): no trailing zero bits, so the last octet is not zero and
// the unused bits are exactly its trailing zeros, none of them set. OpenSSL reads 03 02 07 84 as
// digitalSignature alone; a reader that took the set padding bit as keyCertSign would differ.
bool parseKeyUsage(LDBytes value, LDCertificate& certificate) {
  const std::optional<LDDerElement> bits = LDDerReadOnly(value, LDDerBitString);
  if (!bits || bits->contents.size() < 2 || bits->contents.size() > 3 || bits->contents[0] > 7) {
    return false;
  }
  const uint8_t last = bits->contents.back();
  const unsigned unused = bits->contents[0];
  if (last == 0 || (last & ((1u << unused) - 1)) != 0 || !(last & (1u << unused))) return false;
  uint16_t usage = 0;
  for (size_t i = 1; i < bits->contents.size(); ++i) {
    for (int bit = 0; bit < 8; ++bit) {
      if (bits->contents[i] & (0x80 >> bit)) usage = static_cast<uint16_t>(usage | 1u << ((i - 1) * 8 + static_cast<size_t>(bit)));
    }
  }
  certificate.keyUsage = usage;
  return true;
}

bool parseExtendedKeyUsage(LDBytes value, LDCertificate& certificate) {
  std::optional<LDDerElement> sequence = LDDerReadOnly(value, LDDerSequence);
  if (!sequence) return false;
  LDDerReader purposes(sequence->contents);
  if (purposes.atEnd()) return false;
  while (!purposes.atEnd()) {
    const std::optional<LDDerElement> purpose = purposes.read(LDDerObjectIdentifier);
    if (!purpose) return false;
    if (LDDerEqual(purpose->contents, LDDerLiteral(kCodeSigning))) certificate.codeSigning = true;
  }
  certificate.hasExtendedKeyUsage = true;
  return true;
}

bool parseAuthorityKeyIdentifier(LDBytes value, LDCertificate& certificate) {
  std::optional<LDDerElement> sequence = LDDerReadOnly(value, LDDerSequence);
  if (!sequence) return false;
  LDDerReader fields(sequence->contents);
  if (const std::optional<LDDerElement> keyIdentifier = fields.read(LDDerContextPrimitive(0))) {
    certificate.authorityKeyIdentifier = keyIdentifier->contents;
  }
  // authorityCertIssuer [1] GeneralNames and authorityCertSerialNumber [2] come together
  // (RFC 5280 4.2.1.1). Of the names only directoryName [4] (an explicitly tagged Name) can
  // identify a certificate's issuer; the others are read past, and only the first directory name
  // counts, as in OpenSSL's X509_check_akid.
  std::optional<LDDerReader> names = fields.enter(LDDerContextConstructed(1));
  const std::optional<LDDerElement> serial = fields.read(LDDerContextPrimitive(2));
  if (names.has_value() != serial.has_value() || !fields.atEnd()) return false;
  if (!names) return true;
  if (names->atEnd()) return false;
  while (!names->atEnd()) {
    const std::optional<LDDerElement> name = names->readAny();
    if (!name) return false;
    if (name->tag != LDDerContextConstructed(4)) continue;
    const std::optional<LDDerElement> directoryName = LDDerReadOnly(name->contents, LDDerSequence);
    if (!directoryName || !isWellFormedName(directoryName->encoding)) return false;
    if (!certificate.authorityIssuer) certificate.authorityIssuer = directoryName->encoding;
  }
  // An implicitly tagged CertificateSerialNumber: the rules of a serial number, below.
  if (!LDDerUnsignedInteger(LDDerElement{LDDerInteger, serial->contents, serial->encoding})) return false;
  certificate.authoritySerialNumber = serial->contents;
  return true;
}

// NameConstraints (RFC 5280 4.2.1.10): permitted [0] and excluded [1] subtrees. A directory
// name is kept; any other form of name, and a minimum or maximum (which OpenSSL refuses as well),
// marks the constraints as not understood, so that the chain is refused rather than the
// constraint ignored.
bool parseNameConstraints(LDBytes value, LDCertificate& certificate) {
  const std::optional<LDDerElement> sequence = LDDerReadOnly(value, LDDerSequence);
  if (!sequence || sequence->contents.empty()) return false;
  LDDerReader fields(sequence->contents);
  for (uint8_t number = 0; number < 2; ++number) {
    std::optional<LDDerReader> subtrees = fields.enter(LDDerContextConstructed(number));
    if (!subtrees) continue;
    if (subtrees->atEnd()) return false;
    while (!subtrees->atEnd()) {
      std::optional<LDDerReader> subtree = subtrees->enter(LDDerSequence);
      const std::optional<LDDerElement> base = subtree ? subtree->readAny() : std::nullopt;
      if (!base) return false;
      if (base->tag != LDDerContextConstructed(4) || !subtree->atEnd()) {
        certificate.nameConstraintsNotUnderstood = true;
        continue;
      }
      const std::optional<LDDerElement> name = LDDerReadOnly(base->contents, LDDerSequence);
      if (!name || !isWellFormedName(name->encoding)) return false;
      (number == 0 ? certificate.permittedNames : certificate.excludedNames).push_back(name->encoding);
    }
  }
  return fields.atEnd();
}

// Whether an object identifier occurs twice, in n log n: a certificate may carry up to
// kMaximumExtensions, and comparing every pair would cost their square.
bool hasDuplicate(std::vector<LDBytes> types) {
  const auto less = [](LDBytes a, LDBytes b) { return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end()); };
  std::sort(types.begin(), types.end(), less);
  return std::adjacent_find(types.begin(), types.end(), LDDerEqual) != types.end();
}

bool parseExtensions(LDDerReader extensions, LDCertificate& certificate) {
  std::vector<LDBytes> seen;
  if (extensions.atEnd()) return false;
  while (!extensions.atEnd()) {
    std::optional<LDDerReader> extension = extensions.enter(LDDerSequence);
    if (!extension) return false;
    const std::optional<LDDerElement> oid = extension->read(LDDerObjectIdentifier);
    if (!oid) return false;
    bool critical = false;
    if (const std::optional<LDDerElement> flag = extension->read(LDDerBoolean)) {
      if (flag->contents.size() != 1 || flag->contents[0] != 0xff) return false;
      critical = true;
    }
    const std::optional<LDDerElement> value = extension->read(LDDerOctetString);
    if (!value || !extension->atEnd() || seen.size() == kMaximumExtensions) return false;
    seen.push_back(oid->contents);
    const LDBytes type = oid->contents;
    bool understood = true;
    if (LDDerEqual(type, LDDerLiteral(kBasicConstraints))) {
      understood = parseBasicConstraints(value->contents, certificate);
    } else if (LDDerEqual(type, LDDerLiteral(kKeyUsage))) {
      understood = parseKeyUsage(value->contents, certificate);
    } else if (LDDerEqual(type, LDDerLiteral(kExtendedKeyUsage))) {
      understood = parseExtendedKeyUsage(value->contents, certificate);
    } else if (LDDerEqual(type, LDDerLiteral(kSubjectKeyIdentifier))) {
      const std::optional<LDDerElement> identifier = LDDerReadOnly(value->contents, LDDerOctetString);
      if (identifier) certificate.subjectKeyIdentifier = identifier->contents;
      understood = identifier.has_value();
    } else if (LDDerEqual(type, LDDerLiteral(kAuthorityKeyIdentifier))) {
      understood = parseAuthorityKeyIdentifier(value->contents, certificate);
    } else if (LDDerEqual(type, LDDerLiteral(kNameConstraints))) {
      // Honoured critical or not, as OpenSSL honours it.
      understood = parseNameConstraints(value->contents, certificate);
    } else {
      // Another extension is ignored, unless it says that it must not be.
      if (critical) certificate.unknownCriticalExtension = true;
      continue;
    }
    if (!understood) return false;
  }
  return !hasDuplicate(std::move(seen));  // RFC 5280: at most once each
}

// version [0] EXPLICIT INTEGER 2 (v3), consumed from fields.
bool readVersion3(LDDerReader& fields) {
  std::optional<LDDerReader> version = fields.enter(LDDerContextConstructed(0));
  const std::optional<LDDerElement> versionNumber = version ? version->read(LDDerInteger) : std::nullopt;
  return versionNumber && version->atEnd() && LDDerSmallInteger(*versionNumber) == 2;
}

// notBefore and notAfter, each a UTCTime or GeneralizedTime. Validity is read, never judged:
// expiry does not end the trust in code signed before it.
bool isWellFormedValidity(LDDerReader validity) {
  for (int i = 0; i < 2; ++i) {
    const std::optional<uint8_t> tag = validity.peekTag();
    if ((tag != LDDerUTCTime && tag != LDDerGeneralizedTime) || !validity.readAny()) return false;
  }
  return validity.atEnd();
}

}  // namespace

std::optional<LDCertificate> LDParseCertificate(LDBytes encoding) {
  LDCertificate certificate;
  const std::optional<LDDerElement> outer = LDDerReadOnly(encoding, LDDerSequence);
  if (!outer) return std::nullopt;
  certificate.encoding = encoding;
  LDDerReader parts(outer->contents);
  const std::optional<LDDerElement> tbs = parts.read(LDDerSequence);
  const std::optional<LDDerElement> outerAlgorithm = parts.read(LDDerSequence);
  const std::optional<LDDerElement> signature = parts.read(LDDerBitString);
  if (!tbs || !outerAlgorithm || !signature || !parts.atEnd()) return std::nullopt;
  certificate.toBeSigned = tbs->encoding;
  const std::optional<LDBytes> signatureBits = LDDerOctetAlignedBits(*signature);
  const std::optional<LDSignatureAlgorithm> algorithm = LDParseSignatureAlgorithm(*outerAlgorithm, false);
  if (!signatureBits || !algorithm) return std::nullopt;
  certificate.signature = *signatureBits;
  certificate.signatureAlgorithm = *algorithm;

  LDDerReader fields(tbs->contents);
  if (!readVersion3(fields)) return std::nullopt;
  const std::optional<LDDerElement> serial = fields.read(LDDerInteger);
  const std::optional<LDDerElement> innerAlgorithm = fields.read(LDDerSequence);
  const std::optional<LDDerElement> issuer = fields.read(LDDerSequence);
  std::optional<LDDerReader> validity = fields.enter(LDDerSequence);
  const std::optional<LDDerElement> subject = fields.read(LDDerSequence);
  const std::optional<LDDerElement> publicKey = fields.read(LDDerSequence);
  // A positive serial of at most 20 octets (RFC 5280 4.1.2.2), in the fewest octets.
  const std::optional<LDBytes> serialMagnitude = serial ? LDDerUnsignedInteger(*serial) : std::nullopt;
  if (!serialMagnitude || serialMagnitude->size() > 20 || !innerAlgorithm ||
      !issuer || !validity || !subject || !publicKey) {
    return std::nullopt;
  }
  // The algorithm inside what is signed must be the one outside (RFC 5280, 4.1.1.2).
  if (!LDDerEqual(innerAlgorithm->encoding, outerAlgorithm->encoding)) return std::nullopt;
  if (!isWellFormedValidity(*validity)) return std::nullopt;
  if (!isWellFormedName(issuer->encoding) || !isWellFormedName(subject->encoding)) return std::nullopt;
  certificate.serialNumber = serial->contents;
  certificate.issuer = issuer->encoding;
  certificate.subject = subject->encoding;
  const std::optional<LDPublicKey> key = LDParsePublicKey(*publicKey);
  if (!key) return std::nullopt;
  certificate.key = *key;
  // Unique identifiers ([1], [2]) are not part of the profile.
  std::optional<LDDerReader> extensionsWrapper = fields.enter(LDDerContextConstructed(3));
  if (!extensionsWrapper || !fields.atEnd()) return std::nullopt;
  std::optional<LDDerReader> extensions = extensionsWrapper->enter(LDDerSequence);
  if (!extensions || !extensionsWrapper->atEnd() || !parseExtensions(*extensions, certificate)) {
    return std::nullopt;
  }
  return certificate;
}

std::optional<std::string> LDSingleOrganizationalUnit(const LDCertificate& certificate) {
  int count = 0;
  std::string text;
  const bool wellFormed = forEachAttribute(certificate.subject, [&](LDBytes type, const LDDerElement& value, size_t) {
    if (!LDDerEqual(type, LDDerLiteral(kOrganizationalUnit))) return;
    ++count;
    text.assign(value.contents.begin(), value.contents.end());
  });
  if (!wellFormed || count != 1) return std::nullopt;
  return text;
}

std::string LDNameText(LDBytes name) {
  static constexpr struct {
    uint8_t last;
    const char* label;
  } kLabels[] = {{0x03, "CN"}, {0x06, "C"}, {0x07, "L"}, {0x08, "ST"}, {0x0a, "O"}, {0x0b, "OU"}};
  std::vector<std::string> parts;
  forEachAttribute(name, [&](LDBytes type, const LDDerElement& value, size_t) {
    std::string label = "?";
    if (type.size() == 3 && type[0] == 0x55 && type[1] == 0x04) {
      for (const auto& known : kLabels) {
        if (known.last == type[2]) label = known.label;
      }
    }
    const std::string_view raw(reinterpret_cast<const char*>(value.contents.data()), value.contents.size());
    parts.push_back(label + "=" + LDPrintable(raw));
  });
  // RFC 4514 lists the most significant attribute last.
  std::string text;
  for (auto part = parts.rbegin(); part != parts.rend(); ++part) text += (text.empty() ? "" : ",") + *part;
  return text;
}

bool LDNamesMatch(LDBytes a, LDBytes b) {
  const std::optional<std::vector<std::string>> first = canonicalName(a), second = canonicalName(b);
  return first && second && *first == *second;
}

bool LDNameIsWithin(LDBytes name, LDBytes base) {
  const std::optional<std::vector<std::string>> whole = canonicalName(name), prefix = canonicalName(base);
  return whole && prefix && prefix->size() <= whole->size() && std::equal(prefix->begin(), prefix->end(), whole->begin());
}

bool LDCertificateIsSignedBy(const LDCertificate& certificate, const LDCertificate& issuer) {
  const LDSignatureAlgorithm& algorithm = certificate.signatureAlgorithm;
  const LDDigest digest = LDDigestOf(*algorithm.digest, certificate.toBeSigned);
  return LDVerifySignature(issuer.key, algorithm.kind, digest, certificate.signature);
}
