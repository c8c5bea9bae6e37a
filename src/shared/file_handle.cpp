#include "shared/file_handle.h"

#include <unistd.h>

#include <cerrno>

void LDCloseDescriptor(int fd) noexcept {
  const int savedErrno = errno;
  (void)::close(fd);
  errno = savedErrno;
}
