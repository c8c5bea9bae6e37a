#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "helper/listener_service.h"
#include "support/descriptors.h"
#include "support/expect_error.h"
#include "support/scripted_system_calls.h"
#include "support/service_harness.h"

namespace {

using ldtest::CompleteReplyRecord;
using ldtest::descriptorDifference;
using ldtest::FakeConnection;
using ldtest::openDescriptors;
using ldtest::RequestReplyRecord;
using ldtest::ScriptedSystemCalls;
using ldtest::ServiceHarness;

constexpr int64_t kVersion = 1;

// What one event answered: a request reply, a completion reply, or nothing (a timer).
struct Answer {
  std::optional<int64_t> status;
  std::optional<std::string> message;
  bool payload = false;  // token and both handles present
};

Answer answerOf(const RequestReplyRecord& r) {
  EXPECT_EQ(r.protocolVersion, LDListenerProtocolVersion);
  EXPECT_EQ(r.helperProcessIdentifier, getpid());
  const bool payload = r.token && r.ipv4Listener && r.ipv6Listener;
  if (r.status != 0) {
    EXPECT_FALSE(r.token || r.ipv4Listener || r.ipv6Listener) << "a failed request carries no payload";
  }
  return {r.status, r.message, payload};
}

Answer answerOf(const CompleteReplyRecord& r) {
  EXPECT_EQ(r.protocolVersion, LDListenerProtocolVersion);
  return {r.status, r.message, false};
}

enum class Start { idle, preparing, awaiting, finished };

// The state a row starts in is reached through the service's own calls. `token` is what the
// transfer under way issued (empty before one is issued).
struct Fixture {
  ServiceHarness& harness;
  FakeConnection& connection;
  std::string token;
};

// What a row expects; message null means none.
struct Expected {
  std::optional<int64_t> status;
  const char* message;
  bool payload = false;
};

struct StateRow {
  const char* name;
  Start start;
  std::function<Answer(Fixture&)> event;
  Expected expected;
  LDListenerServiceState nextState;
  std::vector<int32_t> terminations;  // after every send barrier has run
  int originalsClosed;
};

Answer request(Fixture& f, int64_t version) { return answerOf(f.harness.request(version, &f.connection)); }
Answer complete(Fixture& f, int64_t version, std::optional<std::string> token, bool accepted) {
  return answerOf(f.harness.complete(version, token, accepted, &f.connection));
}
// Fires the acknowledgement timer(s) armed so far.
Answer fireTimers(Fixture& f) {
  f.harness.queue.fireAll();
  return Answer{std::nullopt, std::nullopt, false};
}
// Runs the acknowledgement timer as if it had already started when the completion cancelled it:
// the handler must find the transfer gone and do nothing.
Answer fireTimersAlreadyStarted(Fixture& f) {
  for (size_t i = 0; i < f.harness.queue.size(); ++i) f.harness.queue.fireEvenIfCancelled(i);
  return Answer{std::nullopt, std::nullopt, false};
}

const std::string kWrongToken(64, 'a');

class StateTableTest : public testing::TestWithParam<StateRow> {};

TEST_P(StateTableTest, ReplyNextStateTerminationAndClosing) {
  const StateRow& row = GetParam();
  ScriptedSystemCalls systemCalls;
  ServiceHarness harness(ldtest::freeLoopbackPort(), systemCalls);
  FakeConnection setupConnection, eventConnection;
  Fixture setup{harness, setupConnection, ""};
  Fixture event{harness, eventConnection, ""};
  Answer answer;

  switch (row.start) {
    case Start::idle:
      answer = row.event(event);
      break;
    case Start::awaiting: {
      const RequestReplyRecord issued = harness.request(kVersion, &setupConnection);
      ASSERT_EQ(issued.status, 0);
      event.token = *issued.token;
      answer = row.event(event);
      break;
    }
    case Start::finished: {
      const RequestReplyRecord issued = harness.request(kVersion, &setupConnection);
      ASSERT_EQ(issued.status, 0);
      ASSERT_EQ(harness.complete(kVersion, issued.token, true, &setupConnection).status, 1);
      event.token = *issued.token;
      answer = row.event(event);
      break;
    }
    case Start::preparing: {
      // The event happens while the request is making its sockets, with no lock held.
      systemCalls.onCall("socket", 1, [&] { answer = row.event(event); });
      const RequestReplyRecord issued = harness.request(kVersion, &setupConnection);
      EXPECT_EQ(issued.status, 0) << "the request still finishes its transfer";
      break;
    }
  }

  EXPECT_EQ(answer.status, row.expected.status);
  EXPECT_EQ(answer.message, row.expected.message ? std::optional<std::string>(row.expected.message) : std::nullopt);
  EXPECT_EQ(answer.payload, row.expected.payload);
  EXPECT_EQ(harness.service->state(), row.nextState);
  EXPECT_EQ(harness.originalsClosedNotifications(), row.originalsClosed);
  setupConnection.runBarriers();
  eventConnection.runBarriers();
  EXPECT_EQ(harness.terminations(), row.terminations);
}

const Expected kNoAnswer{std::nullopt, nullptr, false};
const Expected kBusy{4, "A listener transfer is already in progress"};
const Expected kInvalid{7, "Invalid transfer acknowledgement"};

INSTANTIATE_TEST_SUITE_P(
    Table, StateTableTest,
    testing::Values(
        StateRow{"IdleRequest", Start::idle, [](Fixture& f) { return request(f, 1); },
                 Expected{0, nullptr, true}, LDListenerServiceStateAwaitingAcknowledgement, {}, 0},
        StateRow{"IdleRequestVersion0", Start::idle, [](Fixture& f) { return request(f, 0); },
                 Expected{3, "Unsupported protocol version"}, LDListenerServiceStateFinished, {1}, 0},
        StateRow{"IdleRequestVersion2", Start::idle, [](Fixture& f) { return request(f, 2); },
                 Expected{3, "Unsupported protocol version"}, LDListenerServiceStateFinished, {1}, 0},
        StateRow{"IdleCompletion", Start::idle, [](Fixture& f) { return complete(f, 1, kWrongToken, true); },
                 kInvalid, LDListenerServiceStateFinished, {1}, 0},
        StateRow{"IdleTimer", Start::idle, fireTimers, kNoAnswer, LDListenerServiceStateIdle, {}, 0},
        StateRow{"PreparingRequest", Start::preparing, [](Fixture& f) { return request(f, 1); },
                 kBusy, LDListenerServiceStateAwaitingAcknowledgement, {}, 0},
        // The completion finishes the service and asks for exit 1; the request then stores state
        // 2 regardless and replies 0, and the first termination status stands.
        StateRow{"PreparingCompletion", Start::preparing,
                 [](Fixture& f) { return complete(f, 1, kWrongToken, true); }, kInvalid,
                 LDListenerServiceStateAwaitingAcknowledgement, {1}, 0},
        StateRow{"AwaitingRequest", Start::awaiting, [](Fixture& f) { return request(f, 1); },
                 kBusy, LDListenerServiceStateAwaitingAcknowledgement, {}, 0},
        // Busy is answered before the version is looked at, and ends nothing.
        StateRow{"AwaitingRequestVersion2", Start::awaiting, [](Fixture& f) { return request(f, 2); },
                 kBusy, LDListenerServiceStateAwaitingAcknowledgement, {}, 0},
        StateRow{"AwaitingAccepted", Start::awaiting, [](Fixture& f) { return complete(f, 1, f.token, true); },
                 Expected{1, nullptr}, LDListenerServiceStateFinished, {0}, 1},
        StateRow{"AwaitingRejected", Start::awaiting, [](Fixture& f) { return complete(f, 1, f.token, false); },
                 Expected{2, "Client rejected transferred listeners"}, LDListenerServiceStateFinished, {1}, 1},
        StateRow{"AwaitingWrongToken", Start::awaiting, [](Fixture& f) { return complete(f, 1, kWrongToken, true); },
                 kInvalid, LDListenerServiceStateFinished, {1}, 1},
        // Invalid wins over a rejection.
        StateRow{"AwaitingWrongTokenRejected", Start::awaiting,
                 [](Fixture& f) { return complete(f, 1, kWrongToken, false); }, kInvalid,
                 LDListenerServiceStateFinished, {1}, 1},
        StateRow{"AwaitingTokenInOtherCase", Start::awaiting,
                 [](Fixture& f) {
                   std::string upper = f.token;
                   for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
                   return complete(f, 1, upper, true);
                 },
                 kInvalid, LDListenerServiceStateFinished, {1}, 1},
        StateRow{"AwaitingNilToken", Start::awaiting, [](Fixture& f) { return complete(f, 1, std::nullopt, true); },
                 kInvalid, LDListenerServiceStateFinished, {1}, 1},
        StateRow{"AwaitingRightTokenVersion2", Start::awaiting,
                 [](Fixture& f) { return complete(f, 2, f.token, true); }, kInvalid,
                 LDListenerServiceStateFinished, {1}, 1},
        // No reply is pending, so the timer ends the process at once.
        StateRow{"AwaitingTimer", Start::awaiting, fireTimers, kNoAnswer, LDListenerServiceStateFinished, {1}, 1},
        StateRow{"FinishedRequest", Start::finished, [](Fixture& f) { return request(f, 1); },
                 kBusy, LDListenerServiceStateFinished, {0}, 1},
        // After an acknowledged transfer, a late completion is invalid but cannot change the
        // exit status that was already chosen.
        StateRow{"FinishedCompletion", Start::finished, [](Fixture& f) { return complete(f, 1, f.token, true); },
                 kInvalid, LDListenerServiceStateFinished, {0}, 1},
        // The timer was cancelled by the completion; firing it anyway changes nothing.
        StateRow{"FinishedTimer", Start::finished, fireTimers, kNoAnswer, LDListenerServiceStateFinished, {0}, 1},
        StateRow{"FinishedTimerAlreadyStarted", Start::finished, fireTimersAlreadyStarted, kNoAnswer,
                 LDListenerServiceStateFinished, {0}, 1}),
    ldtest::CaseName());

// ---- Time ----

TEST(ListenerServiceTime, TimersAreArmedWithExactNanosecondDelays) {
  ServiceHarness harness(ldtest::freeLoopbackPort());
  FakeConnection connection;
  const RequestReplyRecord issued = harness.request(kVersion, &connection);
  ASSERT_EQ(issued.status, 0);
  EXPECT_EQ(harness.queue.armedDelays(), (std::vector<int64_t>{10'000'000'000}));
  harness.complete(kVersion, issued.token, true, &connection);
  EXPECT_EQ(harness.queue.armedDelays(), (std::vector<int64_t>{10'000'000'000, 2'000'000'000}));
  EXPECT_TRUE(harness.queue.isCancelled(0)) << "the completion cancels the acknowledgement timer";

  EXPECT_EQ(LDDelayInNanoseconds(0.0000000019), 1) << "truncated toward zero";
  EXPECT_EQ(LDDelayInNanoseconds(1.5), 1'500'000'000);
  EXPECT_EQ(LDDelayInNanoseconds(-0.5), -500'000'000);
}

TEST(ListenerServiceTime, CompletionAfterTheTimeOutIsInvalidAndNothingIsClosedTwice) {
  ServiceHarness harness(ldtest::freeLoopbackPort());
  FakeConnection connection;
  const RequestReplyRecord issued = harness.request(kVersion, &connection);
  harness.queue.fire(0);
  EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{1}));
  const CompleteReplyRecord late = harness.complete(kVersion, issued.token, true, &connection);
  EXPECT_EQ(late.status, 7);
  EXPECT_EQ(late.message, "Invalid transfer acknowledgement");
  connection.runBarriers();
  harness.queue.fireAll();
  EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{1}));
  EXPECT_EQ(harness.originalsClosedNotifications(), 1);
}

TEST(ListenerServiceTime, HeldBackBarrierEndsThroughTheFallbackAndALateBarrierDoesNothing) {
  ServiceHarness harness(ldtest::freeLoopbackPort());
  FakeConnection connection;
  const RequestReplyRecord issued = harness.request(kVersion, &connection);
  harness.complete(kVersion, issued.token, true, &connection);
  EXPECT_EQ(connection.pendingBarriers(), 1u);
  EXPECT_TRUE(harness.terminations().empty()) << "nothing ends before the barrier or the fallback";
  harness.queue.fire(1);  // the fallback
  EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{0}));
  EXPECT_EQ(connection.runBarriers(), 1u);
  EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{0}));
}

