// The utility queue, which runs the helper's timers.

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <mutex>
#include <vector>

#include "platform/dispatch.h"

namespace {

// The real queue with millisecond delays: blocks run in deadline order on the utility thread,
// a cancelled block never runs.
TEST(UtilityQueue, RunsDueBlocksInDeadlineOrderAndSkipsCancelledOnes) {
  std::mutex mutex;
  std::vector<int> order;
  std::promise<void> lastRan;
  auto record = [&](int value) {
    return LDDispatchBlock::create([&, value] {
      std::lock_guard<std::mutex> guard(mutex);
      order.push_back(value);
      if (value == 4) lastRan.set_value();
    });
  };
  auto cancelled = record(99);
  cancelled->cancel();
  LDUtilityQueue queue;
  // Submitted out of order, 10 ms apart: far more than the microseconds the submissions take.
  for (const auto& [delay, block] : {std::pair{40'000'000, record(4)}, {25'000'000, cancelled}, {20'000'000, record(2)},
                                     {30'000'000, record(3)}, {10'000'000, record(1)}})
    queue.dispatchAfter(delay, block);
  // Block 4 sets lastRan after its push: every push happened before the wait returned.
  ASSERT_EQ(lastRan.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

}  // namespace
