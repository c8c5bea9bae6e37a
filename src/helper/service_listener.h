#pragma once

// The helper's listener on its AF_UNIX SOCK_SEQPACKET socket: accepts, admits each peer by the
// code signature of its executable before reading anything from it, and offers admitted
// connections to its delegate. Peers that fail are closed without a word.
//
// Each peer is examined in a worker process of its own (admission_worker.h), so a peer that is
// costly to look at delays nobody else, and one that is not done in time is dropped and its
// worker killed. Its slot comes back when the worker is reaped. Should a killed worker not die,
// the listener stops accepting and, once no connection is left, ends the helper with 1, so that
// systemd starts a fresh one for whoever waits.

#include <sys/socket.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "helper/helper_connection.h"
#include "platform/admission_worker.h"
#include "platform/run_loop.h"
#include "signing/code_signing.h"

class LDServiceListener;

class LDServiceListenerDelegate {
 public:
  virtual ~LDServiceListenerDelegate() = default;
  virtual bool listener(LDServiceListener& listener, LDHelperConnection& shouldAcceptNewConnection) = 0;
};

class LDServiceListener {
 public:
  // Connections being admitted or served at once, killed workers not yet reaped included; more
  // wait in the kernel's backlog.
  static constexpr size_t kMaximumConnections = 16;
  // A connection is dropped if it has not finished its business by then.
  static constexpr int64_t kConnectionLifetimeNanoseconds = 30'000'000'000;

  struct Timing {
    // The checks that can wait on the peer take microseconds; a peer not past them by then is
    // frozen in an exec, or as good as.
    int64_t inspection = 500'000'000;
    // A peer not admitted by then is dropped (hashing a 128 MiB client takes about 0.1 s).
    int64_t admission = 5'000'000'000;
    // A killed worker not reaped by then will not die: admissions can no longer be ended.
    int64_t killedWorker = 1'000'000'000;
    // How long accepting rests after the helper ran out of descriptors.
    int64_t acceptRetry = 100'000'000;
    // The check of an admitted peer's message (see LDHelperConnection).
    int64_t messageCheck = LDHelperConnection::kMessageCheckDeadlineNanoseconds;
  };

  // The examination of one peer, run in its worker. The default is LDExaminePeer with the
  // requirement and policy set below.
  using Examination = std::function<std::optional<LDPeerVerdict>(
      int socket, const LDPinnedPeer& peer, uint64_t acceptedAfter, const std::function<void()>& inspected)>;
  using Accept = int (*)(int socket, sockaddr* address, socklen_t* length, int flags);

  LDServiceListener(LDFileHandle listeningSocket, LDRunLoop& runLoop,
                    const LDTrustAnchors& anchors = LDTrustAnchors::compiledIn());
  ~LDServiceListener();

  // Every peer must satisfy this requirement; an unparsable one admits nobody.
  void setConnectionCodeSigningRequirement(const std::string& requirement);
  void setAdmissionPolicy(const LDAdmissionPolicy& policy) { _policy = policy; }
  void setExamination(Examination examination) { _examination = std::move(examination); }
  void setTiming(const Timing& timing) { _timing = timing; }
  // Replaceable so that a test can make them fail.
  void setSystemCalls(Accept accept, const LDAdmissionWorker::Calls& workerCalls) {
    _accept = accept;
    _workerCalls = &workerCalls;
  }
  // Called once, with 1, when admissions can no longer be ended and no connection is left.
  void setTerminate(std::function<void(int status)> terminate) { _terminate = std::move(terminate); }
  // Not owned: the caller keeps the delegate alive.
  void setDelegate(LDServiceListenerDelegate* delegate) { _delegate = delegate; }
  // Starts accepting; false with *errorNumber when the socket cannot be watched.
  bool activate(int* errorNumber = nullptr);

 private:
  struct Admission {
    LDFileHandle socket;  // closed (and the peer dropped) when the admission is abandoned
    LDPinnedPeer peer;
    LDAdmissionWorker worker;
    uint64_t timer = 0;
    bool abandoned = false;
  };

  void acceptConnections();
  void startAdmission(LDFileHandle socket, uint64_t acceptedAfter);
  void abandon(uint64_t serial);
  void workerExited(uint64_t serial);
  void admitted(uint64_t serial, LDAdmittedPeer peer, LDFileHandle socket);
  void closed(uint64_t serial);
  void updateAccepting();
  void endIfAdmissionsCannotEnd();

  LDFileHandle _socket;
  LDRunLoop& _runLoop;
  const LDTrustAnchors& _anchors;
  std::optional<LDRequirement> _requirement;
  LDAdmissionPolicy _policy;
  Examination _examination;
  Timing _timing;
  Accept _accept = ::accept4;
  const LDAdmissionWorker::Calls* _workerCalls = &LDAdmissionWorker::kSystemCalls;
  std::function<void(int)> _terminate;
  LDServiceListenerDelegate* _delegate = nullptr;
  std::map<uint64_t, Admission> _admissions;                              // by serial number
  std::map<uint64_t, std::unique_ptr<LDHelperConnection>> _connections;  // by serial number
  uint64_t _nextSerial = 1;
  bool _accepting = false;
  bool _acceptPaused = false;  // out of descriptors: resting until the retry timer
  bool _workersUnendable = false;
};

// Accepts every admitted connection and exports the one service on it.
class LDListenerServiceDelegate final : public LDServiceListenerDelegate {
 public:
  explicit LDListenerServiceDelegate(std::shared_ptr<LDListenerHandoff> service)
      : _service(std::move(service)) {}
  bool listener(LDServiceListener& listener, LDHelperConnection& shouldAcceptNewConnection) override;

 private:
  std::shared_ptr<LDListenerHandoff> _service;
};
