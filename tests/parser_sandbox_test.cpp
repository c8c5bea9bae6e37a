// The child that parses a peer's signature: it holds no capability, no new privileges and a
// seccomp filter before it reads a byte, and anything outside the filter kills it and refuses.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <thread>

#include "admission/parser_sandbox.h"
#include "signing/code_signature.h"
#include "support/descriptors.h"
#include "support/test_pki.h"
#include "tools/code_signer.h"

namespace {

// The one child of this process's threads.
std::string onlyChild() {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    const std::string children = ldtest::readFile(task.path().string() + "/children");
    if (!children.empty()) return children.substr(0, children.find(' '));
  }
  return "";
}

std::string statusLine(const std::string& status, const std::string& name) {
  const size_t at = status.find("\n" + name + ":");
  if (at == std::string::npos) return "";
  const size_t start = status.find_first_not_of(" \t", at + name.size() + 2);
  return status.substr(start, status.find('\n', start) - start);
}

TEST(ParserSandbox, ParsesWithoutPrivilegesAndDiesOnAnythingElse) {
  const LDFileHandle file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));  // unsigned
  const LDRequirement requirement = *LDParseRequirement("anchor apple generic");
  const std::set<int> descriptors = ldtest::openDescriptors();

  // Caught while it waits, after the sandbox and before the first read of the file: it spins on
  // a shared page (it keeps no descriptor it could wait on).
  auto* gate = static_cast<std::atomic<int>*>(
      ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(gate, MAP_FAILED);
  std::string detail;
  int32_t status = 0;
  std::thread parsing([&] {
    status = LDCheckSignatureInSandbox(file.fileDescriptor(), requirement, LDTrustAnchors::compiledIn(), &detail,
                                       [gate] {
                                         gate->store(1);
                                         while (gate->load() != 2) {
                                         }
                                       });
  });
  while (gate->load() != 1) {
  }
  const std::string child = onlyChild();  // there by now: it opened the gate
  ASSERT_FALSE(child.empty());
  const std::string seen = ldtest::readFile("/proc/" + child + "/status");
  gate->store(2);
  parsing.join();
  ::munmap(gate, sizeof(std::atomic<int>));
  for (const char* capabilities : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
    EXPECT_EQ(statusLine(seen, capabilities), "0000000000000000") << capabilities;
  }
  EXPECT_EQ(statusLine(seen, "NoNewPrivs"), "1");
  EXPECT_EQ(statusLine(seen, "Seccomp"), "2");
  EXPECT_EQ(status, errSecCSUnsigned) << detail << ": the verdict of the parse that followed";

  // A parser fault that opens a file (as an exploited parser would) is killed, and refuses.
  detail.clear();
  status = LDCheckSignatureInSandbox(file.fileDescriptor(), requirement, LDTrustAnchors::compiledIn(), &detail,
                                     [] { (void)::open("/etc/hostname", O_RDONLY | O_CLOEXEC); });
  EXPECT_EQ(status, errSecCSSignatureNotVerifiable);
  EXPECT_EQ(detail, "the signature check was ended by signal " + std::to_string(SIGSYS));
  EXPECT_EQ(ldtest::openDescriptors(), descriptors);
}

// A verdict crosses with its detail cut to what fits, the status whole: a requirement naming an
// identifier of 600 characters fails with a detail longer than the room for it.
TEST(ParserSandbox, AVerdictWithTheLongestDetailStillCounts) {
  ldtest::TemporaryDirectory directory;
  ldtest::TestPki pki(directory.path());
  const ldtest::TestIdentity root = pki.makeRoot("Root"), leaf = pki.makeLeaf(root, "Leaf");
  const std::string app = directory.file("app");
  ldtest::writeFile(app, std::string(4096, 'x'), 0755);
  std::string error;
  const auto identity = LDLoadSigningIdentity(leaf.keyPath, leaf.certificatePath, "", &error);
  ASSERT_TRUE(identity && LDSignFile(app, "com.example.app", *identity, &error)) << error;
  const LDFileHandle file(::open(app.c_str(), O_RDONLY | O_CLOEXEC));
  const std::string longIdentifier(600, 'i');
  const LDRequirement requirement = *LDParseRequirement("identifier \"" + longIdentifier + "\"");
  std::string detail;
  EXPECT_EQ(LDCheckSignatureInSandbox(file.fileDescriptor(), requirement,
                                      LDTrustAnchors::fromPEM(ldtest::TestPki::pemOf(root)), &detail),
            errSecCSReqFailed);
  EXPECT_TRUE(detail.starts_with("the code does not satisfy identifier \"iii")) << detail;
  EXPECT_LT(detail.size(), longIdentifier.size()) << "cut to the room a verdict has";
}

}  // namespace
