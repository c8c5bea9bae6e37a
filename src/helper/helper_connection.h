#pragma once

// One admitted client connection of the helper: decodes the client's calls strictly, passes them
// to the exported handoff object with itself as the connection, and writes replies (with their
// descriptors) in order from an outgoing queue whose barriers run once everything queued before
// them has been handed to the kernel.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "helper/listener_handoff.h"
#include "admission/peer_identity.h"
#include "platform/run_loop.h"
#include "protocol/wire.h"

class LDHelperConnection final : public LDListenerConnection {
 public:
  // Called once when the connection ends, for whatever reason, with that reason.
  using ClosedCallback = std::function<void(LDHelperConnection&, const std::string& reason)>;

  LDHelperConnection(LDFileHandle socket, LDAdmittedPeer peer, LDRunLoop& runLoop,
                     ClosedCallback onClosed);
  ~LDHelperConnection() override;

  void setExportedObject(std::shared_ptr<LDListenerHandoff> exportedObject) {
    _exportedObject = std::move(exportedObject);
  }
  // Called as each message's sender check begins: that check reads /proc files that wait for as
  // long as the peer is frozen inside an exec, so whoever runs this connection (a keeper) tells
  // the monitor, which ends the connection if the check is not done in time.
  void setMessageCheckBegins(std::function<void()> begins) { _messageCheckBegins = std::move(begins); }
  // Sends Hello and starts serving calls.
  void activate();
  // Ends the connection now (the queue is dropped, barriers never run).
  void invalidate(const std::string& reason);

  void scheduleSendBarrierBlock(std::function<void()> barrier) override;

 private:
  struct Outgoing {
    std::string packet;                       // empty for a barrier
    std::vector<LDListenerHandle> descriptors;
    std::function<void()> barrier;
  };

  void send(const LDMessage& message, std::vector<LDListenerHandle> descriptors = {});
  void handleEvents(uint32_t events);
  void readMessages();
  void dispatch(LDMessage message);
  void flush();
  void updateInterest();

  LDFileHandle _socket;
  LDAdmittedPeer _peer;
  LDRunLoop& _runLoop;
  ClosedCallback _onClosed;
  std::shared_ptr<LDListenerHandoff> _exportedObject;
  std::deque<Outgoing> _outgoing;
  bool _closed = false;
  bool _watching = false;
  std::function<void()> _messageCheckBegins;
  // Calls are served one at a time, in order; a peer gets at most this many served.
  int _callsServed = 0;
};
