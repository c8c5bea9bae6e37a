#include <gtest/gtest.h>

#include "signing/code_signing.h"
#include "support/process.h"
#include "support/test_pki.h"
#include "tools/code_signer.h"

namespace {

using ldtest::readFile;

// The probe prints the requirement for its argument from its own /proc/self/exe. Signing
// information is read, not validated: a stranger's signature, through an intermediate, still
// names its team (the helper's file is root's to replace anyway), but a malformed one names
// nothing.
TEST(TeamIdentity, ReadFromTheProgramsOwnSignatureWithoutJudgingIt) {
  ldtest::TemporaryDirectory directory;
  const std::string probe = directory.file("team-probe");
  const std::string image = readFile(LD_TEAM_PROBE);
  ldtest::writeFile(probe, image);
  const auto expectOutput = [&](int exitStatus, const std::string& output) {
    // The identifier goes in unchanged, quote included.
    const auto result = ldtest::runProgram({probe, "com.example.\"quoted\""});
    EXPECT_EQ(result.exitStatus, exitStatus) << result.standardError;
    EXPECT_EQ(result.standardOutput, output);
  };
  expectOutput(1, "This build carries no Team ID; it is unsigned or ad-hoc signed, so the privileged listener "
                  "peers cannot authenticate each other\n");

  ldtest::TestPki pki(directory.path());
  const auto root = pki.makeRoot("Stranger Root");
  const auto intermediate = pki.makeIntermediate(root, "Stranger Intermediate");
  const auto leaf = pki.makeLeaf(intermediate, "Stranger Leaf", {.team = "STRANGER01"});
  std::string error;
  const auto identity = LDLoadSigningIdentity(leaf.keyPath, leaf.certificatePath, intermediate.certificatePath, &error);
  ASSERT_TRUE(identity) << error;
  ASSERT_TRUE(LDSignFile(probe, "com.example.probe", *identity, &error)) << error;
  expectOutput(0, "identifier \"com.example.\"quoted\"\" and anchor apple generic and certificate "
                  "leaf[subject.OU] = \"STRANGER01\"\n");

  std::string corrupted = readFile(probe);
  corrupted[image.size()] = 0x31;  // a SET where the CMS SEQUENCE begins
  ldtest::writeFile(probe, corrupted);
  expectOutput(1, "SecCodeCopySigningInformation failed with OSStatus -67045\n");
}

}  // namespace
