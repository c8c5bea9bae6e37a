// The CMS SignedData of an appended signature, read for exactly the profile that ld-codesign
// writes (docs/code-signing.md), and the evaluation of its certificate chain.

#include "signing/code_signature.h"

#include <algorithm>

#include "shared/printable.h"

namespace {

constexpr uint8_t kSignedData[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x02};
constexpr uint8_t kData[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x01};
constexpr uint8_t kContentType[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x09, 0x03};
constexpr uint8_t kMessageDigest[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x09, 0x04};
constexpr uint8_t kSigningTime[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x09, 0x05};

// More certificates than a leaf, a few intermediates and a root is not a signature of ours.
constexpr size_t kMaximumCertificates = 8;
constexpr int kMaximumIntermediates = 6;

LDSignatureContents refuse(LDSignatureContents&& contents, int32_t status, std::string detail,
                           bool outsideProfile = false) {
  contents.status = status;
  contents.detail = std::move(detail);
  contents.outsideProfile = outsideProfile;
  return std::move(contents);
}

// What the SignerInfo says, beyond the signer's certificate.
struct Signer {
  LDDigestKind digest = LDDigestKind::sha256;
  LDBytes signedAttributes;  // the [0] element as encoded
  LDBytes messageDigest;
  LDSignatureAlgorithm algorithm{LDSignatureKind::ecdsa, LDDigestKind::sha256};
  LDBytes signature;
};

// The elements of a SET OF in DER order (ascending encodings, X.690 11.6); false otherwise.
bool isSortedSet(LDDerReader elements) {
  LDBytes previous;
  while (!elements.atEnd()) {
    const std::optional<LDDerElement> element = elements.readAny();
    if (!element) return false;
    if (!previous.empty() &&
        std::lexicographical_compare(element->encoding.begin(), element->encoding.end(),
                                     previous.begin(), previous.end())) {
      return false;
    }
    previous = element->encoding;
  }
  return true;
}

// contentType = id-data and messageDigest, once each, and optionally signingTime; nothing else.
bool parseSignedAttributes(LDBytes contents, Signer& signer) {
  if (!isSortedSet(LDDerReader(contents))) return false;
  LDDerReader attributes(contents);
  bool contentType = false, signingTime = false;
  while (!attributes.atEnd()) {
    std::optional<LDDerReader> attribute = attributes.enter(LDDerSequence);
    const std::optional<LDDerElement> type = attribute ? attribute->read(LDDerObjectIdentifier) : std::nullopt;
    std::optional<LDDerReader> values = type ? attribute->enter(LDDerSet) : std::nullopt;
    if (!values || !attribute->atEnd()) return false;
    const std::optional<LDDerElement> value = values->readAny();
    if (!value || !values->atEnd()) return false;
    if (LDDerEqual(type->contents, LDDerLiteral(kContentType)) && !contentType) {
      if (value->tag != LDDerObjectIdentifier || !LDDerEqual(value->contents, LDDerLiteral(kData))) return false;
      contentType = true;
    } else if (LDDerEqual(type->contents, LDDerLiteral(kMessageDigest)) && signer.messageDigest.empty()) {
      if (value->tag != LDDerOctetString || value->contents.empty()) return false;
      signer.messageDigest = value->contents;
    } else if (LDDerEqual(type->contents, LDDerLiteral(kSigningTime)) && !signingTime) {
      if (value->tag != LDDerUTCTime && value->tag != LDDerGeneralizedTime) return false;
      signingTime = true;
    } else {
      return false;
    }
  }
  return contentType && !signer.messageDigest.empty();
}

// SignerInfo v1: issuerAndSerialNumber, digest, signed attributes, signature; no unsigned ones.
bool parseSignerInfo(LDDerReader fields, LDBytes& issuer, LDBytes& serial, Signer& signer) {
  const std::optional<LDDerElement> version = fields.read(LDDerInteger);
  std::optional<LDDerReader> identifier = fields.enter(LDDerSequence);
  if (!version || LDDerSmallInteger(*version) != 1 || !identifier) return false;
  const std::optional<LDDerElement> issuerName = identifier->read(LDDerSequence);
  const std::optional<LDDerElement> serialNumber = identifier->read(LDDerInteger);
  if (!issuerName || !serialNumber || !identifier->atEnd()) return false;
  issuer = issuerName->encoding;
  serial = serialNumber->contents;
  const std::optional<LDDerElement> digestAlgorithm = fields.read(LDDerSequence);
  const std::optional<LDDerElement> attributes = fields.read(LDDerContextConstructed(0));
  const std::optional<LDDerElement> signatureAlgorithm = fields.read(LDDerSequence);
  const std::optional<LDDerElement> signature = fields.read(LDDerOctetString);
  if (!digestAlgorithm || !attributes || !signatureAlgorithm || !signature || !fields.atEnd()) return false;
  const std::optional<LDDigestKind> digest = LDParseDigestAlgorithm(*digestAlgorithm);
  const std::optional<LDSignatureAlgorithm> algorithm = LDParseSignatureAlgorithm(*signatureAlgorithm, true);
  // A signature algorithm that names a digest names the signer's digest, no other.
  if (!digest || !algorithm || (algorithm->digest && algorithm->digest != digest)) return false;
  signer.digest = *digest;
  signer.algorithm = *algorithm;
  signer.signedAttributes = attributes->encoding;
  signer.signature = signature->contents;
  return parseSignedAttributes(attributes->contents, signer);
}

// ContentInfo { signedData, [0] SignedData }: the SignedData's fields, or nothing.
std::optional<LDDerReader> enterSignedData(LDBytes blob) {
  const std::optional<LDDerElement> contentInfo = LDDerReadOnly(blob, LDDerSequence);
  if (!contentInfo) return std::nullopt;
  LDDerReader outer(contentInfo->contents);
  const std::optional<LDDerElement> type = outer.read(LDDerObjectIdentifier);
  if (!type || !LDDerEqual(type->contents, LDDerLiteral(kSignedData))) return std::nullopt;
  std::optional<LDDerReader> explicitContent = outer.enter(LDDerContextConstructed(0));
  std::optional<LDDerReader> signedData = explicitContent ? explicitContent->enter(LDDerSequence) : std::nullopt;
  if (!signedData || !explicitContent->atEnd() || !outer.atEnd()) return std::nullopt;
  return signedData;
}

// version 1, one digest algorithm; the digest, or nothing.
std::optional<LDDigestKind> readSignedDataHeader(LDDerReader& signedData) {
  const std::optional<LDDerElement> version = signedData.read(LDDerInteger);
  std::optional<LDDerReader> digestAlgorithms = signedData.enter(LDDerSet);
  const std::optional<LDDerElement> digestAlgorithm =
      digestAlgorithms ? digestAlgorithms->read(LDDerSequence) : std::nullopt;
  if (!version || LDDerSmallInteger(*version) != 1 || !digestAlgorithm || !digestAlgorithms->atEnd()) {
    return std::nullopt;
  }
  return LDParseDigestAlgorithm(*digestAlgorithm);
}

// EncapsulatedContentInfo { id-data, [0] OCTET STRING }: the content, or why not.
std::optional<LDBytes> readEncapsulatedContent(LDDerReader& signedData, std::string& problem) {
  std::optional<LDDerReader> encapsulated = signedData.enter(LDDerSequence);
  const std::optional<LDDerElement> contentType = encapsulated ? encapsulated->read(LDDerObjectIdentifier) : std::nullopt;
  if (!contentType || !LDDerEqual(contentType->contents, LDDerLiteral(kData))) {
    problem = "the signed content is not data";
    return std::nullopt;
  }
  std::optional<LDDerReader> explicitManifest = encapsulated->enter(LDDerContextConstructed(0));
  if (!explicitManifest) {
    problem = "the signature carries no manifest";
    return std::nullopt;
  }
  const std::optional<LDDerElement> manifest = explicitManifest->read(LDDerOctetString);
  if (!manifest || !explicitManifest->atEnd() || !encapsulated->atEnd()) {
    problem = "the signed content is not one octet string";
    return std::nullopt;
  }
  return manifest->contents;
}

// [0] certificates, each of the profile, at most kMaximumCertificates; an empty string or why not.
std::string readCertificates(LDDerReader& signedData, std::vector<LDCertificate>& certificates) {
  std::optional<LDDerReader> set = signedData.enter(LDDerContextConstructed(0));
  if (!set || set->atEnd()) return "the signature carries no certificates";
  while (!set->atEnd()) {
    if (certificates.size() == kMaximumCertificates) return "the signature carries too many certificates";
    const std::optional<LDDerElement> element = set->read(LDDerSequence);
    std::optional<LDCertificate> certificate = element ? LDParseCertificate(element->encoding) : std::nullopt;
    if (!certificate) return "a certificate in the signature is outside the signing profile";
    certificates.push_back(*certificate);
  }
  return "";
}

// The certificate that issuer and serial name, matched byte for byte (OpenSSL would also match
// names after case folding).
std::optional<size_t> findCertificate(const std::vector<LDCertificate>& certificates, LDBytes issuer, LDBytes serial) {
  for (size_t i = 0; i < certificates.size(); ++i) {
    if (LDDerEqual(certificates[i].issuer, issuer) && LDDerEqual(certificates[i].serialNumber, serial)) return i;
  }
  return std::nullopt;
}

// ContentInfo { signedData, [0] SignedData v1 { one digest algorithm, id-data content carried
// inside, certificates, no CRLs, one SignerInfo } }. Fills contents.certificates, leafIndex and
// the manifest text; status errSecCSSignatureInvalid on anything else.
LDSignatureContents parseSignedData(LDBytes blob, LDBytes& content, Signer& signer) {
  LDSignatureContents contents;
  const auto invalid = [&contents](std::string detail) {
    return refuse(std::move(contents), errSecCSSignatureInvalid, std::move(detail), true);
  };
  std::optional<LDDerReader> signedData = enterSignedData(blob);
  if (!signedData) return invalid("the signature is not a single DER-encoded CMS SignedData object");
  const std::optional<LDDigestKind> digest = readSignedDataHeader(*signedData);
  if (!digest) return invalid("the SignedData header is outside the signing profile");
  std::string problem;
  const std::optional<LDBytes> manifest = readEncapsulatedContent(*signedData, problem);
  if (!manifest) return invalid(problem);
  content = *manifest;
  if (problem = readCertificates(*signedData, contents.certificates); !problem.empty()) return invalid(problem);
  std::optional<LDDerReader> signerInfos = signedData->enter(LDDerSet);
  if (!signerInfos || !signedData->atEnd()) return invalid("the SignedData is outside the signing profile");
  std::optional<LDDerReader> signerInfo = signerInfos->enter(LDDerSequence);
  if (!signerInfo || !signerInfos->atEnd()) {
    return refuse(std::move(contents), errSecCSSignatureInvalid, "the signature must have exactly one signer");
  }
  LDBytes issuer, serial;
  if (!parseSignerInfo(*signerInfo, issuer, serial, signer) || signer.digest != *digest) {
    return invalid("the signer's information is outside the signing profile");
  }
  const std::optional<size_t> leaf = findCertificate(contents.certificates, issuer, serial);
  if (!leaf) return invalid("the signer's certificate is not in the signature");
  contents.leafIndex = *leaf;
  // CMS would take rsaEncryption as the label of an ECDSA signature; the profile names the key's
  // own algorithm.
  if ((signer.algorithm.kind == LDSignatureKind::ecdsa) != (contents.leaf().key.kind != LDPublicKey::Kind::rsa)) {
    return invalid("the signature algorithm is not that of the signer's key (required by the signing profile)");
  }
  return contents;
}

LDSignatureContents withTeam(LDSignatureContents&& contents) {
  const std::optional<std::string> team = LDSingleOrganizationalUnit(contents.leaf());
  if (!team) {
    return refuse(std::move(contents), errSecCSSignatureInvalid,
                  "the signer's certificate must name exactly one organisational unit (the team)");
  }
  contents.leafTeam = *team;
  return std::move(contents);
}

}  // namespace

