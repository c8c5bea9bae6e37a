#pragma once

// What both peers of the listener handoff share: the protocol constants, every identifier
// derived from the application's signing identifier, and the one error value of the system.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// ---- Numeric constants -------------------------------------------------------------------------

extern const int64_t LDListenerProtocolVersion;       // 1
extern const uint16_t LDListenerPort;                 // 80, host byte order
extern const double LDAcknowledgementTimeout;         // 10.0 s, helper waits for the client
extern const double LDReplyBarrierFallbackTimeout;    // 2.0 s, helper waits for a reply to leave
extern const double LDActivationTimeout;              // 15.0 s, application side only
extern const double LDAcknowledgementReplyTimeout;    // 5.0 s, application side only

// Build option LD_REQUIRE_SECURE_EXECUTION (on by default): the application must run
// set-group-ID to a group of its own, and the helper admits it only so.
extern const bool LDRequireSecureExecution;

// ---- Identifiers -------------------------------------------------------------------------------

extern const std::string_view LDAppSigningIdentifier;     // build option LD_APP_SIGNING_IDENTIFIER
extern const std::string_view LDHelperSigningIdentifier;  // app + ".local-domain-listener-helper"
extern const std::string_view LDDaemonPlistName;          // app + ".local-domain-listener.plist"
extern const std::string_view LDMachServiceName;          // app + ".local-domain-listener"
extern const std::string_view LDHelperBundleRelativePath;
extern const std::string_view LDListenerErrorDomain;      // deliberately the service name

// ---- Error value -------------------------------------------------------------------------------

enum LDListenerErrorCode : int64_t {
  LDListenerErrorSystemCall = 1,
  LDListenerErrorValidation = 2,
  LDListenerErrorAddressInUse = 3,
};

// An immutable failure report. Only the three constructors below make one. System-call errors
// carry the error number; the others do not.
class LDError {
 public:
  const std::string& domain() const { return _domain; }
  int64_t code() const { return _code; }
  const std::string& description() const { return _description; }
  std::optional<int32_t> errorNumber() const { return _errorNumber; }

 private:
  LDError(int64_t code, std::string description, std::optional<int32_t> errorNumber);

  friend LDError LDSystemCallError(std::string_view operation, int32_t errorNumber);
  friend LDError LDEndpointError(std::string message);
  friend LDError LDSigningError(std::string message);

  std::string _domain;
  int64_t _code;
  std::string _description;
  std::optional<int32_t> _errorNumber;
};

// Where an operation stores its error: optional (may be null), written only on failure.
using LDErrorPlace = std::optional<LDError>*;

// "<operation> failed: <strerror> (<errno>)", code 3 for EADDRINUSE and 1 otherwise. The caller
// captures errorNumber right after the failing call; this never reads errno itself.
LDError LDSystemCallError(std::string_view operation, int32_t errorNumber);

// Code 2, with the caller's message unchanged.
LDError LDEndpointError(std::string message);
LDError LDSigningError(std::string message);
