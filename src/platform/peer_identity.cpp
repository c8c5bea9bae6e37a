#include "platform/peer_identity.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace {

// Linux 6.5; absent from Debian 12's headers.
constexpr int kSoPeerPidfd = 77;

// Debian 12's <sys/pidfd.h> declares these without C linkage, so they are called directly.
int openPidfd(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0u)); }

bool isAlive(int pidfd) {
  return ::syscall(SYS_pidfd_send_signal, pidfd, 0, nullptr, 0u) == 0;
}

// Field 22 of /proc/<pid>/stat: the start time in clock ticks since boot.
std::optional<unsigned long long> startTime(int processDirectory) {
  LDFileHandle stat(::openat(processDirectory, "stat", O_RDONLY | O_CLOEXEC));
  if (!stat.isValid()) return std::nullopt;
  char buffer[1024];
  const ssize_t got = ::read(stat.fileDescriptor(), buffer, sizeof buffer - 1);
  if (got <= 0) return std::nullopt;
  buffer[got] = '\0';
  // The command name (field 2) may hold spaces and parentheses: count from the last ')'.
  const char* after = std::strrchr(buffer, ')');
  if (after == nullptr) return std::nullopt;
  std::istringstream fields(after + 1);
  std::string field;
  for (int index = 3; index <= 22; ++index) {
    if (!(fields >> field)) return std::nullopt;
  }
  char* end = nullptr;
  const unsigned long long ticks = std::strtoull(field.c_str(), &end, 10);
  if (end == field.c_str() || *end != '\0') return std::nullopt;
  return ticks;
}

std::optional<unsigned long long> ticksSinceBoot() {
  std::ifstream uptime("/proc/uptime");
  double seconds = 0;
  if (!(uptime >> seconds)) return std::nullopt;
  return static_cast<unsigned long long>(seconds * static_cast<double>(::sysconf(_SC_CLK_TCK)));
}

// The peer's pidfd from the socket itself; on kernels without SO_PEERPIDFD, one opened by pid,
// accepted only for a process that had started before now (so not a later one reusing the pid).
LDFileHandle peerPidfd(int socket, pid_t pid, int processDirectory, std::string* reason) {
  int pidfd = -1;
  socklen_t length = sizeof pidfd;
  if (::getsockopt(socket, SOL_SOCKET, kSoPeerPidfd, &pidfd, &length) == 0 && pidfd >= 0) {
    return LDFileHandle(pidfd);
  }
  LDFileHandle opened(openPidfd(pid));
  const auto started = startTime(processDirectory);
  const auto now = ticksSinceBoot();
  if (!opened.isValid() || !started || !now || *started > *now) {
    *reason = "the peer process could not be pinned down";
    return LDFileHandle();
  }
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

// Whether every descriptor of the process that names socket `inode` is close-on-exec, and there
// is at least one. A socket that crossed an exec cannot be: so a connection made by one program
// cannot be passed off as made by the signed program it exec'd.
bool holdsOnlyCloseOnExecCopies(int processDirectory, ino_t inode) {
  LDFileHandle descriptors(::openat(processDirectory, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptors.isValid()) return false;
  DIR* listing = ::fdopendir(descriptors.release());
  if (listing == nullptr) return false;
  const std::string wanted = "socket:[" + std::to_string(inode) + "]";
  bool found = false;
  bool allCloseOnExec = true;
  while (const dirent* entry = ::readdir(listing)) {
    if (entry->d_name[0] == '.') continue;
    char target[64];
    const ssize_t length = ::readlinkat(::dirfd(listing), entry->d_name, target, sizeof target - 1);
    if (length <= 0 || std::string_view(target, static_cast<size_t>(length)) != wanted) continue;
    found = true;
    const std::string info = "fdinfo/" + std::string(entry->d_name);
    LDFileHandle fdinfo(::openat(processDirectory, info.c_str(), O_RDONLY | O_CLOEXEC));
    char text[256] = {};
    const ssize_t got = fdinfo.isValid() ? ::read(fdinfo.fileDescriptor(), text, sizeof text - 1) : -1;
    const char* flags = got > 0 ? std::strstr(text, "flags:") : nullptr;
    const unsigned long value = flags ? std::strtoul(flags + 6, nullptr, 8) : 0;
    if (flags == nullptr || (value & O_CLOEXEC) == 0) allCloseOnExec = false;
  }
  ::closedir(listing);
  return found && allCloseOnExec;
}

}  // namespace

std::optional<LDAdmittedPeer> LDAdmitPeer(int socket, const LDRequirement& requirement,
                                          const LDTrustAnchors& anchors, std::string* reason) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
      credentials.pid <= 0) {
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
  peer.pidfd = peerPidfd(socket, credentials.pid, peer.processDirectory.fileDescriptor(), reason);
  if (!peer.pidfd.isValid()) return std::nullopt;

  LDFileHandle executable(::openat(peer.processDirectory.fileDescriptor(), "exe",
                                   O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  // Alive after /proc/<pid> and its exe were opened: both belong to the pidfd's process, not to a
  // later one that took the number.
  if (!executable.isValid() || !isAlive(peer.pidfd.fileDescriptor())) {
    *reason = "the peer's executable cannot be opened";
    return std::nullopt;
  }
  struct stat status {};
  if (::fstat(executable.fileDescriptor(), &status) != 0 || !S_ISREG(status.st_mode)) {
    *reason = "the peer's executable is not a regular file";
    return std::nullopt;
  }
  if (status.st_uid != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 || status.st_nlink == 0) {
    *reason = "the peer's executable must be owned by root, not writable by group or others, and "
              "still linked";
    return std::nullopt;
  }
  const std::optional<ino_t> peerSocket = peerSocketInode(socket);
  if (!peerSocket || !holdsOnlyCloseOnExecCopies(peer.processDirectory.fileDescriptor(), *peerSocket)) {
    *reason = "the peer's end of the connection is not close-on-exec, so it may predate the "
              "program now running";
    return std::nullopt;
  }
  std::string detail;
  const int32_t verified =
      LDCheckSignatureOfDescriptor(executable.fileDescriptor(), &requirement, anchors, &detail);
  if (verified != 0) {
    *reason = "signature (OSStatus " + std::to_string(verified) + "): " + detail;
    return std::nullopt;
  }
  peer.executableDevice = status.st_dev;
  peer.executableInode = status.st_ino;
  return peer;
}

bool LDPeerIsStillAdmitted(const LDAdmittedPeer& peer, pid_t senderPid, std::string* reason) {
  if (senderPid != peer.pid) {
    *reason = "a message came from process " + std::to_string(senderPid) + ", not the admitted " +
              std::to_string(peer.pid);
    return false;
  }
  if (!isAlive(peer.pidfd.fileDescriptor())) {
    *reason = "the admitted process is gone";
    return false;
  }
  struct stat status {};
  if (::fstatat(peer.processDirectory.fileDescriptor(), "exe", &status, 0) != 0 ||
      status.st_dev != peer.executableDevice || status.st_ino != peer.executableInode) {
    *reason = "the admitted process no longer runs the verified executable";
    return false;
  }
  return true;
}
