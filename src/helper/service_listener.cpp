#include "helper/service_listener.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

LDServiceListener::LDServiceListener(LDFileHandle listeningSocket, LDRunLoop& runLoop,
                                     const LDTrustAnchors& anchors)
    : _socket(std::move(listeningSocket)), _runLoop(runLoop), _anchors(anchors) {}

LDServiceListener::~LDServiceListener() {
  if (_accepting) _runLoop.unwatch(_socket.fileDescriptor());
  for (const auto& [serial, admission] : _admissions) _runLoop.unwatch(admission.worker.exitDescriptor());
}

void LDServiceListener::setConnectionCodeSigningRequirement(const std::string& requirement) {
  _requirement = LDParseRequirement(requirement);
}

bool LDServiceListener::activate(int* errorNumber) {
  if (!_examination) {
    _examination = [this](int socket, const LDPinnedPeer& peer, uint64_t acceptedAfter,
                          const std::function<void()>& inspected) -> std::optional<LDPeerVerdict> {
      std::string reason;
      if (!_requirement) return std::nullopt;  // an unusable requirement admits nobody
      return LDExaminePeer(socket, peer, acceptedAfter, *_requirement, _anchors, _policy, &reason, inspected);
    };
  }
  _accepting = _runLoop.watch(_socket.fileDescriptor(), EPOLLIN, [this](uint32_t) { acceptConnections(); },
                              errorNumber);
  return _accepting;
}

