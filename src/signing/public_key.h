#pragma once

// The cryptography of the signing profile, from Nettle and Hogweed: SHA-256 and SHA-384,
// P-256/P-384 ECDSA and RSA (2048 to 4096 bits) PKCS #1 v1.5 signatures, with keys and
// algorithm identifiers read from DER.

#include <array>
#include <cstdint>
#include <optional>

#include "signing/der.h"

enum class LDDigestKind : uint8_t { sha256, sha384 };

struct LDDigest {
  std::array<uint8_t, 48> bytes{};
  size_t size = 0;
  LDBytes view() const { return LDBytes(bytes.data(), size); }
};

LDDigest LDDigestOf(LDDigestKind kind, LDBytes message);

// An AlgorithmIdentifier naming SHA-256 or SHA-384, parameters absent or NULL.
std::optional<LDDigestKind> LDParseDigestAlgorithm(const LDDerElement& algorithm);

enum class LDSignatureKind : uint8_t { ecdsa, rsaPkcs1 };

struct LDSignatureAlgorithm {
  LDSignatureKind kind;
  std::optional<LDDigestKind> digest;  // nothing for rsaEncryption, which names no digest
};

// ecdsa-with-SHA256/384 (no parameters), sha256/384WithRSAEncryption (NULL parameters) and,
// when allowBareRsa, rsaEncryption (NULL parameters), as CMS writes for an RSA signer.
std::optional<LDSignatureAlgorithm> LDParseSignatureAlgorithm(const LDDerElement& algorithm,
                                                              bool allowBareRsa);

struct LDPublicKey {
  enum class Kind : uint8_t { p256, p384, rsa } kind;
  LDBytes x, y;               // ECDSA: the coordinates of the uncompressed point
  LDBytes modulus, exponent;  // RSA
};

// A SubjectPublicKeyInfo of the profile; nothing for any other key, a point not on its curve
// or a modulus outside 2048..4096 bits.
std::optional<LDPublicKey> LDParsePublicKey(const LDDerElement& subjectPublicKeyInfo);

// Whether signature (ECDSA: the DER Ecdsa-Sig-Value; RSA: the raw signature, as long as the
// modulus) is key's signature of digest.
bool LDVerifySignature(const LDPublicKey& key, LDSignatureKind kind, const LDDigest& digest,
                       LDBytes signature);