LDSignatureContents LDReadSigningInformation(LDBytes blob) {
  LDBytes content;
  Signer signer;
  LDSignatureContents contents = parseSignedData(blob, content, signer);
  if (contents.status != LDCodeSigningStatusOK) return contents;
  return withTeam(std::move(contents));
}

LDSignatureContents LDReadSignatureBlob(LDBytes blob) {
  LDBytes content;
  Signer signer;
  LDSignatureContents contents = parseSignedData(blob, content, signer);
  if (contents.status != LDCodeSigningStatusOK) return contents;

  // The signature covers the DER of the signed attributes as a SET (RFC 5652, 5.4), and the
  // attributes cover the content through its digest.
  std::vector<uint8_t> signedBytes(signer.signedAttributes.begin(), signer.signedAttributes.end());
  signedBytes[0] = LDDerSet;
  const bool signatureHolds =
      LDVerifySignature(contents.leaf().key, signer.algorithm.kind, LDDigestOf(signer.digest, signedBytes),
                        signer.signature) &&
      LDDerEqual(LDDigestOf(signer.digest, content).view(), signer.messageDigest);
  if (!signatureHolds) {
    return refuse(std::move(contents), errSecCSSignatureFailed,
                  "the signature does not verify with the signer's certificate");
  }
  const std::optional<LDSignatureManifest> manifest =
      LDParseManifest(std::string_view(reinterpret_cast<const char*>(content.data()), content.size()));
  if (!manifest) {
    return refuse(std::move(contents), errSecCSSignatureInvalid, "the signed manifest is malformed");
  }
  contents.manifest = *manifest;
  contents = withTeam(std::move(contents));
  if (contents.status == LDCodeSigningStatusOK && contents.leafTeam != contents.manifest.team) {
    return refuse(std::move(contents), errSecCSSignatureInvalid,
                  "the manifest's team \"" + LDPrintable(contents.manifest.team) +
                      "\" is not the signer's organisational unit \"" + LDPrintable(contents.leafTeam) + "\"");
  }
  return contents;
}

