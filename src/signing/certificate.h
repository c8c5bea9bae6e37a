#pragma once

// X.509 v3 certificates of the signing profile, read with the strict DER reader. Parsing checks
// the structure and records what the chain evaluation needs; it judges no trust.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "signing/der.h"
#include "signing/public_key.h"

// keyUsage bits, numbered as in RFC 5280 (bit 0 is the most significant bit of the first octet).
enum LDKeyUsage : uint16_t {
  LDKeyUsageDigitalSignature = 1u << 0,
  LDKeyUsageKeyCertSign = 1u << 5,
};

struct LDCertificate {
  LDBytes encoding;            // the whole certificate
  LDBytes toBeSigned;          // the TBSCertificate, as signed
  LDBytes serialNumber;        // the INTEGER's contents octets
  LDBytes issuer, subject;     // the Names, tag and length included (compared byte for byte)
  LDSignatureAlgorithm signatureAlgorithm{LDSignatureKind::ecdsa, LDDigestKind::sha256};
  LDBytes signature;
  LDPublicKey key{LDPublicKey::Kind::p256, {}, {}, {}, {}};

  bool isAuthority = false;            // basicConstraints cA
  std::optional<int32_t> pathLength;   // basicConstraints pathLenConstraint
  std::optional<uint16_t> keyUsage;    // absent: any use
  bool hasExtendedKeyUsage = false;
  bool codeSigning = false;            // extendedKeyUsage names id-kp-codeSigning
  // Present even when empty: OpenSSL compares an empty identifier like any other.
  std::optional<LDBytes> subjectKeyIdentifier, authorityKeyIdentifier;
  // The first directory name of authorityKeyIdentifier's authorityCertIssuer (tag and length
  // included), the only one OpenSSL compares, and authorityCertSerialNumber (the INTEGER's
  // contents octets; empty when absent).
  std::optional<LDBytes> authorityIssuer;
  LDBytes authoritySerialNumber;
  // nameConstraints on directory names: the Names of the permitted and excluded subtrees.
  std::vector<LDBytes> permittedNames, excludedNames;
  bool nameConstraintsNotUnderstood = false;  // another name form, or a minimum or maximum
  bool unknownCriticalExtension = false;
};

// A certificate of the profile (v3; ECDSA P-256/P-384 or RSA 2048..4096 key; ECDSA or
// PKCS #1 v1.5 signature with SHA-256/384; extensions at most once each); nothing otherwise.
// The result points into encoding, which must outlive it.
std::optional<LDCertificate> LDParseCertificate(LDBytes encoding);

// The text of the subject's only organisational unit (a UTF8String, PrintableString or
// IA5String); nothing when there is none, several, or another string type.
std::optional<std::string> LDSingleOrganizationalUnit(const LDCertificate& certificate);

// RFC 4514 text of a Name, for messages (best effort: unknown attributes as "?"), its values
// escaped where they are not printable (LDPrintable).
std::string LDNameText(LDBytes name);

// Whether two Names are the same once compared as OpenSSL's X509_NAME_cmp compares them: string
// values case-folded (ASCII) with their outer white space cut and inner runs made one space,
// whatever their string type. Malformed Names are never the same.
bool LDNamesMatch(LDBytes a, LDBytes b);

// Whether name lies in the subtree below base: base's relative distinguished names, compared
// as LDNamesMatch does, begin name (RFC 5280 4.2.1.10; OpenSSL's nc_dn).
bool LDNameIsWithin(LDBytes name, LDBytes base);

// Whether issuer's key made certificate's signature.
bool LDCertificateIsSignedBy(const LDCertificate& certificate, const LDCertificate& issuer);
