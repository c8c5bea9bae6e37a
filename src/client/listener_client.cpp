#include "client/listener_client.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>

#include "client/self_admission.h"
#include "platform/seqpacket.h"
#include "platform/socket_activation.h"
#include "protocol/wire.h"
#include "shared/loopback_listeners.h"
#include "shared/monotonic_clock.h"

namespace {

int64_t monotonicMilliseconds() { return LDMonotonicNanoseconds() / 1'000'000; }

// How an acquisition failed: the kind for the C interface, and the error that explains it.
struct Failure {
  LDClientFailure kind;
  LDError error;
};

Failure problem(LDClientFailure kind, const std::string& text) { return {kind, LDEndpointError(text)}; }

// Back to the real gid in all three places: a toolkit that refuses to run set-group-ID can start,
// and a process that goes on after a failed request keeps no group it was not given.
void giveUpApplicationGroup() {
  const gid_t real = ::getgid();
  (void)::setresgid(real, real, real);  // always permitted: real is one of our own gids
}

// The one owner of giving the group up: whatever way the acquisition ends, even by an exception
// such as std::bad_alloc, the group is gone before LDAcquireListeners returns.
struct ApplicationGroupGuard {
  ApplicationGroupGuard() = default;
  ApplicationGroupGuard(const ApplicationGroupGuard&) = delete;
  ApplicationGroupGuard& operator=(const ApplicationGroupGuard&) = delete;
  ~ApplicationGroupGuard() { giveUpApplicationGroup(); }
};

constexpr int kSoNetnsCookie = 71;  // Linux 5.14

std::optional<uint64_t> networkNamespaceCookie(int fd) {
  uint64_t cookie = 0;
  socklen_t length = sizeof cookie;
  if (::getsockopt(fd, SOL_SOCKET, kSoNetnsCookie, &cookie, &length) != 0 || length != sizeof cookie) {
    return std::nullopt;
  }
  return cookie;
}

// The listener is the expected one and lives in this process's network namespace: a helper
// impostor in a namespace of its own could otherwise hand over listeners nobody else reaches.
bool validateListener(int fd, const LDListenerEndpoint& expected, std::optional<uint64_t> ownNamespace,
                      std::optional<LDError>* invalid) {
  if (!LDLoopbackListeners::validateReceivedFileDescriptor(fd, expected, invalid)) return false;
  const std::optional<uint64_t> theirs = networkNamespaceCookie(fd);
  if (!theirs || theirs != ownNamespace) {
    *invalid = LDEndpointError("Received " + expected.description() + " belongs to another network namespace");
    return false;
  }
  return true;
}

std::string tooManyFiles() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  return "The kernel dropped descriptors from the helper's reply: this process has too many open "
         "files (RLIMIT_NOFILE is " + std::to_string(limit.rlim_cur) +
         "). Close descriptors or raise the limit, then try again.";
}

// One message from the helper within the deadline, with its descriptors owned.
struct Received {
  LDMessage message;
  std::vector<LDFileHandle> descriptors;
};

// What the client waits for, as its messages name it.
enum class Waiting { admission, listeners, acknowledgement };

std::string describe(Waiting waiting) {
  switch (waiting) {
    case Waiting::admission:
      return "waiting to be admitted";
    case Waiting::listeners:
      return "waiting for the listeners";
    case Waiting::acknowledgement:
      return "acknowledging the listeners";
  }
  return "";
}

std::optional<Received> receive(int fd, int64_t deadline, Waiting waiting, std::optional<Failure>* failed) {
  const std::string waitingFor = describe(waiting);
  for (;;) {
    const int64_t left = deadline - monotonicMilliseconds();
    pollfd entry{fd, POLLIN, 0};
    const int ready = left <= 0 ? 0 : ::poll(&entry, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      *failed = problem(LDClientFailure::timedOut, "The helper did not answer in time while " + waitingFor + ".");
      return std::nullopt;
    }
    LDReceivedPacket packet;
    int errorNumber = 0;
    switch (LDReceivePacket(fd, LDWireMaximumPacketSize, &packet, &errorNumber)) {
      case LDReceiveResult::wouldBlock:
        continue;
      case LDReceiveResult::packet: {
        std::optional<LDMessage> message = LDDecodeMessage(packet.bytes, packet.descriptors.size());
        if (!message) {
          *failed = problem(LDClientFailure::helperFailed,
                            "The helper sent a malformed message while " + waitingFor + ".");
          return std::nullopt;
        }
        return Received{std::move(*message), std::move(packet.descriptors)};
      }
      case LDReceiveResult::truncated:
        *failed = problem(LDClientFailure::systemError, tooManyFiles());
        return std::nullopt;
      default:
        // The self-check passed, so what is left is what a process cannot see of itself.
        *failed = waiting == Waiting::admission
                      ? problem(LDClientFailure::refused,
                                "The helper closed the connection while " + waitingFor +
                                    ". It refuses programs that are not signed as " +
                                    std::string(LDAppSigningIdentifier) +
                                    " by the same team as the helper, and programs that another process "
                                    "of the same user could steer.")
                      : problem(LDClientFailure::helperFailed, "The helper closed the connection while " +
                                                                   waitingFor + ".");
        return std::nullopt;
    }
  }
}

