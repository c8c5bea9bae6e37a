#pragma once

// A structure-aware generator of signatures for the comparison with OpenSSL. Byte-level
// mutation breaks a certificate's signature at once, so it never reaches the chain and policy
// decisions; the forge changes a certificate's fields (extensions, encodings, names, keys), the
// shape of the chain and the CMS around it, then signs everything again from a test root of its
// own, so that both verifiers have to judge what the change means.
//
// A recipe is one small number per knob. Its text form, "knob=value knob=value", names only
// the knobs that differ from a plain valid signature; its byte form (one byte per knob, taken
// modulo the knob's number of values) is what the fuzzer mutates.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/openssl_handles.h"

enum LDForgeKnob : uint8_t {
  LDForgeIntermediates,      // how many intermediates between the root and the leaf
  LDForgeShape,              // which certificates the signature carries, in which order
  LDForgeTarget,             // which certificate the certificate knobs change: the leaf or an intermediate
  LDForgeKey,                // its key
  LDForgeBasicConstraints,
  LDForgeKeyUsage,
  LDForgeExtendedKeyUsage,
  LDForgeAuthorityKeyIdentifier,
  LDForgeSerial,
  LDForgeNameString,         // the string type (and characters) of its common name
  LDForgeTeam,               // the leaf's organisational units
  LDForgeExtraExtension,
  LDForgeAlgorithm,          // the algorithm its issuer signs it with
  LDForgeVersion,
  LDForgeValidity,
  LDForgeEncoding,           // a BER spelling inside what is signed
  LDForgeSignatureValue,     // the encoding of its issuer's ECDSA signature
  LDForgeSignerAlgorithm,    // the SignerInfo's signature algorithm
  LDForgeManifest,
  LDForgeRoot,               // which of the forge's roots is the anchor and issues the chain
  LDForgeFlipAt,             // a byte of the finished blob flipped, by position (0: none)
  LDForgeFlipAtHigh,
  LDForgeKnobCount,
};

using LDForgeRecipe = std::array<uint8_t, LDForgeKnobCount>;

// "target=intermediate1 keyUsage=paddingBitsSet"; nothing when a knob or value is unknown.
std::optional<LDForgeRecipe> LDForgeRecipeFromText(std::string_view text);
// Any bytes: one per knob, each modulo the knob's number of values; missing bytes are 0.
LDForgeRecipe LDForgeRecipeFromBytes(const uint8_t* data, size_t size);
std::string LDForgeRecipeText(const LDForgeRecipe& recipe);

// Every recipe that changes one knob (the certificate knobs once on the leaf and once on an
// intermediate), the plain one first.
std::vector<LDForgeRecipe> LDForgeSingleChanges();

// What no knob says: the leaf's common name as an attribute of any string type and contents,
// and a number of unknown extensions (each its own object identifier) added to the leaf.
struct LDForgeLeafExtras {
  std::string commonName;  // an AttributeTypeAndValue's SET, as encoded; "" for the knob's
  size_t unknownExtensions = 0;
};

class LDCertificateForge {
 public:
  // Makes the test roots and the keys (a few hundred milliseconds, RSA included).
  LDCertificateForge();
  // The anchor of recipes whose root knob is root (the plain root by default).
  const std::string& rootPem(uint8_t root = 0) const { return _roots.at(root).pem; }
  uint8_t rootCount() const { return static_cast<uint8_t>(_roots.size()); }
  // The CMS SignedData blob the recipe describes, over a manifest for the 4 bytes "code".
  std::string signatureBlob(const LDForgeRecipe& recipe, const LDForgeLeafExtras& extras = {}) const;
  // A common name of this string type (tag) and contents, for LDForgeLeafExtras.
  static std::string commonName(uint8_t tag, std::string_view value);

  struct KeyPair {
    ldssl::Key key;
    std::string subjectKeyIdentifier;
  };

 private:
  std::vector<KeyPair> _chainKeys;     // the root's first, then one per position in the chain
  std::vector<KeyPair> _targetKeys;    // one per value of LDForgeKey
  struct Root {
    std::string der, pem;
  };
  std::vector<Root> _roots;            // one per value of LDForgeRoot
};
