#pragma once

// The one-shot handoff: one transfer in the life of the process, then the process ends.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "helper/listener_handoff.h"
#include "platform/dispatch.h"
#include "shared/loopback_listeners.h"
#include "shared/system_calls.h"
#include "shared/thread_annotations.h"

enum LDListenerServiceState : int64_t {
  LDListenerServiceStateIdle = 0,
  LDListenerServiceStatePreparing = 1,
  LDListenerServiceStateAwaitingAcknowledgement = 2,
  LDListenerServiceStateFinished = 3,
};

class LDListenerService final : public LDListenerHandoff,
                                public std::enable_shared_from_this<LDListenerService> {
 public:
  using OriginalsClosedCallback = std::function<void()>;
  using TerminateCallback = std::function<void(int32_t status)>;

  // utilityQueue runs both timers and must outlive the service; systemCalls reaches the kernel
  // for the listener pair and the token.
  static std::shared_ptr<LDListenerService> initWithPort(
      uint16_t port, double acknowledgementTimeout, double replyBarrierFallbackTimeout,
      OriginalsClosedCallback onOriginalsClosed, TerminateCallback terminate,
      LDDispatchQueue& utilityQueue, LDSystemCalls& systemCalls = LDSystemCalls::real());

  ~LDListenerService() override;

  void requestListenerTransferWithProtocolVersion(int64_t protocolVersion, LDRequestReply reply,
                                                  LDListenerConnection* connection) override
      LD_EXCLUDES(_stateLock, _terminationLock);
  void completeListenerTransferWithProtocolVersion(int64_t protocolVersion,
                                                   const std::optional<std::string>& token,
                                                   bool accepted, LDCompleteReply reply,
                                                   LDListenerConnection* connection) override
      LD_EXCLUDES(_stateLock, _terminationLock);

  // Ends the process once the reply just given to connection has left, or after the fallback
  // time-out, whichever comes first. The first caller's status wins.
  void terminateAfterSendingReplyOn(LDListenerConnection* connection, int32_t status)
      LD_EXCLUDES(_terminationLock, _stateLock);
  // Calls terminate at most once in the life of the service.
  void terminateOnce(int32_t status) LD_EXCLUDES(_terminationLock, _stateLock);

  // For tests and diagnostics: the current state.
  LDListenerServiceState state() LD_EXCLUDES(_stateLock);

 private:
  LDListenerService(uint16_t port, double acknowledgementTimeout,
                    double replyBarrierFallbackTimeout, OriginalsClosedCallback onOriginalsClosed,
                    TerminateCallback terminate, LDDispatchQueue& utilityQueue,
                    LDSystemCalls& systemCalls);

  // The pair is made and the reply about to go: wait for the client's acknowledgement of token.
  void awaitAcknowledgement(const std::string& token, std::unique_ptr<LDLoopbackListeners> listeners)
      LD_EXCLUDES(_stateLock);
  void scheduleAcknowledgementTimeoutForToken(const std::string& token) LD_EXCLUDES(_stateLock);
  void handleAcknowledgementTimeoutForToken(const std::string& token)
      LD_EXCLUDES(_stateLock, _terminationLock);
  void finishWithoutTransfer() LD_EXCLUDES(_stateLock);
  void notifyOriginalsClosed();

  const uint16_t _port;
  const double _acknowledgementTimeout;
  const double _replyBarrierFallbackTimeout;
  const OriginalsClosedCallback _onOriginalsClosed;
  const TerminateCallback _terminate;
  LDDispatchQueue& _utilityQueue;
  LDSystemCalls& _systemCalls;
  LDLock _stateLock;
  LDLock _terminationLock;
  LDListenerServiceState _state LD_GUARDED_BY(_stateLock) = LDListenerServiceStateIdle;
  std::optional<std::string> _expectedToken LD_GUARDED_BY(_stateLock);
  std::unique_ptr<LDLoopbackListeners> _listeners LD_GUARDED_BY(_stateLock);
  LDDispatchBlockRef _timeoutBlock LD_GUARDED_BY(_stateLock);
  LDDispatchBlockRef _terminationFallbackBlock LD_GUARDED_BY(_terminationLock);
  bool _terminationScheduled LD_GUARDED_BY(_terminationLock) = false;
  bool _didTerminate LD_GUARDED_BY(_terminationLock) = false;
};