namespace {

// Whether certificate's authority key identifier, where it says anything, names issuer, exactly
// as OpenSSL 3.0's X509_check_akid reads it: the key identifier when both certificates give one
// (an empty one included), the serial number, and the first directory name of the issuer's
// names against the issuer's own issuer (X509_NAME_cmp).
bool authorityKeyIdentifierNames(const LDCertificate& certificate, const LDCertificate& issuer) {
  if (certificate.authorityKeyIdentifier && issuer.subjectKeyIdentifier &&
      !LDDerEqual(*certificate.authorityKeyIdentifier, *issuer.subjectKeyIdentifier)) {
    return false;
  }
  if (!certificate.authoritySerialNumber.empty() &&
      !LDDerEqual(certificate.authoritySerialNumber, issuer.serialNumber)) {
    return false;
  }
  return !certificate.authorityIssuer || LDNamesMatch(*certificate.authorityIssuer, issuer.issuer);
}

// Whether issuer may have issued certificate: names, the authority key identifier, a CA allowed
// to sign certificates, within its path length, and the signature.
bool issued(const LDCertificate& issuer, const LDCertificate& certificate, int intermediatesBelow) {
  if (!LDDerEqual(issuer.subject, certificate.issuer) || !authorityKeyIdentifierNames(certificate, issuer)) {
    return false;
  }
  if (!issuer.isAuthority || (issuer.keyUsage && !(*issuer.keyUsage & LDKeyUsageKeyCertSign))) return false;
  if (issuer.pathLength && intermediatesBelow > *issuer.pathLength) return false;
  return LDCertificateIsSignedBy(certificate, issuer);
}

// A CA whose extendedKeyUsage leaves out code signing (a sub-CA for TLS servers, say) vouches
// for no code signer below it, whatever the leaf says of itself. anyExtendedKeyUsage grants no
// purpose, as OpenSSL's purpose checks read it (xku_reject): a TLS sub-CA that names it beside
// serverAuth is still a TLS sub-CA.
bool mayVouchForCodeSigning(const LDCertificate& authority) {
  return !authority.hasExtendedKeyUsage || authority.codeSigning;
}

int32_t untrusted(std::string* detail, bool* outsideProfile, std::string text, bool stricterThanX509 = false) {
  if (detail) *detail = std::move(text);
  if (outsideProfile) *outsideProfile = stricterThanX509;
  return errSecCSSignatureUntrusted;
}

// The name constraints of every CA in the chain (leaf first, anchor last) over the subjects
// below it, critical or not (RFC 5280 6.1.3 (b), (c); OpenSSL's check_name_constraints): each
// subject within some permitted subtree when there are any, and within no excluded one. Like
// OpenSSL, a self-issued intermediate and an empty subject are not judged.
int32_t checkNameConstraints(const std::vector<const LDCertificate*>& chain, std::string* detail, bool* outsideProfile) {
  for (size_t authority = 1; authority < chain.size(); ++authority) {
    const LDCertificate& constraints = *chain[authority];
    if (constraints.nameConstraintsNotUnderstood) {
      return untrusted(detail, outsideProfile,
                       "a CA in the chain constrains names in a form the signing profile does not understand", true);
    }
    for (size_t below = 0; below < authority; ++below) {
      const LDBytes subject = chain[below]->subject;
      if ((below != 0 && LDNamesMatch(subject, chain[below]->issuer)) || subject.size() <= 2) continue;
      const auto within = [&](LDBytes base) { return LDNameIsWithin(subject, base); };
      const std::vector<LDBytes>& permitted = constraints.permittedNames;
      if (!permitted.empty() && std::none_of(permitted.begin(), permitted.end(), within)) {
        return untrusted(detail, outsideProfile, "the name " + LDNameText(subject) +
                                                     " is outside every subtree a CA above it permits (name constraints)");
      }
      if (std::any_of(constraints.excludedNames.begin(), constraints.excludedNames.end(), within)) {
        return untrusted(detail, outsideProfile,
                         "the name " + LDNameText(subject) + " is in a subtree a CA above it excludes (name constraints)");
      }
    }
  }
  return LDCodeSigningStatusOK;
}

// The leaf's own uses, once the chain holds.
int32_t leafMaySignCode(const LDCertificate& leaf, std::string* detail, bool* outsideProfile) {
  if (!leaf.hasExtendedKeyUsage || !leaf.codeSigning) {
    return untrusted(detail, outsideProfile, "the signer's certificate is not for code signing");
  }
  if (leaf.keyUsage && !(*leaf.keyUsage & LDKeyUsageDigitalSignature)) {
    return untrusted(detail, outsideProfile,
                     "the signer's certificate may not make digital signatures (required by the signing profile)", true);
  }
  return LDCodeSigningStatusOK;
}

}  // namespace

