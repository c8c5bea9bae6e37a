#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "shared/code_signing.h"
#include "support/expect_error.h"
#include "support/process.h"
#include "support/test_pki.h"
#include "openssl_oracle.h"
#include "tools/code_signer.h"

namespace {

using ldtest::readFile;
using ldtest::TestIdentity;
using ldtest::TestPki;
using ldtest::writeFile;

constexpr const char* kIdentifier = "com.example.signed";
constexpr const char* kTeam = "TEAMONE001";

std::string requirementFor(const std::string& identifier, const std::string& team) {
  return "identifier \"" + identifier + "\" and anchor apple generic and certificate leaf[subject.OU] = \"" +
         team + "\"";
}

// One PKI for the whole table: a trusted root with an intermediate, an untrusted root, and
// leaves of every kind.
class Pki {
 public:
  Pki() : pki(directory.path()) {
    root = pki.makeRoot("Trusted Root");
    rsaRoot = pki.makeRoot("Trusted RSA Root", {.key = "RSA-4096"});
    intermediate = pki.makeIntermediate(root, "Trusted Intermediate");
    otherRoot = pki.makeRoot("Other Root");
    leaf = pki.makeLeaf(root, "Leaf");
    viaIntermediate = pki.makeLeaf(intermediate, "Leaf Via Intermediate");
    noUsage = pki.makeLeaf(root, "Leaf Without Extended Usage", {.extendedUsage = ""});
    serverOnly = pki.makeLeaf(root, "Leaf For Servers", {.extendedUsage = "serverAuth,clientAuth"});
    otherCa = pki.makeLeaf(otherRoot, "Leaf Of Other Root");
    expired = pki.makeLeaf(root, "Expired Leaf", {.expired = true});
    rsaLeaf = pki.makeLeaf(rsaRoot, "RSA Leaf", {.key = "RSA-2048"});
    p384Leaf = pki.makeLeaf(rsaRoot, "P-384 Leaf", {.key = "P-384"});
    shortRsa = pki.makeLeaf(root, "RSA-1024 Leaf", {.key = "RSA-1024"});
    unknownCritical = pki.makeLeaf(root, "Critical Leaf", {.extraExtension = "1.3.6.1.4.1.99999.1=critical,ASN1:NULL"});
    unknownOptional = pki.makeLeaf(root, "Optional Leaf", {.extraExtension = "1.3.6.1.4.1.99999.1=ASN1:NULL"});
    noSigningUsage = pki.makeLeaf(root, "Encipherment Leaf", {.keyUsage = "critical,keyEncipherment"});
    ofLeaf = pki.makeLeaf(leaf, "Leaf Of A Leaf");
    chainPath = pki.writeBundle("chain.pem", TestPki::pemOf(intermediate));
    anchorsPem = TestPki::pemOf(root) + TestPki::pemOf(rsaRoot);
    anchors = LDTrustAnchors::fromPEM(anchorsPem);
  }

