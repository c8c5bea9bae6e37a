#include "client/listener_client.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/auxv.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>

#include "platform/seqpacket.h"
#include "platform/socket_activation.h"
#include "platform/wire.h"
#include "shared/loopback_listeners.h"

namespace {

int64_t monotonicMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

LDError problem(const std::string& text) { return LDEndpointError(text); }

std::string ownExecutable() {
  char path[4096];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : "/path/to/application";
}

// The helper admits only a process that runs set-group-ID to its executable's group: nothing else
// of the same user can then trace it or take its descriptors. Said plainly, with the fix.
std::optional<LDError> secureExecutionProblem() {
  if (::getgid() != ::getegid() && ::getauxval(AT_SECURE) != 0) return std::nullopt;
  const std::string executable = ownExecutable();
  const std::string group = executable.substr(executable.rfind('/') + 1);
  return problem("This program must be installed set-group-ID to a group of its own before it can "
                 "receive the listeners (it runs with real gid " + std::to_string(::getgid()) +
                 " = effective gid " + std::to_string(::getegid()) + "). As root: groupadd --system " +
                 group + " && chown root:" + group + " " + executable + " && chmod 2755 " + executable +
                 ". Give that group no members, and do not start the program under no-new-privileges, "
                 "in a user namespace or a sandbox that cancels set-group-ID.");
}

// Back to the real gid in all three places: a toolkit that refuses to run set-group-ID can start.
void giveUpApplicationGroup() {
  const gid_t real = ::getgid();
  (void)::setresgid(real, real, real);  // always permitted: real is one of our own gids
}

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
    *invalid = problem("Received " + expected.description() + " belongs to another network namespace");
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
  std::optional<LDMessage> message;
  std::vector<LDFileHandle> descriptors;
};

std::optional<Received> receive(int fd, int64_t deadline, const std::string& waitingFor,
                                LDErrorPlace error) {
  for (;;) {
    const int64_t left = deadline - monotonicMilliseconds();
    pollfd entry{fd, POLLIN, 0};
    const int ready = left <= 0 ? 0 : ::poll(&entry, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      if (error) *error = problem("The helper did not answer in time while " + waitingFor + ".");
      return std::nullopt;
    }
    LDReceivedPacket packet;
    int errorNumber = 0;
    switch (LDReceivePacket(fd, LDWireMaximumPacketSize, &packet, &errorNumber)) {
      case LDReceiveResult::wouldBlock:
        continue;
      case LDReceiveResult::packet: {
        Received received{LDDecodeMessage(packet.bytes, packet.descriptors.size()),
                          std::move(packet.descriptors)};
        if (!received.message) {
          if (error) *error = problem("The helper sent a malformed message while " + waitingFor + ".");
          return std::nullopt;
        }
        return received;
      }
      case LDReceiveResult::truncated:
        if (error) *error = problem(tooManyFiles());
        return std::nullopt;
      default:
        if (error) {
          *error = problem("The helper closed the connection while " + waitingFor +
                           ". It refuses programs that are not signed as " +
                           std::string(LDAppSigningIdentifier) +
                           " by the same team as the helper, not installed root-owned and "
                           "set-group-ID to a group of their own, or not started as installed.");
        }
        return std::nullopt;
    }
  }
}

bool sendMessage(int fd, const LDMessage& message, LDErrorPlace error) {
  const int errorNumber = LDSendPacket(fd, LDEncodeMessage(message), {}, false);
  if (errorNumber != 0) {
    if (error) *error = LDSystemCallError("sendmsg(helper)", errorNumber);
    return false;
  }
  return true;
}

std::string adviceFor(int64_t status, const std::optional<std::string>& message, uint16_t port) {
  const std::string detail = message.value_or("no message");
  switch (status) {
    case 3:
      return "The helper speaks another protocol version (" + detail +
             "): install the helper that came with this application.";
    case 4:
      return "Another program is taking the listeners from the helper right now (" + detail +
             "): try again in a moment.";
    case 8:
      return "Port " + std::to_string(port) +
             " on 127.0.0.1 or ::1 is already in use by another program (" + detail +
             "): stop that program and try again.";
    default:
      return "The helper could not create the listeners (status " + std::to_string(status) +
             ": " + detail + ").";
  }
}

