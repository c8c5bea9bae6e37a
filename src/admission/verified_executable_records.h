#pragma once

// Records of executables that passed full verification, so that admitting the same unchanged file
// again costs a statx and a small read instead of hashing it and checking two signatures.
//
// A record names one version of one file by what a keyless user cannot forge for a file that
// root owns and nobody else may write: device, inode, mount, size, and modification, change and
// birth times to the nanosecond (no one but root can set a change time; every write, chmod or
// chown sets it to the present). It also holds a digest of what the verification was against:
// the trust anchors, the requirement and the helper program itself. Records live in one
// directory, owned by root with mode 0700, on a tmpfs (the service's RuntimeDirectory=), and are
// written whole or not at all. Any doubt (no directory, a record missing, different, torn, too
// large or not root's) means full verification; a record that cannot be written costs nothing
// but the next admission's hashing. docs/security.md has the argument.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "shared/file_handle.h"
#include "signing/code_signing.h"

struct LDFileTime {
  int64_t seconds = 0;
  uint32_t nanoseconds = 0;
  bool operator==(const LDFileTime&) const = default;
};

// What statx reports of an open file, as far as a record needs it.
struct LDFileVersion {
  uint64_t device = 0;
  uint64_t inode = 0;
  uint64_t mountId = 0;
  bool uniqueMountId = false;  // STATX_MNT_ID_UNIQUE (Linux 6.8): never given to another mount
  uint64_t size = 0;
  LDFileTime modified, changed, born;  // born: zero where the file system keeps no birth time
  uid_t owner = 0;
  mode_t mode = 0;
  bool operator==(const LDFileVersion&) const = default;
};


class LDVerifiedExecutableRecords {
 public:
  // Records kept at most; the oldest give way.
  static constexpr size_t kMaximumRecords = 64;

  // The records in directory for code verified against these anchors and requirement by this
  // very program. Nothing, and so full verification every time, when directory is not a
  // directory owned by root with mode 0700, or this program cannot name itself. A file changed
  // less than settling nanoseconds ago is not recorded (see record()).
  static std::optional<LDVerifiedExecutableRecords> open(const std::string& directory, const LDTrustAnchors& anchors,
                                                         const LDRequirement& requirement, int64_t settling);

  // Whether a record says that this version of a file passed full verification.
  bool holds(const LDFileVersion& version) const;

  // Records a file that has just passed full verification, read between `before` and `after`:
  // only when nothing changed meanwhile, the file is root's and nobody else may write it, and its
  // times have settled. Best effort.
  void record(const LDFileVersion& before, const LDFileVersion& after) const;

 private:
  LDVerifiedExecutableRecords(LDFileHandle directory, std::string trust, int64_t settling)
      : _directory(std::move(directory)), _trust(std::move(trust)), _settling(settling) {}
  std::string contentsFor(const LDFileVersion& version) const;
  bool settled(const LDFileVersion& version) const;
  bool makeRoom() const;

  LDFileHandle _directory;
  std::string _trust;  // SHA-256 of the anchors, the requirement and this program
  int64_t _settling;
};

// The file's version before and after a full verification that it passed: what record() takes.
struct LDVerifiedVersion {
  LDFileVersion before, after;
};

// check(fd, detail), unless records (which may be null) hold this version of the file, in which
// case *recalled becomes true and nothing is read. When check passes and records were given,
// *verified holds the version to record; whoever may write records does so (the helper's root
// process, not the one that ran the check).
using LDSignatureCheck = std::function<int32_t(int fd, std::string* detail)>;
int32_t LDCheckSignatureWithRecords(int fd, const LDVerifiedExecutableRecords* records, const LDSignatureCheck& check,
                                    std::string* detail, std::optional<LDVerifiedVersion>* verified,
                                    bool* recalled = nullptr);
