#include <sys/stat.h>

#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "shared/printable.h"
#include "signing/code_signing.h"
#include "support/expect_error.h"
#include "support/test_pki.h"
#include "openssl_oracle.h"
#include "tools/code_signer.h"

namespace {

using ldtest::TestIdentity;
using ldtest::TestPki;

constexpr const char* kIdentifier = "com.example.signed";
constexpr const char* kTeam = "TEAMONE001";

// One PKI for the whole program: two trusted roots, an intermediate, and the leaves that several
// cases sign with (leafOf makes the others).
struct Pki {
  ldtest::TemporaryDirectory directory;
  TestPki pki{directory.path()};
  TestIdentity root = pki.makeRoot("Trusted Root");
  TestIdentity rsaRoot = pki.makeRoot("Trusted RSA Root", {.key = "RSA-4096"});
  TestIdentity intermediate = pki.makeIntermediate(root, "Trusted Intermediate");
  TestIdentity leaf = pki.makeLeaf(root, "Leaf");
  TestIdentity viaIntermediate = pki.makeLeaf(intermediate, "Leaf Via Intermediate");
  std::string anchorsPem = TestPki::pemOf(root) + TestPki::pemOf(rsaRoot);
  LDTrustAnchors anchors = LDTrustAnchors::fromPEM(anchorsPem);
};

Pki& pki() {
  static Pki shared;  // its directory is removed when the program exits
  return shared;
}

// A leaf of its own for one case.
TestIdentity leafOf(const TestIdentity& issuer, const ldtest::LeafOptions& options = {}) {
  static int made = 0;
  return pki().pki.makeLeaf(issuer, "Leaf " + std::to_string(++made), options);
}

std::string randomCode(size_t size) {
  std::mt19937 generator(7);
  std::string code(size, '\0');
  for (char& c : code) c = static_cast<char>(generator());
  return code;
}

std::string manifestFor(const std::string& code, const std::string& team, uint64_t size) {
  LDSignatureManifest manifest{kIdentifier, team, size, {}};
  EVP_Digest(code.data(), code.size(), manifest.sha256.data(), nullptr, EVP_sha256(), nullptr);
  return LDFormatManifest(manifest);
}

std::string blobBy(const TestIdentity& signer, const std::string& chain = "",
                   const std::string& manifest = manifestFor("code", kTeam, 4)) {
  std::string error;
  std::optional<LDSigningIdentity> identity = LDLoadSigningIdentity(signer.keyPath, signer.certificatePath, chain, &error);
  const std::optional<std::string> blob = identity ? LDMakeSignatureBlob(manifest, *identity, &error) : std::nullopt;
  if (!blob) throw std::runtime_error(error);
  return *blob;
}

// What becomes of code signed by the trusted leaf before it is verified.
enum class Change { none, unsign, flipCodeByte, breakInfoMarker, signOneByteShort, remove, fifo };

TEST(CodeVerification, ResultAndMessage) {
  struct Case {
    const char* name;
    Change change;
    std::string requirement;
    LDCodeVerificationResult result;
    std::string description;  // of the error, '%' standing for the path; "" when valid
  };
  const std::string requirement =
      "identifier \"com.example.signed\" and anchor apple generic and certificate leaf[subject.OU] = \"TEAMONE001\"";
  const std::string rejected = "% does not satisfy its code-signing requirement (OSStatus ";
  const Case cases[] = {
      {"Valid", Change::none, requirement, LDCodeVerificationValid, ""},
      {"WrongIdentifier", Change::none, "identifier \"com.example.other\"", LDCodeVerificationRejected,
       rejected + "-67050): the code does not satisfy identifier \"com.example.other\" (the code is \"com.example.signed\")"},
      {"WrongTeam", Change::none, "anchor apple generic and certificate leaf[subject.OU] = \"TEAMTWO002\"",
       LDCodeVerificationRejected,
       rejected + "-67050): the code does not satisfy certificate leaf[subject.OU] = \"TEAMTWO002\" (the leaf's is \"TEAMONE001\")"},
      {"OneFlippedByteOfCode", Change::flipCodeByte, requirement, LDCodeVerificationRejected,
       rejected + "-67061): the code does not match its signed digest"},
      {"SignedSizeDiffers", Change::signOneByteShort, requirement, LDCodeVerificationRejected,
       rejected + "-67061): the signed size 299999 is not the code's size 300000"},
      {"Unsigned", Change::unsign, requirement, LDCodeVerificationRejected, rejected + "-67062): the code is not signed"},
      {"InfoMarkerWrong", Change::breakInfoMarker, requirement, LDCodeVerificationRejected,
       rejected + "-67045): the signature trailer is malformed"},
      {"Nonexistent\nPath", Change::remove, requirement, LDCodeVerificationUnverifiable, "No readable code at % (OSStatus -67068)"},
      // A FIFO must neither block the open nor be read as code.
      {"Fifo", Change::fifo, requirement, LDCodeVerificationUnverifiable, "No readable code at % (OSStatus -67068)"},
      {"BrokenRequirement", Change::none, "identifier \"com.example.signed\" and anchor apple", LDCodeVerificationRejected,
       "Unusable code-signing requirement (OSStatus -67052)"},
  };
  ldtest::TemporaryDirectory directory;
  const std::string code = randomCode(300'000);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = directory.file(c.name);
    const std::string blob =
        blobBy(pki().leaf, "", manifestFor(code, kTeam, code.size() - (c.change == Change::signOneByteShort)));
    std::string file = code + blob + LDFormatSignatureTrailer(static_cast<uint32_t>(blob.size()));
    if (c.change == Change::unsign) file = code;
    if (c.change == Change::flipCodeByte) file[5000] = static_cast<char>(file[5000] ^ 0x01);
    if (c.change == Change::breakInfoMarker) file[file.size() - LDSignatureTrailerSize + 2] = 3;
    if (c.change == Change::fifo) {
      ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0);
    }
    if (c.change != Change::remove && c.change != Change::fifo) ldtest::writeFile(path, file);

    std::optional<LDError> error;
    EXPECT_EQ(LDVerifyCodeAtURL(path, c.requirement, &error, pki().anchors), c.result);
    std::string description = c.description;
    if (const size_t at = description.find('%'); at != std::string::npos) description.replace(at, 1, LDPrintable(path));
    EXPECT_EQ(error.has_value(), !description.empty()) << (error ? error->description() : "");
    if (!description.empty()) ldtest::expectError(error, {LDListenerErrorValidation, description, std::nullopt});
  }
}

