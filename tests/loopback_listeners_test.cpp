#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "shared/loopback_listeners.h"
#include "support/descriptors.h"
#include "support/expect_error.h"
#include "support/scripted_system_calls.h"

namespace {

using ldtest::ExpectedError;
using ldtest::openDescriptors;

int intOption(int fd, int level, int name) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(::getsockopt(fd, level, name, &value, &length), 0);
  return value;
}

TEST(LoopbackListeners, PairIsCloseOnExecReusableIPv6OnlyAndItsDuplicatesOutliveTheOriginals) {
  const uint16_t port = LDListenerPort;
  const auto before = openDescriptors();
  std::optional<LDError> error;
  auto listeners = LDLoopbackListeners::initWithPort(port, &error);
  ASSERT_TRUE(listeners) << error->description();
  EXPECT_FALSE(error.has_value());
  const int originals[] = {listeners->ipv4FileDescriptor(), listeners->ipv6FileDescriptor()};
  for (const int fd : originals) {
    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(intOption(fd, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(intOption(fd, SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_EQ(intOption(fd, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  }
  EXPECT_EQ(intOption(originals[1], IPPROTO_IPV6, IPV6_V6ONLY), 1);
  EXPECT_EQ(LDLoopbackListeners::endpointForFileDescriptor(originals[0])->description(), "127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(LDLoopbackListeners::endpointForFileDescriptor(originals[1])->description(), "[::1]:" + std::to_string(port));

  LDFileHandle ipv4, ipv6;
  ASSERT_TRUE(listeners->duplicateIntoIPv4(ipv4, ipv6, &error));
  EXPECT_FALSE(error.has_value());
  for (const LDFileHandle* duplicate : {&ipv4, &ipv6}) {
    EXPECT_NE(::fcntl(duplicate->fileDescriptor(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_FALSE(duplicate->fileDescriptor() == originals[0] || duplicate->fileDescriptor() == originals[1]);
  }
  listeners->closeOriginals();
  EXPECT_TRUE(listeners->originalsAreClosed());
  EXPECT_EQ(openDescriptors().size(), before.size() + 2) << "only the duplicates are left";
  EXPECT_EQ(LDLoopbackListeners::endpointForFileDescriptor(ipv4.fileDescriptor())->description(), "127.0.0.1:80");
  EXPECT_EQ(LDLoopbackListeners::endpointForFileDescriptor(ipv6.fileDescriptor())->description(), "[::1]:80");
}

// Racing closers: the originals are closed (gone from /proc/self/fd), and the numbers each closer
// reopens at once, the originals' among them, stay open through another close and destruction.
TEST(LoopbackListeners, ConcurrentClosersCloseEachOriginalOnce) {
  for (int round = 0; round < 20; ++round) {
    const auto before = openDescriptors();
    auto listeners = LDLoopbackListeners::initWithPort(LDListenerPort);
    ASSERT_TRUE(listeners);
    EXPECT_FALSE(listeners->originalsAreClosed());
    const std::set<int> originals{listeners->ipv4FileDescriptor(), listeners->ipv6FileDescriptor()};
    std::atomic<bool> go{false};
    std::vector<LDFileHandle> reopened(8);
    std::vector<std::thread> closers;
    for (LDFileHandle& mine : reopened) {
      closers.emplace_back([&] {
        while (!go.load()) std::this_thread::yield();
        listeners->closeOriginals();
        mine.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
      });
    }
    go = true;
    for (auto& closer : closers) closer.join();
    std::set<int> numbers;
    for (const LDFileHandle& mine : reopened) numbers.insert(mine.fileDescriptor());
    EXPECT_TRUE(std::includes(numbers.begin(), numbers.end(), originals.begin(), originals.end()));
    listeners->closeOriginals();
    listeners.reset();
    for (const LDFileHandle& mine : reopened) EXPECT_GE(::fcntl(mine.fileDescriptor(), F_GETFD), 0) << "closed twice";
    reopened.clear();
    EXPECT_EQ(ldtest::openDescriptors(), before);
  }
}

// ---- Failures driven through the system-call seam ----

struct FailureCase {
  const char* name;
  const char* call;
  int occurrence;  // for duplicates, counted from the first call after the pair exists
  long value;
  int errorNumber;
  ExpectedError expected;
};

class InitFailureTest : public testing::TestWithParam<FailureCase> {};

TEST_P(InitFailureTest, ReportsTheFailingCallAndClosesEverything) {
  const FailureCase& c = GetParam();
  for (const bool withErrorPlace : {true, false}) {
    ldtest::ScriptedSystemCalls systemCalls;
    systemCalls.script(c.call, c.occurrence, c.value, c.errorNumber);
    const auto before = openDescriptors();
    std::optional<LDError> error;
    EXPECT_FALSE(LDLoopbackListeners::initWithPort(LDListenerPort, withErrorPlace ? &error : nullptr, systemCalls));
    EXPECT_EQ(ldtest::openDescriptors(), before);
    EXPECT_GE(systemCalls.callCount(c.call), c.occurrence) << "the scripted call was never reached";
    if (withErrorPlace) ldtest::expectError(error, c.expected);
    EXPECT_EQ(error.has_value(), withErrorPlace);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, InitFailureTest,
    testing::Values(
        FailureCase{"IPv4Socket", "socket", 1, -1, EMFILE, {1, "socket failed: Too many open files (24)", EMFILE}},
        FailureCase{"IPv4CloseOnExecRead", "fcntl(F_GETFD)", 1, -1, EBADF, {1, "fcntl(F_GETFD) failed: Bad file descriptor (9)", EBADF}},
        FailureCase{"IPv4CloseOnExecWrite", "fcntl(F_SETFD)", 1, -1, EINVAL, {1, "fcntl(F_SETFD) failed: Invalid argument (22)", EINVAL}},
        // F_SETFD counts as done only when it returns exactly 0.
        FailureCase{"IPv4CloseOnExecWriteReturnsOne", "fcntl(F_SETFD)", 1, 1, 0, {1, "fcntl(F_SETFD) failed: Success (0)", 0}},
        FailureCase{"IPv4CloseOnExecNotKept", "fcntl(F_GETFD)", 2, 0, 0, {2, "Unable to set FD_CLOEXEC", std::nullopt}},
        FailureCase{"IPv4ReuseAddress", "setsockopt(SO_REUSEADDR)", 1, -1, ENOBUFS, {1, "setsockopt(SO_REUSEADDR) failed: No buffer space available (105)", ENOBUFS}},
        FailureCase{"IPv4Encode", "inet_pton", 1, 0, 0, {2, "Unable to encode IPv4 loopback", std::nullopt}},
        FailureCase{"IPv4BindDenied", "bind", 1, -1, EACCES, {1, "bind failed: Permission denied (13)", EACCES}},
        FailureCase{"IPv4Listen", "listen", 1, -1, EOPNOTSUPP, {1, "listen failed: Operation not supported (95)", EOPNOTSUPP}},
        FailureCase{"IPv6Socket", "socket", 2, -1, EAFNOSUPPORT, {1, "socket failed: Address family not supported by protocol (97)", EAFNOSUPPORT}},
        FailureCase{"IPv6Only", "setsockopt(IPV6_V6ONLY)", 1, -1, ENOPROTOOPT, {1, "setsockopt(IPV6_V6ONLY) failed: Protocol not available (92)", ENOPROTOOPT}},
        FailureCase{"IPv6BindNotConfigured", "bind", 2, -1, EADDRNOTAVAIL, {1, "bind failed: Cannot assign requested address (99)", EADDRNOTAVAIL}},
        FailureCase{"IPv6Listen", "listen", 2, -1, EADDRINUSE, {3, "listen failed: Address already in use (98)", EADDRINUSE}}),
    ldtest::CaseName());

class DuplicateFailureTest : public testing::TestWithParam<FailureCase> {};

TEST_P(DuplicateFailureTest, EmptiesBothPlacesLeavesNoDuplicateAndKeepsTheOriginals) {
  const FailureCase& c = GetParam();
  for (const bool withErrorPlace : {true, false}) {
    ldtest::ScriptedSystemCalls systemCalls;
    const auto atStart = openDescriptors();
    auto listeners = LDLoopbackListeners::initWithPort(LDListenerPort, nullptr, systemCalls);
    ASSERT_TRUE(listeners);
    systemCalls.script(c.call, systemCalls.callCount(c.call) + c.occurrence, c.value, c.errorNumber);
    // The places hold handles already: they are emptied (and those descriptors closed) first.
    const auto before = openDescriptors();
    LDFileHandle ipv4(::open("/dev/null", O_RDONLY | O_CLOEXEC)), ipv6(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    std::optional<LDError> error;
    EXPECT_FALSE(listeners->duplicateIntoIPv4(ipv4, ipv6, withErrorPlace ? &error : nullptr));
    if (withErrorPlace) ldtest::expectError(error, c.expected);
    EXPECT_FALSE(ipv4.isValid() || ipv6.isValid());
    EXPECT_EQ(ldtest::openDescriptors(), before);
    EXPECT_FALSE(listeners->originalsAreClosed());
    EXPECT_EQ(intOption(listeners->ipv4FileDescriptor(), SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_EQ(intOption(listeners->ipv6FileDescriptor(), SOL_SOCKET, SO_ACCEPTCONN), 1);
    listeners.reset();
    EXPECT_EQ(ldtest::openDescriptors(), atStart) << "destruction closes the originals";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, DuplicateFailureTest,
    testing::Values(FailureCase{"IPv4Dup", "dup", 1, -1, EMFILE, {1, "dup(IPv4) failed: Too many open files (24)", EMFILE}},
                    FailureCase{"IPv4CloseOnExec", "fcntl(F_SETFD)", 1, -1, EBADF, {1, "fcntl(F_SETFD) failed: Bad file descriptor (9)", EBADF}},
                    FailureCase{"IPv6Dup", "dup", 2, -1, EMFILE, {1, "dup(IPv6) failed: Too many open files (24)", EMFILE}},
                    FailureCase{"IPv6CloseOnExec", "fcntl(F_GETFD)", 4, 0, 0, {2, "Unable to set FD_CLOEXEC", std::nullopt}}),
    ldtest::CaseName());

}  // namespace
