#pragma once

// The whole contract between the helper and the application: two calls, each answered exactly
// once through its reply callback, with the fields in this order.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "protocol/transfer_status.h"
#include "shared/file_handle.h"

// A descriptor travelling in a reply. Shared, because the connection keeps it until the message
// has been written out while the service drops its own reference as soon as the call returns.
using LDListenerHandle = std::shared_ptr<const LDFileHandle>;

using LDRequestReply = std::function<void(
    int64_t protocolVersion, int64_t status, const std::optional<std::string>& token,
    const LDListenerHandle& ipv4Listener, const LDListenerHandle& ipv6Listener,
    int32_t helperProcessIdentifier, const std::optional<std::string>& message)>;

using LDCompleteReply = std::function<void(int64_t protocolVersion, int64_t status,
                                           const std::optional<std::string>& message)>;

// The connection a call arrived on, as the service sees it.
class LDListenerConnection {
 public:
  virtual ~LDListenerConnection() = default;
  // Runs barrier once every message queued on this connection before it has been handed to the
  // kernel. A connection that breaks first never runs it.
  virtual void scheduleSendBarrierBlock(std::function<void()> barrier) = 0;
};

class LDListenerHandoff {
 public:
  virtual ~LDListenerHandoff() = default;

  // Asks for the listeners. The reply carries, on status 0, the token and both handles.
  // connection may be null; it is where the reply was sent.
  virtual void requestListenerTransferWithProtocolVersion(int64_t protocolVersion,
                                                          LDRequestReply reply,
                                                          LDListenerConnection* connection) = 0;

  // Acknowledges the transfer with the token of the request's reply; accepted says whether the
  // client's own checks of both descriptors passed.
  virtual void completeListenerTransferWithProtocolVersion(int64_t protocolVersion,
                                                           const std::optional<std::string>& token,
                                                           bool accepted, LDCompleteReply reply,
                                                           LDListenerConnection* connection) = 0;
};
