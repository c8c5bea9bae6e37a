#include <openssl/evp.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "shared/hex.h"
#include "signing/code_signature.h"
#include "support/process.h"
#include "support/test_pki.h"

namespace {

// Every command answers first with exactly the expected lines (on standard output when it ran,
// on standard error when it could not) and its documented exit status. The unsigned program is
// left as it was by every command; the signed one is a copy of /bin/true.
TEST(LdCodesign, EveryCommandAnswersWithItsStatusAndClearLines) {
  ldtest::TemporaryDirectory directory;
  ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);  // one command runs as nobody
  ldtest::TestPki pki(directory.path());
  const auto root = pki.makeRoot("Root");
  const auto leaf = pki.makeLeaf(root, "Leaf");
  const auto other = pki.makeLeaf(root, "Other Leaf");
  const auto noTeam = pki.makeLeaf(root, "No Team", {.team = std::nullopt});
  const auto twoUnits = pki.makeLeaf(root, "Two Units", {.secondOrganizationalUnit = true});
  // An untrusted issuer whose name would print a verdict of its own and move the cursor back.
  const std::string forgery = "Evil\n" + directory.file("signed") + ": valid (OSStatus 0)\x1b[1A";
  const auto forger = pki.makeLeaf(pki.makeRoot(forgery), "Forged");
  const std::string program = directory.file("program");
  const std::string signedProgram = directory.file("signed");
  ldtest::writeFile(program, "some code", 0600);
  ldtest::writeFile(directory.file("torn"), "x" + LDFormatSignatureTrailer(1000), 0600);  // a blob longer than the file
  const std::string code = ldtest::readFile("/bin/true");
  ldtest::writeFile(signedProgram, code, 0750);
  std::array<uint8_t, 32> digest{};
  EVP_Digest(code.data(), code.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
  const std::string tool = LD_CODESIGN;
  const auto sign = [&](const std::string& identifier, const std::string& key, const std::string& certificate,
                        const std::string& file) {
    return std::vector<std::string>{tool, "sign", "--identifier", identifier, "--key", key, "--cert", certificate, file};
  };
  const std::string requirement =
      "identifier \"com.x\" and anchor apple generic and certificate leaf[subject.OU] = \"TEAMONE001\"";
  const std::string oneOu = " must name exactly one organisational unit (OU) in its subject: the team identifier";

  struct Case {
    std::vector<std::string> argv;
    int exitStatus;
    std::string lines;  // the first lines of the output, without the last LF
    int uid = -1;
  };
  for (const Case& c : {
           // Signing again replaces the signature: the size shown is still the code's.
           Case{sign("com.x", other.keyPath, other.certificatePath, signedProgram), 0,
                signedProgram + ": signed as com.x (team TEAMONE001)"},
           Case{sign("com.x", leaf.keyPath, leaf.certificatePath, signedProgram), 0,
                signedProgram + ": signed as com.x (team TEAMONE001)"},
           Case{{tool, "display", signedProgram}, 0,
                "identifier com.x\nteam       TEAMONE001\nsigner     CN=Leaf,OU=TEAMONE001,O=Quillfern Test\n"
                "size       " + std::to_string(code.size()) + "\nsha256     " + LDHex(digest.data(), digest.size())},
           Case{{tool, "verify", "--requirement", requirement, "--anchor", root.certificatePath, signedProgram}, 0,
                signedProgram + ": valid (OSStatus 0)"},
           // The compiled-in anchors do not know this root.
           Case{{tool, "verify", "--requirement", requirement, signedProgram}, 1,
                signedProgram + ": rejected: " + signedProgram + " does not satisfy its code-signing requirement "
                "(OSStatus -66996): the signer's certificate chain is not trusted: it does not lead to a "
                "compiled-in root (issuer CN=Root,O=Quillfern Test)"},
           Case{sign("com.x", forger.keyPath, forger.certificatePath, signedProgram), 0,
                signedProgram + ": signed as com.x (team TEAMONE001)"},
           Case{{tool, "verify", "--requirement", requirement, "--anchor", root.certificatePath, signedProgram}, 1,
                signedProgram + ": rejected: " + signedProgram + " does not satisfy its code-signing requirement "
                "(OSStatus -66996): the signer's certificate chain is not trusted: it does not lead to a "
                "compiled-in root (issuer CN=Evil\\x0a" + signedProgram + ": valid (OSStatus 0)\\x1b[1A,O=Quillfern Test)"},
           Case{{tool, "verify", "--requirement", requirement, "--anchor", root.certificatePath, program}, 2,
                program + ": unverifiable: No readable code at " + program + " (OSStatus -67060)", 65534},
           // The longest identifier there may be, for a file that is not there.
           Case{sign(std::string(255, 'a'), leaf.keyPath, leaf.certificatePath, directory.file("missing")), 2,
                "ld-codesign: cannot open " + directory.file("missing") + ": No such file or directory"},
           Case{sign("com.a", leaf.keyPath, directory.file("none"), program), 2,
                "ld-codesign: cannot read " + directory.file("none") + ": No such file or directory"},
           Case{sign("com.a", other.keyPath, leaf.certificatePath, program), 2,
                "ld-codesign: " + other.keyPath + " is not the key of the certificate in " + leaf.certificatePath},
           Case{sign("com.a", noTeam.keyPath, noTeam.certificatePath, program), 2,
                "ld-codesign: " + noTeam.certificatePath + oneOu},
           Case{sign("com.a", twoUnits.keyPath, twoUnits.certificatePath, program), 2,
                "ld-codesign: " + twoUnits.certificatePath + oneOu},
           Case{sign("com.a\nb", leaf.keyPath, leaf.certificatePath, program), 2,
                "ld-codesign: identifier \"com.a\\x0ab\" must be a reverse-DNS name of letters, digits, '.', '-' and '_'"},
           Case{sign("com.\"a\"", leaf.keyPath, leaf.certificatePath, program), 2,
                "ld-codesign: identifier \"com.\"a\"\" must be a reverse-DNS name of letters, digits, '.', '-' and '_'"},
           Case{sign("com.a", leaf.certificatePath, leaf.certificatePath, program), 2,
                "ld-codesign: " + leaf.certificatePath + " holds no private key in PEM form (an encrypted key is not supported)"},
           Case{{tool, "sign", "--identifier", "com.a", "--key", leaf.keyPath, program}, 64,
                "ld-codesign: sign needs --identifier, --key and --cert"},
           Case{{tool, "verify", "--requirement", "anchor apple generic", "--anchor", leaf.keyPath, program}, 2,
                "ld-codesign: " + leaf.keyPath + ": no certificate in the anchor PEM"},
           Case{{tool, "verify", "--requirement"}, 64, "ld-codesign: --requirement needs a value"},
           Case{{tool, "display", program}, 2, "ld-codesign: " + program + " is not signed"},
           Case{{tool, "display", directory.file("torn")}, 2, "ld-codesign: " + directory.file("torn") + " ends in a malformed signature trailer"},
           Case{{tool, "verify", "--requirement", "anchor apple generic", "--anchor", directory.file("none"), program}, 2,
                "ld-codesign: cannot read " + directory.file("none") + ": No such file or directory"},
           Case{{tool}, 64, "ld-codesign: no command"},
           Case{{tool, "frobnicate"}, 64, "ld-codesign: unknown command frobnicate"},
           Case{{tool, "sign", "--force", "x", program}, 64, "ld-codesign: unknown option --force"},
       }) {
    const auto result = ldtest::runProgram(c.argv, c.uid);
    EXPECT_EQ(result.exitStatus, c.exitStatus) << c.lines;
    EXPECT_EQ((result.standardOutput + result.standardError).substr(0, c.lines.size() + 1), c.lines + "\n");
    EXPECT_EQ(ldtest::readFile(program), "some code");
  }
  // Signing kept the mode, and the loader ignores the appended signature.
  struct stat status {};
  ASSERT_EQ(::stat(signedProgram.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0750u);
  EXPECT_EQ(ldtest::runProgram({signedProgram}).exitStatus, 0);
}

}  // namespace
