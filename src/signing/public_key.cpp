#include "signing/public_key.h"

#include <nettle/bignum.h>
#include <nettle/ecc-curve.h>
#include <nettle/ecc.h>
#include <nettle/ecdsa.h>
#include <nettle/rsa.h>
#include <nettle/sha2.h>

#include <algorithm>
#include <vector>

namespace {

constexpr uint8_t kSha256[] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01};
constexpr uint8_t kSha384[] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02};
constexpr uint8_t kEcPublicKey[] = {0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01};
constexpr uint8_t kPrime256v1[] = {0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07};
constexpr uint8_t kSecp384r1[] = {0x2b, 0x81, 0x04, 0x00, 0x22};
constexpr uint8_t kEcdsaSha256[] = {0x2a, 0x86, 0x48, 0xce, 0x3d, 0x04, 0x03, 0x02};
constexpr uint8_t kEcdsaSha384[] = {0x2a, 0x86, 0x48, 0xce, 0x3d, 0x04, 0x03, 0x03};
constexpr uint8_t kRsaEncryption[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x01};
constexpr uint8_t kSha256WithRsa[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x0b};
constexpr uint8_t kSha384WithRsa[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x0c};

// The DigestInfo prefixes of PKCS #1 v1.5 (RFC 8017, section 9.2, note 1).
constexpr uint8_t kSha256DigestInfo[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                         0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
constexpr uint8_t kSha384DigestInfo[] = {0x30, 0x41, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                         0x65, 0x03, 0x04, 0x02, 0x02, 0x05, 0x00, 0x04, 0x30};

// An AlgorithmIdentifier: the OID and what follows it (nothing, or one element).
struct Algorithm {
  LDBytes oid;
  std::optional<LDDerElement> parameters;
};

std::optional<Algorithm> parseAlgorithm(const LDDerElement& element) {
  if (element.tag != LDDerSequence) return std::nullopt;
  LDDerReader reader(element.contents);
  const std::optional<LDDerElement> oid = reader.read(LDDerObjectIdentifier);
  if (!oid) return std::nullopt;
  Algorithm algorithm{oid->contents, std::nullopt};
  if (!reader.atEnd()) {
    algorithm.parameters = reader.readAny();
    if (!algorithm.parameters || !reader.atEnd()) return std::nullopt;
  }
  return algorithm;
}

bool isNull(const std::optional<LDDerElement>& parameters) {
  return parameters && parameters->tag == LDDerNull && parameters->contents.empty();
}

// A GMP integer that clears itself.
class Integer {
 public:
  Integer() { mpz_init(_value); }
  explicit Integer(LDBytes bytes) { nettle_mpz_init_set_str_256_u(_value, bytes.size(), bytes.data()); }
  ~Integer() { mpz_clear(_value); }
  Integer(const Integer&) = delete;
  Integer& operator=(const Integer&) = delete;
  mpz_t& get() { return _value; }

 private:
  mpz_t _value;
};

class Point {
 public:
  explicit Point(const ecc_curve* curve) { ecc_point_init(&_point, curve); }
  ~Point() { ecc_point_clear(&_point); }
  Point(const Point&) = delete;
  Point& operator=(const Point&) = delete;
  ecc_point* get() { return &_point; }

 private:
  ecc_point _point;
};

class RsaKey {
 public:
  RsaKey() { rsa_public_key_init(&_key); }
  ~RsaKey() { rsa_public_key_clear(&_key); }
  RsaKey(const RsaKey&) = delete;
  RsaKey& operator=(const RsaKey&) = delete;
  rsa_public_key* get() { return &_key; }

 private:
  rsa_public_key _key;
};

const ecc_curve* curveOf(LDPublicKey::Kind kind) {
  return kind == LDPublicKey::Kind::p256 ? nettle_get_secp_256r1() : nettle_get_secp_384r1();
}

bool prepareRsa(const LDPublicKey& key, RsaKey& rsa) {
  nettle_mpz_set_str_256_u(rsa.get()->n, key.modulus.size(), key.modulus.data());
  nettle_mpz_set_str_256_u(rsa.get()->e, key.exponent.size(), key.exponent.data());
  return rsa_public_key_prepare(rsa.get()) == 1;
}

bool verifyEcdsa(const LDPublicKey& key, const LDDigest& digest, LDBytes signature) {
  const std::optional<LDDerElement> value = LDDerReadOnly(signature, LDDerSequence);
  if (!value) return false;
  LDDerReader reader(value->contents);
  const std::optional<LDDerElement> r = reader.read(LDDerInteger);
  const std::optional<LDDerElement> s = reader.read(LDDerInteger);
  if (!r || !s || !reader.atEnd()) return false;
  const std::optional<LDBytes> rBytes = LDDerUnsignedInteger(*r);
  const std::optional<LDBytes> sBytes = LDDerUnsignedInteger(*s);
  if (!rBytes || !sBytes) return false;
  Point point(curveOf(key.kind));
  Integer x(key.x), y(key.y);
  if (ecc_point_set(point.get(), x.get(), y.get()) != 1) return false;
  dsa_signature ecdsaSignature;
  dsa_signature_init(&ecdsaSignature);
  nettle_mpz_set_str_256_u(ecdsaSignature.r, rBytes->size(), rBytes->data());
  nettle_mpz_set_str_256_u(ecdsaSignature.s, sBytes->size(), sBytes->data());
  // Nettle checks 0 < r, s < q itself.
  const int valid = ecdsa_verify(point.get(), digest.size, digest.bytes.data(), &ecdsaSignature);
  dsa_signature_clear(&ecdsaSignature);
  return valid == 1;
}

bool verifyRsa(const LDPublicKey& key, const LDDigest& digest, LDBytes signature) {
  RsaKey rsa;
  // A signature is exactly as long as the modulus, as PKCS #1 says and OpenSSL requires.
  if (!prepareRsa(key, rsa) || signature.size() != rsa.get()->size) return false;
  const LDBytes prefix = digest.size == 32 ? LDDerLiteral(kSha256DigestInfo) : LDDerLiteral(kSha384DigestInfo);
  std::array<uint8_t, sizeof kSha384DigestInfo + 48> digestInfo{};
  std::copy(prefix.begin(), prefix.end(), digestInfo.begin());
  std::copy(digest.bytes.begin(), digest.bytes.begin() + static_cast<ptrdiff_t>(digest.size),
            digestInfo.begin() + static_cast<ptrdiff_t>(prefix.size()));
  Integer value(signature);
  return rsa_pkcs1_verify(rsa.get(), prefix.size() + digest.size, digestInfo.data(), value.get()) == 1;
}

}  // namespace

