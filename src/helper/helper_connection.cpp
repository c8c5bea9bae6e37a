#include "helper/helper_connection.h"

#include <sys/epoll.h>

#include <cerrno>
#include <cstring>

#include "platform/seqpacket.h"

namespace {

// A client makes one request and one completion; anything beyond a few calls is not a client.
constexpr int kMaximumCalls = 4;

}  // namespace

LDHelperConnection::LDHelperConnection(LDFileHandle socket, LDAdmittedPeer peer,
                                       LDRunLoop& runLoop, ClosedCallback onClosed)
    : _socket(std::move(socket)),
      _peer(std::move(peer)),
      _runLoop(runLoop),
      _onClosed(std::move(onClosed)) {}

LDHelperConnection::~LDHelperConnection() {
  if (_watching) _runLoop.unwatch(_socket.fileDescriptor());
}

void LDHelperConnection::activate() {
  _watching = _runLoop.watch(_socket.fileDescriptor(), EPOLLIN, [this](uint32_t events) { handleEvents(events); });
  if (!_watching) return invalidate("epoll_ctl failed");
  send(LDHelloMessage{});
}

void LDHelperConnection::invalidate(const std::string& reason) {
  if (_closed) return;
  _closed = true;
  if (_watching) {
    _runLoop.unwatch(_socket.fileDescriptor());
    _watching = false;
  }
  _outgoing.clear();  // drops queued descriptors; barriers never run
  _socket.reset();
  if (_onClosed) _onClosed(*this, reason);  // may destroy this object: nothing after it
}

void LDHelperConnection::scheduleSendBarrierBlock(std::function<void()> barrier) {
  if (_closed) return;  // a broken connection never runs its barrier
  _outgoing.push_back(Outgoing{"", {}, std::move(barrier)});
  flush();
}

void LDHelperConnection::send(const LDMessage& message, std::vector<LDListenerHandle> descriptors) {
  if (_closed) return;
  _outgoing.push_back(Outgoing{LDEncodeMessage(message), std::move(descriptors), nullptr});
  flush();
}

void LDHelperConnection::handleEvents(uint32_t events) {
  if ((events & EPOLLOUT) != 0) flush();
  if (_closed) return;
  if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) readMessages();
}

void LDHelperConnection::readMessages() {
  while (!_closed) {
    LDReceivedPacket packet;
    int errorNumber = 0;
    // Room for the sender's credentials alone: a descriptor the client sends is never installed
    // here; the kernel drops it, and the packet reports as truncated.
    switch (LDReceivePacket(_socket.fileDescriptor(), LDWireMaximumPacketSize, &packet, &errorNumber, 0)) {
      case LDReceiveResult::wouldBlock:
        return;
      case LDReceiveResult::closed:
        invalidate("the client closed the connection");
        return;
      case LDReceiveResult::truncated:
        invalidate("an oversized packet, or descriptors");
        return;
      case LDReceiveResult::failed:
        invalidate(std::string("recvmsg: ") + std::strerror(errorNumber));
        return;
      case LDReceiveResult::packet:
        break;
    }
    std::string reason;
    // The check can wait on a peer frozen inside an exec: whoever runs this can be told first.
    if (_messageCheckBegins) _messageCheckBegins();
    const bool stillAdmitted = packet.credentials && LDPeerIsStillAdmitted(_peer, packet.credentials->pid, &reason);
    if (!stillAdmitted) {
      invalidate(reason.empty() ? "a message without sender credentials" : reason);
      return;
    }
    std::optional<LDMessage> message = LDDecodeMessage(packet.bytes, 0);
    if (!message || (!std::holds_alternative<LDRequestMessage>(*message) &&
                     !std::holds_alternative<LDCompleteMessage>(*message))) {
      invalidate("a malformed or unexpected message");
      return;
    }
    if (++_callsServed > kMaximumCalls) {
      invalidate("too many calls");
      return;
    }
    dispatch(std::move(*message));
  }
}

void LDHelperConnection::dispatch(LDMessage message) {
  if (!_exportedObject) {
    invalidate("nothing is exported on this connection");
    return;
  }
  if (const auto* request = std::get_if<LDRequestMessage>(&message)) {
    _exportedObject->requestListenerTransferWithProtocolVersion(
        request->protocolVersion,
        [this](int64_t protocolVersion, int64_t status, const std::optional<std::string>& token,
               const LDListenerHandle& ipv4Listener, const LDListenerHandle& ipv6Listener,
               int32_t helperProcessIdentifier, const std::optional<std::string>& replyMessage) {
          std::vector<LDListenerHandle> descriptors;
          uint8_t handles = 0;
          if (ipv4Listener) {
            handles |= LDWireHandleIPv4;
            descriptors.push_back(ipv4Listener);
          }
          if (ipv6Listener) {
            handles |= LDWireHandleIPv6;
            descriptors.push_back(ipv6Listener);
          }
          send(LDRequestReplyMessage{protocolVersion, status, token, handles,
                                     helperProcessIdentifier, replyMessage},
               std::move(descriptors));
        },
        this);
    return;
  }
  const auto& complete = std::get<LDCompleteMessage>(message);
  _exportedObject->completeListenerTransferWithProtocolVersion(
      complete.protocolVersion, complete.token, complete.accepted,
      [this](int64_t protocolVersion, int64_t status, const std::optional<std::string>& replyMessage) {
        send(LDCompleteReplyMessage{protocolVersion, status, replyMessage});
      },
      this);
}

void LDHelperConnection::flush() {
  while (!_closed && !_outgoing.empty()) {
    Outgoing& next = _outgoing.front();
    if (next.barrier) {
      std::function<void()> barrier = std::move(next.barrier);
      _outgoing.pop_front();
      barrier();  // may end the process
      continue;
    }
    std::vector<int> descriptors;
    for (const LDListenerHandle& handle : next.descriptors) descriptors.push_back(handle->fileDescriptor());
    const int errorNumber = LDSendPacket(_socket.fileDescriptor(), next.packet, descriptors, true);
    if (errorNumber == EAGAIN || errorNumber == EWOULDBLOCK) break;
    if (errorNumber != 0) {
      invalidate(std::string("sendmsg: ") + std::strerror(errorNumber));
      return;
    }
    _outgoing.pop_front();  // the kernel holds its own references to the descriptors now
  }
  updateInterest();
}

void LDHelperConnection::updateInterest() {
  if (_closed || !_watching) return;
  _runLoop.modify(_socket.fileDescriptor(), EPOLLIN | (_outgoing.empty() ? 0u : uint32_t{EPOLLOUT}));
}
