// The benchmark's client: prints the CLOCK_MONOTONIC time (ns) just before it connects, acquires
// the listeners through the client library, and exits 0 once they are validated and acknowledged.
//   transfer_client SOCKET
#include <time.h>

#include <cstdio>

#include "client/listener_client.h"

int main(int argc, char** argv) {
  if (argc != 2) return 64;
  LDClientOptions options;
  options.socketPath = argv[1];
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  std::printf("%lld\n", static_cast<long long>(now.tv_sec) * 1'000'000'000LL + now.tv_nsec);
  std::fflush(stdout);
  std::optional<LDError> error;
  if (!LDAcquireListeners(options, &error)) {
    std::fprintf(stderr, "transfer_client: %s\n", error->description().c_str());
    return 1;
  }
  return 0;
}
