#include "admission/peer_keeper.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "shared/pidfd.h"
#include "platform/seqpacket.h"

namespace {

// The zygote's request for one keeper: the pin's numbers; its descriptors travel as SCM_RIGHTS in
// this order: socket, channel, then, for a pinned peer, pidfd and /proc/<pid>.
struct SpawnRequest {
  uint64_t acceptedAfter;
  pid_t pid;
  uid_t uid;
  gid_t gid;
  uint8_t pidfdFromSocket;
  uint8_t pinned;
};
constexpr size_t kSpawnDescriptors = 4;

struct SpawnReply {
  pid_t pid;  // -1: no keeper
};

template <typename Record>
bool receiveExactly(int socket, Record* record, std::vector<LDFileHandle>* descriptors, size_t maximumDescriptors,
                    bool* ended) {
  LDReceivedPacket packet;
  int errorNumber = 0;
  *ended = false;
  switch (LDReceivePacket(socket, sizeof(Record), &packet, &errorNumber, maximumDescriptors)) {
    case LDReceiveResult::wouldBlock:
      return false;
    case LDReceiveResult::packet:
      break;
    default:
      *ended = true;
      return false;
  }
  if (packet.bytes.size() != sizeof(Record)) {
    *ended = true;
    return false;
  }
  std::memcpy(static_cast<void*>(record), packet.bytes.data(), sizeof(Record));
  if (descriptors) *descriptors = std::move(packet.descriptors);
  return true;
}

bool waitReadable(int socket, int milliseconds = -1) {
  pollfd readable{socket, POLLIN, 0};
  int ready;
  do {
    ready = ::poll(&readable, 1, milliseconds);
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

// In a new keeper: what the zygote received becomes the keeper's start; only it stays open.
[[noreturn]] void runKeeper(const SpawnRequest& request, std::vector<LDFileHandle>& descriptors, int nullDevice,
                            pid_t zygote, const LDKeeperMain& keeperMain) {
  LDKeeperStart start;
  start.socket = std::move(descriptors[0]);
  start.channel = std::move(descriptors[1]);
  start.peer.pid = request.pid;
  start.peer.uid = request.uid;
  start.peer.gid = request.gid;
  start.peer.pidfdFromSocket = request.pidfdFromSocket != 0;
  if (request.pinned != 0) {
    start.peer.pidfd = std::move(descriptors[2]);
    start.peer.processDirectory = std::move(descriptors[3]);
  }
  start.acceptedAfter = request.acceptedAfter;
  const int kept[] = {start.socket.fileDescriptor(), start.channel.fileDescriptor(),
                      start.peer.pidfd.fileDescriptor(), start.peer.processDirectory.fileDescriptor()};
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && ::getppid() == zygote && ::signal(SIGCHLD, SIG_DFL) != SIG_ERR &&
      LDKeepOnlyDescriptors(nullDevice, kept, request.pinned != 0 ? 4 : 2)) {
    keeperMain(start);
  }
  LDAwaitKeeperEnd();
}

[[noreturn]] void runZygote(int channel, int nullDevice, pid_t monitor, const LDKeeperMain& keeperMain,
                            LDSystemCalls& calls) {
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != monitor) ::_exit(1);
  const int keep[] = {channel};
  if (!LDKeepOnlyDescriptors(nullDevice, keep, 1)) ::_exit(1);
  // Keepers are reaped by the kernel as they exit; the monitor watches each through its pidfd.
  ::signal(SIGCHLD, SIG_IGN);
  const pid_t zygote = ::getpid();
  for (;;) {
    if (!waitReadable(channel)) ::_exit(1);
    SpawnRequest request{};
    std::vector<LDFileHandle> descriptors;
    bool ended = false;
    if (!receiveExactly(channel, &request, &descriptors, kSpawnDescriptors, &ended)) {
      if (ended) ::_exit(0);  // the monitor is gone, or broke the channel
      continue;
    }
    SpawnReply reply{-1};
    LDFileHandle pidfd;
    if (descriptors.size() == (request.pinned != 0 ? kSpawnDescriptors : 2)) {
      const pid_t keeper = calls.fork();
      if (keeper == 0) runKeeper(request, descriptors, nullDevice, zygote, keeperMain);
      // Never exits by itself, so the number still names it.
      if (keeper > 0) pidfd.reset(LDOpenPidfd(keeper));
      if (pidfd.isValid()) reply.pid = keeper;
      if (keeper > 0 && !pidfd.isValid()) (void)::kill(keeper, SIGKILL);
    }
    // The request's copies close here, after the keeper holds its own.
    descriptors.clear();
    std::vector<int> sent;
    if (pidfd.isValid()) sent.push_back(pidfd.fileDescriptor());
    if (LDSendRecord(channel, reply, sent) != 0) ::_exit(1);
  }
}

}  // namespace

