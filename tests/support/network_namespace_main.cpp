// The main of every test program: the whole program runs, as root, in a private network
// namespace with only loopback, up, where port 80 is free and nothing else on the machine can
// take a port a test binds. ctest runs each test case as a program of its own, so each gets a
// fresh namespace.

#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "shared/file_handle.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  ::signal(SIGPIPE, SIG_IGN);  // a test writing to a child that already exited gets EPIPE
  bool up = false;
  if (::unshare(CLONE_NEWNET) == 0) {
    const LDFileHandle control(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    if (::ioctl(control.fileDescriptor(), SIOCGIFFLAGS, &request) == 0) {
      request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
      up = ::ioctl(control.fileDescriptor(), SIOCSIFFLAGS, &request) == 0;
    }
  }
  if (!up) {
    std::fprintf(stderr, "%s: no private network namespace with loopback up (%s): run the test command as root\n",
                 argv[0], std::strerror(errno));
    return 1;
  }
  return RUN_ALL_TESTS();
}
