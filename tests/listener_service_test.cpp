#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>
#include <thread>

#include "helper/listener_service.h"
#include "shared/token.h"
#include "support/descriptors.h"
#include "support/expect_error.h"
#include "support/scripted_system_calls.h"
#include "support/service_harness.h"

namespace {

using ldtest::FakeConnection;
using ldtest::RequestReplyRecord;
using ldtest::ScriptedSystemCalls;
using ldtest::ServiceHarness;

// What one event answered: status and message of a reply (none for a timer), and whether a
// request's reply carried the token and both handles.
// A constructor, not an aggregate with default member initialisers: g++ 12 at -O2 and above
// warns (maybe-uninitialized) on the string of such aggregates built in the table below.
struct Answer {
  Answer(std::optional<int64_t> status_ = std::nullopt, std::string message_ = "(none)", bool payload_ = false)
      : status(status_), message(std::move(message_)), payload(payload_) {}
  std::optional<int64_t> status;
  std::string message;
  bool payload;
  bool operator==(const Answer&) const = default;
};

void PrintTo(const Answer& answer, std::ostream* out) {
  *out << (answer.status ? std::to_string(*answer.status) : "no reply") << " " << answer.message
       << (answer.payload ? " with payload" : "");
}

// The transfer under way, for the event of a row.
struct Fixture {
  ServiceHarness& harness;
  FakeConnection& connection;
  std::string token;  // what the transfer issued; empty before one was issued
};

Answer request(Fixture& f, int64_t version) {
  const RequestReplyRecord r = f.harness.request(version, &f.connection);
  EXPECT_EQ(r.protocolVersion, LDListenerProtocolVersion);
  EXPECT_EQ(r.helperProcessIdentifier, getpid());
  const bool payload = r.token && r.ipv4Listener && r.ipv6Listener;
  EXPECT_TRUE(r.status == 0 ? payload : !(r.token || r.ipv4Listener || r.ipv6Listener)) << "payload only with status 0";
  return {r.status, r.message.value_or("(none)"), payload};
}
Answer complete(Fixture& f, int64_t version, std::optional<std::string> token, bool accepted) {
  const auto [status, message] = f.harness.complete(version, token, accepted, &f.connection);
  return {status, message.value_or("(none)"), false};
}
Answer fireTimers(Fixture& f) {
  f.harness.queue.fireAll();
  return {};
}
// The acknowledgement timer as if it had already started when the completion cancelled it.
Answer fireTimersAlreadyStarted(Fixture& f) {
  for (const auto& entry : f.harness.queue.entries()) entry.second->performEvenIfCancelled();
  return {};
}

enum class Start { idle, preparing, awaiting, finished, timedOut };

struct StateRow {
  const char* name;
  Start start;
  std::function<Answer(Fixture&)> event;
  Answer expected;
  LDListenerServiceState nextState;
  std::vector<int32_t> terminations;  // after every send barrier has run
  int originalsClosed;
};

const std::string kWrongToken(64, 'a');
const Answer kBusy{4, "A listener transfer is already in progress"};
const Answer kInvalid{7, "Invalid transfer acknowledgement"};
const Answer kUnsupported{3, "Unsupported protocol version"};

class StateTableTest : public testing::TestWithParam<StateRow> {};

TEST_P(StateTableTest, ReplyNextStateTerminationAndClosing) {
  const StateRow& row = GetParam();
  ScriptedSystemCalls systemCalls;
  ServiceHarness harness(systemCalls);
  FakeConnection setupConnection, eventConnection;
  Fixture event{harness, eventConnection, ""};
  Answer answer;
  if (row.start == Start::preparing) {
    // The event happens while the request makes its sockets, with no lock held.
    systemCalls.onCall("socket", 1, [&] { answer = row.event(event); });
    EXPECT_EQ(harness.request(1, &setupConnection).status, 0) << "the request still finishes its transfer";
  } else {
    if (row.start != Start::idle) {
      const RequestReplyRecord issued = harness.request(1, &setupConnection);
      ASSERT_EQ(issued.status, 0);
      event.token = *issued.token;
    }
    if (row.start == Start::finished) {
      ASSERT_EQ(harness.complete(1, event.token, true, &setupConnection).first, 1);
    }
    if (row.start == Start::timedOut) harness.queue.fire(0);
    answer = row.event(event);
  }
  EXPECT_EQ(answer, row.expected);
  EXPECT_EQ(harness.service->state(), row.nextState);
  EXPECT_EQ(harness.originalsClosed, row.originalsClosed);
  setupConnection.runBarriers();
  eventConnection.runBarriers();
  EXPECT_EQ(harness.terminations(), row.terminations);
}

std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

INSTANTIATE_TEST_SUITE_P(
    Table, StateTableTest,
    testing::Values(
        StateRow{"IdleRequest", Start::idle, [](Fixture& f) { return request(f, 1); }, {0, "(none)", true}, LDListenerServiceStateAwaitingAcknowledgement, {}, 0},
        StateRow{"IdleRequestVersion0", Start::idle, [](Fixture& f) { return request(f, 0); }, kUnsupported, LDListenerServiceStateFinished, {1}, 0},
        StateRow{"IdleRequestVersion2", Start::idle, [](Fixture& f) { return request(f, 2); }, kUnsupported, LDListenerServiceStateFinished, {1}, 0},
        StateRow{"IdleCompletion", Start::idle, [](Fixture& f) { return complete(f, 1, kWrongToken, true); }, kInvalid, LDListenerServiceStateFinished, {1}, 0},
        StateRow{"IdleTimer", Start::idle, fireTimers, Answer{}, LDListenerServiceStateIdle, {}, 0},
        StateRow{"PreparingRequest", Start::preparing, [](Fixture& f) { return request(f, 1); }, kBusy, LDListenerServiceStateAwaitingAcknowledgement, {}, 0},
        // The completion finishes the service and asks for exit 1; the request then stores state
        // 2 regardless and replies 0, and the first termination status stands.
        StateRow{"PreparingCompletion", Start::preparing, [](Fixture& f) { return complete(f, 1, kWrongToken, true); }, kInvalid, LDListenerServiceStateAwaitingAcknowledgement, {1}, 0},
        StateRow{"AwaitingRequest", Start::awaiting, [](Fixture& f) { return request(f, 1); }, kBusy, LDListenerServiceStateAwaitingAcknowledgement, {}, 0},
        // Busy is answered before the version is looked at, and ends nothing.
        StateRow{"AwaitingRequestVersion2", Start::awaiting, [](Fixture& f) { return request(f, 2); }, kBusy, LDListenerServiceStateAwaitingAcknowledgement, {}, 0},
        StateRow{"AwaitingAccepted", Start::awaiting, [](Fixture& f) { return complete(f, 1, f.token, true); }, {1}, LDListenerServiceStateFinished, {0}, 1},
        StateRow{"AwaitingRejected", Start::awaiting, [](Fixture& f) { return complete(f, 1, f.token, false); }, {2, "Client rejected transferred listeners"}, LDListenerServiceStateFinished, {1}, 1},
        StateRow{"AwaitingWrongToken", Start::awaiting, [](Fixture& f) { return complete(f, 1, kWrongToken, true); }, kInvalid, LDListenerServiceStateFinished, {1}, 1},
        // Invalid wins over a rejection.
        StateRow{"AwaitingWrongTokenRejected", Start::awaiting, [](Fixture& f) { return complete(f, 1, kWrongToken, false); }, kInvalid, LDListenerServiceStateFinished, {1}, 1},
        StateRow{"AwaitingTokenInOtherCase", Start::awaiting, [](Fixture& f) { return complete(f, 1, upper(f.token), true); }, kInvalid, LDListenerServiceStateFinished, {1}, 1},
        StateRow{"AwaitingNilToken", Start::awaiting, [](Fixture& f) { return complete(f, 1, std::nullopt, true); }, kInvalid, LDListenerServiceStateFinished, {1}, 1},
        StateRow{"AwaitingRightTokenVersion2", Start::awaiting, [](Fixture& f) { return complete(f, 2, f.token, true); }, kInvalid, LDListenerServiceStateFinished, {1}, 1},
        // No reply is pending, so the timer ends the process at once.
        StateRow{"AwaitingTimer", Start::awaiting, fireTimers, Answer{}, LDListenerServiceStateFinished, {1}, 1},
        StateRow{"TimedOutCompletion", Start::timedOut, [](Fixture& f) { return complete(f, 1, f.token, true); }, kInvalid, LDListenerServiceStateFinished, {1}, 1},
        StateRow{"FinishedRequest", Start::finished, [](Fixture& f) { return request(f, 1); }, kBusy, LDListenerServiceStateFinished, {0}, 1},
        // A late completion is invalid but cannot change the exit status already chosen.
        StateRow{"FinishedCompletion", Start::finished, [](Fixture& f) { return complete(f, 1, f.token, true); }, kInvalid, LDListenerServiceStateFinished, {0}, 1},
        // The completion cancelled the timer; firing it anyway, or as if it had already started, changes nothing.
        StateRow{"FinishedTimer", Start::finished, fireTimers, Answer{}, LDListenerServiceStateFinished, {0}, 1},
        StateRow{"FinishedTimerAlreadyStarted", Start::finished, fireTimersAlreadyStarted, Answer{}, LDListenerServiceStateFinished, {0}, 1}),
    ldtest::CaseName());

// ---- Time ----

TEST(ListenerServiceTime, TimersAreArmedWithExactDelaysAndTheCompletionCancelsTheFirst) {
  ServiceHarness harness;
  FakeConnection connection;
  const RequestReplyRecord issued = harness.request(1, &connection);
  harness.complete(1, issued.token, true, &connection);
  const auto entries = harness.queue.entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].first, 10'000'000'000);
  EXPECT_EQ(entries[1].first, 2'000'000'000);
  EXPECT_TRUE(entries[0].second->isCancelled());
}

TEST(ListenerServiceTime, FirstTerminationStatusWins) {
  ServiceHarness harness;
  FakeConnection first, second;
  harness.service->terminateAfterSendingReplyOn(&first, 1);
  harness.service->terminateAfterSendingReplyOn(&second, 0);
  EXPECT_TRUE(second.barriers.empty()) << "a second request schedules nothing";
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
    auto service = LDListenerService::initWithPort(LDListenerPort, 10.0, 2.0, nullptr,
                                                   [&](int32_t status) { terminations.push_back(status); }, queue);
    service->requestListenerTransferWithProtocolVersion(1, [](int64_t, int64_t, const auto&, const auto&, const auto&, int32_t, const auto&) {}, &connection);
    service->terminateAfterSendingReplyOn(&connection, 1);
  }
  ASSERT_EQ(queue.size(), 2u);
  queue.fireAll();
  connection.runBarriers();
  EXPECT_TRUE(terminations.empty());
}