int32_t LDVerifyChain(const LDSignatureContents& contents, const std::vector<LDCertificate>& anchors,
                      std::string* detail, bool* outsideProfile) {
  const LDCertificate& leaf = contents.leaf();
  std::vector<const LDCertificate*> chain{&leaf};
  const auto refuseStricter = [&](std::string text) { return untrusted(detail, outsideProfile, std::move(text), true); };
  for (int intermediates = 0;; ++intermediates) {
    const LDCertificate* current = chain.back();
    // The profile understands six extensions; OpenSSL knows more (policies, say).
    if (current->unknownCriticalExtension) {
      return refuseStricter("a certificate in the chain has a critical extension that is not understood (signing profile)");
    }
    if (current != &leaf && !mayVouchForCodeSigning(*current)) {
      return refuseStricter("an intermediate's extended key usage leaves out code signing (signing profile)");
    }
    for (const LDCertificate& anchor : anchors) {
      if (!issued(anchor, *current, intermediates)) continue;
      if (anchor.unknownCriticalExtension) {
        return refuseStricter("the root has a critical extension that is not understood (signing profile)");
      }
      if (!mayVouchForCodeSigning(anchor)) {
        return refuseStricter("the root's extended key usage leaves out code signing (signing profile)");
      }
      chain.push_back(&anchor);
      if (const int32_t constrained = checkNameConstraints(chain, detail, outsideProfile); constrained != 0) {
        return constrained;
      }
      return leafMaySignCode(leaf, detail, outsideProfile);
    }
    const LDCertificate* next = nullptr;
    for (const LDCertificate& candidate : contents.certificates) {
      if (&candidate != current && &candidate != &leaf && issued(candidate, *current, intermediates)) {
        next = &candidate;
        break;
      }
    }
    if (!next) break;
    // A self-issued intermediate with no authority key identifier names itself as a candidate for
    // its own issuer, and nothing tells the two apart: OpenSSL's path building fails on it.
    if (LDDerEqual(next->subject, next->issuer) && !next->authorityKeyIdentifier) {
      return refuseStricter("a self-issued intermediate without an authority key identifier (signing profile)");
    }
    if (intermediates == kMaximumIntermediates) {
      return refuseStricter("the chain has more than " + std::to_string(kMaximumIntermediates) +
                            " intermediates (signing profile)");
    }
    chain.push_back(next);
  }
  return untrusted(detail, outsideProfile, "the signer's certificate chain is not trusted: it does not lead to a "
                                           "compiled-in root (issuer " + LDNameText(chain.back()->issuer) + ")");
}
