#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "helper/helper_connection.h"
#include "platform/seqpacket.h"
#include "support/descriptors.h"
#include "support/service_harness.h"

namespace {

// This very process, admitted: every message it sends passes the per-message check.
LDAdmittedPeer thisProcess() {
  LDAdmittedPeer peer;
  peer.pid = ::getpid();
  peer.uid = ::getuid();
  peer.pidfd.reset(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
  peer.processDirectory.reset(::open(("/proc/" + std::to_string(::getpid())).c_str(), O_DIRECTORY | O_CLOEXEC));
  peer.verdict.executable = LDOpenExecutable(peer.processDirectory.fileDescriptor()).value().identity();
  return peer;
}

// Counts the calls that reach it and answers none.
class CountingHandoff final : public LDListenerHandoff {
 public:
  void requestListenerTransferWithProtocolVersion(int64_t, LDRequestReply, LDListenerConnection*) override { ++calls; }
  void completeListenerTransferWithProtocolVersion(int64_t, const std::optional<std::string>&, bool, LDCompleteReply,
                                                   LDListenerConnection*) override {
    ++calls;
  }
  int calls = 0;
};

// A helper connection on one end of a socketpair, the test as its client on the other.
struct Connection {
  // fillHelperSide: the helper's direction starts full, so nothing it sends can leave yet.
  explicit Connection(std::shared_ptr<LDListenerHandoff> handoff, bool fillHelperSide = false) {
    int pair[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair), 0);
    const int on = 1;
    EXPECT_EQ(::setsockopt(pair[0], SOL_SOCKET, SO_PASSCRED, &on, sizeof on), 0);
    while (fillHelperSide && LDSendPacket(pair[0], "x", {}, true) == 0) {
    }
    client.reset(pair[1]);
    helper = std::make_unique<LDHelperConnection>(LDFileHandle(pair[0]), thisProcess(), loop,
                                                  [this](LDHelperConnection&, const std::string& why) {
                                                    reason = why;
                                                    loop.stop();
                                                  });
    helper->setExportedObject(std::move(handoff));
  }
  void send(const LDMessage& message, const std::vector<int>& descriptors = {}) {
    ASSERT_EQ(ldtest::sendPacketWithDescriptors(client.fileDescriptor(), LDEncodeMessage(message), descriptors), 0);
  }
  // One turn of the loop over whatever is ready now.
  void turnOnce() {
    loop.runAt(LDRunLoop::now(), [this] { loop.stop(); });
    ASSERT_TRUE(loop.run());
  }
  // Turns the loop until the connection ends or stop() is called; a bound that only a hung test hits.
  void run() {
    loop.runAt(LDRunLoop::now() + 10'000'000'000, [this] {
      reason = "still open after 10 s";
      loop.stop();
    });
    ASSERT_TRUE(loop.run());
  }

  LDRunLoop loop;
  LDFileHandle client;
  std::unique_ptr<LDHelperConnection> helper;
  std::string reason;
};

// Each row ends the connection; the descriptors it sent are all closed again (end-of-file on the
// pipe whose only write ends travelled to the helper) and only the allowed calls got through.
TEST(HelperConnection, DropsAClientThatBreaksTheProtocolAndClosesWhatItSent) {
  struct Case {
    const char* name;
    std::vector<LDMessage> messages;
    size_t descriptorCopies;  // sent with the last message
    int expectedCalls;
    const char* expectedReason;
  };
  const LDMessage request = LDRequestMessage{1};
  for (const Case& c : {
           Case{"descriptors after Hello", {request}, 1, 0, "an oversized packet, or descriptors"},
           Case{"more descriptors than fit", {request}, 32, 0, "an oversized packet, or descriptors"},
           Case{"a fifth call", {request, request, LDCompleteMessage{1, "t", true}, request, request}, 0, 4, "too many calls"},
           Case{"a Hello from the client", {LDHelloMessage{}}, 0, 0, "a malformed or unexpected message"},
       }) {
    SCOPED_TRACE(c.name);
    auto handoff = std::make_shared<CountingHandoff>();
    Connection connection(handoff);
    connection.helper->activate();
    int pipeEnds[2];
    ASSERT_EQ(::pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK), 0);
    LDFileHandle readEnd(pipeEnds[0]);
    for (size_t i = 0; i < c.messages.size(); ++i) {
      const bool last = i + 1 == c.messages.size();
      connection.send(c.messages[i], last ? std::vector<int>(c.descriptorCopies, pipeEnds[1]) : std::vector<int>{});
    }
    LDCloseDescriptor(pipeEnds[1]);
    connection.run();
    EXPECT_EQ(connection.reason, c.expectedReason);
    EXPECT_EQ(handoff->calls, c.expectedCalls);
    char byte;
    EXPECT_EQ(::read(readEnd.fileDescriptor(), &byte, 1), 0) << "a received descriptor is still open";
  }
}

// The service ends the process once its reply has left, or after the fallback time-out when it
// cannot: here the helper's direction is full and stays full unless the client reads.
TEST(HelperConnection, AReplyThatCannotLeaveEndsOnlyThroughTheFallbackTimer) {
  for (const bool clientReads : {false, true}) {
    SCOPED_TRACE(clientReads ? "the client reads" : "the client never reads");
    ldtest::ServiceHarness harness;
    Connection connection(harness.service, true);
    connection.helper->activate();
    connection.send(LDRequestMessage{2});  // answered "Unsupported protocol version", then exit 1
    connection.turnOnce();                 // the reply waits for room
    char byte;
    while (clientReads && ::recv(connection.client.fileDescriptor(), &byte, 1, MSG_DONTWAIT) == 1) {
    }
    connection.turnOnce();
    ASSERT_EQ(harness.queue.size(), 1u) << "the fallback timer is armed";
    if (clientReads) {
      EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{1})) << "the reply left";
      EXPECT_TRUE(harness.queue.entries()[0].second->isCancelled());
    } else {
      EXPECT_TRUE(harness.terminations().empty()) << "ended before the reply left";
      harness.queue.fire(0);
      EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{1}));
    }
  }
}

}  // namespace