  ldtest::TemporaryDirectory directory;
  TestPki pki;
  TestIdentity root, rsaRoot, intermediate, otherRoot, leaf, viaIntermediate, noUsage, serverOnly, otherCa,
      expired, rsaLeaf, p384Leaf, shortRsa, unknownCritical, unknownOptional, noSigningUsage, ofLeaf;
  std::string chainPath, anchorsPem;
  LDTrustAnchors anchors = LDTrustAnchors::fromPEM("");
};

Pki& pki() {
  static Pki shared;  // its directory is removed when the program exits
  return shared;
}

std::string randomCode(size_t size) {
  std::mt19937 generator(7);
  std::string code(size, '\0');
  for (char& c : code) c = static_cast<char>(generator());
  return code;
}

LDSigningIdentity identityOf(const TestIdentity& identity, const std::string& chain = "") {
  std::string error;
  std::optional<LDSigningIdentity> loaded =
      LDLoadSigningIdentity(identity.keyPath, identity.certificatePath, chain, &error);
  if (!loaded) throw std::runtime_error(error);
  return std::move(*loaded);
}

void signOrThrow(const std::string& path, const LDSigningIdentity& identity) {
  std::string error;
  if (!LDSignFile(path, kIdentifier, identity, &error)) throw std::runtime_error(error);
}

// Replaces the CMS blob of a signed file while keeping the code and a matching trailer.
void replaceBlob(const std::string& path, const std::string& blob) {
  const std::string file = readFile(path);
  const LDSignatureLocation location =
      LDLocateSignature(file.size(), std::string_view(file).substr(file.size() - LDSignatureTrailerSize));
  writeFile(path, file.substr(0, location.codeSize) + blob +
                      LDFormatSignatureTrailer(static_cast<uint32_t>(blob.size())));
}

std::string manifestFor(const std::string& code, const std::string& team, uint64_t size) {
  LDSignatureManifest manifest{kIdentifier, team, size, {}};
  EVP_Digest(code.data(), code.size(), manifest.sha256.data(), nullptr, EVP_sha256(), nullptr);
  return LDFormatManifest(manifest);
}

std::string blobBy(const TestIdentity& signer, const std::string& chain = "",
                   const std::string& manifest = manifestFor("code", kTeam, 4)) {
  std::string error;
  const std::optional<std::string> blob = LDMakeSignatureBlob(manifest, identityOf(signer, chain), &error);
  if (!blob) throw std::runtime_error(error);
  return *blob;
}

struct VerificationCase {
  const char* name;
  // Prepares the file at path (which holds unsigned code) and returns the requirement text.
  std::function<std::string(const std::string& path, const std::string& code)> prepare;
  LDCodeVerificationResult result;
  std::optional<int32_t> status;  // the OSStatus the message carries
};

class VerificationTest : public testing::TestWithParam<VerificationCase> {};

TEST_P(VerificationTest, ResultAndMessage) {
  const VerificationCase& c = GetParam();
  ldtest::TemporaryDirectory directory;
  const std::string path = directory.file("program");
  const std::string code = randomCode(100'000);
  writeFile(path, code);
  const std::string requirement = c.prepare(path, code);

  std::optional<LDError> error;
  EXPECT_EQ(LDVerifyCodeAtURL(path, requirement, &error, pki().anchors), c.result);
  EXPECT_EQ(LDVerifyCodeAtURL(path, requirement, nullptr, pki().anchors), c.result) << "without an error place";
  if (c.result == LDCodeVerificationValid) {
    EXPECT_FALSE(error.has_value()) << error->description();
    return;
  }
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->code(), LDListenerErrorValidation);
  EXPECT_EQ(error->domain(), LDListenerErrorDomain);
  const std::string status = std::to_string(*c.status);
  const std::string& text = error->description();
  if (text.rfind("No readable code at", 0) == 0) {
    EXPECT_EQ(text, "No readable code at " + path + " (OSStatus " + status + ")");
  } else if (text.rfind("Unusable", 0) == 0) {
    EXPECT_EQ(text, "Unusable code-signing requirement (OSStatus " + status + ")");
  } else if (c.result == LDCodeVerificationRejected) {
    const std::string prefix = path + " does not satisfy its code-signing requirement (OSStatus " + status + "): ";
    EXPECT_EQ(text.substr(0, prefix.size()), prefix) << text;
    EXPECT_GT(text.size(), prefix.size()) << "a detail follows";
  } else {
    const std::string prefix = "Could not verify " + path + " (OSStatus " + status + "): ";
    EXPECT_EQ(text.substr(0, prefix.size()), prefix) << text;
  }
}

const auto kRequirement = [](const std::string&, const std::string&) { return requirementFor(kIdentifier, kTeam); };

INSTANTIATE_TEST_SUITE_P(
    Table, VerificationTest,
    testing::Values(
        VerificationCase{"Valid",
                         [](const std::string& p, const std::string&) {
                           signOrThrow(p, identityOf(pki().leaf));
                           return requirementFor(kIdentifier, kTeam);
                         },
                         LDCodeVerificationValid, std::nullopt},
        VerificationCase{"ResignedReplacesTheOldSignature",
                         [](const std::string& p, const std::string&) {
                           signOrThrow(p, identityOf(pki().otherCa));
                           signOrThrow(p, identityOf(pki().leaf));
                           return requirementFor(kIdentifier, kTeam);
                         },
                         LDCodeVerificationValid, std::nullopt},
        VerificationCase{"WrongIdentifier",
                         [](const std::string& p, const std::string&) {
                           signOrThrow(p, identityOf(pki().leaf));
                           return requirementFor("com.example.other", kTeam);
                         },
                         LDCodeVerificationRejected, errSecCSReqFailed},
        VerificationCase{"WrongTeam",
                         [](const std::string& p, const std::string&) {
                           signOrThrow(p, identityOf(pki().leaf));
                           return requirementFor(kIdentifier, "TEAMTWO002");
                         },
                         LDCodeVerificationRejected, errSecCSReqFailed},
        VerificationCase{"OneFlippedByteOfCode",
                         [](const std::string& p, const std::string&) {
                           signOrThrow(p, identityOf(pki().leaf));
                           std::string file = readFile(p);
                           file[5000] = static_cast<char>(file[5000] ^ 0x01);
                           writeFile(p, file);
                           return requirementFor(kIdentifier, kTeam);
                         },
                         LDCodeVerificationRejected, errSecCSSignatureFailed},
        VerificationCase{"Unsigned", kRequirement, LDCodeVerificationRejected, errSecCSUnsigned},
        VerificationCase{"Stripped",
                         [](const std::string& p, const std::string& code) {
                           signOrThrow(p, identityOf(pki().leaf));
                           writeFile(p, readFile(p).substr(0, code.size()));
                           return requirementFor(kIdentifier, kTeam);
                         },
                         LDCodeVerificationRejected, errSecCSUnsigned},
        VerificationCase{"InfoMarkerWrong",
                         [](const std::string& p, const std::string&) {
                           signOrThrow(p, identityOf(pki().leaf));
                           std::string file = readFile(p);
                           file[file.size() - LDSignatureTrailerSize + 2] = 3;
                           writeFile(p, file);
                           return requirementFor(kIdentifier, kTeam);
                         },
                         LDCodeVerificationRejected, errSecCSSignatureInvalid},
        VerificationCase{"SignedSizeDiffers",
                         [](const std::string& p, const std::string& code) {
                           signOrThrow(p, identityOf(pki().leaf));
                           replaceBlob(p, blobBy(pki().leaf, "", manifestFor(code, kTeam, code.size() - 1)));
                           return requirementFor(kIdentifier, kTeam);
                         },
                         LDCodeVerificationRejected, errSecCSSignatureFailed},
        VerificationCase{"NonexistentPath",
                         [](const std::string& p, const std::string&) {
                           ::unlink(p.c_str());
                           return requirementFor(kIdentifier, kTeam);
                         },
                         LDCodeVerificationUnverifiable, errSecCSStaticCodeNotFound},
        // A FIFO must neither block the open nor be read as code.
        VerificationCase{"Fifo",
                         [](const std::string& p, const std::string&) {
                           ::unlink(p.c_str());
                           ::mkfifo(p.c_str(), 0644);
                           return requirementFor(kIdentifier, kTeam);
                         },
                         LDCodeVerificationUnverifiable, errSecCSStaticCodeNotFound},
        VerificationCase{"BrokenRequirement",
                         [](const std::string& p, const std::string&) {
                           signOrThrow(p, identityOf(pki().leaf));
                           return std::string("identifier \"com.example.signed\" and anchor apple");
                         },
                         LDCodeVerificationRejected, errSecCSReqInvalid}),
    ldtest::CaseName());

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
  const std::string withTeamTwo = manifestFor("code", "TEAMTWO002", 4);
  const BlobCase cases[] = {
      {"Valid", [] { return blobBy(pki().leaf); }, 0, true},
      {"ViaIntermediate", [] { return blobBy(pki().viaIntermediate, pki().chainPath); }, 0, true},
      {"RsaRootRsaLeaf", [] { return blobBy(pki().rsaLeaf); }, 0, true},
      {"RsaRootP384Leaf", [] { return blobBy(pki().p384Leaf); }, 0, true},
      {"ExpiredStillValid", [] { return blobBy(pki().expired); }, 0},
      {"UnknownOptionalExtension", [] { return blobBy(pki().unknownOptional); }, 0},
      {"IntermediateAbsent", [] { return blobBy(pki().viaIntermediate); }, errSecCSSignatureUntrusted},
      {"IssuedByALeaf", [] { return blobBy(pki().ofLeaf, pki().leaf.certificatePath); }, errSecCSSignatureUntrusted},
      {"UntrustedCA", [] { return blobBy(pki().otherCa); }, errSecCSSignatureUntrusted},
      {"NoExtendedUsage", [] { return blobBy(pki().noUsage); }, errSecCSSignatureUntrusted},
      {"ServerUsageOnly", [] { return blobBy(pki().serverOnly); }, errSecCSSignatureUntrusted},
      {"UnknownCriticalExtension", [] { return blobBy(pki().unknownCritical); }, errSecCSSignatureUntrusted},
      {"KeyUsageWithoutSignatures", [] { return blobBy(pki().noSigningUsage); }, errSecCSSignatureUntrusted},
      {"Rsa1024OutsideProfile", [] { return blobBy(pki().shortRsa); }, errSecCSSignatureInvalid},
      {"ManifestTeamDiffers", [&] { return blobBy(pki().leaf, "", withTeamTwo); }, errSecCSSignatureInvalid},
      {"MalformedManifest", [] { return blobBy(pki().leaf, "", "ld-codesign-manifest 1\n"); }, errSecCSSignatureInvalid},
      {"Garbage", [] { return randomCode(700); }, errSecCSSignatureInvalid},
  };
  size_t corpus = 0;
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
      ++corpus;
    }
  }
  std::cout << "differential corpus: " << corpus << " signatures\n";
}