// The service socket belongs to the installed package's socket unit; any other path can only
// come from a helper started by hand under socket activation.
std::string howToStartTheHelper(const std::string& path) {
  const std::string byHand = "systemd-socket-activate --seqpacket -l " + path +
                             " /path/to/quillfern-local-domain-listener";
  if (path != LDServiceSocketPath()) return "start a helper there, as root: " + byHand + ".";
  return "the helper's socket unit is not running. With the package installed, run as root: "
         "systemctl enable --now " + std::string(LDMachServiceName) + ".socket. From a source build, "
         "run as root: " + byHand + ".";
}

}  // namespace

std::optional<LDAcquiredListeners> LDAcquireListeners(const LDClientOptions& options,
                                                      LDErrorPlace error) {
  if (options.requireSecureExecution) {
    if (std::optional<LDError> refused = secureExecutionProblem()) {
      if (error) *error = std::move(*refused);
      return std::nullopt;
    }
  }
  const std::string path = options.socketPath.empty() ? LDServiceSocketPath() : options.socketPath;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    if (error) *error = problem("The helper's socket path is too long: " + path);
    return std::nullopt;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  LDFileHandle socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!socket.isValid()) {
    if (error) *error = LDSystemCallError("socket(AF_UNIX)", errno);
    return std::nullopt;
  }
  if (::connect(socket.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    const int errorNumber = errno;
    if (error) {
      if (errorNumber == ENOENT) {
        *error = problem("There is no helper socket at " + path + ": " + howToStartTheHelper(path));
      } else if (errorNumber == ECONNREFUSED) {
        *error = problem("Nothing is listening at " + path +
                         " (a socket file left behind by a stopped listener): " + howToStartTheHelper(path));
      } else if (errorNumber == EACCES) {
        *error = problem("This user may not connect to " + path + " (permission denied).");
      } else {
        *error = LDSystemCallError("connect(" + path + ")", errorNumber);
      }
    }
    return std::nullopt;
  }

  const auto activation = static_cast<int64_t>(std::ceil(options.activationTimeout * 1000));
  const int64_t helloDeadline = monotonicMilliseconds() + activation;
  std::optional<Received> hello = receive(socket.fileDescriptor(), helloDeadline, "waiting to be admitted", error);
  if (!hello) return std::nullopt;
  if (!std::holds_alternative<LDHelloMessage>(*hello->message)) {
    if (error) *error = problem("The helper did not greet this program as expected.");
    return std::nullopt;
  }

  if (!sendMessage(socket.fileDescriptor(), LDRequestMessage{LDListenerProtocolVersion}, error)) {
    return std::nullopt;
  }
  std::optional<Received> answer = receive(socket.fileDescriptor(), monotonicMilliseconds() + activation,
                                           "waiting for the listeners", error);
  if (!answer) return std::nullopt;
  const auto* reply = std::get_if<LDRequestReplyMessage>(&*answer->message);
  if (reply == nullptr) {
    if (error) *error = problem("The helper answered the request with the wrong message.");
    return std::nullopt;
  }
  if (reply->status != 0) {
    if (error) *error = problem(adviceFor(reply->status, reply->message, options.port));
    return std::nullopt;
  }
  if (reply->handles != (LDWireHandleIPv4 | LDWireHandleIPv6) || !reply->token) {
    if (error) *error = problem("The helper's reply lacks a listener or the token.");
    return std::nullopt;
  }

  LDAcquiredListeners listeners{std::move(answer->descriptors[0]), std::move(answer->descriptors[1])};
  std::optional<LDError> invalid;
  const std::optional<uint64_t> own = networkNamespaceCookie(socket.fileDescriptor());
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
  if (!sendMessage(socket.fileDescriptor(),
                   LDCompleteMessage{LDListenerProtocolVersion, reply->token, accepted}, error)) {
    return std::nullopt;
  }
  const auto acknowledgement = static_cast<int64_t>(std::ceil(options.acknowledgementReplyTimeout * 1000));
  std::optional<Received> completed = receive(socket.fileDescriptor(), monotonicMilliseconds() + acknowledgement,
                                              "acknowledging the listeners", error);
  if (!completed) return std::nullopt;
  if (options.requireSecureExecution) giveUpApplicationGroup();
  if (!accepted) {
    if (error) *error = problem("The listeners from the helper failed their checks: " + invalid->description());
    return std::nullopt;
  }
  const auto* done = std::get_if<LDCompleteReplyMessage>(&*completed->message);
  if (done == nullptr || done->status != 1) {
    if (error) {
      *error = problem("The helper did not accept the acknowledgement (" +
                       (done ? done->message.value_or("no message") : std::string("wrong message")) + ").");
    }
    return std::nullopt;
  }
  return listeners;
}
