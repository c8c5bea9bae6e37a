// The C interface, over LDAcquireListeners. Nothing may unwind into a C caller.

#include <quillfern/local_domain_listener.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <string>

#include "client/listener_client.h"

static_assert(LD_ACQUIRE_NOT_ADMISSIBLE == static_cast<int>(LDClientFailure::notAdmissible));
static_assert(LD_ACQUIRE_NO_HELPER == static_cast<int>(LDClientFailure::noHelper));
static_assert(LD_ACQUIRE_REFUSED == static_cast<int>(LDClientFailure::refused));
static_assert(LD_ACQUIRE_TIMED_OUT == static_cast<int>(LDClientFailure::timedOut));
static_assert(LD_ACQUIRE_BUSY == static_cast<int>(LDClientFailure::busy));
static_assert(LD_ACQUIRE_PORT_IN_USE == static_cast<int>(LDClientFailure::portInUse));
static_assert(LD_ACQUIRE_HELPER_FAILED == static_cast<int>(LDClientFailure::helperFailed));
static_assert(LD_ACQUIRE_INVALID_LISTENERS == static_cast<int>(LDClientFailure::invalidListeners));
static_assert(LD_ACQUIRE_SYSTEM_ERROR == static_cast<int>(LDClientFailure::systemError));

namespace {

// The whole process's one call: after it the group is gone, and the helper would refuse a second.
std::atomic<bool> called{false};

// Copies text into message: whole when it fits LD_ACQUIRE_MESSAGE_SIZE (the documented bound,
// kept here by shortening a longer text to end in "..."), else as much as message_size holds.
int fail(int code, const char* text, char* message, size_t messageSize) {
  if (message == nullptr || messageSize == 0) return code;
  constexpr size_t kLongest = LD_ACQUIRE_MESSAGE_SIZE - 1;
  const size_t length = std::strlen(text);
  const bool shortened = length > kLongest;
  const size_t kept = std::min(shortened ? kLongest - 3 : length, messageSize - 1);
  std::memcpy(message, text, kept);
  size_t end = kept;
  if (shortened) {
    for (size_t i = 0; i < 3 && end < messageSize - 1; ++i) message[end++] = '.';
  }
  message[end] = '\0';
  return code;
}

}  // namespace

extern "C" int ld_acquire_listeners(const char* socket_path, int* ipv4, int* ipv6, char* message,
                                    size_t message_size) {
  if (ipv4 != nullptr) *ipv4 = -1;
  if (ipv6 != nullptr) *ipv6 = -1;
  if (called.exchange(true)) {
    return fail(LD_ACQUIRE_ALREADY_CALLED,
                "ld_acquire_listeners was called before in this process, which gave its set-group-ID group up "
                "then, so the helper cannot admit it again: call it once, first thing in main, and start the "
                "program again to try again.",
                message, message_size);
  }
  try {
    // Refused before anything is asked or opened; the group goes all the same, as promised.
    const char* invalid = ipv4 == nullptr || ipv6 == nullptr ? "ipv4 and ipv6 must not be NULL"
                          : ipv4 == ipv6                      ? "ipv4 and ipv6 must be two different places"
                                                              : nullptr;
    if (invalid != nullptr) {
      const gid_t real = ::getgid();
      (void)::setresgid(real, real, real);
      return fail(LD_ACQUIRE_INVALID_ARGUMENT, (std::string("ld_acquire_listeners: ") + invalid).c_str(), message,
                  message_size);
    }
    LDClientOptions options;
    if (socket_path != nullptr) options.socketPath = socket_path;
    std::optional<LDError> error;
    LDClientFailure failure = LDClientFailure::systemError;
    std::optional<LDAcquiredListeners> listeners = LDAcquireListeners(options, &error, &failure);
    if (!listeners) return fail(static_cast<int>(failure), error->description().c_str(), message, message_size);
    *ipv4 = listeners->ipv4.release();
    *ipv6 = listeners->ipv6.release();
    return fail(LD_ACQUIRE_OK, "", message, message_size);
  } catch (const std::bad_alloc&) {
    return fail(LD_ACQUIRE_SYSTEM_ERROR, "ld_acquire_listeners: out of memory", message, message_size);
  }
}
