#include "helper/service_listener.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <utility>

#include "helper/helper_connection.h"
#include "shared/pidfd.h"

namespace {

// Copies text into a fixed field of a record; the length says how much of it counts.
template <size_t Size>
void fill(char (&field)[Size], uint32_t* length, uint8_t* present, const std::optional<std::string>& text) {
  *present = text ? 1 : 0;
  *length = text ? static_cast<uint32_t>(std::min(text->size(), Size)) : 0;
  if (text) std::memcpy(field, text->data(), *length);
}

template <size_t Size>
std::optional<std::string> text(const char (&field)[Size], uint32_t length, uint8_t present) {
  if (present == 0) return std::nullopt;
  return std::string(field, std::min<size_t>(length, Size));
}

// Stands in, inside the keeper, for the service in the monitor: each call goes up as a report,
// and its reply comes back as an order (in the order the calls were made).
class MonitorProxy final : public LDListenerHandoff {
 public:
  explicit MonitorProxy(int channel) : _channel(channel) {}

  void requestListenerTransferWithProtocolVersion(int64_t protocolVersion, LDRequestReply reply,
                                                  LDListenerConnection*) override {
    LDKeeperReport report{};
    report.kind = LDKeeperReportKind::request;
    report.protocolVersion = protocolVersion;
    _requests.push_back(std::move(reply));
    (void)LDSendRecord(_channel, report);
  }
  void completeListenerTransferWithProtocolVersion(int64_t protocolVersion, const std::optional<std::string>& token,
                                                   bool accepted, LDCompleteReply reply,
                                                   LDListenerConnection*) override {
    LDKeeperReport report{};
    report.kind = LDKeeperReportKind::complete;
    report.protocolVersion = protocolVersion;
    report.accepted = accepted ? 1 : 0;
    fill(report.token, &report.tokenLength, &report.tokenPresent, token);
    _completions.push_back(std::move(reply));
    (void)LDSendRecord(_channel, report);
  }

  void answer(const LDKeeperOrder& order, std::vector<LDFileHandle>& descriptors) {
    const std::optional<std::string> message = text(order.message, order.messageLength, order.messagePresent);
    if (order.kind == LDKeeperOrderKind::requestReply && !_requests.empty()) {
      LDListenerHandle listeners[2];
      size_t next = 0;
      for (int bit = 0; bit < 2; ++bit) {
        if ((order.handles & (1 << bit)) != 0 && next < descriptors.size()) {
          listeners[bit] = std::make_shared<const LDFileHandle>(std::move(descriptors[next++]));
        }
      }
      LDRequestReply reply = std::move(_requests.front());
      _requests.pop_front();
      reply(order.protocolVersion, order.status, text(order.token, order.tokenLength, order.tokenPresent),
            listeners[0], listeners[1], order.helperProcessIdentifier, message);
    } else if (order.kind == LDKeeperOrderKind::completeReply && !_completions.empty()) {
      LDCompleteReply reply = std::move(_completions.front());
      _completions.pop_front();
      reply(order.protocolVersion, order.status, message);
    }
  }

 private:
  int _channel;
  std::deque<LDRequestReply> _requests;
  std::deque<LDCompleteReply> _completions;
};

}  // namespace

// --- The monitor's side of an admitted connection.

void LDKeptConnection::order(const LDKeeperOrder& order, const std::vector<int>& descriptors) {
  if (_closed) return;
  // Orders are few (Hello, two replies, a barrier) and the keeper reads them at once; one that
  // does not fit means the keeper is stuck, and the connection is over.
  if (LDSendRecord(_channel, order, descriptors) != 0) {
    _closed = true;
    _broken();
  }
}

void LDKeptConnection::activate() {
  LDKeeperOrder activate{};
  activate.kind = LDKeeperOrderKind::activate;
  order(activate);
}

void LDKeptConnection::handle(const LDKeeperReport& report) {
  if (report.kind == LDKeeperReportKind::written) return replyWritten();
  if (!_exportedObject) return _broken();
  if (report.kind == LDKeeperReportKind::request) relayRequest(report);
  if (report.kind == LDKeeperReportKind::complete) relayComplete(report);
}

void LDKeptConnection::replyWritten() {
  if (_written < _replies) ++_written;
  while (!_closed && !_barriers.empty() && _barriers.begin()->first <= _written) {
    std::function<void()> barrier = std::move(_barriers.begin()->second);
    _barriers.erase(_barriers.begin());
    barrier();  // may end the process
  }
}

