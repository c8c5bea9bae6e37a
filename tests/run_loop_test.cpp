// The helper's run loop over real epoll, with its calls replaced where a test must make them fail.

#include <sys/epoll.h>

#include <gtest/gtest.h>

#include <cerrno>

#include "helper/service_listener.h"
#include "platform/run_loop.h"
#include "support/descriptors.h"
#include "support/scripted_system_calls.h"
#include "support/test_pki.h"

namespace {

TEST(RunLoop, AFailedEpollIsReportedNotTakenForAnEnding) {
  int errorNumber = 0;
  ldtest::ScriptedSystemCalls noEpoll, noAdd, interrupted;
  noEpoll.script("epoll_create1", 1, -1, EMFILE);
  EXPECT_FALSE(LDRunLoop(noEpoll).isValid(&errorNumber));
  EXPECT_EQ(errorNumber, EMFILE);

  // A listening socket that epoll would not take: the listener says so instead of never accepting.
  noAdd.script("epoll_ctl", 0, -1, ENOMEM);
  LDRunLoop refusing(noAdd);
  ldtest::TemporaryDirectory directory;
  LDServiceListener listener(ldtest::seqpacketSocket(directory.file("s"), ldtest::Seqpacket::listening), refusing);
  EXPECT_FALSE(listener.activate(&errorNumber));
  EXPECT_EQ(errorNumber, ENOMEM);

  // EINTR, then a real failure; a timer that fell due in between still runs.
  interrupted.script("epoll_wait", 1, -1, EINTR);
  interrupted.script("epoll_wait", 2, -1, EBADF);
  LDRunLoop loop(interrupted);
  bool timerRan = false;
  loop.runAt(LDRunLoop::now(), [&] { timerRan = true; });
  EXPECT_FALSE(loop.run(&errorNumber));
  EXPECT_EQ(errorNumber, EBADF);
  EXPECT_TRUE(timerRan) << "EINTR is retried";
}

}  // namespace
