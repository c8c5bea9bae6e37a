#include "admission/peer_identity.h"

#include <fcntl.h>
#include <poll.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "admission/parser_sandbox.h"
#include "shared/pidfd.h"

namespace {

// Linux 6.5; absent from Debian 12's headers.
constexpr int kSoPeerPidfd = 77;

// A pidfd turns readable once its process has exited. Asked with poll, not with signal 0, which
// for another user's process would need CAP_KILL.
bool isAlive(int pidfd) {
  pollfd exited{pidfd, POLLIN, 0};
  return ::poll(&exited, 1, 0) == 0;
}

// The peer's pidfd from the socket itself, or else one opened by its pid (*fromSocket false), which
// names the right process only if that process had started by the accept: LDExaminePeer checks.
LDFileHandle peerPidfd(int socket, pid_t pid, bool usePeerPidfd, bool* fromSocket) {
  if (usePeerPidfd) {
    int pidfd = -1;
    socklen_t length = sizeof pidfd;
    *fromSocket = ::getsockopt(socket, SOL_SOCKET, kSoPeerPidfd, &pidfd, &length) == 0 && pidfd >= 0;
    if (*fromSocket) return LDFileHandle(pidfd);
  }
  *fromSocket = false;
  return LDFileHandle(LDOpenPidfd(pid));
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
  // Also implied by the group rule that follows (a split real and effective gid equal to the
  // file's group comes only from an exec of a set-group-ID file, or from root), but it is the
  // file's own word that its install is the protected one.
  if (requireSetGroupId && ((executable.mode & S_ISGID) == 0 || (executable.mode & S_IXGRP) == 0)) {
    return "the peer's executable is not set-group-ID";
  }
  return "";
}

}  // namespace

bool LDRefuseDescriptors(int socket) {
  constexpr int kSoPassRights = 83;  // Linux 6.16
  const int off = 0;
  return ::setsockopt(socket, SOL_SOCKET, kSoPassRights, &off, sizeof off) == 0 || errno == ENOPROTOOPT;
}

uint64_t LDBootTimeTicks() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  const auto ticksPerSecond = static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));
  return static_cast<uint64_t>(now.tv_sec) * ticksPerSecond +
         static_cast<uint64_t>(now.tv_nsec) * ticksPerSecond / 1'000'000'000u;
}

