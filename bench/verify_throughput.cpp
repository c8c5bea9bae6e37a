// Verifying a signed file against `openssl dgst -sha256` of the same file, side by side.
//   verify_throughput FILE ANCHOR.pem ROUNDS
// FILE must be signed by a leaf under ANCHOR. Prints the best time of each over ROUNDS runs
// (the page cache is warm for both) and the ratio of throughputs.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <sys/stat.h>

#include "signing/code_signing.h"

namespace {

double seconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: verify_throughput FILE ANCHOR.pem ROUNDS\n");
    return 64;
  }
  const std::string path = argv[1];
  std::ifstream anchorFile(argv[2]);
  std::ostringstream pem;
  pem << anchorFile.rdbuf();
  const LDTrustAnchors anchors = LDTrustAnchors::fromPEM(pem.str());
  const int rounds = std::atoi(argv[3]);
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || anchors.isEmpty() || rounds < 1) {
    std::fprintf(stderr, "verify_throughput: bad arguments\n");
    return 64;
  }
  const std::string dgst = "openssl dgst -sha256 '" + path + "' > /dev/null";
  double bestVerify = 1e9, bestOpenssl = 1e9;
  for (int round = 0; round < rounds; ++round) {
    auto start = std::chrono::steady_clock::now();
    std::optional<LDError> error;
    const LDCodeVerificationResult result = LDVerifyCodeAtURL(path, "anchor apple generic", &error, anchors);
    bestVerify = std::min(bestVerify, seconds(std::chrono::steady_clock::now() - start));
    if (result != LDCodeVerificationValid) {
      std::fprintf(stderr, "verify_throughput: %s\n", error ? error->description().c_str() : "not valid");
      return 1;
    }
    start = std::chrono::steady_clock::now();
    if (std::system(dgst.c_str()) != 0) return 1;
    bestOpenssl = std::min(bestOpenssl, seconds(std::chrono::steady_clock::now() - start));
  }
  const double mebibytes = static_cast<double>(status.st_size) / (1 << 20);
  std::printf("file_mib %.0f\nverify_s %.4f\nverify_mib_s %.0f\nopenssl_s %.4f\nopenssl_mib_s %.0f\nratio %.3f\n",
              mebibytes, bestVerify, mebibytes / bestVerify, bestOpenssl, mebibytes / bestOpenssl,
              bestOpenssl / bestVerify);
  return 0;
}
