#pragma once

// The helper's listener on its AF_UNIX SOCK_SEQPACKET socket: accepts, admits each peer by the
// code signature of its executable before reading anything from it, and offers admitted
// connections to its delegate. Peers that fail are closed without a word.
//
// Admission runs on a thread of its own for each accepted connection, so a peer that is costly
// to look at delays nobody else; one that takes longer than the admission deadline is dropped.

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "helper/helper_connection.h"
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
  // Connections being admitted or served at once, admissions given up on but still running
  // included; more wait in the kernel's backlog.
  static constexpr size_t kMaximumConnections = 16;
  // A connection is dropped if it has not finished its business by then.
  static constexpr int64_t kConnectionLifetimeNanoseconds = 30'000'000'000;
  // A peer not admitted by then is dropped (hashing a 128 MiB client takes about 0.1 s).
  static constexpr int64_t kAdmissionDeadlineNanoseconds = 5'000'000'000;

  // Decides on one accepted socket, on an admission thread. The default is LDAdmitPeer with the
  // requirement and policy set below.
  using Admission = std::function<std::optional<LDAdmittedPeer>(int socket, uint64_t acceptedAfter)>;

  LDServiceListener(LDFileHandle listeningSocket, LDRunLoop& runLoop,
                    const LDTrustAnchors& anchors = LDTrustAnchors::compiledIn());
  ~LDServiceListener();

  // Every peer must satisfy this requirement; an unparsable one admits nobody.
  void setConnectionCodeSigningRequirement(const std::string& requirement);
  void setAdmissionPolicy(const LDAdmissionPolicy& policy) { _policy = policy; }
  void setAdmission(Admission admission, int64_t deadlineNanoseconds) {
    _admission = std::move(admission);
    _admissionDeadline = deadlineNanoseconds;
  }
  // Not owned: the caller keeps the delegate alive.
  void setDelegate(LDServiceListenerDelegate* delegate) { _delegate = delegate; }
  void activate();

 private:
  struct Pending {
    LDFileHandle socket;
    uint64_t deadline;
  };

  void acceptConnections();
  void startAdmission(LDFileHandle socket, uint64_t acceptedAfter);
  void admitted(uint64_t serial, std::optional<LDAdmittedPeer> peer);
  void closed(uint64_t serial);
  void updateAccepting();

  LDFileHandle _socket;
  LDRunLoop& _runLoop;
  const LDTrustAnchors& _anchors;
  std::optional<LDRequirement> _requirement;
  LDAdmissionPolicy _policy;
  Admission _admission;
  int64_t _admissionDeadline = kAdmissionDeadlineNanoseconds;
  LDServiceListenerDelegate* _delegate = nullptr;
  std::map<uint64_t, Pending> _pending;                                   // being admitted
  std::map<uint64_t, std::unique_ptr<LDHelperConnection>> _connections;  // by serial number
  // Admission threads still running, counted by the threads themselves.
  std::shared_ptr<std::atomic<size_t>> _admissionsRunning = std::make_shared<std::atomic<size_t>>(0);
  std::shared_ptr<int> _alive = std::make_shared<int>(0);  // results for a destroyed listener are dropped
  uint64_t _nextSerial = 1;
  bool _accepting = false;
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
