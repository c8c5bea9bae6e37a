#include "platform/admission_worker.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace {

int sendSignal(int pidfd, int signal) {
  return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0u));
}

constexpr char kInspected = 'i';
constexpr char kVerdict = 'v';

// The verdict as it crosses the pipe, between two copies of one program.
struct VerdictRecord {
  uint64_t mountId;
  uint64_t device;
  uint64_t inode;
  uint32_t group;
  uint8_t hasGroup;
};

void writeAll(int fd, const void* bytes, size_t length) {
  // At most a few dozen bytes into an empty pipe: one write, never a partial one.
  (void)!::write(fd, bytes, length);
}

// Closes every descriptor but those in keep.
void closeAllBut(std::vector<int> keep) {
  std::sort(keep.begin(), keep.end());
  unsigned next = 0;
  for (const int fd : keep) {
    if (fd < 0 || static_cast<unsigned>(fd) < next) continue;
    if (static_cast<unsigned>(fd) > next) (void)::close_range(next, static_cast<unsigned>(fd) - 1, 0);
    next = static_cast<unsigned>(fd) + 1;
  }
  (void)::close_range(next, UINT_MAX, 0);
}

[[noreturn]] void runWorker(const LDAdmissionWorker::Work& work, std::vector<int> keep, int report, pid_t helper) {
  // Dies with the helper: a worker must never outlive the process that would act on its verdict.
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != helper) ::_exit(1);
  keep.push_back(report);
  closeAllBut(std::move(keep));
  bool said = false;
  const std::function<void()> inspected = [&] {
    if (!std::exchange(said, true)) writeAll(report, &kInspected, 1);
  };
  const std::optional<LDPeerVerdict> verdict = work(inspected);
  if (verdict) {
    inspected();
    char message[1 + sizeof(VerdictRecord)] = {kVerdict};
    const VerdictRecord record{verdict->executable.mountId, verdict->executable.device, verdict->executable.inode,
                               verdict->applicationGroup.value_or(0), verdict->applicationGroup ? uint8_t{1} : uint8_t{0}};
    std::memcpy(message + 1, &record, sizeof record);
    writeAll(report, message, sizeof message);
  }
  ::_exit(0);  // no destructor, no atexit handler, no stdio flush of the helper's state
}

}  // namespace

const LDAdmissionWorker::Calls LDAdmissionWorker::kSystemCalls = {::fork, sendSignal};

std::optional<LDAdmissionWorker> LDAdmissionWorker::start(const Work& work, const std::vector<int>& keep,
                                                          const Calls& calls, int* errorNumber) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    *errorNumber = errno;
    return std::nullopt;
  }
  LDFileHandle reading(ends[0]), writing(ends[1]);
  const pid_t helper = ::getpid();
  const pid_t pid = calls.fork();
  if (pid < 0) {
    *errorNumber = errno;
    return std::nullopt;
  }
  if (pid == 0) runWorker(work, keep, writing.fileDescriptor(), helper);
  // Not yet reaped, so the number still names this child.
  LDFileHandle pidfd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0u)));
  if (!pidfd.isValid()) {
    *errorNumber = errno;
    (void)::kill(pid, SIGKILL);
    (void)::waitpid(pid, nullptr, 0);
    return std::nullopt;
  }
  return LDAdmissionWorker(pid, std::move(pidfd), std::move(reading), calls);
}

LDAdmissionWorker::LDAdmissionWorker(LDAdmissionWorker&& other) noexcept
    : _pid(std::exchange(other._pid, -1)),
      _pidfd(std::move(other._pidfd)),
      _report(std::move(other._report)),
      _calls(other._calls),
      _received(std::move(other._received)) {}

LDAdmissionWorker::~LDAdmissionWorker() {
  if (_pid <= 0) return;
  (void)kill();
  (void)::waitpid(_pid, nullptr, WNOHANG);  // one that does not die yet is reaped by init later
}

void LDAdmissionWorker::readReport() {
  char buffer[64];
  for (;;) {
    const ssize_t got = ::read(_report.fileDescriptor(), buffer, sizeof buffer);
    if (got <= 0 || _received.size() > 2 * sizeof buffer) return;
    _received.append(buffer, static_cast<size_t>(got));
  }
}

bool LDAdmissionWorker::inspected() {
  readReport();
  return !_received.empty() && _received[0] == kInspected;
}

bool LDAdmissionWorker::kill() { return _calls->kill(_pidfd.fileDescriptor(), SIGKILL) == 0; }

std::optional<LDPeerVerdict> LDAdmissionWorker::finish() {
  int status = 0;
  if (_pid > 0 && ::waitpid(_pid, &status, WNOHANG) == _pid) _pid = -1;
  readReport();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || _received.size() != 2 + sizeof(VerdictRecord) ||
      _received[0] != kInspected || _received[1] != kVerdict) {
    return std::nullopt;
  }
  VerdictRecord record;
  std::memcpy(&record, _received.data() + 2, sizeof record);
  LDPeerVerdict verdict;
  verdict.executable = {record.mountId, static_cast<dev_t>(record.device), static_cast<ino_t>(record.inode)};
  if (record.hasGroup != 0) verdict.applicationGroup = record.group;
  return verdict;
}