void LDKeptConnection::relayRequest(const LDKeeperReport& report) {
  _exportedObject->requestListenerTransferWithProtocolVersion(
      report.protocolVersion,
      [this](int64_t protocolVersion, int64_t status, const std::optional<std::string>& token,
             const LDListenerHandle& ipv4Listener, const LDListenerHandle& ipv6Listener,
             int32_t helperProcessIdentifier, const std::optional<std::string>& replyMessage) {
        LDKeeperOrder reply{};
        reply.kind = LDKeeperOrderKind::requestReply;
        reply.protocolVersion = protocolVersion;
        reply.status = status;
        reply.helperProcessIdentifier = helperProcessIdentifier;
        fill(reply.token, &reply.tokenLength, &reply.tokenPresent, token);
        fill(reply.message, &reply.messageLength, &reply.messagePresent, replyMessage);
        std::vector<int> descriptors;
        if (ipv4Listener) {
          reply.handles |= LDWireHandleIPv4;
          descriptors.push_back(ipv4Listener->fileDescriptor());
        }
        if (ipv6Listener) {
          reply.handles |= LDWireHandleIPv6;
          descriptors.push_back(ipv6Listener->fileDescriptor());
        }
        ++_replies;
        order(reply, descriptors);
      },
      this);
}

void LDKeptConnection::relayComplete(const LDKeeperReport& report) {
  _exportedObject->completeListenerTransferWithProtocolVersion(
      report.protocolVersion, text(report.token, report.tokenLength, report.tokenPresent), report.accepted != 0,
      [this](int64_t protocolVersion, int64_t status, const std::optional<std::string>& replyMessage) {
        LDKeeperOrder reply{};
        reply.kind = LDKeeperOrderKind::completeReply;
        reply.protocolVersion = protocolVersion;
        reply.status = status;
        fill(reply.message, &reply.messageLength, &reply.messagePresent, replyMessage);
        ++_replies;
        order(reply);
      },
      this);
}

void LDKeptConnection::scheduleSendBarrierBlock(std::function<void()> barrier) {
  if (_closed) return;  // a broken connection never runs its barrier
  if (_written == _replies) return barrier();  // may end the process
  _barriers.emplace(_replies, std::move(barrier));
}

// --- The listener, in the monitor.

LDServiceListener::LDServiceListener(LDFileHandle listeningSocket, LDRunLoop& runLoop,
                                     const LDTrustAnchors& anchors)
    : _socket(std::move(listeningSocket)), _runLoop(runLoop), _anchors(anchors) {}

LDServiceListener::~LDServiceListener() {
  if (_accepting) _runLoop.unwatch(_socket.fileDescriptor());
  _runLoop.cancel(_acceptRetry);  // the loop may outlive this listener: none of its timers may
  for (auto& [serial, keeper] : _keepers) {
    _runLoop.cancel(keeper.timer);
    _runLoop.cancel(keeper.lifetime);
    _runLoop.unwatch(keeper.channel.fileDescriptor());
    _runLoop.unwatch(keeper.pidfd.fileDescriptor());
    keeper.channel.reset();
    (void)_calls->pidfd_send_signal(keeper.pidfd.fileDescriptor(), SIGKILL);
  }
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
  int ignored = 0;
  int* failure = errorNumber ? errorNumber : &ignored;
  // Connections accepted from now on refuse descriptors at the sender, where the kernel can.
  if (!LDRefuseDescriptors(_socket.fileDescriptor())) {
    *failure = errno;
    return false;
  }
  _zygote = LDKeeperZygote::start([this](LDKeeperStart& start) { serveInKeeper(start); }, *_calls, failure);
  if (!_zygote) return false;
  _accepting = _runLoop.watch(_socket.fileDescriptor(), EPOLLIN, [this](uint32_t) { acceptConnections(); }, failure);
  return _accepting;
}

