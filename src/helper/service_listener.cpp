#include "helper/service_listener.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <thread>

LDServiceListener::LDServiceListener(LDFileHandle listeningSocket, LDRunLoop& runLoop,
                                     const LDTrustAnchors& anchors)
    : _socket(std::move(listeningSocket)), _runLoop(runLoop), _anchors(anchors) {}

LDServiceListener::~LDServiceListener() {
  if (_accepting) _runLoop.unwatch(_socket.fileDescriptor());
}

void LDServiceListener::setConnectionCodeSigningRequirement(const std::string& requirement) {
  _requirement = LDParseRequirement(requirement);
}

void LDServiceListener::activate() {
  if (!_admission) {
    // Copies, not references: an admission thread may outlive this listener.
    _admission = [requirement = _requirement, policy = _policy, &anchors = _anchors](
                     int socket, uint64_t acceptedAfter) -> std::optional<LDAdmittedPeer> {
      std::string reason;
      if (!requirement) return std::nullopt;  // an unusable requirement admits nobody
      return LDAdmitPeer(socket, acceptedAfter, *requirement, anchors, policy, &reason);
    };
  }
  _runLoop.watch(_socket.fileDescriptor(), EPOLLIN, [this](uint32_t) { acceptConnections(); });
  _accepting = true;
}

void LDServiceListener::acceptConnections() {
  while (_connections.size() + *_admissionsRunning < kMaximumConnections) {
    const uint64_t acceptedAfter = LDBootTimeTicks();
    LDFileHandle socket(::accept4(_socket.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.isValid()) return;  // EAGAIN, or a connection that died in the queue
    startAdmission(std::move(socket), acceptedAfter);
  }
  // Full: stop accepting until a connection ends; the kernel's backlog holds the rest.
  _runLoop.modify(_socket.fileDescriptor(), 0);
}

void LDServiceListener::startAdmission(LDFileHandle socket, uint64_t acceptedAfter) {
  // The thread looks at its own duplicate: when the deadline drops the peer, the loop closes its
  // copy and shuts the connection down, and the number the thread uses cannot name anything else.
  LDFileHandle copy(::fcntl(socket.fileDescriptor(), F_DUPFD_CLOEXEC, 0));
  if (!copy.isValid()) return;
  const uint64_t serial = _nextSerial++;
  const uint64_t deadline = _runLoop.runAt(LDRunLoop::now() + _admissionDeadline, [this, serial] {
    const auto found = _pending.find(serial);
    if (found == _pending.end()) return;
    (void)::shutdown(found->second.socket.fileDescriptor(), SHUT_RDWR);
    _pending.erase(found);
  });
  _pending.emplace(serial, Pending{std::move(socket), deadline});
  ++*_admissionsRunning;
  std::thread([admission = _admission, mailbox = _runLoop.mailbox(), running = _admissionsRunning,
               alive = std::weak_ptr<int>(_alive), this, serial, acceptedAfter, copy = std::move(copy)]() mutable {
    std::optional<LDAdmittedPeer> peer = admission(copy.fileDescriptor(), acceptedAfter);
    copy.reset();
    --*running;
    mailbox->post([alive, this, serial, peer = std::make_shared<std::optional<LDAdmittedPeer>>(std::move(peer))] {
      if (alive.lock()) admitted(serial, std::move(*peer));
    });
  }).detach();
}

void LDServiceListener::admitted(uint64_t serial, std::optional<LDAdmittedPeer> peer) {
  const auto found = _pending.find(serial);
  if (found == _pending.end()) {  // dropped at the deadline
    updateAccepting();
    return;
  }
  _runLoop.cancel(found->second.deadline);
  LDFileHandle socket = std::move(found->second.socket);
  _pending.erase(found);
  updateAccepting();
  if (!peer) return;  // closed without a reply
  // A client speaks only after Hello; anything already waiting was sent before it.
  char probe;
  if (::recv(socket.fileDescriptor(), &probe, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 || errno != EAGAIN) return;
  auto connection = std::make_unique<LDHelperConnection>(
      std::move(socket), std::move(*peer), _runLoop,
      [this, serial](LDHelperConnection&, const std::string&) { closed(serial); });
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
  });
}

void LDServiceListener::updateAccepting() {
  if (_accepting) _runLoop.modify(_socket.fileDescriptor(), EPOLLIN);
}

bool LDListenerServiceDelegate::listener(LDServiceListener&, LDHelperConnection& shouldAcceptNewConnection) {
  shouldAcceptNewConnection.setExportedObject(_service);
  shouldAcceptNewConnection.activate();
  return true;
}
