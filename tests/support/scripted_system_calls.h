#pragma once

// A system-call seam for tests: every call reaches the kernel unless the test scripted it. A
// scripted call returns the chosen value and errno (for getsockopt, also the chosen option value)
// without running, so a failing socket() really creates nothing.

#include <fcntl.h>
#include <netinet/in.h>

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "shared/system_calls.h"

namespace ldtest {

class ScriptedSystemCalls : public LDSystemCalls {
 public:
  // Call names: "socket", "bind", "listen", "connect", "accept", "getsockname", "poll", "dup",
  // "inet_pton", "inet_ntop", "getrandom", "fcntl(F_GETFD)", "fcntl(F_SETFD)",
  // "setsockopt(SO_REUSEADDR)", "setsockopt(IPV6_V6ONLY)", "getsockopt(SO_TYPE)",
  // "getsockopt(SO_ACCEPTCONN)", "getsockopt(IPV6_V6ONLY)". occurrence counts from 1; 0 means every
  // call of that name.
  void script(const std::string& call, int occurrence, long value, int errorNumber,
              std::optional<int> optionValue = std::nullopt);

  // Runs hook just before the nth call named `call` (scripted or not), outside any lock: a test
  // uses it to act while the code under test is in the middle of its work.
  void onCall(const std::string& call, int occurrence, std::function<void()> hook);

  // The bytes that getrandom hands out instead of random ones.
  void scriptRandomBytes(std::vector<unsigned char> bytes);

  int callCount(const std::string& call) const;

  LDSystemCallResult socket(int family, int type, int protocol) override;
  LDSystemCallResult setsockopt(int fd, int level, int name, const void* value,
                                socklen_t length) override;
  LDSystemCallResult getsockopt(int fd, int level, int name, void* value,
                                socklen_t* length) override;
  LDSystemCallResult bind(int fd, const sockaddr* address, socklen_t length) override;
  LDSystemCallResult listen(int fd, int backlog) override;
  LDSystemCallResult connect(int fd, const sockaddr* address, socklen_t length) override;
  LDSystemCallResult accept(int fd, sockaddr* address, socklen_t* length) override;
  LDSystemCallResult getsockname(int fd, sockaddr* address, socklen_t* length) override;
  LDSystemCallResult poll(pollfd* fds, nfds_t count, int timeoutMilliseconds) override;
  LDSystemCallResult dup(int fd) override;
  LDSystemCallResult fcntl(int fd, int command, int argument) override;
  LDSystemCallResult inet_pton(int family, const char* text, void* address) override;
  LDSystemCallResult inet_ntop(int family, const void* address, char* text,
                               socklen_t size) override;
  LDSystemCallResult getrandom(void* buffer, size_t length, unsigned flags) override;

 private:
  struct Scripted {
    long value;
    int errorNumber;
    std::optional<int> optionValue;
  };

  // Counts the call and returns its script, if any.
  std::optional<Scripted> next(const std::string& call);

  mutable std::mutex _mutex;
  std::map<std::pair<std::string, int>, Scripted> _scripts;
  std::map<std::string, int> _counts;
  std::map<std::pair<std::string, int>, std::function<void()>> _hooks;
  std::optional<std::vector<unsigned char>> _randomBytes;
};

}  // namespace ldtest
