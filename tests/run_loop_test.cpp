// The helper's run loop over real epoll, with its calls replaced where a test must make them fail.

#include <sys/epoll.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "helper/service_listener.h"
#include "platform/run_loop.h"
#include "support/descriptors.h"
#include "support/test_pki.h"

namespace {

// epoll, with the call a row picks refused.
class Refusing final : public LDSystemCalls {
 public:
  int createError = 0, controlError = 0, waitErrors[2] = {0, 0};
  int waits = 0;
  LDSystemCallResult epoll_create1(int flags) override {
    return createError ? LDSystemCallResult{-1, createError} : LDSystemCalls::epoll_create1(flags);
  }
  LDSystemCallResult epoll_ctl(int epoll, int operation, int fd, epoll_event* event) override {
    return controlError ? LDSystemCallResult{-1, controlError} : LDSystemCalls::epoll_ctl(epoll, operation, fd, event);
  }
  LDSystemCallResult epoll_wait(int epoll, epoll_event* events, int count, int timeout) override {
    const int error = waitErrors[std::min(waits++, 1)];
    return error ? LDSystemCallResult{-1, error} : LDSystemCalls::epoll_wait(epoll, events, count, timeout);
  }
};

TEST(RunLoop, AFailedEpollIsReportedNotTakenForAnEnding) {
  int errorNumber = 0;
  Refusing noEpoll;
  noEpoll.createError = EMFILE;
  EXPECT_FALSE(LDRunLoop(noEpoll).isValid(&errorNumber));
  EXPECT_EQ(errorNumber, EMFILE);

  // A listening socket that epoll would not take: the listener says so instead of never accepting.
  Refusing noAdd;
  noAdd.controlError = ENOMEM;
  LDRunLoop refusing(noAdd);
  ldtest::TemporaryDirectory directory;
  LDServiceListener listener(ldtest::seqpacketSocket(directory.file("s"), ldtest::Seqpacket::listening), refusing);
  EXPECT_FALSE(listener.activate(&errorNumber));
  EXPECT_EQ(errorNumber, ENOMEM);

  // EINTR, then a real failure; a timer that fell due in between still runs.
  Refusing interrupted;
  interrupted.waitErrors[0] = EINTR;
  interrupted.waitErrors[1] = EBADF;
  LDRunLoop loop(interrupted);
  bool timerRan = false;
  loop.runAt(LDRunLoop::now(), [&] { timerRan = true; });
  EXPECT_FALSE(loop.run(&errorNumber));
  EXPECT_EQ(errorNumber, EBADF);
  EXPECT_TRUE(timerRan) << "EINTR is retried";
}

}  // namespace