void LDServiceListener::acceptConnections() {
  while (takesConnections() && _keepers.size() < kMaximumConnections) {
    const uint64_t acceptedAfter = LDBootTimeTicks();
    const LDSystemCallResult accepted =
        _calls->accept4(_socket.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    const int failure = accepted.errorNumber;
    if (accepted.value >= 0) {
      startKeeper(LDFileHandle(static_cast<int>(accepted.value)), acceptedAfter);
    } else if (failure == EAGAIN) {
      return;
    } else if (failure != EINTR && failure != ECONNABORTED) {
      // Out of descriptors or memory (EMFILE, ENFILE, ENOBUFS, ENOMEM): the connection stays
      // queued, and epoll would report it again at once, for as long as the shortage lasts.
      _runLoop.modify(_socket.fileDescriptor(), 0);
      _acceptRetry = _runLoop.runAt(LDRunLoop::now() + _timing.acceptRetry, [this] {
        _acceptRetry = 0;
        updateAccepting();
      });
      return;
    }
  }
  // Full, or done: stop accepting until a slot comes back; the kernel's backlog holds the rest.
  _runLoop.modify(_socket.fileDescriptor(), 0);
}

// A unix socket is never closed here for the last time. A peer's may carry what the peer put in
// flight; and on kernels before 6.8 whoever releases the last reference to any unix socket runs
// the kernel's collector of unreachable in-flight sockets in its own task, so a cycle of sockets a
// user left in flight, a lingering TCP socket among them, would be released (and lingered on)
// here. The helper's exit releases them all, its linger skipped.
void LDServiceListener::keepUntilExit(LDFileHandle socket) {
  (void)::shutdown(socket.fileDescriptor(), SHUT_RDWR);
  _unreleased.push_back(std::move(socket));
  if (_unreleased.size() >= kMaximumKeptSockets) windDown();
}

void LDServiceListener::windDown() {
  _windingDown = true;
  _runLoop.modify(_socket.fileDescriptor(), 0);
  endIfAdmissionsCannotEnd();
}

void LDServiceListener::startKeeper(LDFileHandle socket, uint64_t acceptedAfter) {
  std::string reason;
  // A peer that cannot be pinned (gone already) is refused, by a keeper all the same: what it put
  // in flight on its socket is released only by a keeper's exit.
  std::optional<LDPinnedPeer> peer = LDPinPeer(socket.fileDescriptor(), _policy, &reason);
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return keepUntilExit(std::move(socket));
  LDFileHandle channel(pair[0]);
  LDKeeperStart start;
  start.socket = std::move(socket);
  if (peer) start.peer = std::move(*peer);
  start.acceptedAfter = acceptedAfter;
  start.channel.reset(pair[1]);
  std::optional<LDKeeperZygote::Keeper> spawned = _zygote->spawn(start);
  if (!spawned) {
    keepUntilExit(std::move(start.socket));
    keepUntilExit(std::move(start.channel));
    keepUntilExit(std::move(channel));
    // A zygote that is gone makes no more keepers: nobody can be admitted any more.
    if (!_zygote->isAlive()) windDown();
    return;
  }
  // The keeper holds its own copies now, so none of these closes is the last.
  start = LDKeeperStart{};
  const uint64_t serial = _nextSerial++;
  Keeper& keeper = _keepers[serial];
  keeper.channel = std::move(channel);
  keeper.pidfd = std::move(spawned->pidfd);
  if (!_runLoop.watch(keeper.pidfd.fileDescriptor(), EPOLLIN, [this, serial](uint32_t) { exited(serial); })) {
    (void)_calls->pidfd_send_signal(keeper.pidfd.fileDescriptor(), SIGKILL);
    keepUntilExit(std::move(keeper.channel));
    _keepers.erase(serial);  // abandoned: it dies, and the zygote reaps it
    return;
  }
  if (!_runLoop.watch(keeper.channel.fileDescriptor(), EPOLLIN, [this, serial](uint32_t) { reports(serial); })) {
    return end(serial);
  }
  const int64_t started = LDRunLoop::now();
  keeper.timer = _runLoop.runAt(started + _timing.inspection, [this, serial, started] {
    Keeper& found = _keepers.at(serial);
    if (!found.inspected) return end(serial);
    found.timer = _runLoop.runAt(started + _timing.admission, [this, serial] { end(serial); });
  });
}

void LDServiceListener::reports(uint64_t serial) {
  for (;;) {
    const auto found = _keepers.find(serial);
    if (found == _keepers.end() || found->second.ending) return;
    LDKeeperReport next{};
    bool ended = false;
    if (!LDReceiveRecord(found->second.channel.fileDescriptor(), &next, &ended)) {
      if (ended) end(serial);
      return;
    }
    report(serial, next);
  }
}

void LDServiceListener::report(uint64_t serial, const LDKeeperReport& report) {
  Keeper& keeper = _keepers.at(serial);
  switch (report.kind) {
    case LDKeeperReportKind::inspected:
      keeper.inspected = true;
      return;
    case LDKeeperReportKind::admitted:
      if (keeper.connection) return end(serial);
      return admitted(serial, report);
    case LDKeeperReportKind::checking:
      if (!keeper.connection) return end(serial);
      _runLoop.cancel(keeper.timer);
      keeper.timer = _runLoop.runAt(LDRunLoop::now() + _timing.messageCheck, [this, serial] { end(serial); });
      return;
    case LDKeeperReportKind::request:
    case LDKeeperReportKind::complete:
    case LDKeeperReportKind::written:
      if (!keeper.connection) return end(serial);
      if (report.kind != LDKeeperReportKind::written) _runLoop.cancel(keeper.timer);
      keeper.connection->handle(report);  // may end the process
      return;
    default:  // refused, closed, or anything else
      return end(serial);
  }
}

void LDServiceListener::admitted(uint64_t serial, const LDKeeperReport& report) {
  Keeper& keeper = _keepers.at(serial);
  _runLoop.cancel(keeper.timer);
  keeper.lifetime = _runLoop.runAt(LDRunLoop::now() + _timing.connection, [this, serial] { end(serial); });
  if (report.recordable != 0 && _requirement && !_policy.verifiedExecutables.empty()) {
    if (const auto records = LDVerifiedExecutableRecords::open(_policy.verifiedExecutables, _anchors, *_requirement,
                                                               _policy.recordSettling)) {
      records->record(report.before, report.after);
    }
  }
  keeper.connection = std::make_unique<LDKeptConnection>(keeper.channel.fileDescriptor(), [this, serial] {
    // Not from inside the connection's own call: ended on the next turn of the loop.
    const auto found = _keepers.find(serial);
    if (found == _keepers.end() || found->second.ending) return;
    _runLoop.cancel(found->second.lifetime);
    found->second.lifetime = _runLoop.runAt(LDRunLoop::now(), [this, serial] { end(serial); });
  });
  if (!_delegate || !_delegate->listener(*this, *keeper.connection)) end(serial);
}

void LDServiceListener::end(uint64_t serial) {
  Keeper& keeper = _keepers.at(serial);
  if (keeper.ending) return;
  keeper.ending = true;
  if (keeper.connection) keeper.connection->close();
  _runLoop.cancel(keeper.timer);
  _runLoop.cancel(keeper.lifetime);
  _runLoop.unwatch(keeper.channel.fileDescriptor());
  keepUntilExit(std::move(keeper.channel));
  // The keeper holds the peer's socket; dying is how it lets go of it, its linger skipped.
  (void)_calls->pidfd_send_signal(keeper.pidfd.fileDescriptor(), SIGKILL);
  // Still there then: SIGKILL did not end it, so no admission can be relied on to end.
  keeper.timer = _runLoop.runAt(LDRunLoop::now() + _timing.killedKeeper, [this] { windDown(); });
}

void LDServiceListener::exited(uint64_t serial) {
  const auto found = _keepers.find(serial);
  if (found == _keepers.end()) return;
  if (!found->second.ending) end(serial);  // a keeper never exits by itself: its connection is over
  _runLoop.unwatch(found->second.pidfd.fileDescriptor());
  _runLoop.cancel(found->second.timer);
  // Destroyed on the next turn: this may run inside a call of its connection's.
  std::unique_ptr<LDKeptConnection> connection = std::move(found->second.connection);
  _keepers.erase(found);
  if (connection) _runLoop.runAt(LDRunLoop::now(), [kept = std::shared_ptr<LDKeptConnection>(std::move(connection))] {});
  updateAccepting();
  endIfAdmissionsCannotEnd();
}

// Once admissions cannot be relied on to end, the helper ends with the last connection.
void LDServiceListener::endIfAdmissionsCannotEnd() {
  if (!_windingDown || !_terminate) return;
  const bool connectionLeft = std::any_of(_keepers.begin(), _keepers.end(),
                                          [](const auto& entry) { return entry.second.connection && !entry.second.ending; });
  if (!connectionLeft) std::exchange(_terminate, nullptr)(1);
}

void LDServiceListener::updateAccepting() {
  if (_accepting && _acceptRetry == 0 && takesConnections()) _runLoop.modify(_socket.fileDescriptor(), EPOLLIN);
}

// --- In the keeper: examine the peer, then serve its connection for the monitor.

namespace {

void say(int channel, const LDKeeperReport& report) { (void)LDSendRecord(channel, report); }

void sayKind(int channel, LDKeeperReportKind kind) {
  LDKeeperReport report{};
  report.kind = kind;
  say(channel, report);
}

LDKeeperReport admittedReport(const LDPeerVerdict& verdict) {
  LDKeeperReport admitted{};
  admitted.kind = LDKeeperReportKind::admitted;
  admitted.executable = verdict.executable;
  admitted.hasGroup = verdict.applicationGroup ? 1 : 0;
  admitted.group = verdict.applicationGroup.value_or(0);
  if (verdict.verified) {
    admitted.recordable = 1;
    admitted.before = verdict.verified->before;
    admitted.after = verdict.verified->after;
  }
  return admitted;
}

// Serves the admitted peer's connection: its calls go up to the monitor, the monitor's orders
// come back as replies; returns when either side ends.
void serveAdmitted(LDKeeperStart& start, const LDPeerVerdict& verdict) {
  const int channel = start.channel.fileDescriptor();
  const int socket = start.socket.fileDescriptor();
  LDRunLoop loop;
  LDAdmittedPeer peer;
  peer.pid = start.peer.pid;
  peer.uid = start.peer.uid;
  peer.pidfd = std::move(start.peer.pidfd);
  peer.processDirectory = std::move(start.peer.processDirectory);
  peer.verdict = verdict;
  // The connection closes a copy; the original stays with the keeper until it dies.
  LDHelperConnection connection(LDFileHandle(::fcntl(socket, F_DUPFD_CLOEXEC, 3)), std::move(peer), loop,
                                [&](LDHelperConnection&, const std::string&) {
                                  (void)::shutdown(socket, SHUT_RDWR);
                                  sayKind(channel, LDKeeperReportKind::closed);
                                  loop.stop();
                                });
  auto proxy = std::make_shared<MonitorProxy>(channel);
  connection.setExportedObject(proxy);
  connection.setMessageCheckBegins([channel] { sayKind(channel, LDKeeperReportKind::checking); });
  const bool watching = loop.watch(channel, EPOLLIN, [&](uint32_t) {
    for (;;) {
      LDKeeperOrder order{};
      std::vector<LDFileHandle> descriptors;
      bool ended = false;
      if (!LDReceiveRecord(channel, &order, &descriptors, &ended)) {
        if (ended) loop.stop();
        return;
      }
      if (order.kind == LDKeeperOrderKind::activate) {
        connection.activate();
      } else {
        proxy->answer(order, descriptors);
        // Runs once the reply has been handed to the kernel, even if the client reads it and
        // leaves at once: never, if the connection breaks first.
        connection.scheduleSendBarrierBlock([channel] { sayKind(channel, LDKeeperReportKind::written); });
      }
    }
  });
  if (watching) (void)loop.run();
}

}  // namespace

void LDServiceListener::serveInKeeper(LDKeeperStart& start) {
  const int channel = start.channel.fileDescriptor();
  const int socket = start.socket.fileDescriptor();
  if (!start.peer.pidfd.isValid()) {
    (void)::shutdown(socket, SHUT_RDWR);
    return sayKind(channel, LDKeeperReportKind::refused);
  }
  std::optional<LDPeerVerdict> verdict =
      _examination(socket, start.peer, start.acceptedAfter, [channel] { sayKind(channel, LDKeeperReportKind::inspected); });
  // A client speaks only after Hello; anything already waiting was sent before it.
  char probe;
  if (!verdict || ::recv(socket, &probe, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 || errno != EAGAIN) {
    (void)::shutdown(socket, SHUT_RDWR);  // the peer learns at once; nothing in flight is released
    return sayKind(channel, LDKeeperReportKind::refused);
  }
  say(channel, admittedReport(*verdict));
  serveAdmitted(start, *verdict);
}

bool LDListenerServiceDelegate::listener(LDServiceListener&, LDKeptConnection& shouldAcceptNewConnection) {
  shouldAcceptNewConnection.setExportedObject(_service);
  shouldAcceptNewConnection.activate();
  return true;
}
