#include "platform/run_loop.h"

#include <sys/epoll.h>

#include <cerrno>
#include <utility>
#include <vector>

LDRunLoop::LDRunLoop(LDSystemCalls& calls) : _calls(calls) {
  const LDSystemCallResult created = _calls.epoll_create1(EPOLL_CLOEXEC);
  _epoll.reset(static_cast<int>(created.value));
  _creationError = created.errorNumber;
}

bool LDRunLoop::isValid(int* errorNumber) const {
  if (_epoll.isValid()) return true;
  if (errorNumber) *errorNumber = _creationError;
  return false;
}

bool LDRunLoop::watch(int fd, uint32_t events, Handler handler, int* errorNumber) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  const int failure = _calls.epoll_ctl(_epoll.fileDescriptor(), EPOLL_CTL_ADD, fd, &event).errorNumber;
  if (failure != 0) {
    if (errorNumber) *errorNumber = failure;
    return false;
  }
  _watches[fd] = Watch{_nextGeneration++, std::move(handler)};
  return true;
}

void LDRunLoop::modify(int fd, uint32_t events) {
  // Only for a watched descriptor: the kernel has already accepted it, and MOD allocates nothing.
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  (void)_calls.epoll_ctl(_epoll.fileDescriptor(), EPOLL_CTL_MOD, fd, &event);
}

void LDRunLoop::unwatch(int fd) {
  (void)_calls.epoll_ctl(_epoll.fileDescriptor(), EPOLL_CTL_DEL, fd, nullptr);
  _watches.erase(fd);
}

uint64_t LDRunLoop::runAt(int64_t deadlineNanoseconds, std::function<void()> fn) {
  const uint64_t identifier = _nextGeneration++;
  _timers.emplace(deadlineNanoseconds, std::make_pair(identifier, std::move(fn)));
  return identifier;
}

void LDRunLoop::cancel(uint64_t identifier) {
  for (auto it = _timers.begin(); it != _timers.end(); ++it) {
    if (it->second.first == identifier) {
      _timers.erase(it);
      return;
    }
  }
}

bool LDRunLoop::run(int* errorNumber) {
  _stopping = false;
  std::vector<epoll_event> events(16);
  while (!_stopping) {
    int timeout = -1;
    if (!_timers.empty()) {
      const int64_t wait = _timers.begin()->first - now();
      timeout = wait <= 0 ? 0 : static_cast<int>(std::min<int64_t>(wait / 1'000'000 + 1, 60'000));
    }
    const LDSystemCallResult waited =
        _calls.epoll_wait(_epoll.fileDescriptor(), events.data(), static_cast<int>(events.size()), timeout);
    int ready = static_cast<int>(waited.value);
    if (ready < 0) {
      if (waited.errorNumber != EINTR) {
        if (errorNumber) *errorNumber = waited.errorNumber;
        return false;
      }
      ready = 0;  // a signal: look at the timers and wait again
    }
    // Remember which registration each event belongs to: a handler may unwatch a descriptor
    // (and its number may be reused for a new one) before its event is looked at.
    std::vector<std::pair<int, uint64_t>> due;
    for (int i = 0; i < ready; ++i) {
      const auto found = _watches.find(events[static_cast<size_t>(i)].data.fd);
      due.emplace_back(found == _watches.end() ? -1 : found->first,
                       found == _watches.end() ? 0 : found->second.generation);
    }
    for (int i = 0; i < ready && !_stopping; ++i) {
      const auto [fd, generation] = due[static_cast<size_t>(i)];
      const auto found = _watches.find(fd);
      if (fd < 0 || found == _watches.end() || found->second.generation != generation) continue;
      Handler handler = found->second.handler;  // the handler may unwatch itself
      handler(events[static_cast<size_t>(i)].events);
    }
    while (!_stopping && !_timers.empty() && _timers.begin()->first <= now()) {
      std::function<void()> fn = std::move(_timers.begin()->second.second);
      _timers.erase(_timers.begin());
      fn();
    }
  }
  return true;
}
