#include "support/service_harness.h"

#include <stdexcept>

namespace ldtest {

void ManualDispatchQueue::dispatchAfter(int64_t delayNanoseconds, LDDispatchBlockRef block) {
  std::lock_guard<std::mutex> guard(_mutex);
  _entries.push_back(Entry{delayNanoseconds, std::move(block)});
}

std::vector<int64_t> ManualDispatchQueue::armedDelays() const {
  std::lock_guard<std::mutex> guard(_mutex);
  std::vector<int64_t> delays;
  for (const Entry& entry : _entries) delays.push_back(entry.delayNanoseconds);
  return delays;
}

size_t ManualDispatchQueue::size() const {
  std::lock_guard<std::mutex> guard(_mutex);
  return _entries.size();
}

void ManualDispatchQueue::fire(size_t index) {
  LDDispatchBlockRef block;
  {
    std::lock_guard<std::mutex> guard(_mutex);
    if (index >= _entries.size()) throw std::out_of_range("no such timer");
    block = _entries[index].block;
  }
  block->perform();  // outside the queue's lock, like the real queue
}

void ManualDispatchQueue::fireEvenIfCancelled(size_t index) {
  LDDispatchBlockRef block;
  {
    std::lock_guard<std::mutex> guard(_mutex);
    block = _entries.at(index).block;
  }
  block->performEvenIfCancelled();
}

void ManualDispatchQueue::fireAll() {
  for (size_t i = 0; i < size(); ++i) fire(i);
}

bool ManualDispatchQueue::isCancelled(size_t index) const {
  std::lock_guard<std::mutex> guard(_mutex);
  return _entries.at(index).block->isCancelled();
}

void FakeConnection::scheduleSendBarrierBlock(std::function<void()> barrier) {
  std::lock_guard<std::mutex> guard(_mutex);
  _barriers.push_back(std::move(barrier));
}

size_t FakeConnection::pendingBarriers() const {
  std::lock_guard<std::mutex> guard(_mutex);
  return _barriers.size();
}

size_t FakeConnection::runBarriers() {
  std::vector<std::function<void()>> due;
  {
    std::lock_guard<std::mutex> guard(_mutex);
    due.swap(_barriers);
  }
  for (auto& barrier : due) barrier();
  return due.size();
}

ServiceHarness::ServiceHarness(uint16_t port, LDSystemCalls& systemCalls,
                               double acknowledgementTimeout, double replyBarrierFallbackTimeout) {
  service = LDListenerService::initWithPort(
      port, acknowledgementTimeout, replyBarrierFallbackTimeout,
      [this] {
        std::lock_guard<std::mutex> guard(_mutex);
        ++_originalsClosed;
      },
      [this](int32_t status) {
        std::lock_guard<std::mutex> guard(_mutex);
        _terminations.push_back(status);
      },
      queue, systemCalls);
}

RequestReplyRecord ServiceHarness::request(int64_t protocolVersion,
                                           LDListenerConnection* connection) {
  std::optional<RequestReplyRecord> record;
  service->requestListenerTransferWithProtocolVersion(
      protocolVersion,
      [&record](int64_t version, int64_t status, const std::optional<std::string>& token,
                const LDListenerHandle& ipv4, const LDListenerHandle& ipv6, int32_t pid,
                const std::optional<std::string>& message) {
        if (record) throw std::logic_error("request answered twice");
        record = RequestReplyRecord{version, status, token, ipv4, ipv6, pid, message};
      },
      connection);
  if (!record) throw std::logic_error("request never answered");
  return *record;
}

CompleteReplyRecord ServiceHarness::complete(int64_t protocolVersion,
                                             const std::optional<std::string>& token,
                                             bool accepted, LDListenerConnection* connection) {
  std::optional<CompleteReplyRecord> record;
  service->completeListenerTransferWithProtocolVersion(
      protocolVersion, token, accepted,
      [&record](int64_t version, int64_t status, const std::optional<std::string>& message) {
        if (record) throw std::logic_error("completion answered twice");
        record = CompleteReplyRecord{version, status, message};
      },
      connection);
  if (!record) throw std::logic_error("completion never answered");
  return *record;
}

std::vector<int32_t> ServiceHarness::terminations() const {
  std::lock_guard<std::mutex> guard(_mutex);
  return _terminations;
}

int ServiceHarness::originalsClosedNotifications() const {
  std::lock_guard<std::mutex> guard(_mutex);
  return _originalsClosed;
}

}  // namespace ldtest
