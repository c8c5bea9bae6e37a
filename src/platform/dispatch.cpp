#include "platform/dispatch.h"

#include <algorithm>
#include <tuple>

#include "shared/monotonic_clock.h"

namespace {

// Orders the heap so that the earliest deadline (then the earliest submission) is on top.
bool later(const auto& a, const auto& b) { return std::tie(a.deadline, a.sequence) > std::tie(b.deadline, b.sequence); }

}  // namespace

std::shared_ptr<LDDispatchBlock> LDDispatchBlock::create(std::function<void()> body) {
  return std::shared_ptr<LDDispatchBlock>(new LDDispatchBlock(std::move(body)));
}

void LDDispatchBlock::perform() {
  if (!isCancelled()) {
    _body();
  }
}

int64_t LDDelayInNanoseconds(double seconds) { return static_cast<int64_t>(1e9 * seconds); }

LDUtilityQueue::LDUtilityQueue() : _thread([this] { run(); }) {}

LDUtilityQueue::~LDUtilityQueue() {
  {
    LDLockGuard guard(_lock);
    _stopping = true;
  }
  _wakeUp.notify_all();
  _thread.join();
}

void LDUtilityQueue::dispatchAfter(int64_t delayNanoseconds, LDDispatchBlockRef block) {
  const int64_t deadline = LDMonotonicNanoseconds() + delayNanoseconds;
  {
    LDLockGuard guard(_lock);
    _timers.push_back(Timer{deadline, _nextSequence++, std::move(block)});
    std::push_heap(_timers.begin(), _timers.end(), later<Timer, Timer>);
  }
  _wakeUp.notify_all();
}

void LDUtilityQueue::run() {
  _lock.lock();
  while (!_stopping) {
    if (_timers.empty()) {
      _wakeUp.wait(_lock);
      continue;
    }
    const int64_t wait = _timers.front().deadline - LDMonotonicNanoseconds();
    if (wait > 0) {
      _wakeUp.wait_for(_lock, std::chrono::nanoseconds(wait));
      continue;
    }
    std::pop_heap(_timers.begin(), _timers.end(), later<Timer, Timer>);
    LDDispatchBlockRef due = std::move(_timers.back().block);
    _timers.pop_back();
    // Blocks take the service's locks; never run one while holding the queue's.
    _lock.unlock();
    due->perform();
    due.reset();
    _lock.lock();
  }
  _lock.unlock();
}
