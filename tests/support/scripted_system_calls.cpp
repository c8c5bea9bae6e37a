#include "support/scripted_system_calls.h"

#include <algorithm>
#include <cstring>

namespace ldtest {

namespace {

std::string socketOptionName(int level, int name) {
  if (level == SOL_SOCKET && name == SO_REUSEADDR) return "SO_REUSEADDR";
  if (level == SOL_SOCKET && name == SO_TYPE) return "SO_TYPE";
  if (level == SOL_SOCKET && name == SO_ACCEPTCONN) return "SO_ACCEPTCONN";
  if (level == IPPROTO_IPV6 && name == IPV6_V6ONLY) return "IPV6_V6ONLY";
  return std::to_string(level) + "/" + std::to_string(name);
}

}  // namespace

void ScriptedSystemCalls::script(const std::string& call, int occurrence, long value,
                                 int errorNumber, std::optional<int> optionValue) {
  std::lock_guard<std::mutex> guard(_mutex);
  _scripts[{call, occurrence}] = Scripted{value, errorNumber, optionValue};
}

void ScriptedSystemCalls::scriptRandomBytes(std::vector<unsigned char> bytes) {
  std::lock_guard<std::mutex> guard(_mutex);
  _randomBytes = std::move(bytes);
}

int ScriptedSystemCalls::callCount(const std::string& call) const {
  std::lock_guard<std::mutex> guard(_mutex);
  const auto found = _counts.find(call);
  return found == _counts.end() ? 0 : found->second;
}

void ScriptedSystemCalls::onCall(const std::string& call, int occurrence,
                                 std::function<void()> hook) {
  std::lock_guard<std::mutex> guard(_mutex);
  _hooks[{call, occurrence}] = std::move(hook);
}

std::optional<ScriptedSystemCalls::Scripted> ScriptedSystemCalls::next(const std::string& call) {
  std::function<void()> hook;
  std::optional<Scripted> scripted;
  {
    std::lock_guard<std::mutex> guard(_mutex);
    const int occurrence = ++_counts[call];
    const auto hooked = _hooks.find({call, occurrence});
    if (hooked != _hooks.end()) hook = std::move(hooked->second);
    for (const int key : {occurrence, 0}) {
      const auto found = _scripts.find({call, key});
      if (found != _scripts.end()) {
        scripted = found->second;
        break;
      }
    }
  }
  if (hook) hook();
  return scripted;
}

LDSystemCallResult ScriptedSystemCalls::socket(int family, int type, int protocol) {
  if (auto s = next("socket")) return {s->value, s->errorNumber};
  return LDSystemCalls::socket(family, type, protocol);
}

LDSystemCallResult ScriptedSystemCalls::setsockopt(int fd, int level, int name, const void* value,
                                                   socklen_t length) {
  if (auto s = next("setsockopt(" + socketOptionName(level, name) + ")")) {
    return {s->value, s->errorNumber};
  }
  return LDSystemCalls::setsockopt(fd, level, name, value, length);
}

LDSystemCallResult ScriptedSystemCalls::getsockopt(int fd, int level, int name, void* value,
                                                   socklen_t* length) {
  if (auto s = next("getsockopt(" + socketOptionName(level, name) + ")")) {
    if (s->optionValue) std::memcpy(value, &*s->optionValue, sizeof(int));
    return {s->value, s->errorNumber};
  }
  return LDSystemCalls::getsockopt(fd, level, name, value, length);
}

LDSystemCallResult ScriptedSystemCalls::bind(int fd, const sockaddr* address, socklen_t length) {
  if (auto s = next("bind")) return {s->value, s->errorNumber};
  return LDSystemCalls::bind(fd, address, length);
}

LDSystemCallResult ScriptedSystemCalls::listen(int fd, int backlog) {
  if (auto s = next("listen")) return {s->value, s->errorNumber};
  return LDSystemCalls::listen(fd, backlog);
}

LDSystemCallResult ScriptedSystemCalls::connect(int fd, const sockaddr* address,
                                                socklen_t length) {
  if (auto s = next("connect")) return {s->value, s->errorNumber};
  return LDSystemCalls::connect(fd, address, length);
}

LDSystemCallResult ScriptedSystemCalls::accept(int fd, sockaddr* address, socklen_t* length) {
  if (auto s = next("accept")) return {s->value, s->errorNumber};
  return LDSystemCalls::accept(fd, address, length);
}

LDSystemCallResult ScriptedSystemCalls::getsockname(int fd, sockaddr* address,
                                                    socklen_t* length) {
  if (auto s = next("getsockname")) return {s->value, s->errorNumber};
  return LDSystemCalls::getsockname(fd, address, length);
}

LDSystemCallResult ScriptedSystemCalls::poll(pollfd* fds, nfds_t count, int timeoutMilliseconds) {
  if (auto s = next("poll")) return {s->value, s->errorNumber};
  return LDSystemCalls::poll(fds, count, timeoutMilliseconds);
}

LDSystemCallResult ScriptedSystemCalls::dup(int fd) {
  if (auto s = next("dup")) return {s->value, s->errorNumber};
  return LDSystemCalls::dup(fd);
}

LDSystemCallResult ScriptedSystemCalls::fcntl(int fd, int command, int argument) {
  const std::string call = command == F_GETFD ? "fcntl(F_GETFD)" : "fcntl(F_SETFD)";
  if (auto s = next(call)) return {s->value, s->errorNumber};
  return LDSystemCalls::fcntl(fd, command, argument);
}

LDSystemCallResult ScriptedSystemCalls::inet_pton(int family, const char* text, void* address) {
  if (auto s = next("inet_pton")) return {s->value, s->errorNumber};
  return LDSystemCalls::inet_pton(family, text, address);
}

LDSystemCallResult ScriptedSystemCalls::inet_ntop(int family, const void* address, char* text,
                                                  socklen_t size) {
  if (auto s = next("inet_ntop")) return {s->value, s->errorNumber};
  return LDSystemCalls::inet_ntop(family, address, text, size);
}

LDSystemCallResult ScriptedSystemCalls::getrandom(void* buffer, size_t length, unsigned flags) {
  if (auto s = next("getrandom")) return {s->value, s->errorNumber};
  {
    std::lock_guard<std::mutex> guard(_mutex);
    if (_randomBytes) {
      const size_t copied = std::min(length, _randomBytes->size());
      std::memcpy(buffer, _randomBytes->data(), copied);
      return {static_cast<long>(copied), 0};
    }
  }
  return LDSystemCalls::getrandom(buffer, length, flags);
}

}  // namespace ldtest