std::optional<LDPinnedPeer> LDPinPeer(int socket, const LDAdmissionPolicy& policy, std::string* reason) {
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
  if (!LDRefuseDescriptors(socket)) {
    *reason = std::string("SO_PASSRIGHTS: ") + std::strerror(errno);
    return std::nullopt;
  }
  LDPinnedPeer peer;
  peer.pid = credentials.pid;
  peer.uid = credentials.uid;
  peer.gid = credentials.gid;
  const std::string directory = "/proc/" + std::to_string(credentials.pid);
  peer.processDirectory.reset(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  peer.pidfd = peerPidfd(socket, credentials.pid, policy.usePeerPidfd, &peer.pidfdFromSocket);
  if (!peer.processDirectory.isValid() || !peer.pidfd.isValid()) {
    *reason = "the peer process is gone";
    return std::nullopt;
  }
  return peer;
}

namespace {

// The cheap filter, from the one /proc file that no exec holds up: a process in secure execution
// connected with its effective gid, and its real gid is another. A process frozen inside an exec
// still has the credentials of the program that connected, so it fails here unless that program
// was itself running set-group-ID.
std::string connectedGroupProblem(const LDPinnedPeer& peer, const std::optional<LDProcessGroups>& groups) {
  if (!groups) return "the peer's groups cannot be read";
  if (groups->effective != peer.gid) return "the peer did not connect with its effective group";
  if (groups->real == groups->effective) return "the peer does not run set-group-ID";
  return "";
}

// The rest of what can be learnt without reading the executable, cheapest first.
std::string inspectionProblem(const LDPinnedPeer& peer, uint64_t acceptedAfter, const LDAdmissionPolicy& policy,
                              std::optional<LDExecutableFile>* executable) {
  const int process = peer.processDirectory.fileDescriptor();
  std::optional<LDProcessGroups> groups;
  if (policy.requireSecureExecution) {
    groups = LDReadProcessGroups(process);
    std::string problem = connectedGroupProblem(peer, groups);
    if (!problem.empty()) return problem;
  }
  if (!peer.pidfdFromSocket) {
    // Opened by pid after the accept: it names the peer only if that process had started by then.
    const std::optional<uint64_t> started = LDReadStartTime(process);
    if (!started || *started > acceptedAfter) return "the peer process could not be pinned down";
  }
  // A private user namespace could rewrite the process's exe link, mounts and credentials.
  if (!LDSharesInitialUserNamespace(process)) return "the peer runs in a user namespace of its own";
  // Also implied by the groups (only an exec into a set-group-ID file splits them, unless root
  // did it, and root needs no helper), but cheap and independent of them.
  if (policy.requireSecureExecution && LDReadSecureExecution(process) != true) {
    return "the peer was not started in secure-execution mode";
  }
  *executable = LDOpenExecutable(process);
  // Alive after /proc/<pid> and its exe were opened: both belong to the pidfd's process, not to a
  // later one that took the number.
  if (!*executable || !isAlive(peer.pidfd.fileDescriptor())) return "the peer's executable cannot be found";
  std::string problem = executableProblem(process, **executable, policy.requireSecureExecution);
  if (!problem.empty()) return problem;
  if (policy.requireSecureExecution) {
    if (peer.gid != (*executable)->group) return "the peer did not connect with its executable's group";
    problem = groupProblem(*groups, (*executable)->group);
    if (!problem.empty()) return problem;
  }
  if (LDCountDescriptors(process, policy.maximumDescriptors) > policy.maximumDescriptors) {
    return "the peer holds more descriptors than a client needs";  // before any costly check
  }
  return "";
}

// The costly checks: the signature, read through the very file inspected (unless a record says that
// this very version of it passed before), and the descriptor scan.
std::string verificationProblem(int socket, const LDPinnedPeer& peer, const LDExecutableFile& executable,
                                const LDRequirement& requirement, const LDTrustAnchors& anchors,
                                const LDAdmissionPolicy& policy, std::optional<LDVerifiedVersion>* verified) {
  // Opened for reading through the O_PATH descriptor, so it is the very file looked at above.
  const std::string reopen = "/proc/self/fd/" + std::to_string(executable.path.fileDescriptor());
  LDFileHandle contents(::open(reopen.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat opened {};
  if (!contents.isValid() || ::fstat(contents.fileDescriptor(), &opened) != 0 ||
      opened.st_dev != executable.device || opened.st_ino != executable.inode) {
    return "the peer's executable cannot be read";
  }
  const std::optional<LDVerifiedExecutableRecords> records =
      policy.verifiedExecutables.empty()
          ? std::nullopt
          : LDVerifiedExecutableRecords::open(policy.verifiedExecutables, anchors, requirement, policy.recordSettling);
  std::string detail;
  const int32_t status = LDCheckSignatureWithRecords(
      contents.fileDescriptor(), records ? &*records : nullptr,
      [&](int fd, std::string* why) { return LDCheckSignatureInSandbox(fd, requirement, anchors, why); }, &detail,
      verified);
  if (status != 0) return "signature (OSStatus " + std::to_string(status) + "): " + detail;
  // Last, as it is the costliest for a peer with many descriptors: a socket that crossed an exec
  // cannot be close-on-exec, so a connection made by one program cannot pass for one made by
  // the signed program it exec'd.
  const std::optional<ino_t> peerSocket = peerSocketInode(socket);
  const LDSocketCopies copies = peerSocket ? LDScanSocketCopies(peer.processDirectory.fileDescriptor(), *peerSocket,
                                                                policy.maximumDescriptors)
                                           : LDSocketCopies::unreadable;
  if (copies == LDSocketCopies::tooManyDescriptors) return "the peer holds more descriptors than a client needs";
  if (copies != LDSocketCopies::allCloseOnExec) {
    return "the peer's end of the connection is not close-on-exec, so it may predate the program now running";
  }
  return "";
}

}  // namespace

std::optional<LDPeerVerdict> LDExaminePeer(int socket, const LDPinnedPeer& peer, uint64_t acceptedAfter,
                                           const LDRequirement& requirement, const LDTrustAnchors& anchors,
                                           const LDAdmissionPolicy& policy, std::string* reason,
                                           const std::function<void()>& inspected) {
  std::optional<LDExecutableFile> executable;
  *reason = inspectionProblem(peer, acceptedAfter, policy, &executable);
  if (!reason->empty()) return std::nullopt;
  if (inspected) inspected();
  LDPeerVerdict verdict;
  *reason = verificationProblem(socket, peer, *executable, requirement, anchors, policy, &verdict.verified);
  if (!reason->empty()) return std::nullopt;
  verdict.executable = executable->identity();
  if (policy.requireSecureExecution) verdict.applicationGroup = executable->group;
  return verdict;
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
  if (!LDRunsExecutable(process, peer.verdict.executable)) {
    *reason = "the admitted process no longer runs the verified executable";
    return false;
  }
  if (peer.verdict.applicationGroup) {
    const std::optional<LDProcessGroups> groups = LDReadProcessGroups(process);
    const std::string problem =
        groups ? groupProblem(*groups, *peer.verdict.applicationGroup) : "its groups cannot be read";
    if (!problem.empty()) {
      *reason = "the admitted process changed: " + problem;
      return false;
    }
  }
  return true;
}
