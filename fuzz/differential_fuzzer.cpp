// The verifier and OpenSSL's CMS and X509 verification must come to the same verdict on every
// signature (or the verifier must refuse something outside the signing profile). The input is
// a forge recipe (certificate_forge.h): libFuzzer mutates which fields change, and the forge
// signs the result again, so that every input reaches the chain and policy decisions.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "certificate_forge.h"
#include "openssl_oracle.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Built once, never destroyed: libFuzzer may exit from any point.
  static const LDCertificateForge* const forge = new LDCertificateForge;
  static const LDTrustAnchors* const ours = new LDTrustAnchors(LDTrustAnchors::fromPEM(forge->rootPem()));
  static const LDOpenSSLAnchors* const theirs = new LDOpenSSLAnchors(forge->rootPem());
  const LDForgeRecipe recipe = LDForgeRecipeFromBytes(data, size);
  const std::optional<std::string> disagreement =
      LDDisagreementWithOpenSSL(forge->signatureBlob(recipe), *ours, *theirs);
  if (disagreement) {
    std::fprintf(stderr, "disagreement with OpenSSL on %s: %s\n", LDForgeRecipeText(recipe).c_str(),
                 disagreement->c_str());
    std::abort();
  }
  return 0;
}
