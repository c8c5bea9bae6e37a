#pragma once

// The helper's listener on its AF_UNIX SOCK_SEQPACKET socket: accepts, admits each peer by the
// code signature of its executable before reading anything from it, and offers admitted
// connections to its delegate. Peers that fail are dropped without a word.
//
// The listener runs in the helper's root process, the monitor, which never waits on anything a
// peer controls: each accepted peer goes at once to a keeper process of its own (peer_keeper.h),
// which examines it, and, once it is admitted, receives its messages and sends the monitor's
// replies. A keeper not past the checks that can wait on the peer in time, not admitted in time,
// or whose check of a later message does not finish in time, is killed, and its connection with
// it. Its slot comes back when it has exited. Should a killed keeper not exit, the listener stops
// accepting and, once no connection is left, asks for the helper to end with 1, so that systemd
// starts a fresh one for whoever waits.

#include <sys/socket.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "helper/listener_handoff.h"
#include "admission/peer_keeper.h"
#include "platform/run_loop.h"
#include "signing/code_signing.h"

class LDServiceListener;

// The monitor's side of one admitted connection: calls arrive as the keeper's reports, replies
// leave as orders to it, and the keeper reports each reply once the kernel has it, in order; a
// barrier runs once every reply ordered before it has been so reported.
class LDKeptConnection final : public LDListenerConnection {
 public:
  // broken: the channel to the keeper failed; the connection is to be ended.
  LDKeptConnection(int channel, std::function<void()> broken) : _channel(channel), _broken(std::move(broken)) {}

  void setExportedObject(std::shared_ptr<LDListenerHandoff> exportedObject) {
    _exportedObject = std::move(exportedObject);
  }
  // Has the keeper send Hello and start serving calls.
  void activate();
  // A request, completion or written report of the keeper.
  void handle(const LDKeeperReport& report);
  // Nothing more is sent; barriers never run.
  void close() { _closed = true; }

  void scheduleSendBarrierBlock(std::function<void()> barrier) override;

 private:
  void order(const LDKeeperOrder& order, const std::vector<int>& descriptors = {});
  void replyWritten();
  void relayRequest(const LDKeeperReport& report);
  void relayComplete(const LDKeeperReport& report);

  int _channel;  // owned by the listener
  std::function<void()> _broken;
  std::shared_ptr<LDListenerHandoff> _exportedObject;
  std::multimap<uint64_t, std::function<void()>> _barriers;  // by the replies that must be written first
  uint64_t _replies = 0;  // ordered
  uint64_t _written = 0;  // reported handed to the kernel
  bool _closed = false;
};

class LDServiceListenerDelegate {
 public:
  virtual ~LDServiceListenerDelegate() = default;
  virtual bool listener(LDServiceListener& listener, LDKeptConnection& shouldAcceptNewConnection) = 0;
};

class LDServiceListener {
 public:
  // Keepers alive at once, killed ones not yet exited included; more peers wait in the kernel's
  // backlog.
  static constexpr size_t kMaximumConnections = 16;
  // Unix sockets the monitor holds and may not close (see keepUntilExit): past this many it takes
  // no more connections and ends once none is left, for a fresh helper to go on.
  static constexpr size_t kMaximumKeptSockets = 256;

  struct Timing {
    // The checks that can wait on the peer take microseconds; a peer not past them by then is
    // frozen in an exec, or as good as.
    int64_t inspection = 500'000'000;
    // A peer not admitted by then is dropped (hashing a 128 MiB client takes about 0.1 s).
    int64_t admission = 5'000'000'000;
    // The check of each later message (its sender still the admitted process) by then.
    int64_t messageCheck = 2'000'000'000;
    // An admitted connection is dropped if it has not finished its business by then.
    int64_t connection = 30'000'000'000;
    // A killed keeper not exited by then will not die: admissions can no longer be ended.
    int64_t killedKeeper = 1'000'000'000;
    // How long accepting rests after the helper ran out of descriptors.
    int64_t acceptRetry = 100'000'000;
  };

  // The examination of one peer, run in its keeper. The default is LDExaminePeer with the
  // requirement and policy set below.
  using Examination = std::function<std::optional<LDPeerVerdict>(
      int socket, const LDPinnedPeer& peer, uint64_t acceptedAfter, const std::function<void()>& inspected)>;
  LDServiceListener(LDFileHandle listeningSocket, LDRunLoop& runLoop,
                    const LDTrustAnchors& anchors = LDTrustAnchors::compiledIn());
  ~LDServiceListener();

