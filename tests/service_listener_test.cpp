// The helper's listener, real, with admission and the kernel's calls replaced where a test must
// make them slow or fail.

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "helper/service_listener.h"
#include "platform/seqpacket.h"
#include "support/descriptors.h"
#include "support/scripted_system_calls.h"
#include "support/test_pki.h"

namespace {

// Takes every call and answers none.
class Silent final : public LDListenerHandoff {
 public:
  void requestListenerTransferWithProtocolVersion(int64_t, LDRequestReply, LDListenerConnection*) override {}
  void completeListenerTransferWithProtocolVersion(int64_t, const std::optional<std::string>&, bool, LDCompleteReply,
                                                   LDListenerConnection*) override {}
};

class Greeter final : public LDServiceListenerDelegate {
 public:
  bool listener(LDServiceListener&, LDKeptConnection& connection) override {
    connection.setExportedObject(exported);
    connection.activate();  // sends Hello
    return true;
  }
  std::shared_ptr<LDListenerHandoff> exported = std::make_shared<Silent>();  // none: nothing serves its calls
};

// What a client sees now: "hello" (a packet), "closed" (end of stream) or "nothing".
std::string seen(const LDFileHandle& fd) {
  char packet[64];
  const ssize_t got = ::recv(fd.fileDescriptor(), packet, sizeof packet, MSG_DONTWAIT | MSG_PEEK);
  return got > 0 ? "hello" : got == 0 ? "closed" : "nothing";
}

// The examination in the keepers, by the abstract name the client bound before connecting:
// "stuck..." never gets past the checks that can wait on the peer, "slow..." never past the
// signature; any other peer is admitted at once.
std::optional<LDPeerVerdict> examineByName(int socket, const LDPinnedPeer& peer, uint64_t,
                                           const std::function<void()>& inspected) {
  sockaddr_un address{};
  socklen_t length = sizeof address;
  (void)::getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length);
  const std::string name(address.sun_path + 1, length > sizeof(sa_family_t) + 1 ? length - sizeof(sa_family_t) - 1 : 0);
  if (name.starts_with("refuse")) return std::nullopt;
  if (name.starts_with("slow")) inspected();
  while (name.starts_with("stuck") || name.starts_with("slow")) ::pause();
  LDPeerVerdict verdict;  // the test's own executable: its later messages pass their check
  verdict.executable = LDOpenExecutable(peer.processDirectory.fileDescriptor()).value().identity();
  return verdict;
}

// A listener on a fresh socket, with its loop, greeting whoever it admits.
class ServiceListenerTest : public testing::Test {
 protected:
  void SetUp() override { listenAt("helper.sock"); }
  // A new listener, at a new path.
  void listenAt(const std::string& name) {
    path = directory.file(name);
    LDFileHandle listening = ldtest::seqpacketSocket(path, ldtest::Seqpacket::listening);
    ASSERT_EQ(::fcntl(listening.fileDescriptor(), F_SETFL, O_NONBLOCK), 0);  // as the helper makes it
    listener = std::make_unique<LDServiceListener>(std::move(listening), loop);
    listener->setExamination(examineByName);
    listener->setDelegate(&greeter);
  }
  LDFileHandle connect(const std::string& name = "") {
    LDFileHandle fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());  // abstract: a leading NUL
    const socklen_t length = static_cast<socklen_t>(sizeof(sa_family_t) + 1 + name.size());
    if (!name.empty()) {
      EXPECT_EQ(::bind(fd.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), length), 0);
    }
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(fd.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
  }
  // Turns the loop until done() holds, for at most the given time; returns done().
  bool runUntil(const std::function<bool()>& done, int64_t nanoseconds = 3'000'000'000) {
    const int64_t giveUp = LDRunLoop::now() + nanoseconds;
    std::function<void()> check = [&] {
      if (done() || LDRunLoop::now() > giveUp) return loop.stop();
      loop.runAt(LDRunLoop::now() + 5'000'000, check);
    };
    loop.runAt(LDRunLoop::now(), check);
    EXPECT_TRUE(loop.run());
    return done();
  }
  static bool all(const std::vector<LDFileHandle>& clients, const std::string& state) {
    return std::all_of(clients.begin(), clients.end(), [&](const LDFileHandle& c) { return seen(c) == state; });
  }

  ldtest::TemporaryDirectory directory;
  std::string path;
  LDRunLoop loop;
  Greeter greeter;
  std::unique_ptr<LDServiceListener> listener;
};

// Keepers alive now: the children of the listener's zygote, the test's one child.
long keepers() {
  const auto childrenOf = [](const std::string& pid) {
    return ldtest::readFile("/proc/" + pid + "/task/" + pid + "/children");
  };
  const std::string zygote = childrenOf(std::to_string(::getpid()));
  const std::string children = zygote.empty() ? "" : childrenOf(zygote.substr(0, zygote.find(' ')));
  return std::count(children.begin(), children.end(), ' ');
}

