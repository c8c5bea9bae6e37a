#include "helper/service_listener.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>

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
  _runLoop.watch(_socket.fileDescriptor(), EPOLLIN, [this](uint32_t) { acceptConnections(); });
  _accepting = true;
}

void LDServiceListener::acceptConnections() {
  while (_connections.size() < kMaximumConnections) {
    const uint64_t acceptedAfter = LDBootTimeTicks();
    LDFileHandle socket(::accept4(_socket.fileDescriptor(), nullptr, nullptr,
                                  SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.isValid()) return;  // EAGAIN, or a connection that died in the queue
    admit(std::move(socket), acceptedAfter);
  }
  // Full: stop accepting until a connection ends; the kernel's backlog holds the rest.
  _runLoop.modify(_socket.fileDescriptor(), 0);
}

void LDServiceListener::admit(LDFileHandle socket, uint64_t acceptedAfter) {
  std::string reason;
  if (!_requirement) return;  // an unusable requirement admits nobody
  std::optional<LDAdmittedPeer> peer = LDAdmitPeer(socket.fileDescriptor(), acceptedAfter, *_requirement, _anchors, _policy, &reason);
  if (!peer) return;  // closed without a reply
  // A client speaks only after Hello; anything already waiting was sent before it.
  char probe;
  if (::recv(socket.fileDescriptor(), &probe, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 || errno != EAGAIN) {
    return;
  }
  const uint64_t serial = _nextSerial++;
  auto connection = std::make_unique<LDHelperConnection>(
      std::move(socket), std::move(*peer), _runLoop,
      [this, serial](LDHelperConnection&, const std::string&) { closed(serial); });
  LDHelperConnection& admitted = *connection;
  _connections.emplace(serial, std::move(connection));
  _runLoop.runAt(LDRunLoop::now() + kConnectionLifetimeNanoseconds, [this, serial] {
    const auto found = _connections.find(serial);
    if (found != _connections.end()) found->second->invalidate("the connection outlived its time");
  });
  if (!_delegate || !_delegate->listener(*this, admitted)) admitted.invalidate("not accepted");
}

void LDServiceListener::closed(uint64_t serial) {
  // Destroyed on the next turn of the loop: the connection may still be on the stack.
  _runLoop.runAt(LDRunLoop::now(), [this, serial] {
    _connections.erase(serial);
    if (_accepting) _runLoop.modify(_socket.fileDescriptor(), EPOLLIN);
  });
}

bool LDListenerServiceDelegate::listener(LDServiceListener&, LDHelperConnection& shouldAcceptNewConnection) {
  shouldAcceptNewConnection.setExportedObject(_service);
  shouldAcceptNewConnection.activate();
  return true;
}
