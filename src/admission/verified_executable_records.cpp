#include "admission/verified_executable_records.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <time.h>
#include <unistd.h>

#include <nettle/sha2.h>

#include <algorithm>
#include <cerrno>
#include <tuple>
#include <utility>
#include <vector>

#include "shared/directory_listing.h"
#include "shared/hex.h"

namespace {

// Linux 6.8; absent from Debian 12's headers. Older kernels ignore the bit and report the mount id
// that a later mount may be given again.
constexpr unsigned kStatxMountIdUnique = 0x4000;

// The first bytes of every record; a new layout gets a new one.
constexpr std::string_view kMagic = "LDVREC1\n";

// Names are the hex SHA-256 of the record's contents: fixed in length, and one per key.
constexpr size_t kNameLength = 2 * SHA256_DIGEST_SIZE;

// A directory holding more entries than this holds more than records: nothing is added to it.
constexpr size_t kMaximumEntries = 4 * LDVerifiedExecutableRecords::kMaximumRecords;

template <typename Value>
void append(std::string& bytes, const Value& value) {
  bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

std::string sha256(std::string_view bytes) {
  sha256_ctx context;
  sha256_init(&context);
  sha256_update(&context, bytes.size(), reinterpret_cast<const uint8_t*>(bytes.data()));
  std::string digest(SHA256_DIGEST_SIZE, '\0');
  sha256_digest(&context, SHA256_DIGEST_SIZE, reinterpret_cast<uint8_t*>(digest.data()));
  return digest;
}

std::string nameOf(std::string_view contents) {
  const std::string digest = sha256(contents);
  return LDHex(reinterpret_cast<const uint8_t*>(digest.data()), digest.size());
}

bool isRecordName(const char* name) {
  return std::string_view(name).size() == kNameLength &&
         std::all_of(name, name + kNameLength, [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

LDFileTime fileTime(const statx_timestamp& time) { return {time.tv_sec, time.tv_nsec}; }

std::optional<LDFileVersion> versionAt(int directory, const char* path, int flags) {
  struct statx status {};
  if (::statx(directory, path, flags | AT_STATX_DONT_SYNC,
              STATX_BASIC_STATS | STATX_BTIME | STATX_MNT_ID | kStatxMountIdUnique, &status) != 0 ||
      (status.stx_mask & (STATX_MNT_ID | kStatxMountIdUnique)) == 0 ||
      (status.stx_mask & (STATX_MTIME | STATX_CTIME | STATX_SIZE)) != (STATX_MTIME | STATX_CTIME | STATX_SIZE)) {
    return std::nullopt;
  }
  LDFileVersion version;
  version.device = makedev(status.stx_dev_major, status.stx_dev_minor);
  version.inode = status.stx_ino;
  version.mountId = status.stx_mnt_id;
  version.uniqueMountId = (status.stx_mask & kStatxMountIdUnique) != 0;
  version.size = status.stx_size;
  version.modified = fileTime(status.stx_mtime);
  version.changed = fileTime(status.stx_ctime);
  if ((status.stx_mask & STATX_BTIME) != 0) version.born = fileTime(status.stx_btime);
  version.owner = status.stx_uid;
  version.mode = status.stx_mode;
  return version;
}

// Only root can have written such a file, and only root can change it; a user's own file could be
// changed and its times put back (all but the change time, which the key holds, but a user needs
// no key to be believed about a file they may rewrite at will).
bool recordable(const LDFileVersion& version) {
  return S_ISREG(version.mode) && version.owner == 0 && (version.mode & (S_IWGRP | S_IWOTH)) == 0;
}

// What the verification was against: the roots (each a whole DER certificate, so their
// concatenation is unambiguous), the requirement's clauses, and this program, so that a helper
// rebuilt with a changed verifier believes no record of the old one.
std::optional<std::string> trustOf(const LDTrustAnchors& anchors, const LDRequirement& requirement) {
  const std::optional<LDFileVersion> self = versionAt(AT_FDCWD, "/proc/self/exe", 0);
  if (!self) return std::nullopt;
  std::string bytes;
  for (const LDCertificate& anchor : anchors.certificates()) {
    bytes.append(reinterpret_cast<const char*>(anchor.encoding.data()), anchor.encoding.size());
  }
  append(bytes, static_cast<uint32_t>(requirement.clauses.size()));
  for (const LDRequirement::Clause& clause : requirement.clauses) {
    append(bytes, static_cast<uint8_t>(clause.kind));
    append(bytes, static_cast<uint32_t>(clause.value.size()));
    bytes += clause.value;
  }
  for (const uint64_t field : {self->device, self->inode, self->size, static_cast<uint64_t>(self->changed.seconds),
                               uint64_t{self->changed.nanoseconds}}) {
    append(bytes, field);
  }
  return sha256(bytes);
}

int64_t realTimeNow() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// Whether a file time lies at or before limit, in nanoseconds since the epoch, whatever time root
// gave the file (too far off to count in nanoseconds, too).
bool atOrBefore(const LDFileTime& time, int64_t limit) {
  const int64_t limitSeconds = limit / 1'000'000'000;
  if (time.seconds != limitSeconds) return time.seconds < limitSeconds;
  return time.nanoseconds <= limit % 1'000'000'000;
}

// The version of the file open as fd, read without asking its file system to refresh anything.
std::optional<LDFileVersion> readFileVersion(int fd) { return versionAt(fd, "", AT_EMPTY_PATH); }

}  // namespace

std::optional<LDVerifiedExecutableRecords> LDVerifiedExecutableRecords::open(const std::string& directory,
                                                                             const LDTrustAnchors& anchors,
                                                                             const LDRequirement& requirement,
                                                                             int64_t settling) {
  LDFileHandle opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!opened.isValid() || ::fstat(opened.fileDescriptor(), &status) != 0 || !S_ISDIR(status.st_mode) ||
      status.st_uid != 0 || (status.st_mode & 07777) != 0700) {
    return std::nullopt;
  }
  std::optional<std::string> trust = trustOf(anchors, requirement);
  if (!trust) return std::nullopt;
  return LDVerifiedExecutableRecords(std::move(opened), std::move(*trust), settling);
}

std::string LDVerifiedExecutableRecords::contentsFor(const LDFileVersion& version) const {
  std::string contents(kMagic);
  for (const uint64_t field : {version.device, version.inode, version.mountId, uint64_t{version.uniqueMountId},
                               version.size}) {
    append(contents, field);
  }
  for (const LDFileTime& time : {version.modified, version.changed, version.born}) {
    append(contents, time.seconds);
    append(contents, time.nanoseconds);
  }
  return contents + _trust;
}

bool LDVerifiedExecutableRecords::holds(const LDFileVersion& version) const {
  if (!recordable(version)) return false;
  const std::string expected = contentsFor(version);
  LDFileHandle file(::openat(_directory.fileDescriptor(), nameOf(expected).c_str(),
                             O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file.isValid() || ::fstat(file.fileDescriptor(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_uid != 0 || (status.st_mode & 077) != 0 || static_cast<size_t>(status.st_size) != expected.size()) {
    return false;
  }
  // One byte more than expected: a record that grew after the fstat is not read as a match.
  std::string contents(expected.size() + 1, '\0');
  const ssize_t got = ::pread(file.fileDescriptor(), contents.data(), contents.size(), 0);
  return got == static_cast<ssize_t>(expected.size()) && contents.compare(0, expected.size(), expected) == 0;
}

// A file can change again within the tick of its last change and keep the same times: the
// kernel stamps changes from a clock that advances in jiffies, and some file systems keep whole
// seconds, FAT two. A version recorded in that tick could then vouch for the next one (git calls
// such entries "racily clean"). So a file is recorded only once its times lie further back than
// any file system's granularity.
bool LDVerifiedExecutableRecords::settled(const LDFileVersion& version) const {
  const int64_t limit = realTimeNow() - _settling;
  return atOrBefore(version.modified, limit) && atOrBefore(version.changed, limit);
}

// Keeps fewer than kMaximumRecords records by removing the oldest. False, and nothing is to be
// added, when the directory cannot be read or holds far more than records.
bool LDVerifiedExecutableRecords::makeRoom() const {
  const int directory = _directory.fileDescriptor();
  LDDirectoryListing listing(directory, ".");
  if (!listing.isValid()) return false;
  std::vector<std::string> names;
  size_t entries = 0;
  while (const char* name = listing.next()) {
    if (++entries > kMaximumEntries) return false;
    if (isRecordName(name)) names.emplace_back(name);
  }
  if (names.size() < kMaximumRecords) return true;
  std::vector<std::tuple<int64_t, uint32_t, std::string>> byAge;
  for (std::string& name : names) {
    struct statx status {};
    if (::statx(directory, name.c_str(), AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC, STATX_MTIME, &status) == 0) {
      byAge.emplace_back(status.stx_mtime.tv_sec, status.stx_mtime.tv_nsec, std::move(name));
    }
  }
  std::sort(byAge.begin(), byAge.end());
  const size_t excess = byAge.size() >= kMaximumRecords ? byAge.size() - kMaximumRecords + 1 : 0;
  for (size_t i = 0; i < excess; ++i) (void)::unlinkat(directory, std::get<2>(byAge[i]).c_str(), 0);
  return true;
}

void LDVerifiedExecutableRecords::record(const LDFileVersion& before, const LDFileVersion& after) const {
  if (before != after || !recordable(before) || !settled(before) || !makeRoom()) return;
  const std::string contents = contentsFor(before);
  const std::string name = nameOf(contents);
  const int directory = _directory.fileDescriptor();
  // Unnamed until complete: a worker killed while writing leaves nothing behind, let alone a
  // torn record.
  LDFileHandle file(::openat(directory, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
  if (!file.isValid() ||
      ::write(file.fileDescriptor(), contents.data(), contents.size()) != static_cast<ssize_t>(contents.size())) {
    return;
  }
  // linkat with AT_EMPTY_PATH would need CAP_DAC_READ_SEARCH; the descriptor's /proc link does not.
  const std::string link = "/proc/self/fd/" + std::to_string(file.fileDescriptor());
  const auto linkRecord = [&] {
    return ::linkat(AT_FDCWD, link.c_str(), directory, name.c_str(), AT_SYMLINK_FOLLOW) == 0 ? 0 : errno;
  };
  // A record of that name that did not match is replaced; one that another worker has just
  // written holds the same bytes.
  if (linkRecord() == EEXIST && ::unlinkat(directory, name.c_str(), 0) == 0) (void)linkRecord();
}

int32_t LDCheckSignatureWithRecords(int fd, const LDVerifiedExecutableRecords* records, const LDSignatureCheck& check,
                                    std::string* detail, std::optional<LDVerifiedVersion>* verified,
                                    bool* recalled) {
  const std::optional<LDFileVersion> before = records ? readFileVersion(fd) : std::nullopt;
  if (before && records->holds(*before)) {
    if (recalled) *recalled = true;
    return LDCodeSigningStatusOK;
  }
  const int32_t status = check(fd, detail);
  if (status == LDCodeSigningStatusOK && before) {
    if (const std::optional<LDFileVersion> after = readFileVersion(fd)) *verified = LDVerifiedVersion{*before, *after};
  }
  return status;
}
