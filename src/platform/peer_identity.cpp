#include "platform/peer_identity.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// Linux 6.5; absent from Debian 12's headers.
constexpr int kSoPeerPidfd = 77;

// Debian 12's <sys/pidfd.h> declares these without C linkage, so they are called directly.
int openPidfd(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0u)); }

bool isAlive(int pidfd) { return ::syscall(SYS_pidfd_send_signal, pidfd, 0, nullptr, 0u) == 0; }

// The peer's pidfd from the socket itself; otherwise one opened by pid, accepted only for a
// process that had started by the time the connection was accepted (so not a later one that
// reused the number).
LDFileHandle peerPidfd(int socket, pid_t pid, int processDirectory, uint64_t acceptedAfter, bool usePeerPidfd) {
  if (usePeerPidfd) {
    int pidfd = -1;
    socklen_t length = sizeof pidfd;
    if (::getsockopt(socket, SOL_SOCKET, kSoPeerPidfd, &pidfd, &length) == 0 && pidfd >= 0) {
      return LDFileHandle(pidfd);
    }
  }
  LDFileHandle opened(openPidfd(pid));
  const std::optional<uint64_t> started = LDReadStartTime(processDirectory);
  if (!opened.isValid() || !started || *started > acceptedAfter) return LDFileHandle();
  return opened;
}

// The inode of the other end of a connected AF_UNIX socket, asked of the kernel's sock_diag.
std::optional<ino_t> peerSocketInode(int socket) {
  struct stat own {};
  if (::fstat(socket, &own) != 0) return std::nullopt;
  LDFileHandle netlink(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (!netlink.isValid()) return std::nullopt;
  struct {
    nlmsghdr header;
    unix_diag_req request;
  } query{};
  query.header.nlmsg_len = sizeof query;
  query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  query.header.nlmsg_flags = NLM_F_REQUEST;
  query.request.sdiag_family = AF_UNIX;
  query.request.udiag_states = ~0u;
  query.request.udiag_ino = static_cast<unsigned>(own.st_ino);
  query.request.udiag_show = UDIAG_SHOW_PEER;
  query.request.udiag_cookie[0] = query.request.udiag_cookie[1] = ~0u;  // no cookie to match
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(netlink.fileDescriptor(), &query, sizeof query, 0, reinterpret_cast<sockaddr*>(&kernel),
               sizeof kernel) != static_cast<ssize_t>(sizeof query)) {
    return std::nullopt;
  }
  alignas(nlmsghdr) char answer[8192];
  const ssize_t got = ::recv(netlink.fileDescriptor(), answer, sizeof answer, 0);
  if (got < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(unix_diag_msg)))) return std::nullopt;
  const auto* header = reinterpret_cast<const nlmsghdr*>(answer);
  if (!NLMSG_OK(header, static_cast<unsigned>(got)) || header->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
    return std::nullopt;
  }
  // Attributes follow the message, each a 4-byte-aligned {u16 length, u16 type, payload}.
  size_t offset = NLMSG_LENGTH(sizeof(unix_diag_msg));
  const size_t end = std::min<size_t>(header->nlmsg_len, static_cast<size_t>(got));
  while (offset + sizeof(rtattr) <= end) {
    rtattr attribute;
    std::memcpy(&attribute, answer + offset, sizeof attribute);
    if (attribute.rta_len < sizeof(rtattr) || offset + attribute.rta_len > end) break;
    if (attribute.rta_type == UNIX_DIAG_PEER && attribute.rta_len >= sizeof(rtattr) + sizeof(uint32_t)) {
      uint32_t inode;
      std::memcpy(&inode, answer + offset + sizeof(rtattr), sizeof inode);
      return static_cast<ino_t>(inode);
    }
    offset += (attribute.rta_len + 3u) & ~size_t{3};
  }
  return std::nullopt;
}

// Why the groups do not show a process running set-group-ID to group, or empty. The kernel
// refuses same-user ptrace, pidfd_getfd, process_vm_* and /proc access to a process whose real
// gid differs from its effective gid; a member of the group could trace the exec and keep it.
std::string groupProblem(const LDProcessGroups& groups, gid_t group) {
  if (groups.effective != group || groups.saved != group || groups.fileSystem != group) {
    return "the peer does not run with its executable's group";
  }
  if (groups.real == group) return "the peer's real group is the application's group";
  if (std::find(groups.supplementary.begin(), groups.supplementary.end(), group) != groups.supplementary.end()) {
    return "the peer's user is a member of the application's group";
  }
  return "";
}

// The executable must be one that only root can have put there and changed, on a file system
// the kernel serves itself. Decided from the mount table and statx, without asking the file
// system anything.
std::string executableProblem(int processDirectory, const LDExecutableFile& executable, bool requireSetGroupId) {
  const std::optional<LDMount> mount = LDFindMount(processDirectory, executable.mountId);
  if (!mount) return "the mount of the peer's executable cannot be found";
  if (!LDIsLocalFileSystem(mount->fileSystemType)) {
    return "the peer's executable lies on a " + mount->fileSystemType + " file system";
  }
  if (mount->noSetId || makedev(mount->major, mount->minor) != executable.device) {
    return "the peer's executable lies on a nosuid or mismatched mount";
  }
  if (!S_ISREG(executable.mode) || executable.links == 0) return "the peer's executable is not a linked regular file";
  if (executable.owner != 0 || (executable.mode & (S_IWGRP | S_IWOTH)) != 0) {
    return "the peer's executable must be owned by root and not writable by group or others";
  }
  if (requireSetGroupId && ((executable.mode & S_ISGID) == 0 || (executable.mode & S_IXGRP) == 0)) {
    return "the peer's executable is not set-group-ID";
  }
  return "";
}

}  // namespace

