#include "helper/listener_service.h"

#include <unistd.h>

#include "shared/constants.h"
#include "shared/token.h"

namespace {

std::optional<std::string> descriptionOr(const std::optional<LDError>& error, const char* fallback) {
  return error ? error->description() : std::string(fallback);
}

// A reply that hands over no listener: the status and why.
void replyWithoutListeners(const LDRequestReply& reply, int64_t status, const std::optional<std::string>& message) {
  reply(LDListenerProtocolVersion, status, std::nullopt, nullptr, nullptr, getpid(), message);
}

}  // namespace

std::shared_ptr<LDListenerService> LDListenerService::initWithPort(
    uint16_t port, double acknowledgementTimeout, double replyBarrierFallbackTimeout,
    OriginalsClosedCallback onOriginalsClosed, TerminateCallback terminate,
    LDDispatchQueue& utilityQueue, LDSystemCalls& systemCalls) {
  return std::shared_ptr<LDListenerService>(new LDListenerService(
      port, acknowledgementTimeout, replyBarrierFallbackTimeout, std::move(onOriginalsClosed),
      std::move(terminate), utilityQueue, systemCalls));
}

LDListenerService::LDListenerService(uint16_t port, double acknowledgementTimeout,
                                     double replyBarrierFallbackTimeout,
                                     OriginalsClosedCallback onOriginalsClosed,
                                     TerminateCallback terminate, LDDispatchQueue& utilityQueue,
                                     LDSystemCalls& systemCalls)
    : _port(port),
      _acknowledgementTimeout(acknowledgementTimeout),
      _replyBarrierFallbackTimeout(replyBarrierFallbackTimeout),
      _onOriginalsClosed(std::move(onOriginalsClosed)),
      _terminate(std::move(terminate)),
      _utilityQueue(utilityQueue),
      _systemCalls(systemCalls) {}

// Members go in reverse declaration order: the fallback block, the timer block, the listeners
// (closing their originals if still open), the token, the locks, the callbacks.
LDListenerService::~LDListenerService() = default;

LDListenerServiceState LDListenerService::state() {
  LDLockGuard guard(_stateLock);
  return _state;
}

void LDListenerService::requestListenerTransferWithProtocolVersion(
    int64_t protocolVersion, LDRequestReply reply, LDListenerConnection* connection) {
  _stateLock.lock();
  if (_state != LDListenerServiceStateIdle) {
    _stateLock.unlock();
    replyWithoutListeners(reply, LDListenerTransferStatusBusy, LDTransferInProgressMessage);
    return;
  }
  if (protocolVersion != LDListenerProtocolVersion) {
    _state = LDListenerServiceStateFinished;
    _stateLock.unlock();
    replyWithoutListeners(reply, LDListenerTransferStatusUnsupportedVersion, LDUnsupportedProtocolVersionMessage);
    terminateAfterSendingReplyOn(connection, 1);
    return;
  }
  _state = LDListenerServiceStatePreparing;
  _stateLock.unlock();

  // Sockets and the token are made without any lock held.
  std::optional<LDError> error;
  std::unique_ptr<LDLoopbackListeners> listeners = LDLoopbackListeners::initWithPort(_port, &error, _systemCalls);
  if (!listeners) {
    finishWithoutTransfer();
    const bool inUse = error && error->code() == LDListenerErrorAddressInUse;
    replyWithoutListeners(reply, inUse ? LDListenerTransferStatusAddressInUse : LDListenerTransferStatusBindFailed,
                          descriptionOr(error, LDBindFailedMessage));
    terminateAfterSendingReplyOn(connection, 1);
    return;
  }
  // Once the pair is bound, every failure closes its originals before it answers.
  const auto giveUp = [&](const char* fallback) {
    listeners->closeOriginals();
    notifyOriginalsClosed();
    finishWithoutTransfer();
    replyWithoutListeners(reply, LDListenerTransferStatusDuplicationFailed, descriptionOr(error, fallback));
    terminateAfterSendingReplyOn(connection, 1);
  };

  LDFileHandle duplicate4, duplicate6;
  if (!listeners->duplicateIntoIPv4(duplicate4, duplicate6, &error)) return giveUp(LDDuplicateFailedMessage);
  const LDListenerHandle ipv4 = std::make_shared<const LDFileHandle>(std::move(duplicate4));
  const LDListenerHandle ipv6 = std::make_shared<const LDFileHandle>(std::move(duplicate6));
  const std::optional<std::string> token = LDUnpredictableToken(&error, _systemCalls);
  if (!token) return giveUp(LDTokenGenerationFailedMessage);

  awaitAcknowledgement(*token, std::move(listeners));
  reply(LDListenerProtocolVersion, LDListenerTransferStatusTransferred, token, ipv4, ipv6, getpid(), std::nullopt);
  // Returning drops this frame's references to the duplicates; the connection keeps its own
  // until the reply has been written out. The originals stay open until acknowledgement.
}

