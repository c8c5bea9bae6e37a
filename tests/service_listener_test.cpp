// The helper's listener, run loop and timer queue, real, with admission and epoll replaced where
// a test must make them slow or fail.

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <mutex>
#include <vector>

#include "helper/service_listener.h"
#include "platform/dispatch.h"
#include "support/descriptors.h"
#include "support/test_pki.h"

namespace {

class Greeter final : public LDServiceListenerDelegate {
 public:
  bool listener(LDServiceListener&, LDHelperConnection& connection) override {
    connection.activate();  // sends Hello
    return true;
  }
};

// What a client sees now: "hello" (a packet), "closed" (end of stream) or "nothing".
std::string seen(int fd) {
  char packet[64];
  const ssize_t got = ::recv(fd, packet, sizeof packet, MSG_DONTWAIT | MSG_PEEK);
  return got > 0 ? "hello" : got == 0 ? "closed" : "nothing";
}

TEST(ServiceListener, APeerStuckInAdmissionIsDroppedAtItsDeadlineWhileOthersAreServed) {
  ldtest::TemporaryDirectory directory;
  const std::string path = directory.file("helper.sock");
  LDFileHandle listening = ldtest::seqpacketSocket(path, ldtest::Seqpacket::listening);
  ASSERT_EQ(::fcntl(listening.fileDescriptor(), F_SETFL, O_NONBLOCK), 0);  // as the helper makes it

  std::promise<void> release, stuckReturned;
  std::atomic<bool> stuckStarted{false};
  std::shared_future<void> released = release.get_future().share();
  LDRunLoop loop;
  Greeter greeter;
  auto listener = std::make_unique<LDServiceListener>(std::move(listening), loop);
  const pid_t self = ::getpid();
  listener->setAdmission(
      [&, first = std::make_shared<std::atomic<bool>>(true)](int, uint64_t) -> std::optional<LDAdmittedPeer> {
        if (first->exchange(false)) {  // the first peer: stuck far past its deadline
          stuckStarted = true;
          released.wait();
          stuckReturned.set_value();
          return std::nullopt;
        }
        LDAdmittedPeer peer;
        peer.pid = self;
        return peer;
      },
      50'000'000);
  listener->setDelegate(&greeter);
  listener->activate();

  LDFileHandle stuck = ldtest::seqpacketSocket(path, ldtest::Seqpacket::connected), served;
  // Bounded; it ends as soon as both clients have their answer. The second
  // client connects once the first one's admission is under way.
  const int64_t giveUp = LDRunLoop::now() + 2'000'000'000;
  std::function<void()> check = [&] {
    if (stuckStarted && !served.isValid()) served = ldtest::seqpacketSocket(path, ldtest::Seqpacket::connected);
    if ((seen(stuck.fileDescriptor()) == "closed" && seen(served.fileDescriptor()) == "hello") ||
        LDRunLoop::now() > giveUp) {
      loop.stop();
    } else {
      loop.runAt(LDRunLoop::now() + 5'000'000, check);
    }
  };
  loop.runAt(LDRunLoop::now(), check);
  ASSERT_TRUE(loop.run());

  EXPECT_EQ(seen(stuck.fileDescriptor()), "closed") << "dropped at the deadline";
  EXPECT_EQ(seen(served.fileDescriptor()), "hello") << "greeted while the other was stuck";
  release.set_value();
  stuckReturned.get_future().wait();
  listener.reset();
}

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

TEST(RunLoop, AFailedEpollIsReportedNotTakenForAnEnding) {
  int errorNumber = 0;
  EXPECT_FALSE(LDRunLoop({failCreate, ::epoll_wait}).isValid(&errorNumber));
  EXPECT_EQ(errorNumber, EMFILE);

  LDRunLoop loop({::epoll_create1, interruptedThenBroken});
  bool timerRan = false;
  loop.runAt(LDRunLoop::now(), [&] { timerRan = true; });
  EXPECT_FALSE(loop.run(&errorNumber));
  EXPECT_EQ(errorNumber, EBADF);
  EXPECT_TRUE(timerRan) << "EINTR is retried";
}

// ---- The utility queue, which runs the helper's timers ----

// The real queue with millisecond delays: blocks run in deadline order on the utility thread,
// a cancelled block never runs.
TEST(UtilityQueue, RunsDueBlocksInDeadlineOrderAndSkipsCancelledOnes) {
  std::mutex mutex;
  std::vector<int> order;
  std::promise<void> lastRan;
  auto record = [&](int value) {
    return LDDispatchBlock::create([&, value] {
      std::lock_guard<std::mutex> guard(mutex);
      order.push_back(value);
      if (value == 4) lastRan.set_value();
    });
  };
  auto cancelled = record(99);
  cancelled->cancel();
  LDUtilityQueue queue;
  // Submitted out of order, 10 ms apart: far more than the microseconds the submissions take.
  queue.dispatchAfter(40'000'000, record(4));
  queue.dispatchAfter(25'000'000, cancelled);
  queue.dispatchAfter(20'000'000, record(2));
  queue.dispatchAfter(30'000'000, record(3));
  queue.dispatchAfter(10'000'000, record(1));
  ASSERT_EQ(lastRan.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  std::lock_guard<std::mutex> guard(mutex);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

TEST(UtilityQueue, DelaysAreNanosecondsTruncatedTowardZero) {
  EXPECT_EQ(LDDelayInNanoseconds(0.0000000019), 1);
  EXPECT_EQ(LDDelayInNanoseconds(1.5), 1'500'000'000);
  EXPECT_EQ(LDDelayInNanoseconds(-0.5), -500'000'000);
}

}  // namespace
