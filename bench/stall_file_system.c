// The file system a keyless user mounts to freeze a process inside an exec: one file, "stall",
// whose FLUSH answers only after HOLD milliseconds. A process that execs with it open
// close-on-exec stops in the kernel's close-on-exec step, holding its exec lock, for that long.
// Run by the benchmark as root (allow_other), in the foreground, until killed.
//
//   stall_file_system MOUNTPOINT HOLD_MS

#define FUSE_USE_VERSION 35
#include <errno.h>
#include <fuse.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

static long holdMilliseconds;

static int getAttributes(const char* path, struct stat* status, struct fuse_file_info* info) {
  (void)info;
  memset(status, 0, sizeof *status);
  status->st_mode = strcmp(path, "/") == 0 ? S_IFDIR | 0755 : S_IFREG | 0644;
  status->st_nlink = 1;
  return strcmp(path, "/") == 0 || strcmp(path, "/stall") == 0 ? 0 : -ENOENT;
}

static int openFile(const char* path, struct fuse_file_info* info) {
  (void)info;
  return strcmp(path, "/stall") == 0 ? 0 : -ENOENT;
}

static int flush(const char* path, struct fuse_file_info* info) {
  (void)path;
  (void)info;
  struct timespec hold = {holdMilliseconds / 1000, (holdMilliseconds % 1000) * 1000000};
  while (nanosleep(&hold, &hold) != 0 && errno == EINTR) {
  }
  return 0;
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  holdMilliseconds = atol(argv[2]);
  static const struct fuse_operations operations = {.getattr = getAttributes, .open = openFile, .flush = flush};
  char* arguments[] = {argv[0], argv[1], "-f", "-o", "allow_other,max_threads=512", NULL};
  return fuse_main(5, arguments, &operations, NULL);
}