void LDServiceListener::acceptConnections() {
  while (!_workersUnendable && _connections.size() + _admissions.size() < kMaximumConnections) {
    const uint64_t acceptedAfter = LDBootTimeTicks();
    const int accepted = _accept(_socket.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    const int failure = accepted >= 0 ? 0 : errno;
    if (accepted >= 0) {
      startAdmission(LDFileHandle(accepted), acceptedAfter);
    } else if (failure == EAGAIN) {
      return;
    } else if (failure != EINTR && failure != ECONNABORTED) {
      // Out of descriptors or memory (EMFILE, ENFILE, ENOBUFS, ENOMEM): the connection stays
      // queued, and epoll would report it again at once, for as long as the shortage lasts.
      _acceptPaused = true;
      _runLoop.modify(_socket.fileDescriptor(), 0);
      _runLoop.runAt(LDRunLoop::now() + _timing.acceptRetry, [this] {
        _acceptPaused = false;
        updateAccepting();
      });
      return;
    }
  }
  // Full: stop accepting until a slot comes back; the kernel's backlog holds the rest.
  _runLoop.modify(_socket.fileDescriptor(), 0);
}

void LDServiceListener::startAdmission(LDFileHandle socket, uint64_t acceptedAfter) {
  std::string reason;
  std::optional<LDPinnedPeer> peer = LDPinPeer(socket.fileDescriptor(), _policy, &reason);
  if (!peer) return;  // closed without a reply
  const int fd = socket.fileDescriptor();
  int errorNumber = 0;
  std::optional<LDAdmissionWorker> worker = LDAdmissionWorker::start(
      [&](const std::function<void()>& inspected) { return _examination(fd, *peer, acceptedAfter, inspected); },
      {fd, peer->pidfd.fileDescriptor(), peer->processDirectory.fileDescriptor()}, *_workerCalls, &errorNumber);
  if (!worker) return;  // no worker, no admission: the peer is closed and may try again
  const uint64_t serial = _nextSerial++;
  const int64_t started = LDRunLoop::now();
  Admission& admission =
      _admissions.emplace(serial, Admission{std::move(socket), std::move(*peer), std::move(*worker)}).first->second;
  if (!_runLoop.watch(admission.worker.exitDescriptor(), EPOLLIN, [this, serial](uint32_t) { workerExited(serial); })) {
    _admissions.erase(serial);  // kills the worker
    return;
  }
  admission.timer = _runLoop.runAt(started + _timing.inspection, [this, serial, started] {
    const auto found = _admissions.find(serial);
    if (found == _admissions.end()) return;
    if (!found->second.worker.inspected()) return abandon(serial);
    found->second.timer = _runLoop.runAt(started + _timing.admission, [this, serial] { abandon(serial); });
  });
}

void LDServiceListener::abandon(uint64_t serial) {
  Admission& admission = _admissions.at(serial);
  admission.abandoned = true;
  // The worker holds a copy of the socket: shut down, the peer learns at once that it is dropped.
  (void)::shutdown(admission.socket.fileDescriptor(), SHUT_RDWR);
  admission.socket.reset();
  (void)admission.worker.kill();
  admission.timer = _runLoop.runAt(LDRunLoop::now() + _timing.killedWorker, [this] {
    // Still not reaped: SIGKILL did not end it, so no admission can be relied on to end.
    _workersUnendable = true;
    _runLoop.modify(_socket.fileDescriptor(), 0);
    endIfAdmissionsCannotEnd();
  });
}

void LDServiceListener::workerExited(uint64_t serial) {
  const auto found = _admissions.find(serial);
  _runLoop.unwatch(found->second.worker.exitDescriptor());
  _runLoop.cancel(found->second.timer);
  Admission admission = std::move(found->second);
  _admissions.erase(found);
  std::optional<LDPeerVerdict> verdict = admission.worker.finish();
  updateAccepting();
  if (admission.abandoned || !verdict) return;  // a refused peer is closed without a reply
  LDAdmittedPeer peer;
  peer.pid = admission.peer.pid;
  peer.uid = admission.peer.uid;
  peer.pidfd = std::move(admission.peer.pidfd);
  peer.processDirectory = std::move(admission.peer.processDirectory);
  peer.verdict = *verdict;
  admitted(serial, std::move(peer), std::move(admission.socket));
}

void LDServiceListener::admitted(uint64_t serial, LDAdmittedPeer peer, LDFileHandle socket) {
  // A client speaks only after Hello; anything already waiting was sent before it.
  char probe;
  if (::recv(socket.fileDescriptor(), &probe, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 || errno != EAGAIN) return;
  auto connection = std::make_unique<LDHelperConnection>(
      std::move(socket), std::move(peer), _runLoop,
      [this, serial](LDHelperConnection&, const std::string&) { closed(serial); });
  connection->setMessageCheckDeadline(_timing.messageCheck);
  LDHelperConnection& admittedConnection = *connection;
  _connections.emplace(serial, std::move(connection));
  _runLoop.runAt(LDRunLoop::now() + kConnectionLifetimeNanoseconds, [this, serial] {
    const auto open = _connections.find(serial);
    if (open != _connections.end()) open->second->invalidate("the connection outlived its time");
  });
  if (!_delegate || !_delegate->listener(*this, admittedConnection)) admittedConnection.invalidate("not accepted");
}

void LDServiceListener::closed(uint64_t serial) {
  // Destroyed on the next turn of the loop: the connection may still be on the stack.
  _runLoop.runAt(LDRunLoop::now(), [this, serial] {
    _connections.erase(serial);
    updateAccepting();
    endIfAdmissionsCannotEnd();
  });
}

// Once admissions cannot be relied on to end, the helper ends with the last connection.
void LDServiceListener::endIfAdmissionsCannotEnd() {
  if (_workersUnendable && _connections.empty() && _terminate) std::exchange(_terminate, nullptr)(1);
}

void LDServiceListener::updateAccepting() {
  if (_accepting && !_acceptPaused && !_workersUnendable) _runLoop.modify(_socket.fileDescriptor(), EPOLLIN);
}

bool LDListenerServiceDelegate::listener(LDServiceListener&, LDHelperConnection& shouldAcceptNewConnection) {
  shouldAcceptNewConnection.setExportedObject(_service);
  shouldAcceptNewConnection.activate();
  return true;
}
