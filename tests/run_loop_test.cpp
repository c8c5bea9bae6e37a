// The helper's run loop over real epoll, with its calls replaced where a test must make them fail.

#include <sys/epoll.h>

#include <gtest/gtest.h>

#include <cerrno>

#include "helper/service_listener.h"
#include "platform/run_loop.h"
#include "support/descriptors.h"
#include "support/test_pki.h"

namespace {

int failCreate(int) {
  errno = EMFILE;
  return -1;
}

// EINTR, then a real failure; a timer that fell due in between still runs.
int interruptedThenBroken(int, epoll_event*, int, int) {
  static int call = 0;
  errno = ++call == 1 ? EINTR : EBADF;
  return -1;
}

int refusedDescriptor = -1;
int refuseOneAdd(int epoll, int operation, int fd, epoll_event* event) {
  errno = ENOMEM;
  return operation == EPOLL_CTL_ADD && fd == refusedDescriptor ? -1 : ::epoll_ctl(epoll, operation, fd, event);
}

TEST(RunLoop, AFailedEpollIsReportedNotTakenForAnEnding) {
  int errorNumber = 0;
  EXPECT_FALSE(LDRunLoop({failCreate, ::epoll_wait, ::epoll_ctl}).isValid(&errorNumber));
  EXPECT_EQ(errorNumber, EMFILE);

  // A listening socket that epoll would not take: the listener says so instead of never accepting.
  LDRunLoop refusing({::epoll_create1, ::epoll_wait, refuseOneAdd});
  ldtest::TemporaryDirectory directory;
  LDFileHandle socket = ldtest::seqpacketSocket(directory.file("s"), ldtest::Seqpacket::listening);
  refusedDescriptor = socket.fileDescriptor();
  LDServiceListener listener(std::move(socket), refusing);
  EXPECT_FALSE(listener.activate(&errorNumber));
  EXPECT_EQ(errorNumber, ENOMEM);

  LDRunLoop loop({::epoll_create1, interruptedThenBroken, ::epoll_ctl});
  bool timerRan = false;
  loop.runAt(LDRunLoop::now(), [&] { timerRan = true; });
  EXPECT_FALSE(loop.run(&errorNumber));
  EXPECT_EQ(errorNumber, EBADF);
  EXPECT_TRUE(timerRan) << "EINTR is retried";
}

}  // namespace
