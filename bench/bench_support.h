#pragma once

// What the benchmark drivers share: the clock, the way out, and starting the helper the way
// systemd does once a connection is waiting.

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "shared/file_handle.h"

namespace ldbench {

inline int64_t now() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

[[noreturn]] inline void die(const std::string& why) {
  std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, why.c_str());
  std::exit(1);
}

// The helper with `listening` as its activated socket (descriptor 3, LISTEN_PID, LISTEN_FDS).
inline pid_t activateHelper(const std::string& helper, int listening, bool quiet) {
  const pid_t child = ::fork();
  if (child == 0) {
    const int target = 3;
    if (!LDPlaceDescriptorsForExec(&listening, &target, 1)) ::_exit(125);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    ::setenv("LISTEN_FDS", "1", 1);
    if (quiet) ::dup2(::open("/dev/null", O_WRONLY), 1);
    ::execl(helper.c_str(), helper.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  return child;
}

}  // namespace ldbench
