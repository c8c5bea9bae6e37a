#pragma once

// Where the helper's service socket comes from: systemd socket activation when LISTEN_PID names
// this process, otherwise a socket the helper binds itself at the service path.

#include <optional>
#include <string>

#include "shared/file_handle.h"

// /run/<service name>.sock
std::string LDServiceSocketPath();

// The activated socket (fd 3) if LISTEN_PID is this process and LISTEN_FDS is 1, checked to be a
// listening AF_UNIX SOCK_SEQPACKET socket; the LISTEN_* variables are removed either way.
// Nothing (and *activated false) when this process was not socket-activated.
std::optional<LDFileHandle> LDTakeActivatedSocket(bool* activated, std::string* error);

// Binds and listens at path, mode 0666. A stale socket left there is replaced; anything else at
// the path, or a socket someone is listening on, is refused.
std::optional<LDFileHandle> LDBindServiceSocket(const std::string& path, std::string* error);
