#pragma once

// Everything a test needs to drive the handoff service without a process to end, a clock to wait
// for, or a transport: a timer queue fired by hand, connections whose send barriers run on
// demand, and recorders for every reply, close notification and termination.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "helper/listener_service.h"
#include "platform/dispatch.h"

namespace ldtest {

// Records every block with the exact delay it was armed with; fires them only when told.
class ManualDispatchQueue final : public LDDispatchQueue {
 public:
  struct Entry {
    int64_t delayNanoseconds;
    LDDispatchBlockRef block;
  };

  void dispatchAfter(int64_t delayNanoseconds, LDDispatchBlockRef block) override;

  std::vector<int64_t> armedDelays() const;
  size_t size() const;
  // Performs entry i (a cancelled block does nothing); entries stay listed.
  void fire(size_t index);
  // Runs entry i's body even if it was cancelled, as a block does that had already started when
  // the cancellation came.
  void fireEvenIfCancelled(size_t index);
  // Performs every entry armed so far, in arming order.
  void fireAll();
  bool isCancelled(size_t index) const;

 private:
  mutable std::mutex _mutex;
  std::vector<Entry> _entries;
};

// A connection whose barriers wait until the test runs them (or never).
class FakeConnection final : public LDListenerConnection {
 public:
  void scheduleSendBarrierBlock(std::function<void()> barrier) override;
  size_t pendingBarriers() const;
  // Runs the barriers scheduled so far; returns how many ran.
  size_t runBarriers();

 private:
  mutable std::mutex _mutex;
  std::vector<std::function<void()>> _barriers;
};

struct RequestReplyRecord {
  int64_t protocolVersion;
  int64_t status;
  std::optional<std::string> token;
  LDListenerHandle ipv4Listener;
  LDListenerHandle ipv6Listener;
  int32_t helperProcessIdentifier;
  std::optional<std::string> message;
};

struct CompleteReplyRecord {
  int64_t protocolVersion;
  int64_t status;
  std::optional<std::string> message;
};

// A service on a manual queue whose terminate callback records instead of exiting.
class ServiceHarness {
 public:
  explicit ServiceHarness(uint16_t port, LDSystemCalls& systemCalls = LDSystemCalls::real(),
                          double acknowledgementTimeout = LDAcknowledgementTimeout,
                          double replyBarrierFallbackTimeout = LDReplyBarrierFallbackTimeout);

  RequestReplyRecord request(int64_t protocolVersion, LDListenerConnection* connection);
  CompleteReplyRecord complete(int64_t protocolVersion, const std::optional<std::string>& token,
                               bool accepted, LDListenerConnection* connection);

  std::vector<int32_t> terminations() const;
  int originalsClosedNotifications() const;

  ManualDispatchQueue queue;
  std::shared_ptr<LDListenerService> service;

 private:
  mutable std::mutex _mutex;
  std::vector<int32_t> _terminations;
  int _originalsClosed = 0;
};

}  // namespace ldtest
