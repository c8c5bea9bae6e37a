#include "shared/monotonic_clock.h"

#include <time.h>

int64_t LDMonotonicNanoseconds() {
  timespec now{};
  // Cannot fail: the clock exists on every Linux and &now is writable.
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}
