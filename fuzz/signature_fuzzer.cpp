// The input is a whole file image: trailer, CMS blob and manifest are parsed as the verifier
// would parse a peer's executable, and as the helper reads its own signing information.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "signing/code_signature.h"
#include "signing/trust_anchors.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view file(reinterpret_cast<const char*>(data), size);
  (void)LDParseManifest(file);
  const std::string_view tail = file.substr(size - std::min(size, LDSignatureTrailerSize));
  const LDSignatureLocation location = LDLocateSignature(size, tail);
  if (location.status != 0) return 0;
  const LDBytes blob = LDBytesOf(file.substr(location.codeSize, location.blobSize));
  (void)LDReadSigningInformation(blob);
  const LDSignatureContents contents = LDReadSignatureBlob(blob);
  if (contents.status == 0) {
    std::string detail;
    (void)LDVerifyChain(contents, LDTrustAnchors::compiledIn().certificates(), &detail);
  }
  return 0;
}