  // Every peer must satisfy this requirement; an unparsable one admits nobody.
  void setConnectionCodeSigningRequirement(const std::string& requirement);
  void setAdmissionPolicy(const LDAdmissionPolicy& policy) { _policy = policy; }
  void setExamination(Examination examination) { _examination = std::move(examination); }
  void setTiming(const Timing& timing) { _timing = timing; }
  // The calls that accept, start keepers (fork, in the zygote) and end them
  // (pidfd_send_signal); they must outlive the listener.
  void setSystemCalls(LDSystemCalls& calls) { _calls = &calls; }
  // Called once, with 1, when admissions can no longer be ended and no connection is left, or
  // when no more keepers can be made.
  void setTerminate(std::function<void(int status)> terminate) { _terminate = std::move(terminate); }
  // Connections are accepted only while this holds. The one-shot service says no once its transfer
  // is over: a client that connects while this helper ends then waits in the backlog for the next
  // helper, instead of being accepted here and dropped at the exit.
  void setAcceptsWhile(std::function<bool()> accepts) { _acceptsWhile = std::move(accepts); }
  // Not owned: the caller keeps the delegate alive.
  void setDelegate(LDServiceListenerDelegate* delegate) { _delegate = delegate; }
  // Forks the keepers' zygote and starts accepting: call before any thread starts, after
  // everything above but the delegate and the terminate callback is set. False with
  // *errorNumber when the zygote cannot be made or the socket cannot be watched.
  bool activate(int* errorNumber = nullptr);

 private:
  struct Keeper {
    LDFileHandle channel;  // the monitor's end
    LDFileHandle pidfd;
    uint64_t timer = 0;     // inspection, admission, a message's check, or the killed keeper's
    uint64_t lifetime = 0;  // the connection's, once admitted; the next turn, once it broke
    bool inspected = false;
    bool ending = false;
    std::unique_ptr<LDKeptConnection> connection;
  };

  void acceptConnections();
  void startKeeper(LDFileHandle socket, uint64_t acceptedAfter);
  void reports(uint64_t serial);
  void report(uint64_t serial, const LDKeeperReport& report);
  void admitted(uint64_t serial, const LDKeeperReport& report);
  void end(uint64_t serial);
  void exited(uint64_t serial);
  void updateAccepting();
  bool takesConnections() const { return !_windingDown && (!_acceptsWhile || _acceptsWhile()); }
  void endIfAdmissionsCannotEnd();
  void keepUntilExit(LDFileHandle socket);
  void windDown();
  void serveInKeeper(LDKeeperStart& start);

  LDFileHandle _socket;
  LDRunLoop& _runLoop;
  const LDTrustAnchors& _anchors;
  std::optional<LDRequirement> _requirement;
  LDAdmissionPolicy _policy;
  Examination _examination;
  Timing _timing;
  LDSystemCalls* _calls = &LDSystemCalls::real();
  std::function<void(int)> _terminate;
  std::function<bool()> _acceptsWhile;
  LDServiceListenerDelegate* _delegate = nullptr;
  std::optional<LDKeeperZygote> _zygote;
  std::map<uint64_t, Keeper> _keepers;  // by serial number
  // Unix sockets whose last reference the monitor holds: peers' sockets no keeper could be made
  // for, and the monitor's ends of ended keepers' channels. They stay open until the helper exits.
  std::vector<LDFileHandle> _unreleased;
  uint64_t _nextSerial = 1;
  bool _accepting = false;
  uint64_t _acceptRetry = 0;  // out of descriptors: the timer that ends the rest, or 0
  // No more connections are taken; the helper ends once none is left: a killed keeper did not die,
  // or too many sockets are kept.
  bool _windingDown = false;
};

// Accepts every admitted connection and exports the one service on it.
class LDListenerServiceDelegate final : public LDServiceListenerDelegate {
 public:
  explicit LDListenerServiceDelegate(std::shared_ptr<LDListenerHandoff> service)
      : _service(std::move(service)) {}
  bool listener(LDServiceListener& listener, LDKeptConnection& shouldAcceptNewConnection) override;

 private:
  std::shared_ptr<LDListenerHandoff> _service;
};