// Root may read anything, so an unreadable file is tried from a child running as nobody.
TEST(CodeVerification, UnreadableFileCannotBeVerified) {
  ldtest::TemporaryDirectory directory;
  ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
  const std::string path = directory.file("secret");
  writeFile(path, "code", 0600);
  ASSERT_EQ(::geteuid(), 0u) << "run the test command as root";
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) ::_exit(3);
    std::optional<LDError> error;
    const LDCodeVerificationResult result = LDVerifyCodeAtURL(path, requirementFor(kIdentifier, kTeam), &error);
    const bool ok = result == LDCodeVerificationUnverifiable && error &&
                    error->description() == "No readable code at " + path + " (OSStatus -67060)";
    ::_exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

TEST(CodeVerification, SigningKeepsTheModeAndTheCodeStillRuns) {
  ldtest::TemporaryDirectory directory;
  const std::string path = directory.file("true");
  writeFile(path, readFile("/bin/true"), 0750);
  signOrThrow(path, identityOf(pki().leaf));
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0750u);
  EXPECT_EQ(ldtest::runProgram({path}).exitStatus, 0) << "the loader ignores the appended signature";
  EXPECT_EQ(LDVerifyCodeAtURL(path, requirementFor(kIdentifier, kTeam), nullptr, pki().anchors),
            LDCodeVerificationValid);
}

}  // namespace
