// What running each admission in a worker process costs over a thread: the worker's fork, its
// verdict over a pipe, the pidfd's wake-up and the reap, against a thread started and joined,
// both doing no work of their own. Prints the medians and p99s in microseconds.
//
//   admission_worker_cost [ROUNDS]

#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "platform/admission_worker.h"

namespace {

void report(const char* what, std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const auto at = [&](double q) { return values[static_cast<size_t>(q * static_cast<double>(values.size() - 1))]; };
  std::printf("%-44s median %7.1f us   p99 %7.1f us\n", what, at(0.5), at(0.99));
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 2000;
  std::vector<double> worker, thread;
  for (int i = 0; i < rounds; ++i) {
    int64_t started = ldbench::now();
    int errorNumber = 0;
    std::optional<LDAdmissionWorker> running = LDAdmissionWorker::start(
        [](const std::function<void()>& inspected) {
          inspected();
          return std::optional<LDPeerVerdict>(LDPeerVerdict{});
        },
        {}, LDAdmissionWorker::kSystemCalls, &errorNumber);
    if (!running) ldbench::die("no worker");
    pollfd exited{running->exitDescriptor(), POLLIN, 0};
    while (::poll(&exited, 1, -1) != 1) {
    }
    if (!running->finish()) ldbench::die("the worker gave no verdict");
    worker.push_back(static_cast<double>(ldbench::now() - started) / 1000);

    started = ldbench::now();
    std::optional<LDPeerVerdict> verdict;
    std::thread([&] { verdict = LDPeerVerdict{}; }).join();
    thread.push_back(static_cast<double>(ldbench::now() - started) / 1000);
  }
  report("admission in a worker process (fork to reap)", worker);
  report("admission on a thread (start to join)", thread);
  return 0;
}
