#pragma once

// The helper's listener on its AF_UNIX SOCK_SEQPACKET socket: accepts, admits each peer by the
// code signature of its executable before reading anything from it, and offers admitted
// connections to its delegate. Peers that fail are closed without a word.

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "helper/helper_connection.h"
#include "platform/run_loop.h"
#include "shared/code_signing.h"

class LDServiceListener;

class LDServiceListenerDelegate {
 public:
  virtual ~LDServiceListenerDelegate() = default;
  virtual bool listener(LDServiceListener& listener, LDHelperConnection& shouldAcceptNewConnection) = 0;
};

class LDServiceListener {
 public:
  // Connections being served at once; more wait in the kernel's backlog.
  static constexpr size_t kMaximumConnections = 16;
  // A connection is dropped if it has not finished its business by then.
  static constexpr int64_t kConnectionLifetimeNanoseconds = 30'000'000'000;

  LDServiceListener(LDFileHandle listeningSocket, LDRunLoop& runLoop,
                    const LDTrustAnchors& anchors = LDTrustAnchors::compiledIn());
  ~LDServiceListener();

  // Every peer must satisfy this requirement; an unparsable one admits nobody.
  void setConnectionCodeSigningRequirement(const std::string& requirement);
  void setAdmissionPolicy(const LDAdmissionPolicy& policy) { _policy = policy; }
  // Not owned: the caller keeps the delegate alive.
  void setDelegate(LDServiceListenerDelegate* delegate) { _delegate = delegate; }
  void activate();

 private:
  void acceptConnections();
  void admit(LDFileHandle socket, uint64_t acceptedAfter);
  void closed(uint64_t serial);

  LDFileHandle _socket;
  LDRunLoop& _runLoop;
  const LDTrustAnchors& _anchors;
  std::optional<LDRequirement> _requirement;
  LDAdmissionPolicy _policy;
  LDServiceListenerDelegate* _delegate = nullptr;
  std::map<uint64_t, std::unique_ptr<LDHelperConnection>> _connections;  // by serial number
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