TEST(ListenerServiceTime, BarrierFirstCancelsTheFallback) {
  ServiceHarness harness(ldtest::freeLoopbackPort());
  FakeConnection connection;
  harness.request(0, &connection);
  connection.runBarriers();
  EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{1}));
  EXPECT_TRUE(harness.queue.isCancelled(0));
  harness.queue.fireAll();
  EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{1}));
}

TEST(ListenerServiceTime, WithoutAConnectionOnlyTheFallbackEndsTheProcess) {
  ServiceHarness harness(ldtest::freeLoopbackPort());
  harness.request(2, nullptr);
  EXPECT_EQ(harness.queue.armedDelays(), (std::vector<int64_t>{2'000'000'000}));
  EXPECT_TRUE(harness.terminations().empty());
  harness.queue.fire(0);
  EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{1}));
}

TEST(ListenerServiceTime, FirstTerminationStatusWins) {
  ServiceHarness harness(ldtest::freeLoopbackPort());
  FakeConnection first, second;
  harness.service->terminateAfterSendingReplyOn(&first, 1);
  harness.service->terminateAfterSendingReplyOn(&second, 0);
  EXPECT_EQ(second.pendingBarriers(), 0u) << "a second request schedules nothing";
  EXPECT_EQ(harness.queue.size(), 1u);
  second.runBarriers();
  first.runBarriers();
  harness.queue.fireAll();
  harness.service->terminateOnce(0);
  EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{1}));
}

