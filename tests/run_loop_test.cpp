// The helper's run loop over real epoll, with its calls replaced where a test must make them fail.

#include <sys/epoll.h>

#include <gtest/gtest.h>

#include <cerrno>

#include "helper/service_listener.h"
#include "platform/run_loop.h"
#include "support/descriptors.h"
#include "support/test_pki.h"

namespace {

TEST(RunLoop, AFailedEpollIsReportedNotTakenForAnEnding) {
  int errorNumber = 0;
  EXPECT_FALSE(LDRunLoop({[](int) { return errno = EMFILE, -1; }, ::epoll_wait, ::epoll_ctl}).isValid(&errorNumber));
  EXPECT_EQ(errorNumber, EMFILE);

  // A listening socket that epoll would not take: the listener says so instead of never accepting.
  LDRunLoop refusing({::epoll_create1, ::epoll_wait, [](int, int, int, epoll_event*) { return errno = ENOMEM, -1; }});
  ldtest::TemporaryDirectory directory;
  LDServiceListener listener(ldtest::seqpacketSocket(directory.file("s"), ldtest::Seqpacket::listening), refusing);
  EXPECT_FALSE(listener.activate(&errorNumber));
  EXPECT_EQ(errorNumber, ENOMEM);

  // EINTR, then a real failure; a timer that fell due in between still runs.
  LDRunLoop loop({::epoll_create1, [](int, epoll_event*, int, int) {
                    static int call = 0;
                    return errno = ++call == 1 ? EINTR : EBADF, -1;
                  }, ::epoll_ctl});
  bool timerRan = false;
  loop.runAt(LDRunLoop::now(), [&] { timerRan = true; });
  EXPECT_FALSE(loop.run(&errorNumber));
  EXPECT_EQ(errorNumber, EBADF);
  EXPECT_TRUE(timerRan) << "EINTR is retried";
}

}  // namespace