// ---- Failures of the transfer ----

struct FailureRow {
  const char* name;
  const char* call;
  int occurrence;
  long value;
  int errorNumber;
  int64_t status;
  const char* message;
  int originalsClosed;
};

class TransferFailureTest : public testing::TestWithParam<FailureRow> {};

TEST_P(TransferFailureTest, RepliesWithTheFailureEndsWithOneAndLeavesNothingOpen) {
  const FailureRow& row = GetParam();
  ScriptedSystemCalls systemCalls;
  systemCalls.script(row.call, row.occurrence, row.value, row.errorNumber);
  const auto before = ldtest::openDescriptors();
  ServiceHarness harness(systemCalls);
  FakeConnection connection;
  Fixture fixture{harness, connection, ""};
  EXPECT_EQ(request(fixture, 1), (Answer{row.status, row.message}));
  EXPECT_EQ(harness.service->state(), LDListenerServiceStateFinished);
  EXPECT_EQ(harness.originalsClosed, row.originalsClosed);
  EXPECT_EQ(ldtest::openDescriptors(), before) << "before the service is gone";
  connection.runBarriers();
  EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{1}));
}

INSTANTIATE_TEST_SUITE_P(
    Table, TransferFailureTest,
    testing::Values(FailureRow{"PortTaken", "bind", 1, -1, EADDRINUSE, 8, "bind failed: Address already in use (98)", 0},
                    FailureRow{"PortTakenOnIPv6", "bind", 2, -1, EADDRINUSE, 8, "bind failed: Address already in use (98)", 0},
                    FailureRow{"BindDenied", "bind", 1, -1, EACCES, 5, "bind failed: Permission denied (13)", 0},
                    FailureRow{"NoSocket", "socket", 1, -1, EMFILE, 5, "socket failed: Too many open files (24)", 0},
                    FailureRow{"EncodeFails", "inet_pton", 1, 0, 0, 5, "Unable to encode IPv4 loopback", 0},
                    FailureRow{"DupFails", "dup", 2, -1, EMFILE, 6, "dup(IPv6) failed: Too many open files (24)", 1},
                    FailureRow{"TokenFails", "getrandom", 1, -1, ENOSYS, 6, "SecRandomCopyBytes failed", 1}),
    ldtest::CaseName());