TEST(ListenerServiceTime, BlocksOutlivingTheServiceDoNothing) {
  FakeConnection connection;
  std::vector<int32_t> terminations;
  ldtest::ManualDispatchQueue queue;
  {
    auto service = LDListenerService::initWithPort(
        ldtest::freeLoopbackPort(), 10.0, 2.0, nullptr,
        [&](int32_t status) { terminations.push_back(status); }, queue);
    service->requestListenerTransferWithProtocolVersion(
        1, [](int64_t, int64_t, const auto&, const auto&, const auto&, int32_t, const auto&) {}, &connection);
    service->terminateAfterSendingReplyOn(&connection, 1);
  }
  ASSERT_EQ(queue.size(), 2u);
  queue.fireAll();
  connection.runBarriers();
  EXPECT_TRUE(terminations.empty());
}

// A terminate callback that returns (as in these tests) leaves the service alive and inert.
TEST(ListenerServiceTime, AfterTerminateTheServiceAnswersButNeverEndsAgain) {
  ServiceHarness harness(ldtest::freeLoopbackPort());
  FakeConnection connection;
  harness.request(3, &connection);
  connection.runBarriers();
  ASSERT_EQ(harness.terminations(), (std::vector<int32_t>{1}));
  EXPECT_EQ(harness.request(1, &connection).status, 4);
  EXPECT_EQ(harness.complete(1, kWrongToken, true, &connection).status, 7);
  connection.runBarriers();
  harness.queue.fireAll();
  EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{1}));
}

