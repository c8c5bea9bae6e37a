#pragma once

// Who is on the other end of an accepted AF_UNIX connection, proven by the code signature of the
// executable the peer process runs and by the secure execution it runs in, and kept proven for
// every later message.
//
// Admission has two halves. Pinning the peer (LDPinPeer) asks the kernel only what it answers at
// once. Examining it (LDExaminePeer) reads the peer's /proc files and its executable, and some of
// those reads wait for as long as the peer is inside an exec: a process that execs with a
// close-on-exec file of a FUSE server that never answers stays there, and with it every reader of
// its stat, exe, ns/user and auxv. So the examination runs in a worker process that the helper
// can kill (admission/peer_keeper.h).

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/process_inspection.h"
#include "admission/verified_executable_records.h"
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
  // The directory of records of verified executables (verified_executable_records.h); empty:
  // every admission verifies in full.
  std::string verifiedExecutables = {};
  // A file changed less recently than this is verified but not recorded.
  int64_t recordSettling = 3'000'000'000;
};

// The peer process as the kernel names it at the accept.
struct LDPinnedPeer {
  pid_t pid = -1;
  uid_t uid = 0;
  gid_t gid = 0;                    // the effective gid it connected with
  LDFileHandle pidfd;               // names the process, not just its number
  bool pidfdFromSocket = false;     // false: opened by pid, so the start time must be checked
  LDFileHandle processDirectory;    // /proc/<pid>
};

// What the examination proved: the executable the peer runs and, when secure execution is
// required, the group it runs with.
struct LDPeerVerdict {
  LDExecutableIdentity executable;
  std::optional<gid_t> applicationGroup;
  // Set when the signature was verified in full and records are kept: the version to record.
  std::optional<LDVerifiedVersion> verified;
};

struct LDAdmittedPeer {
  pid_t pid = -1;
  uid_t uid = 0;
  LDFileHandle pidfd;
  LDFileHandle processDirectory;  // /proc/<pid> of that very process
  LDPeerVerdict verdict;
};

// Turns SO_PASSRIGHTS off (Linux 6.16): a descriptor sent to this socket, or to a connection
// accepted from it later, is refused at the sender's sendmsg. True also on kernels without the
// option; there, descriptors already queued or sent later reach the socket, which is why only a
// keeper ever receives from a peer or drops its socket (peer_keeper.h).
bool LDRefuseDescriptors(int socket);

// CLOCK_BOOTTIME in clock ticks, the unit of a process's start time. Read it before accept: a
// process that started later cannot be the one that connected.
uint64_t LDBootTimeTicks();

// The peer's credentials, pidfd and /proc directory, SO_PASSCRED turned on so that every later
// message names its sender, and SO_PASSRIGHTS off. Nothing here waits on the peer. Nothing and *reason on failure.
std::optional<LDPinnedPeer> LDPinPeer(int socket, const LDAdmissionPolicy& policy, std::string* reason);

// Every check that reads the peer's /proc files or its executable, cheapest first: its groups
// (from /proc/<pid>/status, which no exec holds up), then the pin's start time, user namespace,
// secure execution, executable and mount, descriptor count; then, after `inspected`, the
// signature against the requirement and the close-on-exec scan of the peer's copies of socket.
// `inspected` is called once every check before the signature has passed, that is once no more
// waiting on the peer's exec is to be expected. The signature itself is read in a child without
// privileges (parser_sandbox.h) unless a record stands in for it. acceptedAfter is an
// LDBootTimeTicks reading from before the accept. Reads nothing from the socket.
std::optional<LDPeerVerdict> LDExaminePeer(int socket, const LDPinnedPeer& peer, uint64_t acceptedAfter,
                                           const LDRequirement& requirement, const LDTrustAnchors& anchors,
                                           const LDAdmissionPolicy& policy, std::string* reason,
                                           const std::function<void()>& inspected = {});

// True while a message whose sender the kernel reported as senderPid comes from the admitted
// process, which still runs the verified executable with the same groups.
bool LDPeerIsStillAdmitted(const LDAdmittedPeer& peer, pid_t senderPid, std::string* reason);
