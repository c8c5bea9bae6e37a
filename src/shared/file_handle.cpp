#include "shared/file_handle.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <vector>

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
  LDFileHandle copies[kMaximumPlaced];  // no allocation: callers may have just forked
  for (int i = 0; i < count; ++i) {
    copies[i].reset(::fcntl(sources[i], F_DUPFD_CLOEXEC, highest + 1));
    if (!copies[i].isValid()) return false;
  }
  for (int i = 0; i < count; ++i) {
    // A different number: the target is not close-on-exec.
    if (::dup2(copies[i].fileDescriptor(), targets[i]) < 0) return false;
  }
  return true;  // the copies close here, errno kept
}

bool LDKeepOnlyDescriptors(int nullDevice, const int* keep, int count) {
  constexpr int kMaximumKept = 8;
  if (count > kMaximumKept) return false;
  for (int standard = 0; standard <= 2 && nullDevice >= 0; ++standard) {
    // A kept descriptor with a standard number would be overwritten.
    if (std::find(keep, keep + count, standard) != keep + count) return false;
    if (standard != nullDevice && ::dup2(nullDevice, standard) != standard) return false;
  }
  std::vector<int> sorted(keep, keep + count);
  sorted.push_back(nullDevice >= 0 ? nullDevice : 0);
  std::sort(sorted.begin(), sorted.end());
  unsigned next = 3;
  for (const int kept : sorted) {
    if (kept < 0) return false;
    const auto fd = static_cast<unsigned>(kept);
    if (fd < next) continue;
    if (fd > next && ::close_range(next, fd - 1, 0) != 0) return false;
    next = fd + 1;
  }
  return ::close_range(next, UINT_MAX, 0) == 0;
}
