#pragma once

// Timers for the handoff service: cancellable blocks submitted to run after a delay on one
// background "utility" thread. Behind an interface so that tests read the exact delay armed and
// fire blocks by hand instead of waiting.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "shared/thread_annotations.h"

// A block that can be cancelled before it starts. Cancelling does not interrupt a block that is
// already running, and a cancelled block never starts.
class LDDispatchBlock {
 public:
  static std::shared_ptr<LDDispatchBlock> create(std::function<void()> body);

  void cancel() { _cancelled.store(true, std::memory_order_release); }
  bool isCancelled() const { return _cancelled.load(std::memory_order_acquire); }

  // Runs the body unless the block was cancelled.
  void perform();
  // Runs the body regardless: what a block does that had already started when it was cancelled.
  // Tests use it to reproduce that race.
  void performEvenIfCancelled() { _body(); }

 private:
  explicit LDDispatchBlock(std::function<void()> body) : _body(std::move(body)) {}

  std::function<void()> _body;
  std::atomic<bool> _cancelled{false};
};

using LDDispatchBlockRef = std::shared_ptr<LDDispatchBlock>;

// 1e9 times the seconds, truncated toward zero to a signed 64-bit count of nanoseconds.
int64_t LDDelayInNanoseconds(double seconds);

class LDDispatchQueue {
 public:
  virtual ~LDDispatchQueue() = default;
  // Runs block on the queue once delayNanoseconds have passed from now (a negative or zero delay
  // runs it as soon as possible). The queue holds the block until then.
  virtual void dispatchAfter(int64_t delayNanoseconds, LDDispatchBlockRef block) = 0;
};

// One background thread with a timer queue ordered by CLOCK_MONOTONIC deadlines. Blocks run one
// at a time, in deadline order. Destruction stops the thread; blocks not yet due are dropped.
class LDUtilityQueue final : public LDDispatchQueue {
 public:
  LDUtilityQueue();
  ~LDUtilityQueue() override;
  LDUtilityQueue(const LDUtilityQueue&) = delete;
  LDUtilityQueue& operator=(const LDUtilityQueue&) = delete;

  void dispatchAfter(int64_t delayNanoseconds, LDDispatchBlockRef block) override LD_EXCLUDES(_lock);

 private:
  struct Timer {
    int64_t deadline;   // CLOCK_MONOTONIC, nanoseconds
    uint64_t sequence;  // keeps equal deadlines in submission order
    LDDispatchBlockRef block;
  };

  void run() LD_EXCLUDES(_lock);

  LDLock _lock;
  std::condition_variable_any _wakeUp;
  std::vector<Timer> _timers LD_GUARDED_BY(_lock);  // a heap, earliest deadline on top
  uint64_t _nextSequence LD_GUARDED_BY(_lock) = 0;
  bool _stopping LD_GUARDED_BY(_lock) = false;
  std::thread _thread;  // last: starts once everything above exists
};