bool sendMessage(int fd, const LDMessage& message, std::optional<Failure>* failed) {
  const int errorNumber = LDSendPacket(fd, LDEncodeMessage(message), {}, false);
  if (errorNumber != 0) {
    *failed = Failure{LDClientFailure::systemError, LDSystemCallError("sendmsg(helper)", errorNumber)};
    return false;
  }
  return true;
}

Failure refusal(int64_t status, const std::optional<std::string>& message, uint16_t port) {
  const std::string detail = message.value_or("no message");
  switch (status) {
    case LDListenerTransferStatusUnsupportedVersion:
      return problem(LDClientFailure::helperFailed, "The helper speaks another protocol version (" + detail +
                                                        "): install the helper that came with this application.");
    case LDListenerTransferStatusBusy:
      return problem(LDClientFailure::busy, "Another program is taking the listeners from the helper right now (" +
                                                detail + "): try again in a moment.");
    case LDListenerTransferStatusAddressInUse:
      return problem(LDClientFailure::portInUse, "Port " + std::to_string(port) +
                                                     " on 127.0.0.1 or ::1 is already in use by another program (" +
                                                     detail + "): stop that program and try again.");
    case LDListenerTransferStatusBindFailed:
    case LDListenerTransferStatusDuplicationFailed:
      return problem(LDClientFailure::helperFailed, "The helper could not create the listeners (status " +
                                                        std::to_string(status) + ": " + detail + ").");
    case LDListenerTransferStatusTransferred:
    case LDListenerTransferStatusAcknowledged:
    case LDListenerTransferStatusRejected:
    case LDListenerTransferStatusInvalidAcknowledgement:
    default:
      return problem(LDClientFailure::helperFailed, "The helper answered the request with status " +
                                                        std::to_string(status) + ", which no request is answered with (" +
                                                        detail + ").");
  }
}

// The service socket belongs to the installed package's socket unit; any other path can only
// come from a helper started by hand under socket activation.
std::string howToStartTheHelper(const std::string& path) {
  const std::string byHand = "systemd-socket-activate --seqpacket -l " + path +
                             " HELPER, where HELPER is " LD_INSTALLED_HELPER
                             " as installed, or src/quillfern-local-domain-listener in a build tree";
  if (path != LDServiceSocketPath()) return "start a helper there, as root: " + byHand + ".";
  return "the helper's socket unit is not running. With the package installed, run as root: "
         "systemctl enable --now " + std::string(LDMachServiceName) + ".socket. From a source build, "
         "run as root: " + byHand + ".";
}