// ---- Failures of the transfer ----

struct FailureRow {
  const char* name;
  std::function<void(ScriptedSystemCalls&)> script;
  int64_t status;
  std::string message;
  int originalsClosed;
};

class TransferFailureTest : public testing::TestWithParam<FailureRow> {};

TEST_P(TransferFailureTest, RepliesWithTheFailureEndsWithOneAndLeavesNothingOpen) {
  const FailureRow& row = GetParam();
  ScriptedSystemCalls systemCalls;
  row.script(systemCalls);
  const auto before = openDescriptors();
  {
    ServiceHarness harness(ldtest::freeLoopbackPort(), systemCalls);
    FakeConnection connection;
    const RequestReplyRecord reply = harness.request(kVersion, &connection);
    EXPECT_EQ(reply.status, row.status);
    EXPECT_EQ(reply.message, row.message);
    EXPECT_FALSE(reply.token || reply.ipv4Listener || reply.ipv6Listener);
    EXPECT_EQ(reply.helperProcessIdentifier, getpid());
    EXPECT_EQ(harness.service->state(), LDListenerServiceStateFinished);
    EXPECT_EQ(harness.originalsClosedNotifications(), row.originalsClosed);
    EXPECT_EQ(descriptorDifference(before, openDescriptors()), "") << "before the service is gone";
    connection.runBarriers();
    EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{1}));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, TransferFailureTest,
    testing::Values(
        FailureRow{"PortTaken", [](ScriptedSystemCalls& s) { s.script("bind", 1, -1, EADDRINUSE); }, 8,
                   "bind failed: Address already in use (98)", 0},
        FailureRow{"PortTakenOnIPv6", [](ScriptedSystemCalls& s) { s.script("bind", 2, -1, EADDRINUSE); }, 8,
                   "bind failed: Address already in use (98)", 0},
        FailureRow{"BindDenied", [](ScriptedSystemCalls& s) { s.script("bind", 1, -1, EACCES); }, 5,
                   "bind failed: Permission denied (13)", 0},
        FailureRow{"NoSocket", [](ScriptedSystemCalls& s) { s.script("socket", 1, -1, EMFILE); }, 5,
                   "socket failed: Too many open files (24)", 0},
        FailureRow{"EncodeFails", [](ScriptedSystemCalls& s) { s.script("inet_pton", 1, 0, 0); }, 5,
                   "Unable to encode IPv4 loopback", 0},
        FailureRow{"DupFails", [](ScriptedSystemCalls& s) { s.script("dup", 2, -1, EMFILE); }, 6,
                   "dup(IPv6) failed: Too many open files (24)", 1},
        FailureRow{"TokenFails", [](ScriptedSystemCalls& s) { s.script("getrandom", 1, -1, ENOSYS); }, 6,
                   "SecRandomCopyBytes failed", 1}),
    ldtest::CaseName());

