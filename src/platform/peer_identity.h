#pragma once

// Who is on the other end of an accepted AF_UNIX connection, proven by the code signature of the
// executable the peer process runs, and kept proven for every later message.

#include <sys/types.h>

#include <optional>
#include <string>

#include "shared/code_signing.h"
#include "shared/file_handle.h"

struct LDAdmittedPeer {
  pid_t pid = -1;
  uid_t uid = 0;
  LDFileHandle pidfd;             // names the process, not just its number
  LDFileHandle processDirectory;  // /proc/<pid> of that very process
  dev_t executableDevice = 0;     // the verified executable
  ino_t executableInode = 0;
};

// Admits the peer of the connected socket if the executable it runs is a root-owned regular file,
// not writable by group or others, still linked, whose signature satisfies requirement against
// anchors. Turns on SO_PASSCRED so that every later message names its sender. On refusal returns
// nothing and the reason in *reason. Reads nothing from the socket.
std::optional<LDAdmittedPeer> LDAdmitPeer(int socket, const LDRequirement& requirement,
                                          const LDTrustAnchors& anchors, std::string* reason);

// True while a message whose sender the kernel reported as senderPid comes from the admitted
// process, which still runs the verified executable.
bool LDPeerIsStillAdmitted(const LDAdmittedPeer& peer, pid_t senderPid, std::string* reason);
