#pragma once

// A system-call seam for tests: every call reaches the kernel unless the test scripted it. A
// scripted call returns the chosen value and errno (for getsockopt, also the chosen option value)
// without running, so a failing socket() really creates nothing. Used from one thread at a time.

#include <fcntl.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "shared/system_calls.h"

namespace ldtest {

class ScriptedSystemCalls : public LDSystemCalls {
 public:
  // Call names: "socket", "bind", "listen", "connect", "accept", "getsockname", "poll", "dup",
  // "inet_pton", "inet_ntop", "getrandom", "fcntl(F_GETFD)", "fcntl(F_SETFD)", "fcntl(F_SETFL)", and
  // "setsockopt(N)" / "getsockopt(N)" with N one of SO_REUSEADDR, SO_TYPE, SO_ACCEPTCONN,
  // IPV6_V6ONLY, and "epoll_create1", "epoll_ctl", "epoll_wait", "accept4", "fork" (counted in the
  // process that forks), "pidfd_send_signal". occurrence counts from 1; 0 means every call of that name.
  void script(const std::string& call, int occurrence, long value, int errorNumber, std::optional<int> optionValue = {}) {
    _scripts[{call, occurrence}] = Scripted{value, errorNumber, optionValue};
  }
  // Runs hook just before the nth call named `call`, scripted or not.
  void onCall(const std::string& call, int occurrence, std::function<void()> hook) { _hooks[{call, occurrence}] = std::move(hook); }
  // What getrandom hands out instead of random bytes.
  std::optional<std::vector<unsigned char>> randomBytes;
  int callCount(const std::string& call) { return _counts[call]; }

#define LD_SCRIPTED(call, name, parameters, arguments)                \
  LDSystemCallResult call parameters override {                       \
    if (auto r = next(name)) return {r->value, r->errorNumber};       \
    return LDSystemCalls::call arguments;                             \
  }
  LD_SCRIPTED(socket, "socket", (int f, int t, int p), (f, t, p))
  LD_SCRIPTED(setsockopt, "setsockopt(" + option(l, n) + ")", (int fd, int l, int n, const void* v, socklen_t s), (fd, l, n, v, s))
  LD_SCRIPTED(bind, "bind", (int fd, const sockaddr* a, socklen_t l), (fd, a, l))
  LD_SCRIPTED(listen, "listen", (int fd, int b), (fd, b))
  LD_SCRIPTED(connect, "connect", (int fd, const sockaddr* a, socklen_t l), (fd, a, l))
  LD_SCRIPTED(accept, "accept", (int fd, sockaddr* a, socklen_t* l), (fd, a, l))
  LD_SCRIPTED(getsockname, "getsockname", (int fd, sockaddr* a, socklen_t* l), (fd, a, l))
  LD_SCRIPTED(poll, "poll", (pollfd* f, nfds_t c, int t), (f, c, t))
  LD_SCRIPTED(dup, "dup", (int fd), (fd))
  LD_SCRIPTED(fcntl, c == F_GETFD ? "fcntl(F_GETFD)" : c == F_SETFD ? "fcntl(F_SETFD)" : c == F_SETFL ? "fcntl(F_SETFL)" : "fcntl",
              (int fd, int c, int a), (fd, c, a))
  LD_SCRIPTED(inet_pton, "inet_pton", (int f, const char* t, void* a), (f, t, a))
  LD_SCRIPTED(inet_ntop, "inet_ntop", (int f, const void* a, char* t, socklen_t s), (f, a, t, s))
  LD_SCRIPTED(epoll_create1, "epoll_create1", (int f), (f))
  LD_SCRIPTED(epoll_ctl, "epoll_ctl", (int e, int o, int fd, epoll_event* v), (e, o, fd, v))
  LD_SCRIPTED(epoll_wait, "epoll_wait", (int e, epoll_event* v, int c, int t), (e, v, c, t))
  LD_SCRIPTED(accept4, "accept4", (int fd, sockaddr* a, socklen_t* l, int f), (fd, a, l, f))
  LD_SCRIPTED(pidfd_send_signal, "pidfd_send_signal", (int fd, int s), (fd, s))
#undef LD_SCRIPTED

  LDSystemCallResult getsockopt(int fd, int level, int name, void* value, socklen_t* length) override {
    if (auto s = next("getsockopt(" + option(level, name) + ")")) {
      if (s->optionValue) std::memcpy(value, &*s->optionValue, sizeof(int));
      return {s->value, s->errorNumber};
    }
    return LDSystemCalls::getsockopt(fd, level, name, value, length);
  }
  pid_t fork() override {
    if (auto s = next("fork")) return errno = s->errorNumber, static_cast<pid_t>(s->value);
    return LDSystemCalls::fork();
  }
  LDSystemCallResult getrandom(void* buffer, size_t length, unsigned flags) override {
    if (auto s = next("getrandom")) return {s->value, s->errorNumber};
    if (!randomBytes) return LDSystemCalls::getrandom(buffer, length, flags);
    const size_t copied = std::min(length, randomBytes->size());
    std::memcpy(buffer, randomBytes->data(), copied);
    return {static_cast<long>(copied), 0};
  }

 private:
  struct Scripted {
    long value;
    int errorNumber;
    std::optional<int> optionValue;
  };

  static std::string option(int level, int name) {
    if (level == IPPROTO_IPV6) return name == IPV6_V6ONLY ? "IPV6_V6ONLY" : std::to_string(name);
    return name == SO_REUSEADDR ? "SO_REUSEADDR" : name == SO_TYPE ? "SO_TYPE" : name == SO_ACCEPTCONN ? "SO_ACCEPTCONN" : std::to_string(name);
  }
  // Counts the call, runs its hook and returns its script, if any.
  std::optional<Scripted> next(const std::string& call) {
    const int occurrence = ++_counts[call];
    if (const auto hook = _hooks.find({call, occurrence}); hook != _hooks.end()) std::exchange(hook->second, nullptr)();
    for (const int key : {occurrence, 0}) {
      if (const auto found = _scripts.find({call, key}); found != _scripts.end()) return found->second;
    }
    return std::nullopt;
  }

  std::map<std::pair<std::string, int>, Scripted> _scripts;
  std::map<std::string, int> _counts;
  std::map<std::pair<std::string, int>, std::function<void()>> _hooks;
};

}  // namespace ldtest
