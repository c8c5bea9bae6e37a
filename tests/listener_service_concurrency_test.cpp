#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "helper/listener_service.h"
#include "support/descriptors.h"
#include "support/service_harness.h"

namespace {

using ldtest::FakeConnection;
using ldtest::ServiceHarness;

// A connection that remembers the status of the reply it carried when the service scheduled its
// barrier: only the first termination request of the service schedules one.
class RecordingConnection final : public LDListenerConnection {
 public:
  void scheduleSendBarrierBlock(std::function<void()> barrier) override {
    std::lock_guard<std::mutex> guard(mutex);
    barriers.push_back(std::move(barrier));
  }
  std::mutex mutex;
  std::vector<std::function<void()>> barriers;
  std::atomic<int64_t> lastStatus{-1};
};

// Many clients at once: requests, completions with the issued token or a wrong one, and the
// timer firing, all racing. Whatever the interleaving, terminate runs exactly once, with the
// status of whichever termination request came first.
TEST(ListenerServiceConcurrency, OneTerminationWithTheFirstStatus) {
  constexpr int kRounds = 40;
  constexpr int kClients = 8;
  for (int round = 0; round < kRounds; ++round) {
    ServiceHarness harness(ldtest::freeLoopbackPort());
    std::vector<RecordingConnection> connections(kClients);
    std::mutex tokenMutex;
    std::optional<std::string> issuedToken;
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
      threads.emplace_back([&, i] {
        while (!go.load()) std::this_thread::yield();
        RecordingConnection& connection = connections[static_cast<size_t>(i)];
        if (i % 2 == 0) {
          harness.service->requestListenerTransferWithProtocolVersion(
              i == 4 ? 2 : 1,
              [&](int64_t, int64_t status, const std::optional<std::string>& token, const LDListenerHandle&,
                  const LDListenerHandle&, int32_t, const std::optional<std::string>&) {
                connection.lastStatus = status;
                if (token) {
                  std::lock_guard<std::mutex> guard(tokenMutex);
                  issuedToken = token;
                }
              },
              &connection);
        } else {
          std::optional<std::string> token;
          if (i != 1) {
            std::lock_guard<std::mutex> guard(tokenMutex);
            token = issuedToken;
          }
          harness.service->completeListenerTransferWithProtocolVersion(
              1, token, i != 3,
              [&](int64_t, int64_t status, const std::optional<std::string>&) { connection.lastStatus = status; },
              &connection);
        }
      });
    }
    threads.emplace_back([&] {
      while (!go.load()) std::this_thread::yield();
      for (int k = 0; k < 50; ++k) {
        for (size_t t = 0; t < harness.queue.size(); ++t) harness.queue.fire(t);
        std::this_thread::yield();
      }
    });
    go = true;
    for (auto& thread : threads) thread.join();

    // The winner is the one connection that was given a barrier; if none was, the timer ended
    // the process (status 1) before any reply asked to.
    std::optional<int32_t> expected;
    int withBarrier = 0;
    for (auto& connection : connections) {
      if (!connection.barriers.empty()) {
        ++withBarrier;
        expected = connection.lastStatus == LDListenerTransferStatusAcknowledged ? 0 : 1;
      }
    }
    ASSERT_LE(withBarrier, 1) << "round " << round;
    for (auto& connection : connections) {
      for (auto& barrier : connection.barriers) barrier();
    }
    harness.queue.fireAll();
    const std::vector<int32_t> terminations = harness.terminations();
    ASSERT_EQ(terminations.size(), 1u) << "round " << round;
    EXPECT_EQ(terminations.front(), expected.value_or(1)) << "round " << round;
    EXPECT_LE(harness.originalsClosedNotifications(), 1) << "round " << round;
  }
}

}  // namespace
