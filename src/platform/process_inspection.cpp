#include "platform/process_inspection.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

#include "shared/directory_listing.h"

namespace {

// Reads a /proc file of the process whole, up to limit bytes; nothing if it is larger.
std::optional<std::string> readWhole(int processDirectory, const char* name, size_t limit) {
  LDFileHandle file(::openat(processDirectory, name, O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file.isValid()) return std::nullopt;
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t got = ::read(file.fileDescriptor(), buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    if (got == 0) return text;
    if (text.size() + static_cast<size_t>(got) > limit) return std::nullopt;
    text.append(buffer, static_cast<size_t>(got));
  }
}

template <typename Number>
bool parseNumber(std::string_view text, Number* value, int base = 10) {
  if (text.empty()) return false;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value, base);
  return error == std::errc() && end == text.data() + text.size();
}

// The whitespace-separated words of one line.
std::vector<std::string_view> words(std::string_view line) {
  std::vector<std::string_view> result;
  size_t at = 0;
  while (at < line.size()) {
    const size_t start = line.find_first_not_of(" \t", at);
    if (start == std::string_view::npos) break;
    const size_t end = std::min(line.find_first_of(" \t", start), line.size());
    result.push_back(line.substr(start, end - start));
    at = end;
  }
  return result;
}

// The rest of the line that starts with key (e.g. "Gid:"), or nothing.
std::optional<std::string_view> field(std::string_view text, std::string_view key) {
  size_t at = 0;
  while (at < text.size()) {
    const size_t end = std::min(text.find('\n', at), text.size());
    const std::string_view line = text.substr(at, end - at);
    if (line.substr(0, key.size()) == key) return line.substr(key.size());
    at = end + 1;
  }
  return std::nullopt;
}

}  // namespace

std::optional<LDProcessGroups> LDReadProcessGroups(int processDirectory) {
  // Groups: may list up to 65536 groups set by root; no user can make it larger.
  const std::optional<std::string> status = readWhole(processDirectory, "status", 1 << 20);
  if (!status) return std::nullopt;
  const auto gid = field(*status, "Gid:");
  const auto groups = field(*status, "Groups:");
  if (!gid || !groups) return std::nullopt;
  const std::vector<std::string_view> ids = words(*gid);
  LDProcessGroups result;
  if (ids.size() != 4 || !parseNumber(ids[0], &result.real) || !parseNumber(ids[1], &result.effective) ||
      !parseNumber(ids[2], &result.saved) || !parseNumber(ids[3], &result.fileSystem)) {
    return std::nullopt;
  }
  for (const std::string_view word : words(*groups)) {
    gid_t group = 0;
    if (!parseNumber(word, &group)) return std::nullopt;
    result.supplementary.push_back(group);
  }
  return result;
}

std::optional<bool> LDReadSecureExecution(int processDirectory) {
  const std::optional<std::string> auxv = readWhole(processDirectory, "auxv", 8192);
  if (!auxv) return std::nullopt;
  std::array<unsigned long, 2> entry{};
  for (size_t at = 0; at + sizeof entry <= auxv->size(); at += sizeof entry) {
    std::memcpy(entry.data(), auxv->data() + at, sizeof entry);
    if (entry[0] == AT_NULL) break;
    if (entry[0] == AT_SECURE) return entry[1] != 0;
  }
  return std::nullopt;
}

bool LDSharesInitialUserNamespace(int processDirectory) {
  // The kernel numbers the initial user namespace 0xEFFFFFFD (PROC_USER_INIT_INO) and never
  // gives that number to another one. It is read off the peer and matched against the helper's
  // own namespace file system, rather than against /proc/1, which some hosts hide even from root.
  constexpr ino_t kInitialUserNamespace = 0xEFFFFFFDu;
  struct stat peer {}, own {};
  return ::fstatat(processDirectory, "ns/user", &peer, 0) == 0 && ::stat("/proc/self/ns/user", &own) == 0 &&
         peer.st_dev == own.st_dev && peer.st_ino == kInitialUserNamespace;
}

std::optional<uint64_t> LDReadStartTime(int processDirectory) {
  const std::optional<std::string> stat = readWhole(processDirectory, "stat", 4096);
  if (!stat) return std::nullopt;
  // The command name (field 2) may hold spaces and parentheses: count from the last ')'.
  const size_t name = stat->rfind(')');
  if (name == std::string::npos) return std::nullopt;
  const std::vector<std::string_view> fields = words(std::string_view(*stat).substr(name + 1));
  uint64_t ticks = 0;
  // fields[0] is field 3.
  if (fields.size() < 20 || !parseNumber(fields[19], &ticks)) return std::nullopt;
  return ticks;
}