TEST(ListenerServiceFailure, ARealTakenPortIsAnsweredWithTheBindDescription) {
  const uint16_t port = ldtest::freeLoopbackPort();
  LDFileHandle holder(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(holder.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(holder.fileDescriptor(), 1), 0);
  ServiceHarness harness(port);
  FakeConnection connection;
  const RequestReplyRecord reply = harness.request(kVersion, &connection);
  EXPECT_EQ(reply.status, 8);
  EXPECT_EQ(reply.message, "bind failed: Address already in use (98)");
}

// ---- A whole transfer on real sockets ----

TEST(ListenerServiceTransfer, ReceivedHandlesServeAfterTheServiceClosedItsOriginals) {
  const uint16_t port = ldtest::freeLoopbackPort();
  const auto before = openDescriptors();
  LDListenerHandle ipv4, ipv6;
  {
    ServiceHarness harness(port);
    FakeConnection connection;
    RequestReplyRecord issued = harness.request(kVersion, &connection);
    ASSERT_EQ(issued.status, 0);
    ASSERT_EQ(issued.token->size(), 64u);
    ipv4 = issued.ipv4Listener;
    ipv6 = issued.ipv6Listener;
    EXPECT_EQ(openDescriptors().size(), before.size() + 4) << "two originals and two duplicates";
    for (const auto& [handle, endpoint] :
         {std::pair{ipv4, LDListenerEndpoint(AF_INET, "127.0.0.1", port)},
          std::pair{ipv6, LDListenerEndpoint(AF_INET6, "::1", port)}}) {
      std::optional<LDError> error;
      EXPECT_TRUE(LDLoopbackListeners::validateReceivedFileDescriptor(handle->fileDescriptor(), endpoint, &error))
          << (error ? error->description() : "");
    }
    EXPECT_EQ(harness.complete(kVersion, issued.token, true, &connection).status, 1);
    EXPECT_EQ(harness.originalsClosedNotifications(), 1);
    EXPECT_EQ(openDescriptors().size(), before.size() + 2) << "only the duplicates are left";
    connection.runBarriers();
    EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{0}));
  }
  for (const auto& [handle, endpoint] :
       {std::pair{ipv4, LDListenerEndpoint(AF_INET, "127.0.0.1", port)},
        std::pair{ipv6, LDListenerEndpoint(AF_INET6, "::1", port)}}) {
    ASSERT_TRUE(LDLoopbackListeners::connectToEndpoint(endpoint)) << endpoint.description();
    pollfd ready{handle->fileDescriptor(), POLLIN, 0};
    ASSERT_EQ(::poll(&ready, 1, 5000), 1);
    LDFileHandle accepted(::accept4(handle->fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_TRUE(accepted.isValid()) << endpoint.description();
  }
  ipv4.reset();
  ipv6.reset();
  EXPECT_EQ(descriptorDifference(before, openDescriptors()), "");
}

}  // namespace
