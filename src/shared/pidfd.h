#pragma once

// Process descriptors: a pidfd names one process for as long as it is open, so a signal sent
// through it can never reach a later process that was given the same pid.
// Debian 12's <sys/pidfd.h> declares pidfd_open without C linkage, so these call the kernel
// directly.

#include <sys/types.h>

// A close-on-exec pidfd for pid, or -1 with errno.
int LDOpenPidfd(pid_t pid);

// Sends signal to the process of pidfd: 0, or -1 with errno.
int LDSendSignal(int pidfd, int signal);