std::optional<LDExecutableFile> LDOpenExecutable(int processDirectory) {
  LDExecutableFile executable;
  executable.path.reset(::openat(processDirectory, "exe", O_PATH | O_CLOEXEC));
  if (!executable.path.isValid()) return std::nullopt;
  struct statx status {};
  if (::statx(executable.path.fileDescriptor(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC,
              STATX_BASIC_STATS | STATX_MNT_ID, &status) != 0 ||
      (status.stx_mask & STATX_MNT_ID) == 0) {
    return std::nullopt;
  }
  executable.mountId = status.stx_mnt_id;
  executable.device = makedev(status.stx_dev_major, status.stx_dev_minor);
  executable.inode = status.stx_ino;
  executable.mode = status.stx_mode;
  executable.owner = status.stx_uid;
  executable.group = status.stx_gid;
  executable.links = status.stx_nlink;
  return executable;
}

bool LDRunsExecutable(int processDirectory, const LDExecutableIdentity& executable) {
  struct statx status {};
  return ::statx(processDirectory, "exe", AT_STATX_DONT_SYNC, STATX_INO | STATX_MNT_ID, &status) == 0 &&
         (status.stx_mask & STATX_MNT_ID) != 0 && status.stx_mnt_id == executable.mountId &&
         makedev(status.stx_dev_major, status.stx_dev_minor) == executable.device &&
         status.stx_ino == executable.inode;
}

std::optional<LDMount> LDFindMount(int processDirectory, uint64_t mountId) {
  LDFileHandle file(::openat(processDirectory, "mountinfo", O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file.isValid()) return std::nullopt;
  // Line by line, so a long table costs reading it, not memory.
  std::string pending;
  char buffer[16384];
  for (;;) {
    const ssize_t got = ::read(file.fileDescriptor(), buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return std::nullopt;
    pending.append(buffer, static_cast<size_t>(got));
    size_t start = 0;
    for (size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
      // ID PARENT MAJOR:MINOR ROOT MOUNTPOINT OPTIONS [OPTIONAL...] - TYPE SOURCE SUPEROPTIONS
      const std::vector<std::string_view> fields = words(std::string_view(pending).substr(start, end - start));
      uint64_t id = 0;
      if (fields.size() < 10 || !parseNumber(fields[0], &id) || id != mountId) continue;
      size_t separator = 6;
      while (separator < fields.size() && fields[separator] != "-") ++separator;
      const size_t colon = fields[2].find(':');
      LDMount mount;
      if (separator + 1 >= fields.size() || colon == std::string_view::npos ||
          !parseNumber(fields[2].substr(0, colon), &mount.major) ||
          !parseNumber(fields[2].substr(colon + 1), &mount.minor)) {
        return std::nullopt;
      }
      mount.fileSystemType = std::string(fields[separator + 1]);
      for (size_t at = 0; at <= fields[5].size();) {
        const size_t comma = std::min(fields[5].find(',', at), fields[5].size());
        mount.noSetId = mount.noSetId || fields[5].substr(at, comma - at) == "nosuid";
        at = comma + 1;
      }
      return mount;
    }
    pending.erase(0, start);
    if (pending.size() > 65536) return std::nullopt;  // no mount line is that long
  }
}

bool LDIsLocalFileSystem(const std::string& type) {
  // A list of what is allowed rather than of what is not: a file system this list does not know
  // (a new network or user-space one) is refused until someone has looked at it.
  static constexpr std::string_view kLocal[] = {
      "ext2", "ext3", "ext4", "xfs", "btrfs", "f2fs", "jfs", "reiserfs", "nilfs2", "bcachefs",
      "zfs", "tmpfs", "ramfs", "overlay", "squashfs", "erofs", "iso9660", "vfat", "exfat",
  };
  for (const std::string_view local : kLocal) {
    if (type == local) return true;
  }
  return false;
}

size_t LDCountDescriptors(int processDirectory, size_t limit) {
  LDDirectoryListing descriptors(processDirectory, "fd");
  if (!descriptors.isValid()) return limit + 1;
  size_t count = 0;
  while (count <= limit && descriptors.next() != nullptr) ++count;
  return count;
}

LDSocketCopies LDScanSocketCopies(int processDirectory, ino_t socketInode, size_t maximumDescriptors) {
  LDDirectoryListing descriptors(processDirectory, "fd");
  if (!descriptors.isValid()) return LDSocketCopies::unreadable;
  const std::string wanted = "socket:[" + std::to_string(socketInode) + "]";
  size_t seen = 0;
  LDSocketCopies result = LDSocketCopies::none;
  while (const char* name = descriptors.next()) {
    if (++seen > maximumDescriptors) {
      result = LDSocketCopies::tooManyDescriptors;
      break;
    }
    char target[64];
    const ssize_t length = ::readlinkat(descriptors.fileDescriptor(), name, target, sizeof target);
    if (length <= 0 || std::string_view(target, static_cast<size_t>(length)) != wanted) continue;
    const std::string info = "fdinfo/" + std::string(name);
    const std::optional<std::string> text = readWhole(processDirectory, info.c_str(), 4096);
    const auto flags = text ? field(*text, "flags:") : std::nullopt;
    unsigned long value = 0;
    if (!flags || !parseNumber(words(*flags).empty() ? std::string_view() : words(*flags)[0], &value, 8) ||
        (value & O_CLOEXEC) == 0) {
      result = LDSocketCopies::notCloseOnExec;
      break;
    }
    result = LDSocketCopies::allCloseOnExec;
  }
  return result;
}