LDDigest LDDigestOf(LDDigestKind kind, LDBytes message) {
  LDDigest digest;
  if (kind == LDDigestKind::sha256) {
    sha256_ctx context;
    sha256_init(&context);
    sha256_update(&context, message.size(), message.data());
    digest.size = SHA256_DIGEST_SIZE;
    sha256_digest(&context, digest.size, digest.bytes.data());
  } else {
    sha384_ctx context;
    sha384_init(&context);
    sha384_update(&context, message.size(), message.data());
    digest.size = SHA384_DIGEST_SIZE;
    sha384_digest(&context, digest.size, digest.bytes.data());
  }
  return digest;
}

std::optional<LDDigestKind> LDParseDigestAlgorithm(const LDDerElement& element) {
  const std::optional<Algorithm> algorithm = parseAlgorithm(element);
  if (!algorithm || (algorithm->parameters && !isNull(algorithm->parameters))) return std::nullopt;
  if (LDDerEqual(algorithm->oid, LDDerLiteral(kSha256))) return LDDigestKind::sha256;
  if (LDDerEqual(algorithm->oid, LDDerLiteral(kSha384))) return LDDigestKind::sha384;
  return std::nullopt;
}

std::optional<LDSignatureAlgorithm> LDParseSignatureAlgorithm(const LDDerElement& element,
                                                              bool allowBareRsa) {
  const std::optional<Algorithm> algorithm = parseAlgorithm(element);
  if (!algorithm) return std::nullopt;
  const LDBytes oid = algorithm->oid;
  if (!algorithm->parameters) {
    if (LDDerEqual(oid, LDDerLiteral(kEcdsaSha256))) return LDSignatureAlgorithm{LDSignatureKind::ecdsa, LDDigestKind::sha256};
    if (LDDerEqual(oid, LDDerLiteral(kEcdsaSha384))) return LDSignatureAlgorithm{LDSignatureKind::ecdsa, LDDigestKind::sha384};
    return std::nullopt;
  }
  if (!isNull(algorithm->parameters)) return std::nullopt;
  if (LDDerEqual(oid, LDDerLiteral(kSha256WithRsa))) return LDSignatureAlgorithm{LDSignatureKind::rsaPkcs1, LDDigestKind::sha256};
  if (LDDerEqual(oid, LDDerLiteral(kSha384WithRsa))) return LDSignatureAlgorithm{LDSignatureKind::rsaPkcs1, LDDigestKind::sha384};
  if (allowBareRsa && LDDerEqual(oid, LDDerLiteral(kRsaEncryption))) {
    return LDSignatureAlgorithm{LDSignatureKind::rsaPkcs1, std::nullopt};
  }
  return std::nullopt;
}

