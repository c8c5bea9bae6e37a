#pragma once

// Each accepted peer is kept by a child process of its own, its keeper, for the whole life of its
// connection, so that the helper's root process (the monitor) never waits on anything the peer
// controls:
// - the keeper, not the monitor, reads the peer's /proc files (some of which wait on an exec the
//   peer can freeze), opens its executable, and has the signature checked by a child that holds
//   no privilege (parser_sandbox.h);
// - the keeper alone receives from the peer's socket, and it drops its descriptors only by dying.
//   The last reference to a peer's socket, and to whatever is in flight on it (a TCP socket set to
//   linger for years, a file on the peer's own FUSE mount), is released as the keeper exits, when
//   the kernel skips a socket's linger; a release that still waits holds up only that keeper.
// - the monitor learns what the keeper saw as fixed-size reports and sends its replies as
//   fixed-size orders over a socket pair; it parses nothing the peer chose.
//
// Keepers are forked by a zygote that the monitor forks before it starts any thread, so that no
// keeper starts life with another thread's lock held. A keeper never exits by itself: the
// monitor ends it with SIGKILL once it has closed its own copies (see LDServiceListener).

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <type_traits>

#include "admission/peer_identity.h"
#include "admission/verified_executable_records.h"
#include "protocol/wire.h"
#include "shared/file_handle.h"
#include "shared/system_calls.h"

// Keeper -> monitor.
enum class LDKeeperReportKind : uint8_t {
  inspected = 1,  // past the checks that can wait on the peer's exec
  admitted,       // verdict below; Hello waits for the monitor's activate order
  refused,
  checking,  // a message arrived; the check of its sender has begun
  request,   // protocolVersion
  complete,  // protocolVersion, token, accepted
  written,   // the next reply ordered has been handed to the kernel (replies are written in order)
  closed,    // the connection is over (the peer left, or broke the protocol)
};

struct LDKeeperReport {
  LDKeeperReportKind kind{};
  uint8_t accepted = 0;
  uint8_t tokenPresent = 0;
  uint8_t hasGroup = 0;
  uint8_t recordable = 0;  // fully verified: the monitor may record before/after
  uint32_t group = 0;
  uint32_t tokenLength = 0;
  int64_t protocolVersion = 0;
  LDExecutableIdentity executable{};
  LDFileVersion before{}, after{};
  char token[LDWireMaximumStringSize] = {};
};

// Monitor -> keeper. A request reply carries the listeners it flags as SCM_RIGHTS.
enum class LDKeeperOrderKind : uint8_t { activate = 1, requestReply, completeReply };

struct LDKeeperOrder {
  LDKeeperOrderKind kind{};
  uint8_t handles = 0;
  uint8_t tokenPresent = 0;
  uint8_t messagePresent = 0;
  int32_t helperProcessIdentifier = 0;
  uint32_t tokenLength = 0;
  uint32_t messageLength = 0;
  int64_t protocolVersion = 0;
  int64_t status = 0;
  char token[LDWireMaximumStringSize] = {};
  char message[LDWireMaximumStringSize] = {};
};

static_assert(std::is_trivially_copyable_v<LDKeeperReport> && std::is_trivially_copyable_v<LDKeeperOrder>);

// Sends one record whole over a SOCK_SEQPACKET socket, never waiting; 0 or an errno value.
template <typename Record>
int LDSendRecord(int socket, const Record& record, const std::vector<int>& descriptors = {});
// Receives one record whole; false when there is none now, it is not exactly one record, or the
// socket is closed (*ended true for the last two).
bool LDReceiveRecord(int socket, LDKeeperReport* report, bool* ended);
bool LDReceiveRecord(int socket, LDKeeperOrder* order, std::vector<LDFileHandle>* descriptors, bool* ended);

// What a keeper starts with: the peer's connection and pin (no pidfd and /proc directory for a
// peer that could not be pinned: it is only to be refused), and its end of the channel.
struct LDKeeperStart {
  LDFileHandle socket;
  LDPinnedPeer peer;
  uint64_t acceptedAfter = 0;
  LDFileHandle channel;
};

// Runs in the keeper, which holds nothing else (0-2 on /dev/null). It must not return while the
// peer's socket may still matter; if it does, the keeper waits to be killed.
using LDKeeperMain = std::function<void(LDKeeperStart& start)>;

class LDKeeperZygote {
 public:
  struct Keeper {
    pid_t pid = -1;
    LDFileHandle pidfd;  // readable once the keeper has exited; the zygote reaps it
  };

  // Forks the zygote, which keeps only its channel and /dev/null. Call before any thread starts.
  // The zygote makes each keeper with calls.fork(), which a test may make fail.
  static std::optional<LDKeeperZygote> start(LDKeeperMain keeperMain, LDSystemCalls& calls, int* errorNumber);

  LDKeeperZygote(LDKeeperZygote&&) noexcept = default;
  LDKeeperZygote& operator=(LDKeeperZygote&&) noexcept = default;
  ~LDKeeperZygote();

  // Has the zygote fork a keeper with start's descriptors (copies: the caller keeps its own and
  // must not be the one to drop the socket's last reference once it has a keeper). Nothing when
  // the zygote could not, or did not answer within a second: it is then taken for dead.
  std::optional<Keeper> spawn(const LDKeeperStart& start);
  bool isAlive() const { return !_dead; }

 private:
  LDKeeperZygote(LDFileHandle channel, LDFileHandle pidfd) : _channel(std::move(channel)), _pidfd(std::move(pidfd)) {}
  LDFileHandle _channel;  // never closed while the monitor runs (see LDServiceListener::keepUntilExit)
  LDFileHandle _pidfd;
  bool _dead = false;
};

// For a keeper: blocks until SIGKILL comes. Its exit is what releases the peer's socket.
[[noreturn]] void LDAwaitKeeperEnd();
