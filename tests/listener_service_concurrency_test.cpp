#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "support/descriptors.h"
#include "support/service_harness.h"

namespace {

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

}  // namespace