// Sixteen peers frozen before the checks that wait on them end, hold every slot; each is dropped
// at the inspection deadline and its keeper killed, so that the slots come back: peers behind
// them are served, while those still verifying keep theirs until the admission deadline. A
// destroyed listener leaves no keeper behind.
TEST_F(ServiceListenerTest, StuckAdmissionsAreKilledAndTheirSlotsComeBack) {
  listener->setTiming({.inspection = 50'000'000, .admission = 1'000'000'000});
  ASSERT_TRUE(listener->activate());
  std::vector<LDFileHandle> stuck, slow;
  for (int i = 0; i < 16; ++i) stuck.push_back(connect("stuck" + std::to_string(i)));
  for (int i = 0; i < 4; ++i) slow.push_back(connect("slow" + std::to_string(i)));
  const LDFileHandle served = connect();
  // Gone once their pidfds say so, a moment after their peers see the close; the served one's
  // keeper stays with its connection.
  EXPECT_TRUE(runUntil([&] { return all(stuck, "closed") && seen(served) == "hello" && keepers() == 5; }))
      << keepers() << " keepers left; only the slow ones' and the served one's should be";
  EXPECT_TRUE(all(slow, "nothing")) << "still within the admission deadline";
  EXPECT_TRUE(runUntil([&] { return all(slow, "closed") && keepers() == 1; }));
  char hello[64];
  ASSERT_GT(::recv(served.fileDescriptor(), hello, sizeof hello, 0), 0);
  listener.reset();
  EXPECT_TRUE(runUntil([&] { return seen(served) == "closed"; }));
}

// The cap counts admitted connections, and a slot that comes back is used.
TEST_F(ServiceListenerTest, ServesSixteenAtOnceAndTheSeventeenthWhenOneCloses) {
  ASSERT_TRUE(listener->activate());
  std::vector<LDFileHandle> clients;
  for (size_t i = 0; i <= LDServiceListener::kMaximumConnections; ++i) clients.push_back(connect());
  LDFileHandle last = std::move(clients.back());
  clients.pop_back();
  EXPECT_TRUE(runUntil([&] { return all(clients, "hello"); }));
  runUntil([] { return false; }, 100'000'000);
  EXPECT_EQ(seen(last), "nothing");
  clients.front().reset();
  EXPECT_TRUE(runUntil([&] { return seen(last) == "hello"; }));
}

// An admitted connection ends when its time is up, however busy it keeps itself: a message and its
// check do not buy it more. One whose calls nothing can serve ends at its first.
TEST_F(ServiceListenerTest, AConnectionEndsWhenItsTimeIsUpOrItsCallCannotBeServed) {
  listener->setTiming({.connection = 300'000'000});
  ASSERT_TRUE(listener->activate());
  for (const bool served : {true, false}) {
    const LDFileHandle client = connect();
    ASSERT_TRUE(runUntil([&] { return seen(client) == "hello"; }));
    char hello[64];
    ASSERT_GT(::recv(client.fileDescriptor(), hello, sizeof hello, 0), 0);
    ASSERT_EQ(LDSendPacket(client.fileDescriptor(), LDEncodeMessage(LDRequestMessage{1}), {}, false), 0);
    runUntil([] { return false; }, 150'000'000);
    EXPECT_EQ(seen(client), served ? "nothing" : "closed") << "within its time, its request unanswered";
    EXPECT_TRUE(runUntil([&] { return seen(client) == "closed"; }, 1'000'000'000));
    greeter.exported.reset();
  }
}

// Peers gone before they could be pinned are refused by keepers like any other, however many:
// they cost the helper neither a descriptor for good nor its life.
TEST_F(ServiceListenerTest, PeersGoneBeforeTheirPinAreRefusedAndCostNothing) {
  std::optional<int> terminated;
  listener->setTerminate([&](int status) { terminated = status; });
  for (size_t i = 0; i < 2 * LDServiceListener::kMaximumConnections; ++i) {
    const pid_t child = ::fork();
    if (child == 0) {
      const LDFileHandle gone = connect();
      ::_exit(0);
    }
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  }
  ASSERT_TRUE(listener->activate());
  const LDFileHandle served = connect();
  EXPECT_TRUE(runUntil([&] { return seen(served) == "hello"; }));
  EXPECT_FALSE(terminated.has_value());
}

// The monitor never closes a unix socket for the last time (its ends of keepers' channels
// included); past its bound it takes no more connections and ends, with 1, once none is left.
TEST_F(ServiceListenerTest, KeptSocketsPastTheirBoundEndTheHelperOnceNoConnectionIsLeft) {
  std::optional<int> terminated;
  listener->setTerminate([&](int status) { terminated = status; });
  ASSERT_TRUE(listener->activate());
  LDFileHandle served = connect();
  ASSERT_TRUE(runUntil([&] { return seen(served) == "hello"; }));
  for (size_t i = 0; i < LDServiceListener::kMaximumKeptSockets; ++i) {
    const LDFileHandle refused = connect("refuse" + std::to_string(i));
    ASSERT_TRUE(runUntil([&] { return seen(refused) == "closed"; })) << i;
  }
  runUntil([] { return false; }, 100'000'000);  // the last keeper's report, after its peer saw the close
  const LDFileHandle late = connect();
  runUntil([] { return false; }, 100'000'000);
  EXPECT_EQ(seen(late), "nothing") << "no longer accepting";
  EXPECT_FALSE(terminated.has_value()) << "a connection is still open";
  served.reset();
  EXPECT_TRUE(runUntil([&] { return terminated.has_value(); }));
  EXPECT_EQ(terminated, 1);
}

// Once the one transfer is over, a client that connects while the helper ends is not accepted,
// not even when a slot comes back: it waits in the backlog for the next helper.
TEST_F(ServiceListenerTest, AClientArrivingOnceTheTransferIsOverWaitsForTheNextHelper) {
  bool transferOver = false;
  listener->setAcceptsWhile([&] { return !transferOver; });
  ASSERT_TRUE(listener->activate());
  LDFileHandle first = connect();
  ASSERT_TRUE(runUntil([&] { return seen(first) == "hello"; }));
  transferOver = true;
  const LDFileHandle late = connect();
  first.reset();
  runUntil([] { return keepers() == 0; });
  runUntil([] { return false; }, 100'000'000);
  EXPECT_EQ(seen(late), "nothing");
}

// Kernel refusals: a keeper that cannot be started refuses that peer only; accept out of
// descriptors rests instead of spinning; a killed keeper that does not die stops the accepting
// and, with no connection left, ends the helper with 1.
TEST_F(ServiceListenerTest, KernelRefusalsCostOnePeerOrEndTheHelperButNeverSpin) {
  static ldtest::ScriptedSystemCalls noFork, undying, emfile;  // outlive the listeners
  noFork.script("fork", 1, -1, EAGAIN);
  listener->setSystemCalls(noFork);
  ASSERT_TRUE(listener->activate());
  const LDFileHandle refused = connect(), served = connect();
  // The refused peer's socket stays open in the helper (closing it there could be its last
  // reference), shut down so that the peer knows at once.
  EXPECT_TRUE(runUntil([&] { return seen(refused) == "closed" && seen(served) == "hello"; }));

  undying.script("pidfd_send_signal", 0, 0, 0);
  std::optional<int> terminated;
  listenAt("second.sock");
  listener->setExamination([](int socket, const LDPinnedPeer&, uint64_t, const std::function<void()>&) {
    pollfd told{socket, POLLIN, 0};  // ends by itself when its peer says so, long after the helper gave up on it
    ::poll(&told, 1, 10'000);
    return std::optional<LDPeerVerdict>();
  });
  listener->setSystemCalls(undying);
  listener->setTiming({.inspection = 20'000'000, .killedKeeper = 50'000'000});
  listener->setTerminate([&](int status) { terminated = status; });
  ASSERT_TRUE(listener->activate());
  const LDFileHandle undead = connect();
  EXPECT_TRUE(runUntil([&] { return terminated.has_value(); }));
  EXPECT_EQ(terminated, 1);
  const LDFileHandle late = connect();
  ASSERT_EQ(::send(undead.fileDescriptor(), "x", 1, 0), 1);
  EXPECT_TRUE(runUntil([&] { return seen(undead) == "closed"; }));
  runUntil([] { return false; }, 100'000'000);
  EXPECT_EQ(seen(late), "nothing") << "no longer accepting";

  listenAt("third.sock");
  emfile.script("accept4", 0, -1, EMFILE);
  listener->setSystemCalls(emfile);
  listener->setTiming({.acceptRetry = 100'000'000});
  ASSERT_TRUE(listener->activate());
  const LDFileHandle waiting = connect();
  runUntil([] { return false; }, 350'000'000);
  EXPECT_GE(emfile.callCount("accept4"), 2) << "accepting resumes";
  EXPECT_LE(emfile.callCount("accept4"), 6) << "once every 100 ms, not in a loop";

  // A slot freed while accepting is paused does not end the pause.
  static ldtest::ScriptedSystemCalls paused;
  listenAt("fourth.sock");
  for (int call = 2; call < 9; ++call) paused.script("accept4", call, -1, EMFILE);
  listener->setSystemCalls(paused);
  listener->setTiming({.acceptRetry = 60'000'000'000});
  ASSERT_TRUE(listener->activate());
  LDFileHandle first = connect();
  EXPECT_TRUE(runUntil([&] { return seen(first) == "hello" && paused.callCount("accept4") == 2; }));
  const LDFileHandle second = connect();
  first = LDFileHandle();
  EXPECT_TRUE(runUntil([] { return keepers() == 0; }));
  runUntil([] { return false; }, 50'000'000);  // the monitor takes the keeper's exit in
  EXPECT_EQ(paused.callCount("accept4"), 2);
}

}  // namespace