// ---- The signature blob against OpenSSL's CMS and X509 verification ----

struct BlobCase {
  const char* name;
  std::function<std::string()> blob;
  int32_t status;
  bool mutate = false;  // also try every one-byte mutation and truncation of it
};

// Each case gets its status from the verifier, the same status (or a documented refusal outside
// the signing profile) from OpenSSL, and the valid ones are mutated byte by byte.
TEST(Differential, VerifierAgreesWithOpenSSL) {
  const LDOpenSSLAnchors reference(pki().anchorsPem);
  const BlobCase cases[] = {
      {"Valid", [] { return blobBy(pki().leaf); }, 0, true},
      {"ViaIntermediate", [] { return blobBy(pki().viaIntermediate, pki().intermediate.certificatePath); }, 0, true},
      {"RsaRootRsaLeaf", [] { return blobBy(leafOf(pki().rsaRoot, {.key = "RSA-2048"})); }, 0, true},
      {"RsaRootP384Leaf", [] { return blobBy(leafOf(pki().rsaRoot, {.key = "P-384"})); }, 0, true},
      {"ExpiredStillValid", [] { return blobBy(leafOf(pki().root, {.expired = true})); }, 0},
      {"UnknownOptionalExtension",
       [] { return blobBy(leafOf(pki().root, {.extraExtension = "1.3.6.1.4.1.99999.1=ASN1:NULL"})); }, 0},
      {"IntermediateAbsent", [] { return blobBy(pki().viaIntermediate); }, errSecCSSignatureUntrusted},
      {"IssuedByALeaf", [] { return blobBy(leafOf(pki().leaf), pki().leaf.certificatePath); }, errSecCSSignatureUntrusted},
      {"UntrustedCA", [] { return blobBy(leafOf(pki().pki.makeRoot("Other Root"))); }, errSecCSSignatureUntrusted},
      {"NoExtendedUsage", [] { return blobBy(leafOf(pki().root, {.extendedUsage = ""})); }, errSecCSSignatureUntrusted},
      {"ServerUsageOnly", [] { return blobBy(leafOf(pki().root, {.extendedUsage = "serverAuth,clientAuth"})); },
       errSecCSSignatureUntrusted},
      {"UnknownCriticalExtension",
       [] { return blobBy(leafOf(pki().root, {.extraExtension = "1.3.6.1.4.1.99999.1=critical,ASN1:NULL"})); },
       errSecCSSignatureUntrusted},
      {"KeyUsageWithoutSignatures", [] { return blobBy(leafOf(pki().root, {.keyUsage = "critical,keyEncipherment"})); },
       errSecCSSignatureUntrusted},
      {"Rsa1024OutsideProfile", [] { return blobBy(leafOf(pki().root, {.key = "RSA-1024"})); }, errSecCSSignatureInvalid},
      {"ManifestTeamDiffers", [] { return blobBy(pki().leaf, "", manifestFor("code", "TEAMTWO002", 4)); },
       errSecCSSignatureInvalid},
      {"MalformedManifest", [] { return blobBy(pki().leaf, "", "ld-codesign-manifest 1\n"); }, errSecCSSignatureInvalid},
      {"Garbage", [] { return randomCode(700); }, errSecCSSignatureInvalid},
  };
  for (const BlobCase& c : cases) {
    const std::string blob = c.blob();
    const LDSignatureContents contents = LDReadSignatureBlob(LDBytesOf(blob));
    const int32_t status = contents.status ? contents.status : LDVerifyChain(contents, pki().anchors.certificates(), nullptr);
    EXPECT_EQ(status, c.status) << c.name << ": " << contents.detail;
    std::vector<std::pair<std::string, std::string>> variants = {{"as signed", blob}};  // what, bytes
    for (size_t i = 0; c.mutate && i < blob.size(); ++i) {
      for (const int flip : {0x01, 0x80}) {
        variants.emplace_back("byte " + std::to_string(i) + " ^ " + std::to_string(flip), blob);
        variants.back().second[i] = static_cast<char>(blob[i] ^ flip);
      }
      if (i % 7 == 0) variants.emplace_back("cut at " + std::to_string(i), blob.substr(0, i));
    }
    for (const auto& [what, variant] : variants) {
      const auto disagreement = LDDisagreementWithOpenSSL(variant, pki().anchors, reference);
      EXPECT_FALSE(disagreement) << c.name << ", " << what << ": " << *disagreement;
    }
  }
}

}  // namespace
