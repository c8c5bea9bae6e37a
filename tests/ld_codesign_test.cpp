#include <gtest/gtest.h>

#include "support/process.h"
#include "support/test_pki.h"

namespace {

using ldtest::runProgram;
using ldtest::writeFile;

// Every bad input gets one clear line on standard error and a non-zero exit; the file is left
// as it was.
TEST(LdCodesign, BadInputsGetOneClearLine) {
  ldtest::TemporaryDirectory directory;
  ldtest::TestPki pki(directory.path());
  const auto root = pki.makeRoot("Root");
  const auto leaf = pki.makeLeaf(root, "Leaf");
  const auto other = pki.makeLeaf(root, "Other Leaf");
  const auto noTeam = pki.makeLeaf(root, "No Team", {.team = std::nullopt});
  const auto twoUnits = pki.makeLeaf(root, "Two Units", {.secondOrganizationalUnit = true});
  const std::string program = directory.file("program");
  writeFile(program, "some code");
  const std::string tool = LD_CODESIGN;

  struct Case {
    std::vector<std::string> argv;
    std::string firstLine;
  };
  for (const Case& c : {
           Case{{tool, "sign", "--identifier", "com.a", "--key", leaf.keyPath, "--cert", leaf.certificatePath,
                 directory.file("missing")},
                "ld-codesign: cannot open " + directory.file("missing") + ": No such file or directory"},
           Case{{tool, "sign", "--identifier", "com.a", "--key", other.keyPath, "--cert", leaf.certificatePath, program},
                "ld-codesign: " + other.keyPath + " is not the key of the certificate in " + leaf.certificatePath},
           Case{{tool, "sign", "--identifier", "com.a", "--key", noTeam.keyPath, "--cert", noTeam.certificatePath, program},
                "ld-codesign: " + noTeam.certificatePath +
                    " must name exactly one organisational unit (OU) in its subject: the team identifier"},
           Case{{tool, "sign", "--identifier", "com.a", "--key", twoUnits.keyPath, "--cert", twoUnits.certificatePath, program},
                "ld-codesign: " + twoUnits.certificatePath +
                    " must name exactly one organisational unit (OU) in its subject: the team identifier"},
           Case{{tool, "sign", "--identifier", "com.a\nb", "--key", leaf.keyPath, "--cert", leaf.certificatePath, program},
                "ld-codesign: identifier \"com.a"},
           Case{{tool, "sign", "--identifier", "com.\"a\"", "--key", leaf.keyPath, "--cert", leaf.certificatePath, program},
                "ld-codesign: identifier \"com.\"a\"\" must be a reverse-DNS name of letters, digits, '.', '-' and '_'"},
           Case{{tool, "sign", "--identifier", "com.a", "--key", leaf.certificatePath, "--cert", leaf.certificatePath, program},
                "ld-codesign: " + leaf.certificatePath + " holds no private key in PEM form (an encrypted key is not supported)"},
           Case{{tool, "sign", "--identifier", "com.a", "--key", leaf.keyPath, program},
                "ld-codesign: sign needs --identifier, --key and --cert"},
           Case{{tool, "verify", "--requirement", "anchor apple generic", "--anchor", leaf.keyPath, program},
                "ld-codesign: " + leaf.keyPath + ": no certificate in the anchor PEM"},
           Case{{tool, "verify", "--requirement"}, "ld-codesign: --requirement needs a value"},
           Case{{tool, "display", program}, "ld-codesign: " + program + " is not signed"},
           Case{{tool, "frobnicate"}, "ld-codesign: unknown command frobnicate"},
           Case{{tool, "sign", "--force", "x", program}, "ld-codesign: unknown option --force"},
       }) {
    const auto result = runProgram(c.argv);
    EXPECT_NE(result.exitStatus, 0) << c.firstLine;
    EXPECT_EQ(result.standardError.substr(0, result.standardError.find('\n', c.firstLine.size() - 1)),
              c.firstLine);
    EXPECT_EQ(ldtest::readFile(program), "some code");
  }
}

TEST(LdCodesign, SignVerifyDisplayRoundTrip) {
  ldtest::TemporaryDirectory directory;
  ldtest::TestPki pki(directory.path());
  const auto root = pki.makeRoot("Root");
  const auto leaf = pki.makeLeaf(root, "Leaf", {.team = "TEAMXYZ"});
  const std::string program = directory.file("program");
  writeFile(program, "some code", 0700);
  const std::string tool = LD_CODESIGN;
  auto signedResult = runProgram({tool, "sign", "--identifier", "com.x", "--key", leaf.keyPath, "--cert",
                                  leaf.certificatePath, program});
  EXPECT_EQ(signedResult.exitStatus, 0) << signedResult.standardError;
  const std::string requirement = "identifier \"com.x\" and anchor apple generic and certificate leaf[subject.OU] = \"TEAMXYZ\"";
  struct Case {
    std::string requirement;
    std::string anchor;
    int exitStatus;
  };
  for (const Case& c : {Case{requirement, root.certificatePath, 0},
                        Case{"identifier \"com.y\"", root.certificatePath, 1},
                        Case{requirement, "", 1},  // the compiled-in anchors do not know this root
                        Case{"identifier", root.certificatePath, 1}}) {
    std::vector<std::string> argv{tool, "verify", "--requirement", c.requirement};
    if (!c.anchor.empty()) {
      argv.push_back("--anchor");
      argv.push_back(c.anchor);
    }
    argv.push_back(program);
    EXPECT_EQ(runProgram(argv).exitStatus, c.exitStatus) << c.requirement;
  }
  EXPECT_EQ(runProgram({tool, "verify", "--requirement", requirement, directory.file("none")}).exitStatus, 2);
  const auto shown = runProgram({tool, "display", program});
  EXPECT_EQ(shown.exitStatus, 0);
  EXPECT_NE(shown.standardOutput.find("identifier com.x\nteam       TEAMXYZ\n"), std::string::npos)
      << shown.standardOutput;
  EXPECT_NE(shown.standardOutput.find("size       9\n"), std::string::npos);
}

}  // namespace