template <typename Record>
int LDSendRecord(int socket, const Record& record, const std::vector<int>& descriptors) {
  return LDSendPacket(socket, std::string_view(reinterpret_cast<const char*>(&record), sizeof record), descriptors,
                      true);
}
template int LDSendRecord(int, const LDKeeperReport&, const std::vector<int>&);
template int LDSendRecord(int, const LDKeeperOrder&, const std::vector<int>&);
template int LDSendRecord(int, const SpawnReply&, const std::vector<int>&);
template int LDSendRecord(int, const SpawnRequest&, const std::vector<int>&);

bool LDReceiveRecord(int socket, LDKeeperReport* report, bool* ended) {
  return receiveExactly(socket, report, nullptr, 0, ended);
}

bool LDReceiveRecord(int socket, LDKeeperOrder* order, std::vector<LDFileHandle>* descriptors, bool* ended) {
  return receiveExactly(socket, order, descriptors, 2, ended);
}

void LDAwaitKeeperEnd() {
  for (;;) ::pause();
}

std::optional<LDKeeperZygote> LDKeeperZygote::start(LDKeeperMain keeperMain, LDSystemCalls& calls, int* errorNumber) {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
    *errorNumber = errno;
    return std::nullopt;
  }
  LDFileHandle monitorEnd(pair[0]), zygoteEnd(pair[1]);
  LDFileHandle nullDevice(::open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!nullDevice.isValid()) {
    *errorNumber = errno;
    return std::nullopt;
  }
  const pid_t monitor = ::getpid();
  const pid_t zygote = ::fork();
  if (zygote < 0) {
    *errorNumber = errno;
    return std::nullopt;
  }
  if (zygote == 0) runZygote(zygoteEnd.fileDescriptor(), nullDevice.fileDescriptor(), monitor, keeperMain, calls);
  LDFileHandle pidfd(LDOpenPidfd(zygote));
  if (!pidfd.isValid()) {
    *errorNumber = errno;
    (void)::kill(zygote, SIGKILL);
    return std::nullopt;  // it dies, unreaped until the monitor exits
  }
  return LDKeeperZygote(std::move(monitorEnd), std::move(pidfd));
}

LDKeeperZygote::~LDKeeperZygote() {
  if (!_pidfd.isValid()) return;
  (void)LDSendSignal(_pidfd.fileDescriptor(), SIGKILL);
  // Waiting for our own zygote, just sent SIGKILL: it holds nothing of a peer's.
  siginfo_t info{};
  constexpr idtype_t kPidfd = static_cast<idtype_t>(3);  // P_PIDFD, Linux 5.4
  (void)::waitid(kPidfd, static_cast<id_t>(_pidfd.fileDescriptor()), &info, WEXITED);
}

std::optional<LDKeeperZygote::Keeper> LDKeeperZygote::spawn(const LDKeeperStart& start) {
  if (_dead) return std::nullopt;
  const bool pinned = start.peer.pidfd.isValid() && start.peer.processDirectory.isValid();
  const SpawnRequest request{start.acceptedAfter, start.peer.pid, start.peer.uid, start.peer.gid,
                             start.peer.pidfdFromSocket ? uint8_t{1} : uint8_t{0}, pinned ? uint8_t{1} : uint8_t{0}};
  std::vector<int> descriptors = {start.socket.fileDescriptor(), start.channel.fileDescriptor()};
  if (pinned) {
    descriptors.push_back(start.peer.pidfd.fileDescriptor());
    descriptors.push_back(start.peer.processDirectory.fileDescriptor());
  }
  SpawnReply reply{-1};
  std::vector<LDFileHandle> received;
  bool ended = false;
  // The zygote is ours and answers at once (one fork); bounded all the same, as a fork under
  // memory pressure can take long.
  if (LDSendRecord(_channel.fileDescriptor(), request, descriptors) != 0 ||
      !waitReadable(_channel.fileDescriptor(), 1000) ||
      !receiveExactly(_channel.fileDescriptor(), &reply, &received, 1, &ended)) {
    _dead = true;  // a zygote that cannot be spoken to forks no more keepers
    return std::nullopt;
  }
  if (reply.pid <= 0 || received.size() != 1) return std::nullopt;
  return Keeper{reply.pid, std::move(received[0])};
}
