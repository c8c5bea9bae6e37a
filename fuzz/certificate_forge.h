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

class LDCertificateForge {
 public:
  // Makes the test root and the keys (a few hundred milliseconds, RSA included).
  LDCertificateForge();
  const std::string& rootPem() const { return _rootPem; }
  // The CMS SignedData blob the recipe describes, over a manifest for the 4 bytes "code".
  std::string signatureBlob(const LDForgeRecipe& recipe) const;

  struct KeyPair {
    ldssl::Key key;
    std::string subjectKeyIdentifier;
  };

 private:
  std::vector<KeyPair> _chainKeys;     // the root's first, then one per position in the chain
  std::vector<KeyPair> _targetKeys;    // one per value of LDForgeKey
  std::string _rootDer, _rootPem;
};