namespace {

// An uncompressed point on P-256 or P-384, the curve named by the algorithm's parameters.
std::optional<LDPublicKey> parseEcPublicKey(const std::optional<LDDerElement>& parameters, LDBytes bits) {
  if (!parameters || parameters->tag != LDDerObjectIdentifier) return std::nullopt;
  LDPublicKey key{LDPublicKey::Kind::p256, {}, {}, {}, {}};
  size_t coordinate = 32;
  if (LDDerEqual(parameters->contents, LDDerLiteral(kSecp384r1))) {
    key.kind = LDPublicKey::Kind::p384;
    coordinate = 48;
  } else if (!LDDerEqual(parameters->contents, LDDerLiteral(kPrime256v1))) {
    return std::nullopt;
  }
  // Uncompressed points only: OpenSSL writes them, and there is one spelling per key.
  if (bits.size() != 1 + 2 * coordinate || bits[0] != 0x04) return std::nullopt;
  key.x = bits.subspan(1, coordinate);
  key.y = bits.subspan(1 + coordinate);
  Point point(curveOf(key.kind));
  Integer x(key.x), y(key.y);
  if (ecc_point_set(point.get(), x.get(), y.get()) != 1) return std::nullopt;
  return key;
}

// RSAPublicKey { modulus, publicExponent }: 2048 to 4096 bits, an odd exponent of at least 3.
std::optional<LDPublicKey> parseRsaPublicKey(const std::optional<LDDerElement>& parameters, LDBytes bits) {
  if (!isNull(parameters)) return std::nullopt;
  const std::optional<LDDerElement> sequence = LDDerReadOnly(bits, LDDerSequence);
  if (!sequence) return std::nullopt;
  LDDerReader fields(sequence->contents);
  const std::optional<LDDerElement> modulus = fields.read(LDDerInteger);
  const std::optional<LDDerElement> exponent = fields.read(LDDerInteger);
  if (!modulus || !exponent || !fields.atEnd()) return std::nullopt;
  LDPublicKey key{LDPublicKey::Kind::rsa, {}, {}, {}, {}};
  const std::optional<LDBytes> n = LDDerUnsignedInteger(*modulus);
  const std::optional<LDBytes> e = LDDerUnsignedInteger(*exponent);
  if (!n || !e || e->size() > 8) return std::nullopt;
  key.modulus = *n;
  key.exponent = *e;
  RsaKey rsa;
  const size_t bitLength = prepareRsa(key, rsa) ? mpz_sizeinbase(rsa.get()->n, 2) : 0;
  if (bitLength < 2048 || bitLength > 4096 || mpz_even_p(rsa.get()->e) || mpz_cmp_ui(rsa.get()->e, 3) < 0) {
    return std::nullopt;
  }
  return key;
}

}  // namespace

std::optional<LDPublicKey> LDParsePublicKey(const LDDerElement& subjectPublicKeyInfo) {
  if (subjectPublicKeyInfo.tag != LDDerSequence) return std::nullopt;
  LDDerReader reader(subjectPublicKeyInfo.contents);
  const std::optional<LDDerElement> algorithmElement = reader.read(LDDerSequence);
  const std::optional<LDDerElement> bitString = reader.read(LDDerBitString);
  if (!algorithmElement || !bitString || !reader.atEnd()) return std::nullopt;
  const std::optional<Algorithm> algorithm = parseAlgorithm(*algorithmElement);
  const std::optional<LDBytes> bits = LDDerOctetAlignedBits(*bitString);
  if (!algorithm || !bits) return std::nullopt;
  if (LDDerEqual(algorithm->oid, LDDerLiteral(kEcPublicKey))) return parseEcPublicKey(algorithm->parameters, *bits);
  if (LDDerEqual(algorithm->oid, LDDerLiteral(kRsaEncryption))) return parseRsaPublicKey(algorithm->parameters, *bits);
  return std::nullopt;
}

bool LDVerifySignature(const LDPublicKey& key, LDSignatureKind kind, const LDDigest& digest,
                       LDBytes signature) {
  if (kind == LDSignatureKind::ecdsa) {
    return key.kind != LDPublicKey::Kind::rsa && verifyEcdsa(key, digest, signature);
  }
  return key.kind == LDPublicKey::Kind::rsa && verifyRsa(key, digest, signature);
}
