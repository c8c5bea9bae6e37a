#pragma once

// The helper's service socket comes only from socket activation: systemd (or
// systemd-socket-activate) owns the path, so a helper never creates, replaces or leaves behind a
// socket file, and a second helper can never listen beside the first.

#include <optional>
#include <string>

#include "shared/file_handle.h"
#include "shared/system_calls.h"

// /run/<service name>.sock
std::string LDServiceSocketPath();

// The one line a helper prints when it was started by hand instead of by socket activation.
std::string LDNotSocketActivatedMessage();

// The activated socket (fd 3) if LISTEN_PID is this process and LISTEN_FDS is 1, checked to be a
// listening AF_UNIX SOCK_SEQPACKET socket and made close-on-exec and non-blocking; the LISTEN_*
// variables are removed either way. Nothing (and *activated false) when this process was not
// socket-activated; nothing and *error when it was, but the socket cannot be served.
std::optional<LDFileHandle> LDTakeActivatedSocket(bool* activated, std::string* error,
                                                  LDSystemCalls& calls = LDSystemCalls::real());

// Accepts and closes every connection already waiting on a listening socket (at most
// maximum). A helper that cannot serve calls this before it exits: systemd starts the service
// again as long as a connection waits, so each failed start must use the waiting ones up.
// Returns how many it closed.
size_t LDRefuseWaitingConnections(int socket, size_t maximum = 4096);
