#pragma once

// The statuses of the helper's two replies and the texts that come with them, as both peers
// read them. Part of the wire format.

#include <cstdint>

// The status in both replies. Part of the wire format: never renumber.
enum LDListenerTransferStatus : int64_t {
  LDListenerTransferStatusTransferred = 0,
  LDListenerTransferStatusAcknowledged = 1,
  LDListenerTransferStatusRejected = 2,
  LDListenerTransferStatusUnsupportedVersion = 3,
  LDListenerTransferStatusBusy = 4,
  LDListenerTransferStatusBindFailed = 5,
  LDListenerTransferStatusDuplicationFailed = 6,
  LDListenerTransferStatusInvalidAcknowledgement = 7,
  LDListenerTransferStatusAddressInUse = 8,
};

// Reply texts that do not come from an error value.
inline constexpr const char* LDUnsupportedProtocolVersionMessage = "Unsupported protocol version";
inline constexpr const char* LDTransferInProgressMessage = "A listener transfer is already in progress";
inline constexpr const char* LDBindFailedMessage = "bind failed";
inline constexpr const char* LDDuplicateFailedMessage = "duplicate failed";
inline constexpr const char* LDTokenGenerationFailedMessage = "token generation failed";
inline constexpr const char* LDClientRejectedMessage = "Client rejected transferred listeners";
inline constexpr const char* LDInvalidAcknowledgementMessage = "Invalid transfer acknowledgement";
