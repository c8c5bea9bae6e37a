#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "platform/dispatch.h"

namespace {

// Waits (bounded) until `count` blocks have recorded themselves.
class Recorder {
 public:
  void record(int value) {
    std::lock_guard<std::mutex> guard(_mutex);
    _values.push_back(value);
    _changed.notify_all();
  }
  std::vector<int> waitFor(size_t count) {
    std::unique_lock<std::mutex> lock(_mutex);
    _changed.wait_for(lock, std::chrono::seconds(5), [&] { return _values.size() >= count; });
    return _values;
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  std::vector<int> _values;
};

// The real queue with millisecond delays: blocks run in deadline order on the utility thread,
// a cancelled block never runs.
TEST(UtilityQueue, RunsDueBlocksInDeadlineOrderAndSkipsCancelledOnes) {
  Recorder recorder;
  LDUtilityQueue queue;
  auto cancelled = LDDispatchBlock::create([&] { recorder.record(99); });
  cancelled->cancel();
  // Submitted out of order, 10 ms apart: far more than the microseconds the submissions take.
  queue.dispatchAfter(40'000'000, LDDispatchBlock::create([&] { recorder.record(4); }));
  queue.dispatchAfter(25'000'000, cancelled);
  queue.dispatchAfter(20'000'000, LDDispatchBlock::create([&] { recorder.record(2); }));
  queue.dispatchAfter(30'000'000, LDDispatchBlock::create([&] { recorder.record(3); }));
  queue.dispatchAfter(10'000'000, LDDispatchBlock::create([&] { recorder.record(1); }));
  EXPECT_EQ(recorder.waitFor(4), (std::vector<int>{1, 2, 3, 4}));
}

TEST(UtilityQueue, DelaysAreNanosecondsTruncatedTowardZero) {
  EXPECT_EQ(LDDelayInNanoseconds(0.0000000019), 1);
  EXPECT_EQ(LDDelayInNanoseconds(1.5), 1'500'000'000);
  EXPECT_EQ(LDDelayInNanoseconds(-0.5), -500'000'000);
}

}  // namespace
