#pragma once

// Proof that descriptors were closed: the set of open descriptors from /proc/self/fd.

#include <sys/socket.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "shared/file_handle.h"

namespace ldtest {

std::set<int> openDescriptors();

// The loopback address of the family at port, and its length.
socklen_t loopbackAddress(int family, uint16_t port, sockaddr_storage* storage);

// A socket of the given family and type bound to the loopback address at port, listening when
// asked, without close-on-exec (as a received descriptor may be). Reusing the address, as
// the listener pair does; IPv6 sockets are IPv6-only.
LDFileHandle loopbackSocket(int family, int type, uint16_t port, bool listening);

// A local seqpacket socket bound at path, also listening there for anyone, or connected to it.
enum class Seqpacket { bound, listening, connected };
LDFileHandle seqpacketSocket(const std::string& path, Seqpacket what);

// One packet with any number of descriptors (SCM_RIGHTS, none included), even more than a receiver
// makes room for. Returns 0 or the errno.
int sendPacketWithDescriptors(int socket, const std::string& bytes, const std::vector<int>& descriptors);

}  // namespace ldtest
