#pragma once

// A child process that examines one peer for the helper and that the helper can always end.
//
// A thread cannot be made to give up a read of a /proc file that waits on a peer frozen inside
// an exec: only the peer (or whoever freezes it) can end that wait. SIGKILL can, as the waits are
// killable. So each examination runs in a worker of its own, which keeps only the descriptors it
// needs, dies with the helper (PR_SET_PDEATHSIG), and reports over a pipe: one byte once it is
// past the checks that can wait on the peer, then its verdict.

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/peer_identity.h"
#include "shared/file_handle.h"

class LDAdmissionWorker {
 public:
  // The calls that start and end a worker, replaceable so that a test can make them fail.
  struct Calls {
    pid_t (*fork)();
    int (*kill)(int pidfd, int signal);  // pidfd_send_signal
  };
  static const Calls kSystemCalls;

  // Runs in the worker. `inspected` says that the checks that can wait on the peer are done.
  using Work = std::function<std::optional<LDPeerVerdict>(const std::function<void()>& inspected)>;

  // Forks a worker that keeps only the descriptors in `keep` and runs work. Nothing, with
  // *errorNumber, when no worker could be started.
  static std::optional<LDAdmissionWorker> start(const Work& work, const std::vector<int>& keep,
                                                const Calls& calls, int* errorNumber);

  LDAdmissionWorker(LDAdmissionWorker&& other) noexcept;
  LDAdmissionWorker& operator=(LDAdmissionWorker&&) = delete;
  // A worker still running is killed; one that has exited is reaped.
  ~LDAdmissionWorker();

  // Readable once the worker has exited.
  int exitDescriptor() const { return _pidfd.fileDescriptor(); }
  // Whether the worker has said, by now, that it is past the checks that can wait on the peer.
  bool inspected();
  // Sends SIGKILL; false if that could not be sent.
  bool kill();
  // Once exitDescriptor() is readable: reaps the worker and returns its verdict, if it gave one.
  std::optional<LDPeerVerdict> finish();

 private:
  LDAdmissionWorker(pid_t pid, LDFileHandle pidfd, LDFileHandle report, const Calls& calls)
      : _pid(pid), _pidfd(std::move(pidfd)), _report(std::move(report)), _calls(&calls) {}
  void readReport();

  pid_t _pid = -1;  // -1 once reaped
  LDFileHandle _pidfd;
  LDFileHandle _report;  // the read end of the worker's pipe
  const Calls* _calls;
  std::string _received;
};
