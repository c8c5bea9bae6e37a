#pragma once

// Drives the handoff service without a process to end, a clock to wait for, or a transport: a
// timer queue fired by hand, connections whose send barriers run on demand, and a record of every
// termination and close notification.

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "helper/listener_service.h"

namespace ldtest {

// Keeps every block with the delay it was armed with; a test fires them by hand.
class ManualDispatchQueue final : public LDDispatchQueue {
 public:
  void dispatchAfter(int64_t delayNanoseconds, LDDispatchBlockRef block) override {
    std::lock_guard<std::mutex> guard(_mutex);
    _entries.emplace_back(delayNanoseconds, std::move(block));
  }
  std::vector<std::pair<int64_t, LDDispatchBlockRef>> entries() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _entries;
  }
  size_t size() const { return entries().size(); }
  // Performs entry i outside the queue's lock, as the real queue does; a cancelled one does nothing.
  void fire(size_t index) { entries().at(index).second->perform(); }
  void fireAll() {
    for (size_t i = 0; i < size(); ++i) fire(i);
  }

 private:
  mutable std::mutex _mutex;
  std::vector<std::pair<int64_t, LDDispatchBlockRef>> _entries;
};

// A connection whose barriers wait until the test runs them (or never).
class FakeConnection final : public LDListenerConnection {
 public:
  void scheduleSendBarrierBlock(std::function<void()> barrier) override { barriers.push_back(std::move(barrier)); }
  size_t runBarriers() {
    auto due = std::exchange(barriers, {});
    for (auto& barrier : due) barrier();
    return due.size();
  }
  std::vector<std::function<void()>> barriers;
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

// A service on a manual queue whose terminate callback records instead of exiting.
class ServiceHarness {
 public:
  explicit ServiceHarness(LDSystemCalls& systemCalls = LDSystemCalls::real()) {
    service = LDListenerService::initWithPort(
        LDListenerPort, LDAcknowledgementTimeout, LDReplyBarrierFallbackTimeout, [this] { ++originalsClosed; },
        [this](int32_t status) {
          std::lock_guard<std::mutex> guard(_mutex);
          _terminations.push_back(status);
        },
        queue, systemCalls);
  }

  RequestReplyRecord request(int64_t protocolVersion, LDListenerConnection* connection) {
    std::optional<RequestReplyRecord> record;
    service->requestListenerTransferWithProtocolVersion(
        protocolVersion,
        [&record](int64_t version, int64_t status, const auto& token, const auto& ipv4, const auto& ipv6, int32_t pid,
                  const auto& message) {
          if (record) throw std::logic_error("request answered twice");
          record = RequestReplyRecord{version, status, token, ipv4, ipv6, pid, message};
        },
        connection);
    if (!record) throw std::logic_error("request never answered");
    return *record;
  }
  // The status and message of the completion's one reply, after checking its protocol version.
  std::pair<int64_t, std::optional<std::string>> complete(int64_t protocolVersion, const std::optional<std::string>& token,
                                                          bool accepted, LDListenerConnection* connection) {
    std::optional<std::pair<int64_t, std::optional<std::string>>> record;
    service->completeListenerTransferWithProtocolVersion(
        protocolVersion, token, accepted,
        [&record](int64_t version, int64_t status, const std::optional<std::string>& message) {
          if (record || version != LDListenerProtocolVersion) throw std::logic_error("completion answered twice or wrongly");
          record.emplace(status, message);
        },
        connection);
    if (!record) throw std::logic_error("completion never answered");
    return *record;
  }
  std::vector<int32_t> terminations() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _terminations;
  }

  ManualDispatchQueue queue;
  std::atomic<int> originalsClosed{0};
  std::shared_ptr<LDListenerService> service;

 private:
  mutable std::mutex _mutex;
  std::vector<int32_t> _terminations;
};

}  // namespace ldtest
