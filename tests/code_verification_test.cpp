#include <sys/stat.h>

#include <gtest/gtest.h>

#include <random>

#include "shared/printable.h"
#include "signing/code_signing.h"
#include "support/expect_error.h"
#include "support/test_pki.h"
#include "certificate_forge.h"
#include "openssl_oracle.h"
#include "tools/code_signer.h"

namespace {

using ldtest::TestIdentity;
using ldtest::TestPki;

constexpr const char* kIdentifier = "com.example.signed";
constexpr const char* kTeam = "TEAMONE001";

// One PKI for the whole program: a trusted root and the leaf that signs the code.
struct Pki {
  ldtest::TemporaryDirectory directory;
  TestPki pki{directory.path()};
  TestIdentity root = pki.makeRoot("Trusted Root");
  TestIdentity leaf = pki.makeLeaf(root, "Leaf");
  std::string anchorError;  // written on failure only
  LDTrustAnchors anchors = LDTrustAnchors::fromPEM(TestPki::pemOf(root), &anchorError);
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

std::string blobBy(const TestIdentity& signer, const LDSignatureManifest& manifest) {
  std::string error;
  std::optional<LDSigningIdentity> identity = LDLoadSigningIdentity(signer.keyPath, signer.certificatePath, "", &error);
  const std::optional<std::string> blob = identity ? LDMakeSignatureBlob(LDFormatManifest(manifest), *identity, &error) : std::nullopt;
  if (!blob) throw std::runtime_error(error);
  return *blob;
}

// What becomes of code signed by the trusted leaf before it is verified.
enum class Change { none, unsign, flipCodeByte, signedDigestDiffersLast, breakInfoMarker, signOneByteShort, remove, fifo };

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
      {"SignedDigestDiffersInItsLastOctet", Change::signedDigestDiffersLast, requirement, LDCodeVerificationRejected,
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
  EXPECT_EQ(pki().anchorError, "");
  ldtest::TemporaryDirectory directory;
  const std::string code = randomCode(300'000);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = directory.file(c.name);
    LDSignatureManifest manifest{kIdentifier, kTeam, code.size() - (c.change == Change::signOneByteShort), {}};
    EVP_Digest(code.data(), code.size(), manifest.sha256.data(), nullptr, EVP_sha256(), nullptr);
    if (c.change == Change::signedDigestDiffersLast) manifest.sha256.back() ^= 0x01;
    const std::string blob = blobBy(pki().leaf, manifest);
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

// ---- Certificates changed field by field and signed again, against OpenSSL ----

const LDCertificateForge& forge() {
  static const LDCertificateForge* const shared = new LDCertificateForge;
  return *shared;
}

struct Verdict {
  int32_t status;
  std::string detail;
  std::optional<std::string> disagreement;  // what OpenSSL's verification says differently
};

// The verdict on blob with the forge's root number root as the anchor.
Verdict judge(const std::string& blob, uint8_t root = 0) {
  static const auto* const anchors = [] {
    auto* all = new std::vector<std::pair<LDTrustAnchors, const LDOpenSSLAnchors*>>;
    for (uint8_t r = 0; r < forge().rootCount(); ++r) {
      all->emplace_back(LDTrustAnchors::fromPEM(forge().rootPem(r)), new LDOpenSSLAnchors(forge().rootPem(r)));
    }
    return all;
  }();
  const auto& [ours, reference] = anchors->at(root);
  const LDSignatureContents contents = LDReadSignatureBlob(LDBytesOf(blob));
  std::string detail = contents.detail;
  const int32_t status = contents.status ? contents.status : LDVerifyChain(contents, ours.certificates(), &detail);
  return {status, detail, LDDisagreementWithOpenSSL(blob, ours, *reference)};
}

// Each bad encoding and each chain policy, planted into an otherwise valid signature: the status
// the verifier must give, and OpenSSL's verdict the same or the refusal one the profile documents.
TEST(SigningProfile, RefusesEachBadEncodingAndChainPolicy) {
  const std::pair<const char*, int32_t> cases[] = {
      {"", 0},
      {"intermediates=6", 0},
      {"intermediates=7", errSecCSSignatureUntrusted},
      {"intermediates=1 shape=omitIntermediates", errSecCSSignatureUntrusted},
      {"shape=twoSigners", errSecCSSignatureInvalid},
      // Issuers: a CA, allowed to sign certificates, within its path length.
      {"intermediates=1 target=intermediate1 basicConstraints=absent", errSecCSSignatureUntrusted},
      {"intermediates=1 target=intermediate1 basicConstraints=notCA", errSecCSSignatureUntrusted},
      {"intermediates=1 target=intermediate1 basicConstraints=caFalseExplicit", errSecCSSignatureInvalid},
      {"intermediates=1 target=intermediate1 keyUsage=digitalSignature", errSecCSSignatureUntrusted},
      {"intermediates=1 target=intermediate1 keyUsage=paddingBitsSet", errSecCSSignatureInvalid},
      {"intermediates=1 target=intermediate1 keyUsage=trailingZeroOctet", errSecCSSignatureInvalid},
      {"intermediates=1 target=intermediate1 keyUsage=signatureAndCertSign", 0},
      {"intermediates=2 target=intermediate2 basicConstraints=pathLen0", errSecCSSignatureUntrusted},
      {"intermediates=2 target=intermediate2 basicConstraints=pathLen1", 0},
      {"intermediates=1 target=intermediate1 basicConstraints=pathLen0", 0},
      {"intermediates=1 target=intermediate1 extendedKeyUsage=serverAuth", errSecCSSignatureUntrusted},
      // anyExtendedKeyUsage grants no purpose (OpenSSL's xku_reject), beside serverAuth or alone.
      {"intermediates=1 target=intermediate1 extendedKeyUsage=anyExtendedKeyUsage", errSecCSSignatureUntrusted},
      {"intermediates=1 target=intermediate1 extendedKeyUsage=serverAuthAndAny", errSecCSSignatureUntrusted},
      {"intermediates=1 target=intermediate1 extendedKeyUsage=serverAuthAndCodeSigning", 0},
      {"intermediates=1 target=intermediate1 extendedKeyUsage=empty", errSecCSSignatureInvalid},
      {"root=serverAuthOnly", errSecCSSignatureUntrusted},
      {"root=unknownCritical", errSecCSSignatureUntrusted},
      // Name constraints of every CA, critical or not, over every name below it; a leaf's own
      // constrain nothing; forms other than directory names refuse the chain.
      {"intermediates=1 target=intermediate1 extraExtension=permitsTeam", 0},
      {"intermediates=1 target=intermediate1 extraExtension=permitsOtherTeam", errSecCSSignatureUntrusted},
      {"intermediates=1 target=intermediate1 extraExtension=excludesTeam", errSecCSSignatureUntrusted},
      {"intermediates=1 target=intermediate1 extraExtension=excludesOtherTeam", 0},
      {"intermediates=1 target=intermediate1 extraExtension=permitsOrganizationSpelledOtherwise", 0},
      {"intermediates=2 target=intermediate2 extraExtension=permitsTeam", errSecCSSignatureUntrusted},
      {"root=excludesTeam", errSecCSSignatureUntrusted},
      {"intermediates=1 target=intermediate1 extraExtension=excludesLeaf", errSecCSSignatureUntrusted},
      {"intermediates=1 target=intermediate1 nameString=issuersName root=permitsTeam", 0},  // self-issued: not judged
      {"intermediates=1 target=intermediate1 nameString=empty root=permitsTeam", 0},  // an empty subject: not judged
      // The leaf's issuer named like the root, and no key identifier to tell them apart.
      {"intermediates=1 target=intermediate1 authorityKeyIdentifier=absent nameString=issuersName", errSecCSSignatureUntrusted},
      {"extraExtension=excludesTeam", 0},
      {"extraExtension=nameConstraintsCritical", 0},
      {"intermediates=1 target=intermediate1 extraExtension=permitsWithMaximum", errSecCSSignatureUntrusted},
      {"intermediates=1 target=intermediate1 extraExtension=permitsTeamAndDnsName", errSecCSSignatureUntrusted},
      {"intermediates=1 target=intermediate1 extraExtension=nameConstraintsCritical", errSecCSSignatureUntrusted},
      {"intermediates=1 target=intermediate1 extraExtension=permitsNothing", errSecCSSignatureInvalid},
      // The authority key identifier names the issuer, where it says anything.
      {"authorityKeyIdentifier=wrongKeyId", errSecCSSignatureUntrusted},
      {"authorityKeyIdentifier=issuerAndSerial", 0},
      {"intermediates=1 authorityKeyIdentifier=issuerAndSerial", 0},
      {"authorityKeyIdentifier=issuerSpelledOtherwise", 0},
      {"authorityKeyIdentifier=wrongIssuer", errSecCSSignatureUntrusted},
      {"authorityKeyIdentifier=secondDirectoryName", errSecCSSignatureUntrusted},
      {"authorityKeyIdentifier=wrongSerial", errSecCSSignatureUntrusted},
      {"authorityKeyIdentifier=emptyKeyId", errSecCSSignatureUntrusted},
      {"intermediates=1 target=intermediate1 authorityKeyIdentifier=ownKeyIdEmpty", errSecCSSignatureUntrusted},
      {"authorityKeyIdentifier=onlyIssuer", errSecCSSignatureInvalid},
      {"authorityKeyIdentifier=onlySerial", errSecCSSignatureInvalid},
      {"authorityKeyIdentifier=badDirectoryName", errSecCSSignatureInvalid},
      {"authorityKeyIdentifier=serialNonMinimal", errSecCSSignatureInvalid},
      {"authorityKeyIdentifier=serialNegative", errSecCSSignatureInvalid},
      // Encodings DER forbids, and strings outside their character sets.
      {"serial=nonMinimal", errSecCSSignatureInvalid},
      {"serial=negative", errSecCSSignatureInvalid},
      {"serial=twentyOneOctets", errSecCSSignatureInvalid},
      {"encoding=longFormLength", errSecCSSignatureInvalid},
      {"signatureValue=rNegative", errSecCSSignatureUntrusted},
      {"signatureValue=sPadded", errSecCSSignatureUntrusted},
      {"keyUsage=trailingZeroOctet", errSecCSSignatureInvalid},
      {"keyUsage=unusedBitsShort", errSecCSSignatureInvalid},
      {"basicConstraints=notCAWithPathLen", errSecCSSignatureInvalid},
      {"basicConstraints=notSequence", errSecCSSignatureInvalid},
      {"intermediates=1 target=intermediate1 extendedKeyUsage=notSequence", errSecCSSignatureInvalid},
      {"manifest=attributesUnsorted", errSecCSSignatureInvalid},
      {"manifest=contentNotData", errSecCSSignatureInvalid},
      {"manifest=attributeNotData", errSecCSSignatureInvalid},
      {"nameString=printable", 0},
      {"nameString=printableBad", errSecCSSignatureInvalid},
      {"nameString=ia5High", errSecCSSignatureInvalid},
      {"nameString=utf8Invalid", errSecCSSignatureInvalid},
      {"intermediates=1 shape=omitIntermediates target=intermediate1 nameString=utf8Controls", errSecCSSignatureUntrusted},
      // The leaf and the signer.
      {"extendedKeyUsage=serverAuth", errSecCSSignatureUntrusted},
      {"keyUsage=keyEncipherment", errSecCSSignatureUntrusted},
      {"key=rsa2048 signerAlgorithm=rsaEncryption", 0},
      {"signerAlgorithm=rsaEncryption", errSecCSSignatureInvalid},
      {"key=rsa2048 signerAlgorithm=parametersNotNull", errSecCSSignatureInvalid},
      {"algorithm=rsaEncryption", errSecCSSignatureInvalid},  // a certificate never names rsaEncryption
      {"key=p521", errSecCSSignatureInvalid},
      {"manifest=teamDiffers", errSecCSSignatureInvalid},
  };
  for (const auto& [text, expected] : cases) {
    const LDForgeRecipe recipe = LDForgeRecipeFromText(text).value();
    const Verdict verdict = judge(forge().signatureBlob(recipe), recipe[LDForgeRoot]);
    EXPECT_EQ(verdict.status, expected) << text;
    EXPECT_EQ(LDPrintableMessage(verdict.detail), verdict.detail) << text << ": a name reaches the detail unescaped";
    EXPECT_FALSE(verdict.disagreement) << text << ": " << *verdict.disagreement;
  }
}

// Each octet alone in a PrintableString and an IA5String common name, and the cap on extensions:
// the leaf's own five and 251 unknown ones are read, one more is refused, and so are 90,000
// without reading them all.
TEST(SigningProfile, ChecksEveryCharacterAndCapsTheExtensions) {
  static constexpr std::string_view kPrintable = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 '()+,-./:=?";
  const auto status = [](const LDForgeLeafExtras& extras) {
    return LDReadSignatureBlob(LDBytesOf(forge().signatureBlob(LDForgeRecipe{}, extras))).status;
  };
  for (int c = 0; c < 256; ++c) {
    // First, inside or last: a check that skipped either end would pass a third of them.
    std::string text = "ForgeLeaf";
    text.insert(std::array<size_t, 3>{0, 5, 9}[static_cast<size_t>(c % 3)], 1, static_cast<char>(c));
    const bool printable = kPrintable.find(static_cast<char>(c)) != std::string_view::npos;
    EXPECT_EQ(status({LDCertificateForge::commonName(LDDerPrintableString, text)}) == 0, printable) << c;
    EXPECT_EQ(status({LDCertificateForge::commonName(LDDerIA5String, text)}) == 0, c < 0x80) << c;
  }
  EXPECT_EQ(status({"", 251}), 0);
  EXPECT_EQ(status({"", 252}), errSecCSSignatureInvalid);
  EXPECT_EQ(status({"", 90'000}), errSecCSSignatureInvalid);
}

// Every single change, a few hundred random combinations, and every one-byte change and cut of a
// plain signature: the verifier and OpenSSL agree or the refusal is one the profile documents.
TEST(Differential, VerifierAgreesWithOpenSSL) {
  std::vector<LDForgeRecipe> recipes = LDForgeSingleChanges();
  std::mt19937 generator(19);
  for (int i = 0; i < 300; ++i) {
    uint8_t bytes[LDForgeKnobCount] = {};
    for (size_t knob = 0; knob < LDForgeFlipAt; ++knob) bytes[knob] = generator() % 3 ? 0 : static_cast<uint8_t>(generator());
    recipes.push_back(LDForgeRecipeFromBytes(bytes, sizeof bytes));
  }
  for (const LDForgeRecipe& recipe : recipes) {
    const auto disagreement = judge(forge().signatureBlob(recipe), recipe[LDForgeRoot]).disagreement;
    EXPECT_FALSE(disagreement) << LDForgeRecipeText(recipe) << ": " << *disagreement;
  }
  const std::string plain = forge().signatureBlob(LDForgeRecipeFromText("intermediates=1").value());
  for (size_t i = 0; i < plain.size(); ++i) {
    std::vector<std::string> variants = {plain, plain, plain.substr(0, i)};
    variants[0][i] = static_cast<char>(plain[i] ^ 0x01);
    variants[1][i] = static_cast<char>(plain[i] ^ 0x80);
    for (const std::string& variant : variants) {
      const auto disagreement = judge(variant).disagreement;
      EXPECT_FALSE(disagreement) << "byte " << i << ": " << *disagreement;
    }
  }
}

}  // namespace
