#pragma once

// The application's side of the handoff: get the two loopback listeners on port 80 from the
// helper, check them, and acknowledge.

#include <functional>
#include <optional>
#include <string>

#include "client/refusal_diagnosis.h"
#include "shared/constants.h"
#include "shared/file_handle.h"

struct LDClientOptions {
  std::string socketPath;  // empty: the helper's service socket in /run
  double activationTimeout = LDActivationTimeout;                      // connect to Hello, and the reply
  double acknowledgementReplyTimeout = LDAcknowledgementReplyTimeout;  // completion to its reply
  uint16_t port = LDListenerPort;                                      // what the listeners must be bound to
  // Refuse to ask unless this process runs set-group-ID (real and effective gid apart, AT_SECURE).
  bool requireSecureExecution = LDRequireSecureExecution;
  // What the client says after the helper refused it, given the socket's path; run only then.
  std::function<std::string(const std::string&)> diagnoseRefusal = LDDiagnoseRefusal;
};

struct LDAcquiredListeners {
  LDFileHandle ipv4;  // listening on 127.0.0.1:port, close-on-exec
  LDFileHandle ipv6;  // listening on [::1]:port, IPv6-only, close-on-exec
};

// What kind of failure ended an acquisition. The numbers are those of the C interface
// (<quillfern/local_domain_listener.h>), which documents them.
enum class LDClientFailure {
  notAdmissible = 2,  // this process would fail the helper's admission checks
  noHelper = 3,
  refused = 4,        // the helper closed the connection before admitting this process
  timedOut = 5,
  busy = 6,
  portInUse = 7,
  helperFailed = 8,
  invalidListeners = 9,
  systemError = 10,
};

// Asks the helper for the listener pair, validates both descriptors and acknowledges. On failure
// returns nothing, one error whose description says what happened and what to do, and its kind
// in *failure when that is given. Nothing is left open on any failure.
//
// An application installed set-group-ID (the default build requires it) must call this before it
// starts any toolkit or loads any plugin: once the helper has answered the acknowledgement, this
// gives the group up for good (real gid as effective and saved gid), and on every failure it does
// the same before it returns. The kernel keeps the process non-dumpable, so other processes of
// the user still cannot take the listeners from it.
std::optional<LDAcquiredListeners> LDAcquireListeners(const LDClientOptions& options = {},
                                                      LDErrorPlace error = nullptr,
                                                      LDClientFailure* failure = nullptr);
