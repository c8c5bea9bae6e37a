#pragma once

// The main thread's loop: epoll over the descriptors of the service listener and its
// connections, plus deadlines. Single-threaded: every method is called on the loop's thread.

#include <cstdint>
#include <functional>
#include <map>

#include "shared/file_handle.h"

class LDRunLoop {
 public:
  using Handler = std::function<void(uint32_t events)>;

  LDRunLoop();
  LDRunLoop(const LDRunLoop&) = delete;
  LDRunLoop& operator=(const LDRunLoop&) = delete;

  bool isValid() const { return _epoll.isValid(); }

  // Calls handler with the epoll events whenever fd is ready for `events`.
  void watch(int fd, uint32_t events, Handler handler);
  void modify(int fd, uint32_t events);
  // Safe from inside any handler, for any fd: an event already collected for it is dropped.
  void unwatch(int fd);

  // Calls fn once, at the first turn of the loop at or after the CLOCK_MONOTONIC deadline.
  // Returns an identifier for cancel().
  uint64_t runAt(int64_t deadlineNanoseconds, std::function<void()> fn);
  void cancel(uint64_t identifier);

  // Turns until stop() is called (from a handler); without stop() it never returns.
  void run();
  void stop() { _stopping = true; }

  static int64_t now();

 private:
  struct Watch {
    uint64_t generation;
    Handler handler;
  };
  LDFileHandle _epoll;
  std::map<int, Watch> _watches;
  std::multimap<int64_t, std::pair<uint64_t, std::function<void()>>> _timers;
  uint64_t _nextGeneration = 1;
  bool _stopping = false;
};
