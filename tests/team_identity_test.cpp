#include <gtest/gtest.h>

#include "shared/code_signing.h"
#include "support/process.h"
#include "support/test_pki.h"
#include "tools/code_signer.h"

namespace {

using ldtest::readFile;
using ldtest::runProgram;
using ldtest::writeFile;

constexpr const char* kNoTeam =
    "This build carries no Team ID; it is unsigned or ad-hoc signed, so the privileged listener "
    "peers cannot authenticate each other\n";

// The probe verifies its own /proc/self/exe against the anchors compiled into it: the build's
// signing identity signs it, a test CA does not count.
class TeamIdentity : public testing::Test {
 protected:
  void SetUp() override {
    probe = directory.file("team-probe");
    writeFile(probe, readFile(LD_TEAM_PROBE), 0755);
  }

  std::optional<LDSigningIdentity> buildIdentity() {
    std::string error;
    auto identity = LDLoadSigningIdentity(LD_BUILD_SIGNING_KEY, LD_BUILD_SIGNING_CERT,
                                          LD_BUILD_SIGNING_CHAIN, &error);
    EXPECT_TRUE(identity) << error;
    return identity;
  }

  ldtest::TemporaryDirectory directory;
  std::string probe;
};

TEST_F(TeamIdentity, SignedProgramReadsItsTeamIntoTheRequirement) {
  const auto identity = buildIdentity();
  ASSERT_TRUE(identity);
  std::string error;
  ASSERT_TRUE(LDSignFile(probe, "com.example.probe", *identity, &error)) << error;
  // The identifier goes in unchanged, quote included.
  const auto result = runProgram({probe, "com.example.\"quoted\""});
  EXPECT_EQ(result.exitStatus, 0) << result.standardOutput << result.standardError;
  EXPECT_EQ(result.standardOutput,
            "identifier \"com.example.\"quoted\"\" and anchor apple generic and certificate "
            "leaf[subject.OU] = \"" + identity->team + "\"\n");
}

TEST_F(TeamIdentity, UnsignedProgramHasNoTeam) {
  const auto result = runProgram({probe});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.standardOutput, kNoTeam);
}

// Signing information is read, not validated: a stranger's signature still names its team (the
// helper's file is root's to replace anyway), but a malformed one names nothing.
TEST_F(TeamIdentity, SigningInformationIsReadNotValidated) {
  ldtest::TestPki pki(directory.path());
  const auto root = pki.makeRoot("Stranger Root");
  const auto leaf = pki.makeLeaf(root, "Stranger Leaf", {.team = "STRANGER01"});
  std::string error;
  const auto identity = LDLoadSigningIdentity(leaf.keyPath, leaf.certificatePath, "", &error);
  ASSERT_TRUE(identity) << error;
  ASSERT_TRUE(LDSignFile(probe, "com.example.probe", *identity, &error)) << error;
  auto result = runProgram({probe, "x"});
  EXPECT_EQ(result.standardOutput,
            "identifier \"x\" and anchor apple generic and certificate leaf[subject.OU] = \"STRANGER01\"\n");

  std::string image = readFile(probe);
  const LDSignatureLocation location =
      LDLocateSignature(image.size(), std::string_view(image).substr(image.size() - LDSignatureTrailerSize));
  image[location.codeSize] = 0x31;  // a SET where the CMS SEQUENCE begins
  writeFile(probe, image, 0755);
  result = runProgram({probe});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(result.standardOutput, "SecCodeCopySigningInformation failed with OSStatus -67045\n");
}

TEST(TeamIdentityOfExecutable, OpenFailureAndMissingErrorPlace) {
  std::optional<LDError> error;
  EXPECT_FALSE(LDTeamIdentifierOfExecutable("/nonexistent/exe", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->description(), "SecCodeCopySelf failed with OSStatus -67068");
  EXPECT_EQ(error->code(), LDListenerErrorValidation);
  EXPECT_FALSE(LDTeamIdentifierOfExecutable("/nonexistent/exe"));
  // The test program itself is not signed.
  EXPECT_FALSE(LDCurrentTeamIdentifier());
  std::optional<LDError> unsignedError;
  EXPECT_FALSE(LDCodeSigningRequirementForIdentifier("x", &unsignedError));
  ASSERT_TRUE(unsignedError);
  EXPECT_EQ(unsignedError->description() + "\n", kNoTeam);
}

}  // namespace