// ---- A whole transfer on real sockets ----

// The reply hands over duplicates, and the acknowledgement closes only the originals.
TEST(ListenerServiceTransfer, HandsOverDuplicatesAndClosesItsOriginalsOnAcknowledgement) {
  const auto before = ldtest::openDescriptors();
  RequestReplyRecord issued;
  {
    ServiceHarness harness;
    FakeConnection connection;
    issued = harness.request(1, &connection);
    ASSERT_EQ(issued.status, 0);
    EXPECT_EQ(ldtest::openDescriptors().size(), before.size() + 4) << "two originals and two duplicates";
    EXPECT_EQ(harness.complete(1, issued.token, true, &connection).first, 1);
    EXPECT_EQ(harness.originalsClosed, 1);
  }
  EXPECT_EQ(ldtest::openDescriptors().size(), before.size() + 2) << "only the duplicates are left";
  for (const LDListenerHandle& handle : {issued.ipv4Listener, issued.ipv6Listener}) {
    int accepting = 0;
    socklen_t length = sizeof accepting;
    EXPECT_EQ(::getsockopt(handle->fileDescriptor(), SOL_SOCKET, SO_ACCEPTCONN, &accepting, &length), 0);
    EXPECT_EQ(accepting, 1);
  }
  issued = {};
  EXPECT_EQ(ldtest::openDescriptors(), before);
}

