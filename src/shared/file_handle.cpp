#include "shared/file_handle.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

void LDCloseDescriptor(int fd) noexcept {
  const int savedErrno = errno;
  (void)::close(fd);
  errno = savedErrno;
}

bool LDPlaceDescriptorsForExec(const int* sources, const int* targets, int count) {
  // First copies above every target, so that placing one cannot overwrite another's source.
  constexpr int kMaximumPlaced = 8;
  if (count > kMaximumPlaced) {
    errno = EINVAL;
    return false;
  }
  int highest = 0;
  for (int i = 0; i < count; ++i) highest = targets[i] > highest ? targets[i] : highest;
  int copies[kMaximumPlaced];
  for (int i = 0; i < count; ++i) {
    copies[i] = ::fcntl(sources[i], F_DUPFD_CLOEXEC, highest + 1);
    if (copies[i] < 0) {
      for (int k = 0; k < i; ++k) LDCloseDescriptor(copies[k]);
      return false;
    }
  }
  bool placed = true;
  for (int i = 0; i < count && placed; ++i) {
    placed = ::dup2(copies[i], targets[i]) == targets[i];  // a different number: no close-on-exec
  }
  for (int i = 0; i < count; ++i) LDCloseDescriptor(copies[i]);
  return placed;
}
