#include "admission/parser_sandbox.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

#include "shared/file_handle.h"
#include "signing/code_signature.h"

namespace {

#if defined(__x86_64__)
constexpr uint32_t kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
#else
#error "the parser's seccomp filter names no system calls for this architecture"
#endif

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define LD_SANITIZED_BUILD 1
#endif
#endif

// What verification needs: reading the file it was given and its size, hints to the page cache,
// memory for the allocator, one write of the verdict, and the ways out (exit_group; rt_sigreturn
// for a signal handler the C library may have). Numbers outside this list, other architectures
// and x32 numbers (bit 30) kill the process.
const std::vector<long>& allowedSystemCalls() {
  static const std::vector<long> allowed = {
      SYS_read, SYS_pread64, SYS_write, SYS_lseek, SYS_fstat, SYS_newfstatat, SYS_fadvise64,
      SYS_mmap, SYS_munmap, SYS_mremap, SYS_brk, SYS_madvise, SYS_mprotect,
      SYS_futex, SYS_exit, SYS_exit_group, SYS_rt_sigreturn,
#ifdef LD_SANITIZED_BUILD
      // Test builds only: the sanitizer runtimes take down their signal stack on the way out.
      SYS_sigaltstack,
#endif
  };
  return allowed;
}

bool installFilter() {
  std::vector<sock_filter> program = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
  };
  for (const long number : allowedSystemCalls()) {
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(number), 0, 1));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS));
  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  return ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter, 0, 0) == 0;
}

// Clearing the permitted and inheritable sets clears the ambient one with them (the kernel keeps
// ambient within both).
bool clearCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
  if (::syscall(SYS_capset, &header, none) != 0) return false;
  // Read back: a capset that a filter turned into a silent success must not pass for a drop.
  __user_cap_data_struct held[_LINUX_CAPABILITY_U32S_3] = {};
  if (::syscall(SYS_capget, &header, held) != 0) return false;
  for (const auto& word : held) {
    if (word.effective != 0 || word.permitted != 0 || word.inheritable != 0) return false;
  }
  return true;
}

// The verdict as it crosses the pipe: the status, then the detail, cut to fit one write.
struct Verdict {
  int32_t status;
  uint32_t length;
  char detail[480];
};

void writeVerdict(int fd, int32_t status, const std::string& detail) {
  Verdict verdict{status, static_cast<uint32_t>(std::min(detail.size(), sizeof Verdict::detail)), {}};
  std::memcpy(verdict.detail, detail.data(), verdict.length);
  (void)!::write(fd, &verdict, sizeof verdict);  // one write into an empty pipe: never partial
}

[[noreturn]] void runParser(int fd, int report, pid_t parent, const LDRequirement& requirement,
                            const LDTrustAnchors& anchors, const std::function<void()>& beforeReading) {
  std::string reason;
  // Dies with the process that waits for it; keeps the file, the pipe, and 0-2 as they are.
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) ::_exit(1);
  const int keep[] = {fd, report};
  if (!LDKeepOnlyDescriptors(-1, keep, 2) || !LDEnterParserSandbox(&reason)) ::_exit(1);
  if (beforeReading) beforeReading();
  std::string detail;
  const int32_t status = LDCheckSignatureOfDescriptor(fd, &requirement, anchors, &detail);
  writeVerdict(report, status, detail);
  ::_exit(0);
}

}  // namespace

bool LDEnterParserSandbox(std::string* reason) {
  if (!clearCapabilities()) {
    *reason = std::string("capabilities could not be dropped: ") + std::strerror(errno);
    return false;
  }
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
    *reason = std::string("prctl: ") + std::strerror(errno);
    return false;
  }
  if (!installFilter()) {
    *reason = std::string("the seccomp filter could not be installed: ") + std::strerror(errno);
    return false;
  }
  return true;
}

int32_t LDCheckSignatureInSandbox(int fd, const LDRequirement& requirement, const LDTrustAnchors& anchors,
                                  std::string* detail, const std::function<void()>& beforeReading) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    *detail = std::string("pipe: ") + std::strerror(errno);
    return errSecCSSignatureNotVerifiable;
  }
  LDFileHandle reading(ends[0]), writing(ends[1]);
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child < 0) {
    *detail = std::string("fork: ") + std::strerror(errno);
    return errSecCSSignatureNotVerifiable;
  }
  if (child == 0) runParser(fd, writing.fileDescriptor(), parent, requirement, anchors, beforeReading);
  writing.reset();
  Verdict verdict{};
  size_t got = 0;
  while (got < sizeof verdict) {
    const ssize_t now = ::read(reading.fileDescriptor(), reinterpret_cast<char*>(&verdict) + got, sizeof verdict - got);
    if (now < 0 && errno == EINTR) continue;
    if (now <= 0) break;
    got += static_cast<size_t>(now);
  }
  int waitStatus = 0;
  pid_t reaped;
  do {
    reaped = ::waitpid(child, &waitStatus, 0);
  } while (reaped < 0 && errno == EINTR);
  // Only a child that was reaped, exited 0 and wrote a whole verdict has one.
  if (reaped != child || !WIFEXITED(waitStatus) || WEXITSTATUS(waitStatus) != 0 || got != sizeof verdict ||
      verdict.length > sizeof verdict.detail) {
    *detail = reaped == child && WIFSIGNALED(waitStatus)
                  ? "the signature check was ended by signal " + std::to_string(WTERMSIG(waitStatus))
                  : std::string("the signature check ended without a verdict");
    return errSecCSSignatureNotVerifiable;
  }
  if (verdict.status != LDCodeSigningStatusOK) detail->assign(verdict.detail, verdict.length);
  return verdict.status;
}