uint64_t LDBootTimeTicks() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  const auto ticksPerSecond = static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));
  return static_cast<uint64_t>(now.tv_sec) * ticksPerSecond +
         static_cast<uint64_t>(now.tv_nsec) * ticksPerSecond / 1'000'000'000u;
}

std::optional<LDAdmittedPeer> LDAdmitPeer(int socket, uint64_t acceptedAfter, const LDRequirement& requirement,
                                          const LDTrustAnchors& anchors, const LDAdmissionPolicy& policy,
                                          std::string* reason) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 || credentials.pid <= 0) {
    *reason = "no peer credentials";
    return std::nullopt;
  }
  const int on = 1;
  if (::setsockopt(socket, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) {
    *reason = std::string("SO_PASSCRED: ") + std::strerror(errno);
    return std::nullopt;
  }
  LDAdmittedPeer peer;
  peer.pid = credentials.pid;
  peer.uid = credentials.uid;
  const std::string directory = "/proc/" + std::to_string(credentials.pid);
  peer.processDirectory.reset(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!peer.processDirectory.isValid()) {
    *reason = "the peer process is gone";
    return std::nullopt;
  }
  const int process = peer.processDirectory.fileDescriptor();
  peer.pidfd = peerPidfd(socket, credentials.pid, process, acceptedAfter, policy.usePeerPidfd);
  if (!peer.pidfd.isValid()) {
    *reason = "the peer process could not be pinned down";
    return std::nullopt;
  }
  // A private user namespace could rewrite the process's exe link, mounts and credentials.
  if (!LDSharesInitialUserNamespace(process)) {
    *reason = "the peer runs in a user namespace of its own";
    return std::nullopt;
  }
  if (policy.requireSecureExecution && LDReadSecureExecution(process) != true) {
    *reason = "the peer was not started in secure-execution mode";
    return std::nullopt;
  }
  std::optional<LDExecutableFile> executable = LDOpenExecutable(process);
  // Alive after /proc/<pid> and its exe were opened: both belong to the pidfd's process, not to a
  // later one that took the number.
  if (!executable || !isAlive(peer.pidfd.fileDescriptor())) {
    *reason = "the peer's executable cannot be found";
    return std::nullopt;
  }
  std::string problem = executableProblem(process, *executable, policy.requireSecureExecution);
  if (problem.empty() && policy.requireSecureExecution) {
    peer.applicationGroup = executable->group;
    if (credentials.gid != executable->group) {
      problem = "the peer did not connect with its executable's group";
    } else {
      const std::optional<LDProcessGroups> groups = LDReadProcessGroups(process);
      problem = groups ? groupProblem(*groups, executable->group) : "the peer's groups cannot be read";
    }
  }
  if (problem.empty() && LDCountDescriptors(process, policy.maximumDescriptors) > policy.maximumDescriptors) {
    problem = "the peer holds more descriptors than a client needs";  // before the costly checks
  }
  if (!problem.empty()) {
    *reason = problem;
    return std::nullopt;
  }
  // Opened for reading through the O_PATH descriptor, so it is the very file looked at above.
  const std::string reopen = "/proc/self/fd/" + std::to_string(executable->path.fileDescriptor());
  LDFileHandle contents(::open(reopen.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat opened {};
  if (!contents.isValid() || ::fstat(contents.fileDescriptor(), &opened) != 0 ||
      opened.st_dev != executable->device || opened.st_ino != executable->inode) {
    *reason = "the peer's executable cannot be read";
    return std::nullopt;
  }
  std::string detail;
  const int32_t verified = LDCheckSignatureOfDescriptor(contents.fileDescriptor(), &requirement, anchors, &detail);
  if (verified != 0) {
    *reason = "signature (OSStatus " + std::to_string(verified) + "): " + detail;
    return std::nullopt;
  }
  // Last, as it is the costliest for a peer with many descriptors: a socket that crossed an exec
  // cannot be close-on-exec, so a connection made by one program cannot pass for one made by
  // the signed program it exec'd.
  const std::optional<ino_t> peerSocket = peerSocketInode(socket);
  const LDSocketCopies copies =
      peerSocket ? LDScanSocketCopies(process, *peerSocket, policy.maximumDescriptors) : LDSocketCopies::unreadable;
  if (copies != LDSocketCopies::allCloseOnExec) {
    *reason = copies == LDSocketCopies::tooManyDescriptors
                  ? "the peer holds more descriptors than a client needs"
                  : "the peer's end of the connection is not close-on-exec, so it may predate the program now running";
    return std::nullopt;
  }
  peer.executable = std::move(*executable);
  return peer;
}

bool LDPeerIsStillAdmitted(const LDAdmittedPeer& peer, pid_t senderPid, std::string* reason) {
  if (senderPid != peer.pid) {
    *reason = "a message came from process " + std::to_string(senderPid) + ", not the admitted " +
              std::to_string(peer.pid);
    return false;
  }
  const int process = peer.processDirectory.fileDescriptor();
  if (!isAlive(peer.pidfd.fileDescriptor())) {
    *reason = "the admitted process is gone";
    return false;
  }
  if (!LDRunsExecutable(process, peer.executable)) {
    *reason = "the admitted process no longer runs the verified executable";
    return false;
  }
  if (peer.applicationGroup) {
    const std::optional<LDProcessGroups> groups = LDReadProcessGroups(process);
    const std::string problem = groups ? groupProblem(*groups, *peer.applicationGroup) : "its groups cannot be read";
    if (!problem.empty()) {
      *reason = "the admitted process changed: " + problem;
      return false;
    }
  }
  return true;
}