void LDListenerService::awaitAcknowledgement(const std::string& token, std::unique_ptr<LDLoopbackListeners> listeners) {
  {
    // Unconditional: a completion that raced in while the pair was being made has already moved
    // the state to 3 and asked for termination; storing 2 here is harmless because termination
    // happens once, and the originals are closed by whichever path ends the transfer.
    LDLockGuard guard(_stateLock);
    _state = LDListenerServiceStateAwaitingAcknowledgement;
    _expectedToken = token;
    _listeners = std::move(listeners);
  }
  scheduleAcknowledgementTimeoutForToken(token);
}

void LDListenerService::completeListenerTransferWithProtocolVersion(
    int64_t protocolVersion, const std::optional<std::string>& token, bool accepted,
    LDCompleteReply reply, LDListenerConnection* connection) {
  bool valid = false;
  std::unique_ptr<LDLoopbackListeners> pair;
  {
    LDLockGuard guard(_stateLock);
    if (_timeoutBlock) {
      _timeoutBlock->cancel();
      _timeoutBlock.reset();
    }
    if (_state == LDListenerServiceStateAwaitingAcknowledgement) {
      pair = std::move(_listeners);
      valid = protocolVersion == LDListenerProtocolVersion && token.has_value() &&
              _expectedToken.has_value() && *token == *_expectedToken;
    }
    _state = LDListenerServiceStateFinished;
    _expectedToken.reset();
    _listeners.reset();
  }
  // Closed before the reply, whether or not the token matched.
  if (pair) {
    pair->closeOriginals();
    notifyOriginalsClosed();
  }

  int64_t status = LDListenerTransferStatusInvalidAcknowledgement;
  std::optional<std::string> message = LDInvalidAcknowledgementMessage;
  if (valid && accepted) {
    status = LDListenerTransferStatusAcknowledged;
    message.reset();
  } else if (valid) {
    status = LDListenerTransferStatusRejected;
    message = LDClientRejectedMessage;
  }
  reply(LDListenerProtocolVersion, status, message);
  terminateAfterSendingReplyOn(connection, status == LDListenerTransferStatusAcknowledged ? 0 : 1);
}

void LDListenerService::scheduleAcknowledgementTimeoutForToken(const std::string& token) {
  // The timer holds the service weakly, so a pending timer never keeps it alive.
  std::weak_ptr<LDListenerService> weakService = weak_from_this();
  LDDispatchBlockRef block = LDDispatchBlock::create([weakService, token] {
    if (std::shared_ptr<LDListenerService> service = weakService.lock()) {
      service->handleAcknowledgementTimeoutForToken(token);
    }
  });
  {
    LDLockGuard guard(_stateLock);
    _timeoutBlock = block;  // one already there is released, not cancelled
  }
  _utilityQueue.dispatchAfter(LDDelayInNanoseconds(_acknowledgementTimeout), std::move(block));
}

void LDListenerService::handleAcknowledgementTimeoutForToken(const std::string& token) {
  std::unique_ptr<LDLoopbackListeners> pair;
  {
    LDLockGuard guard(_stateLock);
    if (_state == LDListenerServiceStateAwaitingAcknowledgement && _expectedToken == token) {
      pair = std::move(_listeners);
      _listeners.reset();
      _expectedToken.reset();
      _state = LDListenerServiceStateFinished;
    }
    _timeoutBlock.reset();
  }
  if (!pair) {
    return;  // already completed, or a stale timer
  }
  pair->closeOriginals();
  notifyOriginalsClosed();
  terminateOnce(1);  // no reply is pending, so no barrier to wait for
}

void LDListenerService::finishWithoutTransfer() {
  LDLockGuard guard(_stateLock);
  _state = LDListenerServiceStateFinished;
}

void LDListenerService::notifyOriginalsClosed() {
  if (_onOriginalsClosed) {
    _onOriginalsClosed();
  }
}

void LDListenerService::terminateAfterSendingReplyOn(LDListenerConnection* connection,
                                                     int32_t status) {
  std::weak_ptr<LDListenerService> weakService = weak_from_this();
  auto terminateIfAlive = [weakService, status] {
    if (std::shared_ptr<LDListenerService> service = weakService.lock()) {
      service->terminateOnce(status);
    }
  };
  LDDispatchBlockRef fallback = LDDispatchBlock::create(terminateIfAlive);
  {
    LDLockGuard guard(_terminationLock);
    if (_terminationScheduled || _didTerminate) {
      return;  // the first caller's status wins
    }
    _terminationScheduled = true;
    _terminationFallbackBlock = fallback;
  }
  if (connection != nullptr) {
    connection->scheduleSendBarrierBlock(terminateIfAlive);
  }
  _utilityQueue.dispatchAfter(LDDelayInNanoseconds(_replyBarrierFallbackTimeout),
                              std::move(fallback));
}

void LDListenerService::terminateOnce(int32_t status) {
  {
    LDLockGuard guard(_terminationLock);
    if (_didTerminate) {
      return;
    }
    _didTerminate = true;
    if (_terminationFallbackBlock) {
      _terminationFallbackBlock->cancel();
      _terminationFallbackBlock.reset();
    }
  }
  _terminate(status);
}
