// Admission's pinning of the peer process, on a socketpair whose peer is this very process.

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "platform/peer_identity.h"

namespace {

TEST(PeerIdentity, WithoutPeerPidfdOnlyAProcessStartedBeforeTheAcceptIsPinned) {
  const std::optional<LDRequirement> requirement = LDParseRequirement("identifier \"com.example.nobody\"");
  ASSERT_TRUE(requirement);
  struct Case {
    bool usePeerPidfd;
    uint64_t acceptedAfter;
    const char* reason;  // how far admission got: this test program is not signed
  } cases[] = {
      {false, 0, "the peer process could not be pinned down"},  // as if it started after the accept
      {false, LDBootTimeTicks(), "signature (OSStatus -67062)"},
      {true, 0, "signature (OSStatus -67062)"},  // the kernel names the process; no clock needed
  };
  for (const Case& c : cases) {
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    LDFileHandle ours(pair[0]), theirs(pair[1]);
    std::string reason;
    const LDAdmissionPolicy policy{.requireSecureExecution = false, .usePeerPidfd = c.usePeerPidfd};
    EXPECT_FALSE(LDAdmitPeer(ours.fileDescriptor(), c.acceptedAfter, *requirement, LDTrustAnchors::compiledIn(),
                             policy, &reason));
    EXPECT_EQ(reason.substr(0, std::string(c.reason).size()), c.reason) << reason;
  }
}

}  // namespace
