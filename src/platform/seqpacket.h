#pragma once

// Sending and receiving one packet on an AF_UNIX SOCK_SEQPACKET socket, with descriptors.
// Received descriptors are owned before anything else is looked at, are close-on-exec from the
// moment they arrive, and are closed on every path that does not hand them on.

#include <sys/socket.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "shared/file_handle.h"

struct LDReceivedPacket {
  std::string bytes;
  std::vector<LDFileHandle> descriptors;  // from SCM_RIGHTS, in order
  std::optional<ucred> credentials;       // from SCM_CREDENTIALS, when SO_PASSCRED is on
};

enum class LDReceiveResult {
  packet,      // *packet holds one whole packet
  wouldBlock,  // nothing to read now (non-blocking socket)
  closed,      // the peer closed its end
  truncated,   // the packet or its control data did not fit: a protocol violation
  failed,      // recvmsg failed; *errorNumber says why
};

// maximumSize is the largest packet accepted; a larger one is reported as truncated.
// maximumDescriptors bounds the descriptors taken from a packet; with 0 the control buffer has room
// for credentials alone, so the kernel installs none of a peer's descriptors here (it drops them,
// and the packet is reported as truncated).
LDReceiveResult LDReceivePacket(int fd, size_t maximumSize, LDReceivedPacket* packet,
                                int* errorNumber, size_t maximumDescriptors = 8);

// Sends one packet with the descriptors (SCM_RIGHTS) in order. MSG_NOSIGNAL always; MSG_DONTWAIT
// when asked. Returns 0, or the errno (EAGAIN when a non-blocking send would block).
int LDSendPacket(int fd, std::string_view bytes, const std::vector<int>& descriptors,
                 bool dontWait);