// ---- Racing clients ----

// Many clients at once: requests (one with a wrong version), completions with the issued token, a
// wrong one or none, rejecting or accepting, and the timers firing, all racing. Whatever the
// interleaving, terminate runs exactly once, with the status of whichever termination request
// came first: the one connection that was given a send barrier (only the first request schedules
// one), or the acknowledgement timer (status 1) if none was.
TEST(ListenerServiceConcurrency, OneTerminationWithTheFirstStatus) {
  constexpr size_t kClients = 8;
  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE(round);
    ldtest::ServiceHarness harness;
    std::vector<ldtest::FakeConnection> connections(kClients);
    std::vector<std::atomic<int64_t>> statuses(kClients);
    std::mutex tokenMutex;
    std::optional<std::string> issuedToken;
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kClients; ++i) {
      threads.emplace_back([&, i] {
        while (!go.load()) std::this_thread::yield();
        if (i % 2 == 0) {
          harness.service->requestListenerTransferWithProtocolVersion(
              i == 4 ? 2 : 1,
              [&](int64_t, int64_t status, const auto& token, const auto&, const auto&, int32_t, const auto&) {
                statuses[i] = status;
                std::lock_guard<std::mutex> guard(tokenMutex);
                if (token) issuedToken = token;
              },
              &connections[i]);
          return;
        }
        std::optional<std::string> token;
        if (i != 1) {
          std::lock_guard<std::mutex> guard(tokenMutex);
          token = issuedToken;
        }
        harness.service->completeListenerTransferWithProtocolVersion(
            1, token, i != 3, [&](int64_t, int64_t status, const auto&) { statuses[i] = status; }, &connections[i]);
      });
    }
    threads.emplace_back([&] {
      while (!go.load()) std::this_thread::yield();
      for (int k = 0; k < 50; ++k, std::this_thread::yield()) {
        for (size_t t = 0; t < harness.queue.size(); ++t) harness.queue.fire(t);
      }
    });
    go = true;
    for (auto& thread : threads) thread.join();

    std::optional<int32_t> expected;
    for (size_t i = 0; i < kClients; ++i) {
      if (connections[i].barriers.empty()) continue;
      ASSERT_FALSE(expected) << "two connections were given a barrier";
      expected = statuses[i] == LDListenerTransferStatusAcknowledged ? 0 : 1;
    }
    for (auto& connection : connections) connection.runBarriers();
    harness.queue.fireAll();
    EXPECT_EQ(harness.terminations(), (std::vector<int32_t>{expected.value_or(1)}));
    EXPECT_LE(harness.originalsClosed, 1);
  }
}

// ---- The one-time token ----

// The draws are fresh each time; their encoding is the next test's.
// Two digits a byte, high nibble first, no sign extension of bytes from 0x80.
TEST(UnpredictableToken, EncodesEachDrawnByteAsTwoDigits) {
  ldtest::ScriptedSystemCalls systemCalls;
  systemCalls.randomBytes = std::vector<unsigned char>{0x00, 0xff, 0x80, 0x0a, 0x7f, 0x10, 0xc3, 0x01};
  systemCalls.randomBytes->resize(32, 0xe9);
  EXPECT_EQ(LDUnpredictableToken(nullptr, systemCalls),
            "00ff800a7f10c301e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9");
}

TEST(UnpredictableToken, AFailedOrShortDrawGivesNothing) {
  for (const auto& [value, errorNumber] : {std::pair{-1L, EAGAIN}, std::pair{31L, 0}, std::pair{0L, 0}}) {
    ldtest::ScriptedSystemCalls systemCalls;
    systemCalls.script("getrandom", 0, value, errorNumber);
    std::optional<LDError> error;
    EXPECT_FALSE(LDUnpredictableToken(&error, systemCalls));
    ldtest::expectError(error, {2, "SecRandomCopyBytes failed", std::nullopt});
    EXPECT_FALSE(LDUnpredictableToken(nullptr, systemCalls));
  }
}

}  // namespace