LDFileHandle connectToHelper(const std::string& path, std::optional<Failure>* failed) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  LDFileHandle socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!socket.isValid()) {
    *failed = Failure{LDClientFailure::systemError, LDSystemCallError("socket(AF_UNIX)", errno)};
    return socket;
  }
  if (::connect(socket.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return socket;
  const int errorNumber = errno;
  if (errorNumber == ENOENT) {
    *failed = problem(LDClientFailure::noHelper, "There is no helper socket at " + path + ": " + howToStartTheHelper(path));
  } else if (errorNumber == ECONNREFUSED) {
    *failed = problem(LDClientFailure::noHelper, "Nothing is listening at " + path +
                                                     " (a socket file left behind by a stopped listener): " +
                                                     howToStartTheHelper(path));
  } else if (errorNumber == EACCES) {
    *failed = problem(LDClientFailure::noHelper,
                      "This user may not connect to " + path + " (permission denied): the socket must be writable by "
                      "everyone (SocketMode=0666 in the socket unit; for a helper started by hand, as root: chmod 666 " +
                          path + ") and every directory above it searchable by this user.");
  } else {
    *failed = Failure{LDClientFailure::systemError, LDSystemCallError("connect(" + path + ")", errorNumber)};
  }
  return LDFileHandle();
}

int64_t deadlineAfter(double seconds) { return monotonicMilliseconds() + static_cast<int64_t>(std::ceil(seconds * 1000)); }

// The listeners and the token that the helper handed over for them.
struct Handoff {
  std::string token;
  LDAcquiredListeners listeners;
};

// Hello, then the request and its reply with both listeners.
std::optional<Handoff> requestListeners(int fd, const LDClientOptions& options, std::optional<Failure>* failed) {
  std::optional<Received> hello = receive(fd, deadlineAfter(options.activationTimeout), Waiting::admission, failed);
  if (!hello) return std::nullopt;
  if (!std::holds_alternative<LDHelloMessage>(hello->message)) {
    *failed = problem(LDClientFailure::helperFailed, "The helper did not greet this program as expected.");
    return std::nullopt;
  }
  if (!sendMessage(fd, LDRequestMessage{LDListenerProtocolVersion}, failed)) return std::nullopt;
  std::optional<Received> answer = receive(fd, deadlineAfter(options.activationTimeout), Waiting::listeners, failed);
  if (!answer) return std::nullopt;
  const auto* reply = std::get_if<LDRequestReplyMessage>(&answer->message);
  if (reply == nullptr) {
    *failed = problem(LDClientFailure::helperFailed, "The helper answered the request with the wrong message.");
    return std::nullopt;
  }
  if (reply->status != LDListenerTransferStatusTransferred) {
    *failed = refusal(reply->status, reply->message, options.port);
    return std::nullopt;
  }
  if (reply->handles != (LDWireHandleIPv4 | LDWireHandleIPv6) || !reply->token) {
    *failed = problem(LDClientFailure::helperFailed, "The helper's reply lacks a listener or the token.");
    return std::nullopt;
  }
  return Handoff{*reply->token, {std::move(answer->descriptors[0]), std::move(answer->descriptors[1])}};
}

// Checks both listeners, tells the helper whether they are accepted, and waits for its answer.
std::optional<LDAcquiredListeners> acknowledge(int fd, const LDClientOptions& options, Handoff handoff,
                                               std::optional<Failure>* failed) {
  LDAcquiredListeners& listeners = handoff.listeners;
  std::optional<LDError> invalid;
  const std::optional<uint64_t> own = networkNamespaceCookie(fd);
  const bool accepted =
      validateListener(listeners.ipv4.fileDescriptor(), LDListenerEndpoint(AF_INET, "127.0.0.1", options.port), own,
                       &invalid) &&
      validateListener(listeners.ipv6.fileDescriptor(), LDListenerEndpoint(AF_INET6, "::1", options.port), own,
                       &invalid);
  if (!accepted) {
    // Nothing that failed its checks stays open while the helper is told.
    listeners.ipv4.reset();
    listeners.ipv6.reset();
  }
  if (!sendMessage(fd, LDCompleteMessage{LDListenerProtocolVersion, handoff.token, accepted}, failed)) {
    return std::nullopt;
  }
  std::optional<Received> completed =
      receive(fd, deadlineAfter(options.acknowledgementReplyTimeout), Waiting::acknowledgement, failed);
  if (!completed) return std::nullopt;
  if (!accepted) {
    *failed = problem(LDClientFailure::invalidListeners,
                      "The listeners from the helper failed their checks: " + invalid->description());
    return std::nullopt;
  }
  const auto* done = std::get_if<LDCompleteReplyMessage>(&completed->message);
  if (done == nullptr || done->status != LDListenerTransferStatusAcknowledged) {
    *failed = problem(LDClientFailure::helperFailed,
                      "The helper did not accept the acknowledgement (" +
                          (done ? done->message.value_or("no message") : std::string("wrong message")) + ").");
    return std::nullopt;
  }
  return std::move(listeners);
}

std::optional<LDAcquiredListeners> acquire(const LDClientOptions& options, std::optional<Failure>* failed) {
  const std::string path = options.socketPath.empty() ? LDServiceSocketPath() : options.socketPath;
  if (path.size() >= sizeof sockaddr_un::sun_path) {
    *failed = problem(LDClientFailure::noHelper, "The helper's socket path is too long (" + std::to_string(path.size()) +
                                                     " bytes, where a socket's path holds at most " +
                                                     std::to_string(sizeof sockaddr_un::sun_path - 1) + "): " + path);
    return std::nullopt;
  }
  if (std::optional<std::string> refused = LDSelfAdmissionProblem(options.requireSecureExecution)) {
    *failed = problem(LDClientFailure::notAdmissible, *refused);
    return std::nullopt;
  }
  const LDFileHandle socket = connectToHelper(path, failed);
  if (!socket.isValid()) return std::nullopt;
  std::optional<Handoff> handoff = requestListeners(socket.fileDescriptor(), options, failed);
  if (!handoff) {
    // Only after a refusal: the diagnosis reads and hashes this program's whole executable.
    if ((*failed)->kind == LDClientFailure::refused && options.diagnoseRefusal) {
      *failed = problem(LDClientFailure::refused, options.diagnoseRefusal(path));
    }
    return std::nullopt;
  }
  return acknowledge(socket.fileDescriptor(), options, std::move(*handoff), failed);
}

}  // namespace

std::optional<LDAcquiredListeners> LDAcquireListeners(const LDClientOptions& options, LDErrorPlace error,
                                                      LDClientFailure* failure) {
  const ApplicationGroupGuard giveUpTheGroupOnReturn;
  std::optional<Failure> failed;
  std::optional<LDAcquiredListeners> listeners = acquire(options, &failed);
  if (!listeners) {
    if (error) *error = std::move(failed->error);
    if (failure) *failure = failed->kind;
  }
  return listeners;
}
