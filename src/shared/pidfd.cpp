#include "shared/pidfd.h"

#include <sys/syscall.h>
#include <unistd.h>

int LDOpenPidfd(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0u)); }

int LDSendSignal(int pidfd, int signal) {
  return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0u));
}
