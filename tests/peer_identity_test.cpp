// Admission's pinning of the peer process, on a socketpair whose peer is this very process.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/dispatch.h"
#include "admission/peer_identity.h"

namespace {

// Whether this kernel names a socket's peer process (SO_PEERPIDFD, Linux 6.5); any answer but "no
// such option" fails the test, so a kernel with it cannot pass for one without.
bool kernelHasPeerPidfd() {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
    ADD_FAILURE() << "socketpair: " << std::strerror(errno);
    return false;
  }
  const LDFileHandle ours(pair[0]), theirs(pair[1]);
  int pidfd = -1;
  socklen_t length = sizeof pidfd;
  const int result = ::getsockopt(ours.fileDescriptor(), SOL_SOCKET, 77 /* SO_PEERPIDFD */, &pidfd, &length);
  const int error = result == -1 ? errno : 0;
  const LDFileHandle owned(pidfd);
  EXPECT_TRUE(result == 0 ? pidfd >= 0 : error == ENOPROTOOPT) << std::strerror(error);
  return result == 0;
}

// A child that holds exactly `descriptors` descriptors, all copies of its connection to the socket
// returned, and exits once that closes.
LDFileHandle connectedChildHolding(int descriptors, pid_t* child) {
  const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "\0peer-identity-test"};
  const auto* name = reinterpret_cast<const sockaddr*>(&address);
  constexpr socklen_t kLength = sizeof(sa_family_t) + sizeof "\0peer-identity-test" - 1;
  const LDFileHandle listening(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::bind(listening.fileDescriptor(), name, kLength) | ::listen(listening.fileDescriptor(), 1), 0);
  if ((*child = ::fork()) == 0) {  // its descriptors all in place before it connects
    if (::dup2(::socket(AF_UNIX, SOCK_SEQPACKET, 0), 0) != 0 || ::close_range(1, ~0u, 0) != 0) ::_exit(1);
    for (int i = 1; i < descriptors; ++i) (void)::dup(0);
    char end = 0;
    if (::connect(0, name, kLength) == 0) (void)::recv(0, &end, 1, 0);
    ::_exit(0);
  }
  return LDFileHandle(::accept4(listening.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC));
}

// How far admission gets with a child of this unsigned test program as the peer tells which check
// refused it. Without SO_PEERPIDFD (Debian 12's 6.1) admission falls back to the pid and the start
// time, so a clock read before the peer started refuses it there, where SO_PEERPIDFD needs no clock.
TEST(PeerIdentity, PinsOnlyAProcessStartedBeforeTheAcceptAndCountsDescriptorsBeforeTheSignature) {
  const std::optional<LDRequirement> requirement = LDParseRequirement("identifier \"com.example.nobody\"");
  ASSERT_TRUE(requirement);
  const bool kernelNamesPeer = kernelHasPeerPidfd();
  struct Case {
    bool usePeerPidfd;
    bool clockReadAfterItStarted;  // else before: as if it started after the accept
    int descriptors;               // the peer's; it is refused above 8
    const char* reason;
    const char* reasonWithoutPeerPidfd = nullptr;  // where the kernel lacks it, if that differs
    bool numberReused = false;  // its pidfd's process gone, its number (and /proc directory) another's
  } cases[] = {
      {false, false, 1, "the peer process could not be pinned down"},
      {true, false, 1, "signature (OSStatus -67062)",  // the kernel names the process; no clock needed
       "the peer process could not be pinned down"},
      {false, true, 8, "signature (OSStatus -67062)"},
      {false, true, 9, "the peer holds more descriptors than a client needs"},
      {false, true, 1, "the peer's executable cannot be found", nullptr, true},
  };
  for (const Case& c : cases) {
    pid_t child = -1;
    LDFileHandle ours = connectedChildHolding(c.descriptors, &child);
    const uint64_t acceptedAfter = c.clockReadAfterItStarted ? LDBootTimeTicks() : 0;
    std::string reason;
    const LDAdmissionPolicy policy{.requireSecureExecution = false, .usePeerPidfd = c.usePeerPidfd, .maximumDescriptors = 8};
    std::optional<LDPinnedPeer> peer = LDPinPeer(ours.fileDescriptor(), policy, &reason);
    ASSERT_TRUE(peer) << reason;
    EXPECT_EQ(peer->pidfdFromSocket, c.usePeerPidfd && kernelNamesPeer);
    if (c.numberReused) {  // here by this process
      peer->processDirectory.reset(::open("/proc/self", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      ours.reset();
      ::waitpid(std::exchange(child, -1), nullptr, 0);
    }
    EXPECT_FALSE(LDExaminePeer(ours.fileDescriptor(), *peer, acceptedAfter, *requirement, LDTrustAnchors::compiledIn(),
                               policy, &reason));
    const std::string expected = !kernelNamesPeer && c.reasonWithoutPeerPidfd ? c.reasonWithoutPeerPidfd : c.reason;
    EXPECT_EQ(reason.substr(0, expected.size()), expected) << reason;
    ours.reset();
    EXPECT_TRUE(child < 0 || ::waitpid(child, nullptr, 0) == child);
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
