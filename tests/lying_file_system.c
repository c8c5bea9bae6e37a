// A hostile FUSE file system: one file, "app", that claims to be root-owned and set-group-ID to
// GROUP and serves the bytes of SOURCE. It writes the pid of every process that asks it anything
// to LOG, one line a request, so a test can prove the helper never asked. A second file, "stall",
// never answers a FLUSH: a process that execs with it open close-on-exec stops inside the exec.
//
//   lying_file_system SOURCE GROUP LOG MOUNTPOINT [FUSE OPTIONS...]

#define FUSE_USE_VERSION 35
#include <errno.h>
#include <fuse.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static char* contents;
static size_t size;
static gid_t group;
static FILE* logFile;

static void note(const char* request) {
  fprintf(logFile, "%d %s\n", (int)fuse_get_context()->pid, request);
  fflush(logFile);
}

static int getAttributes(const char* path, struct stat* status, struct fuse_file_info* info) {
  (void)info;
  note("getattr");
  memset(status, 0, sizeof *status);
  if (strcmp(path, "/") == 0) {
    status->st_mode = S_IFDIR | 0755;
    status->st_nlink = 2;
    return 0;
  }
  if (strcmp(path, "/stall") == 0) {
    status->st_mode = S_IFREG | 0644;
    status->st_nlink = 1;
    return 0;
  }
  if (strcmp(path, "/app") != 0) return -ENOENT;
  status->st_mode = S_IFREG | 02755;
  status->st_nlink = 1;
  status->st_gid = group;
  status->st_size = (off_t)size;
  return 0;
}

static int openFile(const char* path, struct fuse_file_info* info) {
  (void)info;
  note("open");
  return strcmp(path, "/app") == 0 || strcmp(path, "/stall") == 0 ? 0 : -ENOENT;
}

static int flush(const char* path, struct fuse_file_info* info) {
  (void)info;
  while (strcmp(path, "/stall") == 0) pause();  // holds one of the server's threads for good
  return 0;
}

static int readFile(const char* path, char* buffer, size_t length, off_t offset, struct fuse_file_info* info) {
  (void)path;
  (void)info;
  note("read");
  if ((size_t)offset >= size) return 0;
  if (length > size - (size_t)offset) length = size - (size_t)offset;
  memcpy(buffer, contents + offset, length);
  return (int)length;
}

int main(int argc, char** argv) {
  if (argc < 5) return 64;
  FILE* source = fopen(argv[1], "rb");
  if (source == NULL) return 66;
  fseek(source, 0, SEEK_END);
  size = (size_t)ftell(source);
  rewind(source);
  contents = malloc(size);
  if (contents == NULL || fread(contents, 1, size, source) != size) return 66;
  fclose(source);
  group = (gid_t)atoi(argv[2]);
  logFile = fopen(argv[3], "a");
  if (logFile == NULL) return 73;
  static const struct fuse_operations operations = {
      .getattr = getAttributes, .open = openFile, .read = readFile, .flush = flush};
  argv[3] = argv[0];  // fuse_main sees: program MOUNTPOINT [OPTIONS...]
  return fuse_main(argc - 3, argv + 3, &operations, NULL);
}
