#pragma once

// The main thread's loop: epoll over the descriptors of the service listener and its
// connections, plus deadlines. Single-threaded: every method is called on the loop's thread.

#include <cstdint>
#include <functional>
#include <map>

#include "shared/file_handle.h"
#include "shared/monotonic_clock.h"
#include "shared/system_calls.h"

struct epoll_event;

class LDRunLoop {
 public:
  using Handler = std::function<void(uint32_t events)>;
  // calls reaches epoll, and must outlive the loop.
  explicit LDRunLoop(LDSystemCalls& calls = LDSystemCalls::real());
  LDRunLoop(const LDRunLoop&) = delete;
  LDRunLoop& operator=(const LDRunLoop&) = delete;

  // False when the epoll set could not be made; *errorNumber says why.
  bool isValid(int* errorNumber = nullptr) const;

  // Calls handler with the epoll events whenever fd is ready for `events`. False, with
  // *errorNumber, when the kernel would not add fd: then nothing is watched.
  [[nodiscard]] bool watch(int fd, uint32_t events, Handler handler, int* errorNumber = nullptr);
  void modify(int fd, uint32_t events);
  // Safe from inside any handler, for any fd: an event already collected for it is dropped.
  void unwatch(int fd);

  // Calls fn once, at the first turn of the loop at or after the CLOCK_MONOTONIC deadline.
  // Returns an identifier for cancel().
  uint64_t runAt(int64_t deadlineNanoseconds, std::function<void()> fn);
  void cancel(uint64_t identifier);

  // Turns until stop() is called (from a handler): true. May be called again after that. Waiting is retried on EINTR; any other
  // failure to wait returns false with *errorNumber, as the loop cannot go on.
  bool run(int* errorNumber = nullptr);
  void stop() { _stopping = true; }

  // The clock of runAt deadlines.
  static int64_t now() { return LDMonotonicNanoseconds(); }

 private:
  struct Watch {
    uint64_t generation;
    Handler handler;
  };
  LDSystemCalls& _calls;
  LDFileHandle _epoll;
  int _creationError = 0;
  std::map<int, Watch> _watches;
  std::multimap<int64_t, std::pair<uint64_t, std::function<void()>>> _timers;
  uint64_t _nextGeneration = 1;
  bool _stopping = false;
};
