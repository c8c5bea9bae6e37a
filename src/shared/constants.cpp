#include "shared/constants.h"

#include <cerrno>
#include <cstring>
#include <utility>

#ifndef LD_APP_SIGNING_IDENTIFIER
#error "LD_APP_SIGNING_IDENTIFIER must be defined by the build"
#endif

const int64_t LDListenerProtocolVersion = 1;
const uint16_t LDListenerPort = 80;
const double LDAcknowledgementTimeout = 10.0;
const double LDReplyBarrierFallbackTimeout = 2.0;
const double LDActivationTimeout = 15.0;
const double LDAcknowledgementReplyTimeout = 5.0;
const bool LDRequireSecureExecution = LD_REQUIRE_SECURE_EXECUTION;

const std::string_view LDAppSigningIdentifier = LD_APP_SIGNING_IDENTIFIER;
const std::string_view LDHelperSigningIdentifier =
    LD_APP_SIGNING_IDENTIFIER ".local-domain-listener-helper";
const std::string_view LDDaemonPlistName = LD_APP_SIGNING_IDENTIFIER ".local-domain-listener.plist";
const std::string_view LDMachServiceName = LD_APP_SIGNING_IDENTIFIER ".local-domain-listener";
const std::string_view LDHelperBundleRelativePath =
    "Contents/Library/LaunchServices/QuillfernLocalDomainListener";
const std::string_view LDListenerErrorDomain = LDMachServiceName;

LDError::LDError(int64_t code, std::string description, std::optional<int32_t> errorNumber)
    : _domain(LDListenerErrorDomain),
      _code(code),
      _description(std::move(description)),
      _errorNumber(errorNumber) {}

LDError LDSystemCallError(std::string_view operation, int32_t errorNumber) {
  std::string description(operation);
  description += " failed: ";
  description += std::strerror(errorNumber);
  description += " (";
  description += std::to_string(errorNumber);
  description += ")";
  const int64_t code =
      errorNumber == EADDRINUSE ? LDListenerErrorAddressInUse : LDListenerErrorSystemCall;
  return LDError(code, std::move(description), errorNumber);
}

LDError LDEndpointError(std::string message) {
  return LDError(LDListenerErrorValidation, std::move(message), std::nullopt);
}

LDError LDSigningError(std::string message) {
  return LDError(LDListenerErrorValidation, std::move(message), std::nullopt);
}
