// The helper's run loop over real epoll, with its calls replaced where a test must make them fail.

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

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

// Two descriptors ready in one turn, each handler unwatching the other: the event already
// collected for the one unwatched first is dropped, its handler never run.
TEST(RunLoop, AnEventCollectedForADescriptorUnwatchedSinceIsDropped) {
  LDRunLoop loop;
  int pipes[2][2];
  ASSERT_EQ(::pipe2(pipes[0], O_CLOEXEC), 0);
  ASSERT_EQ(::pipe2(pipes[1], O_CLOEXEC), 0);
  const LDFileHandle ends[] = {LDFileHandle(pipes[0][0]), LDFileHandle(pipes[0][1]), LDFileHandle(pipes[1][0]),
                               LDFileHandle(pipes[1][1])};
  int runs = 0;
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(::write(pipes[i][1], "x", 1), 1);
    ASSERT_TRUE(loop.watch(pipes[i][0], EPOLLIN, [&](uint32_t) {
      ++runs;
      loop.unwatch(pipes[0][0]);
      loop.unwatch(pipes[1][0]);
    }));
  }
  loop.runAt(LDRunLoop::now() + 20'000'000, [&] { loop.stop(); });
  EXPECT_TRUE(loop.run());
  EXPECT_EQ(runs, 1);
}

}  // namespace
