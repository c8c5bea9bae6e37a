// The verifier and OpenSSL's CMS and X509 verification must come to the same verdict on every
// signature (or the verifier must refuse something outside the signing profile). The input is
// a forge recipe (certificate_forge.h): libFuzzer mutates which fields change, and the forge
// signs the result again, so that every input reaches the chain and policy decisions.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "certificate_forge.h"
#include "openssl_oracle.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Built once, never destroyed: libFuzzer may exit from any point.
  static const LDCertificateForge* const forge = new LDCertificateForge;
  // One anchor set per forge root, each the anchor of the recipes that name it.
  static auto* const ours = new std::vector<LDTrustAnchors>;
  static auto* const theirs = new std::vector<LDOpenSSLAnchors*>;
  for (uint8_t root = static_cast<uint8_t>(ours->size()); root < forge->rootCount(); ++root) {
    ours->push_back(LDTrustAnchors::fromPEM(forge->rootPem(root)));
    theirs->push_back(new LDOpenSSLAnchors(forge->rootPem(root)));
  }
  const LDForgeRecipe recipe = LDForgeRecipeFromBytes(data, size);
  const std::optional<std::string> disagreement = LDDisagreementWithOpenSSL(
      forge->signatureBlob(recipe), (*ours)[recipe[LDForgeRoot]], *(*theirs)[recipe[LDForgeRoot]]);
  if (disagreement) {
    std::fprintf(stderr, "disagreement with OpenSSL on %s: %s\n", LDForgeRecipeText(recipe).c_str(),
                 disagreement->c_str());
    std::abort();
  }
  return 0;
}
