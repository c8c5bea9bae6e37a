// Seeds the differential fuzzer with every recipe that changes one knob of the forge, or the
// signature fuzzer with a signed file whose leaf carries 90,000 unknown extensions (0.9 MiB: a
// verifier that compares every pair of them spends seconds before any signature is checked).
//   forge_seeds CORPUS
//   forge_seeds --many-extensions CORPUS
#include <cstdio>
#include <cstring>
#include <string>

#include "certificate_forge.h"
#include "signing/code_signature.h"

namespace {

bool write(const std::string& path, const std::string& bytes) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return false;
  const bool complete = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  return std::fclose(file) == 0 && complete;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--many-extensions") == 0) {
    const std::string blob = LDCertificateForge().signatureBlob(LDForgeRecipe{}, {"", 90'000});
    const std::string image = "code" + blob + LDFormatSignatureTrailer(static_cast<uint32_t>(blob.size()));
    return write(std::string(argv[2]) + "/many-extensions", image) ? 0 : 1;
  }
  if (argc != 2) return 64;
  int written = 0;
  for (const LDForgeRecipe& recipe : LDForgeSingleChanges()) {
    const std::string bytes(recipe.begin(), recipe.end());
    if (!write(std::string(argv[1]) + "/recipe-" + std::to_string(written++), bytes)) return 1;
  }
  return 0;
}
