#pragma once

// Who is on the other end of an accepted AF_UNIX connection, proven by the code signature of the
// executable the peer process runs and by the secure execution it runs in, and kept proven for
// every later message.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/process_inspection.h"
#include "shared/file_handle.h"
#include "signing/code_signing.h"

struct LDAdmissionPolicy {
  // The peer must run set-group-ID to the group of its executable, with the real gid apart, so
  // that no other process of its user can trace it, read its memory or take its descriptors.
  bool requireSecureExecution = true;
  // SO_PEERPIDFD (Linux 6.5) names the peer process; without it, or when this is false, the
  // process is pinned by pid and start time instead.
  bool usePeerPidfd = true;
  // More descriptors than this in the peer and it is refused without looking further.
  size_t maximumDescriptors = 1024;
};

struct LDAdmittedPeer {
  pid_t pid = -1;
  uid_t uid = 0;
  LDFileHandle pidfd;             // names the process, not just its number
  LDFileHandle processDirectory;  // /proc/<pid> of that very process
  LDExecutableFile executable;    // the verified executable
  std::optional<gid_t> applicationGroup;  // the set-group-ID group, when secure execution is required
};

// CLOCK_BOOTTIME in clock ticks, the unit of a process's start time. Read it before accept: a
// process that started later cannot be the one that connected.
uint64_t LDBootTimeTicks();

// Admits the peer of the connected socket, or returns nothing and the reason in *reason. Checks
// run cheapest first; the executable is opened for reading only once it is known to be a
// root-owned file on a local file system (and, by policy, set-group-ID and running as such).
// Turns on SO_PASSCRED so that every later message names its sender. Reads nothing from the
// socket. acceptedAfter is an LDBootTimeTicks reading from before the accept.
std::optional<LDAdmittedPeer> LDAdmitPeer(int socket, uint64_t acceptedAfter, const LDRequirement& requirement,
                                          const LDTrustAnchors& anchors, const LDAdmissionPolicy& policy,
                                          std::string* reason);

// True while a message whose sender the kernel reported as senderPid comes from the admitted
// process, which still runs the verified executable with the same groups.
bool LDPeerIsStillAdmitted(const LDAdmittedPeer& peer, pid_t senderPid, std::string* reason);
