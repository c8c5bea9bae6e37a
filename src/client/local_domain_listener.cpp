// The C interface, over LDAcquireListeners. Nothing may unwind into a C caller.

#include <quillfern/local_domain_listener.h>

#include <algorithm>
#include <cstring>
#include <new>

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

int fail(int code, const char* text, char* message, size_t messageSize) {
  if (message != nullptr && messageSize > 0) {
    const size_t length = std::min(std::strlen(text), messageSize - 1);
    std::memcpy(message, text, length);
    message[length] = '\0';
  }
  return code;
}

}  // namespace

extern "C" int ld_acquire_listeners(const char* socket_path, int* ipv4, int* ipv6, char* message,
                                    size_t message_size) {
  if (ipv4 != nullptr) *ipv4 = -1;
  if (ipv6 != nullptr) *ipv6 = -1;
  try {
    LDClientOptions options;
    if (socket_path != nullptr) options.socketPath = socket_path;
    std::optional<LDError> error;
    LDClientFailure failure = LDClientFailure::systemError;
    // Asked even without a place for the result, so that the group is given up all the same.
    std::optional<LDAcquiredListeners> listeners = LDAcquireListeners(options, &error, &failure);
    if (ipv4 == nullptr || ipv6 == nullptr) {
      return fail(LD_ACQUIRE_INVALID_ARGUMENT, "ld_acquire_listeners: ipv4 and ipv6 must not be NULL", message,
                  message_size);
    }
    if (!listeners) return fail(static_cast<int>(failure), error->description().c_str(), message, message_size);
    *ipv4 = listeners->ipv4.release();
    *ipv6 = listeners->ipv6.release();
    return fail(LD_ACQUIRE_OK, "", message, message_size);
  } catch (const std::bad_alloc&) {
    return fail(LD_ACQUIRE_SYSTEM_ERROR, "ld_acquire_listeners: out of memory", message, message_size);
  }
}
