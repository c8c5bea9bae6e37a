// The verifier and OpenSSL's CMS and X509 verification must come to the same verdict on every
// signature (or the verifier must refuse something outside the signing profile). The input is a
// whole file image, as for signature_fuzzer; the seeds are signed by the build's identity, so
// both trust them, and every mutation is judged by both.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "openssl_oracle.h"
#include "signing/code_signature.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Built once, never destroyed: libFuzzer may exit from any point.
  static const LDOpenSSLAnchors* const reference = new LDOpenSSLAnchors(LDCompiledInAnchorsPEM);
  const std::string_view file(reinterpret_cast<const char*>(data), size);
  const LDSignatureLocation location =
      LDLocateSignature(size, file.substr(size - std::min(size, LDSignatureTrailerSize)));
  if (location.status != 0) return 0;
  const std::optional<std::string> disagreement = LDDisagreementWithOpenSSL(
      file.substr(location.codeSize, location.blobSize), LDTrustAnchors::compiledIn(), *reference);
  if (disagreement) {
    std::fprintf(stderr, "disagreement with OpenSSL: %s\n", disagreement->c_str());
    std::abort();
  }
  return 0;
}
