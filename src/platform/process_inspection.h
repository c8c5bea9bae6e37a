#pragma once

// What the kernel says about another process, read through a descriptor of its /proc/<pid>
// directory that was opened once and pinned, so that every answer is about the same process even
// if its number is reused. Nothing here follows a path that a user can redirect, and nothing
// here asks a file system server anything: the executable is looked at through an O_PATH
// descriptor and statx with AT_STATX_DONT_SYNC.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "shared/file_handle.h"

// The group ids from /proc/<pid>/status.
struct LDProcessGroups {
  gid_t real = 0;
  gid_t effective = 0;
  gid_t saved = 0;
  gid_t fileSystem = 0;
  std::vector<gid_t> supplementary;
};
std::optional<LDProcessGroups> LDReadProcessGroups(int processDirectory);

// AT_SECURE from /proc/<pid>/auxv: whether the kernel started the program in secure-execution
// mode (set-user-ID, set-group-ID or file capabilities took effect).
std::optional<bool> LDReadSecureExecution(int processDirectory);

// Whether the process lives in the system's initial user namespace, that of pid 1.
bool LDSharesInitialUserNamespace(int processDirectory);

// Field 22 of /proc/<pid>/stat: when the process started, in clock ticks of CLOCK_BOOTTIME.
std::optional<uint64_t> LDReadStartTime(int processDirectory);

// Which file a process runs: enough to tell, later, whether it still runs that very file.
struct LDExecutableIdentity {
  uint64_t mountId = 0;
  dev_t device = 0;
  ino_t inode = 0;
};

// The executable of the process as an O_PATH descriptor, and what statx reports of it without
// asking its file system to refresh anything.
struct LDExecutableFile {
  LDFileHandle path;  // O_PATH: cannot be read, costs the file system nothing
  uint64_t mountId = 0;
  dev_t device = 0;
  ino_t inode = 0;
  mode_t mode = 0;
  uid_t owner = 0;
  gid_t group = 0;
  uint32_t links = 0;
  LDExecutableIdentity identity() const { return {mountId, device, inode}; }
};
std::optional<LDExecutableFile> LDOpenExecutable(int processDirectory);

// Device, inode and mount of the executable now, for comparing with an earlier LDOpenExecutable.
bool LDRunsExecutable(int processDirectory, const LDExecutableIdentity& executable);

// The line of /proc/<pid>/mountinfo for a mount, as far as admission needs it.
struct LDMount {
  std::string fileSystemType;
  bool noSetId = false;  // mounted nosuid: set-user-ID and set-group-ID bits are ignored
  unsigned major = 0;
  unsigned minor = 0;
};
std::optional<LDMount> LDFindMount(int processDirectory, uint64_t mountId);

// File systems whose contents the kernel itself keeps: not FUSE, not a network file system.
bool LDIsLocalFileSystem(const std::string& type);

// The result of looking through a process's descriptors for copies of one socket.
enum class LDSocketCopies {
  allCloseOnExec,    // at least one copy, every copy close-on-exec
  notCloseOnExec,    // a copy that would survive an exec (the scan stopped there)
  none,              // no copy at all: the socket is not the process's own
  tooManyDescriptors,
  unreadable,
};
// How many descriptors the process holds, counting no further than limit + 1. Reads only the
// directory, no link: cheap enough to come before any costly check.
size_t LDCountDescriptors(int processDirectory, size_t limit);

// Scans at most maximumDescriptors entries of /proc/<pid>/fd.
LDSocketCopies LDScanSocketCopies(int processDirectory, ino_t socketInode, size_t maximumDescriptors);
