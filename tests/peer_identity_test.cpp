// Admission's pinning of the peer process, on a socketpair whose peer is this very process.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <vector>

#include "platform/dispatch.h"
#include "platform/peer_identity.h"

namespace {

// How far admission gets with this unsigned test program as the peer tells which check refused it.
TEST(PeerIdentity, PinsOnlyAProcessStartedBeforeTheAcceptAndCountsDescriptorsBeforeTheSignature) {
  const std::optional<LDRequirement> requirement = LDParseRequirement("identifier \"com.example.nobody\"");
  ASSERT_TRUE(requirement);
  struct Case {
    bool usePeerPidfd;
    uint64_t acceptedAfter;
    int extraDescriptors;
    const char* reason;
  } cases[] = {
      {false, 0, 0, "the peer process could not be pinned down"},  // as if it started after the accept
      {false, LDBootTimeTicks(), 0, "signature (OSStatus -67062)"},
      {true, 0, 0, "signature (OSStatus -67062)"},  // the kernel names the process; no clock needed
      {true, 0, 1100, "the peer holds more descriptors than a client needs"},
  };
  rlimit limit{4096, 4096};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  for (const Case& c : cases) {
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    LDFileHandle ours(pair[0]), theirs(pair[1]);
    std::vector<LDFileHandle> extra;
    for (int i = 0; i < c.extraDescriptors; ++i) extra.emplace_back(::fcntl(0, F_DUPFD_CLOEXEC, 0));
    std::string reason;
    const LDAdmissionPolicy policy{.requireSecureExecution = false, .usePeerPidfd = c.usePeerPidfd};
    const std::optional<LDPinnedPeer> peer = LDPinPeer(ours.fileDescriptor(), policy, &reason);
    ASSERT_TRUE(peer) << reason;
    EXPECT_FALSE(LDExaminePeer(ours.fileDescriptor(), *peer, c.acceptedAfter, *requirement,
                               LDTrustAnchors::compiledIn(), policy, &reason));
    EXPECT_EQ(reason.substr(0, std::string(c.reason).size()), c.reason) << reason;
  }
}

// A socket that crossed an exec cannot be close-on-exec: the scan must find every copy.
TEST(PeerIdentity, FindsEveryCopyOfTheSocketAndStopsAtTheFirstThatSurvivesExec) {
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
  LDFileHandle ours(pair[0]), theirs(pair[1]), self(::open("/proc/self", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat socket {};
  ASSERT_EQ(::fstat(ours.fileDescriptor(), &socket), 0);
  EXPECT_EQ(LDScanSocketCopies(self.fileDescriptor(), socket.st_ino, 1024), LDSocketCopies::allCloseOnExec);
  EXPECT_EQ(LDScanSocketCopies(self.fileDescriptor(), socket.st_ino, 2), LDSocketCopies::tooManyDescriptors);
  LDFileHandle cloexecCopy(::fcntl(ours.fileDescriptor(), F_DUPFD_CLOEXEC, 0));
  EXPECT_EQ(LDScanSocketCopies(self.fileDescriptor(), socket.st_ino, 1024), LDSocketCopies::allCloseOnExec);
  LDFileHandle inherited(::fcntl(ours.fileDescriptor(), F_DUPFD, 0));
  EXPECT_EQ(LDScanSocketCopies(self.fileDescriptor(), socket.st_ino, 1024), LDSocketCopies::notCloseOnExec);
  ours.reset();
  cloexecCopy.reset();
  inherited.reset();
  EXPECT_EQ(LDScanSocketCopies(self.fileDescriptor(), socket.st_ino, 1024), LDSocketCopies::none)
      << "a socket the process does not hold is not its own";
}

// The helper ends with exit() on its utility thread while another thread may be checking a
// signature: nothing that check uses may be destroyed by exit (run under the sanitizers).
TEST(PeerIdentity, ExitOnTheUtilityThreadWhileASignatureIsCheckedEndsCleanly) {
  for (int round = 0; round < 20; ++round) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      LDFileHandle signedFile(::open(LD_SIGNED_PROGRAM, O_RDONLY | O_CLOEXEC));
      LDUtilityQueue* queue = new LDUtilityQueue;  // as in the helper, alive until the exit
      queue->dispatchAfter(200'000 * round, LDDispatchBlock::create([] { std::exit(1); }));
      for (;;) {
        std::string detail;
        if (LDCheckSignatureOfDescriptor(signedFile.fileDescriptor(), nullptr, LDTrustAnchors::compiledIn(),
                                         &detail) != 0) {
          ::_exit(3);
        }
      }
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << "round " << round << ", status " << status;
  }
}

}  // namespace
