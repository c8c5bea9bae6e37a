#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "shared/loopback_listeners.h"
#include "support/descriptors.h"
#include "support/expect_error.h"
#include "support/scripted_system_calls.h"

namespace {

using ldtest::descriptorDifference;
using ldtest::ExpectedError;
using ldtest::expectError;
using ldtest::openDescriptors;
using ldtest::ScriptedSystemCalls;

bool hasCloseOnExec(int fd) {
  const int flags = ::fcntl(fd, F_GETFD);
  return flags >= 0 && (flags & FD_CLOEXEC) != 0;
}

int intOption(int fd, int level, int name) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(::getsockopt(fd, level, name, &value, &length), 0);
  return value;
}

// Connects to the endpoint and accepts that connection through `listener`.
void expectServes(int listener, const LDListenerEndpoint& endpoint) {
  std::optional<LDError> error;
  ASSERT_TRUE(LDLoopbackListeners::connectToEndpoint(endpoint, &error))
      << endpoint.description() << ": " << (error ? error->description() : "");
  pollfd ready{listener, POLLIN, 0};
  ASSERT_EQ(::poll(&ready, 1, 5000), 1) << "no connection reached " << endpoint.description();
  LDFileHandle accepted(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
  EXPECT_TRUE(accepted.isValid()) << "nothing to accept on " << endpoint.description();
}

TEST(LoopbackListeners, PairOnAFreePortIsCloseOnExecReusableAndIPv6Only) {
  const uint16_t port = ldtest::freeLoopbackPort();
  std::optional<LDError> error;
  auto listeners = LDLoopbackListeners::initWithPort(port, &error);
  ASSERT_TRUE(listeners) << error->description();
  EXPECT_FALSE(error.has_value());

  const int ipv4 = listeners->ipv4FileDescriptor();
  const int ipv6 = listeners->ipv6FileDescriptor();
  ASSERT_GE(ipv4, 0);
  ASSERT_GE(ipv6, 0);
  for (const int fd : {ipv4, ipv6}) {
    EXPECT_TRUE(hasCloseOnExec(fd));
    EXPECT_EQ(intOption(fd, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(intOption(fd, SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_EQ(intOption(fd, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  }
  EXPECT_EQ(intOption(ipv6, IPPROTO_IPV6, IPV6_V6ONLY), 1);

  const auto endpoint4 = LDLoopbackListeners::endpointForFileDescriptor(ipv4);
  const auto endpoint6 = LDLoopbackListeners::endpointForFileDescriptor(ipv6);
  ASSERT_TRUE(endpoint4 && endpoint6);
  EXPECT_EQ(endpoint4->description(), "127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(endpoint6->description(), "[::1]:" + std::to_string(port));
  // Each listener takes exactly its own traffic.
  expectServes(ipv4, *endpoint4);
  expectServes(ipv6, *endpoint6);
}

TEST(LoopbackListeners, DuplicatesAreCloseOnExecAndOutliveTheOriginals) {
  const uint16_t port = ldtest::freeLoopbackPort();
  auto listeners = LDLoopbackListeners::initWithPort(port);
  ASSERT_TRUE(listeners);
  LDFileHandle ipv4, ipv6;
  std::optional<LDError> error;
  ASSERT_TRUE(listeners->duplicateIntoIPv4(ipv4, ipv6, &error));
  EXPECT_FALSE(error.has_value());
  ASSERT_TRUE(ipv4.isValid() && ipv6.isValid());
  EXPECT_NE(ipv4.fileDescriptor(), listeners->ipv4FileDescriptor());
  EXPECT_NE(ipv6.fileDescriptor(), listeners->ipv6FileDescriptor());
  EXPECT_TRUE(hasCloseOnExec(ipv4.fileDescriptor()));
  EXPECT_TRUE(hasCloseOnExec(ipv6.fileDescriptor()));

  const int oldIPv4 = listeners->ipv4FileDescriptor();
  const int oldIPv6 = listeners->ipv6FileDescriptor();
  listeners->closeOriginals();
  EXPECT_TRUE(listeners->originalsAreClosed());
  EXPECT_EQ(listeners->ipv4FileDescriptor(), oldIPv4);
  EXPECT_EQ(listeners->ipv6FileDescriptor(), oldIPv6);
  EXPECT_EQ(::fcntl(oldIPv4, F_GETFD), -1);
  EXPECT_EQ(::fcntl(oldIPv6, F_GETFD), -1);

  expectServes(ipv4.fileDescriptor(), LDListenerEndpoint(AF_INET, "127.0.0.1", port));
  expectServes(ipv6.fileDescriptor(), LDListenerEndpoint(AF_INET6, "::1", port));
}

TEST(LoopbackListeners, OriginalsAreClosedOnceEvenWhenTheirNumbersAreReused) {
  auto listeners = LDLoopbackListeners::initWithPort(ldtest::freeLoopbackPort());
  ASSERT_TRUE(listeners);
  EXPECT_FALSE(listeners->originalsAreClosed());
  const int oldIPv4 = listeners->ipv4FileDescriptor();
  const int oldIPv6 = listeners->ipv6FileDescriptor();
  listeners->closeOriginals();

  // New descriptors take the freed numbers; neither a second close nor destruction may touch them.
  LDFileHandle reuse1(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  LDFileHandle reuse2(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const std::set<int> reused{reuse1.fileDescriptor(), reuse2.fileDescriptor()};
  ASSERT_EQ(reused, (std::set<int>{oldIPv4, oldIPv6}));
  listeners->closeOriginals();
  listeners.reset();
  EXPECT_GE(::fcntl(reuse1.fileDescriptor(), F_GETFD), 0);
  EXPECT_GE(::fcntl(reuse2.fileDescriptor(), F_GETFD), 0);
}

TEST(LoopbackListeners, DestructionClosesTheOriginals) {
  const auto before = openDescriptors();
  auto listeners = LDLoopbackListeners::initWithPort(ldtest::freeLoopbackPort());
  ASSERT_TRUE(listeners);
  EXPECT_EQ(openDescriptors().size(), before.size() + 2);
  listeners.reset();
  EXPECT_EQ(descriptorDifference(before, openDescriptors()), "");
}

TEST(LoopbackListeners, ConcurrentClosersCloseOnce) {
  auto listeners = LDLoopbackListeners::initWithPort(ldtest::freeLoopbackPort());
  ASSERT_TRUE(listeners);
  std::atomic<bool> go{false};
  std::vector<std::thread> closers;
  for (int i = 0; i < 8; ++i) {
    closers.emplace_back([&] {
      while (!go.load()) std::this_thread::yield();
      listeners->closeOriginals();
    });
  }
  go = true;
  for (auto& closer : closers) closer.join();
  EXPECT_TRUE(listeners->originalsAreClosed());
}

struct TakenPortCase {
  const char* name;
  int takenFamily;
};

class TakenPortTest : public testing::TestWithParam<TakenPortCase> {};

// The port held on either address fails the pair with code 3 from bind, and leaves nothing open:
// when ::1 is the taken one, the IPv4 listener that was already made is closed again.
TEST_P(TakenPortTest, FailsWithAddressInUseFromBindAndLeavesNothingOpen) {
  const uint16_t port = ldtest::freeLoopbackPort();
  LDFileHandle holder = ldtest::loopbackSocket(GetParam().takenFamily, SOCK_STREAM, port, true);
  const auto before = openDescriptors();
  std::optional<LDError> error;
  EXPECT_FALSE(LDLoopbackListeners::initWithPort(port, &error));
  expectError(error, {3, "bind failed: Address already in use (98)", EADDRINUSE});
  EXPECT_EQ(descriptorDifference(before, openDescriptors()), "");
}

INSTANTIATE_TEST_SUITE_P(Table, TakenPortTest,
                         testing::Values(TakenPortCase{"IPv4", AF_INET},
                                         TakenPortCase{"IPv6", AF_INET6}),
                         ldtest::CaseName());

// ---- Failures of the pair, driven through the system-call seam ----

struct ScriptedFailure {
  const char* call;
  int occurrence;
  long value;
  int errorNumber;
};

struct InitFailureCase {
  const char* name;
  ScriptedFailure failure;
  ExpectedError expected;
};

class InitFailureTest : public testing::TestWithParam<InitFailureCase> {};

TEST_P(InitFailureTest, ReportsTheFailingCallAndClosesEverything) {
  const InitFailureCase& c = GetParam();
  const uint16_t port = ldtest::freeLoopbackPort();
  for (const bool withErrorPlace : {true, false}) {
    SCOPED_TRACE(withErrorPlace ? "with an error place" : "without an error place");
    ScriptedSystemCalls systemCalls;
    systemCalls.script(c.failure.call, c.failure.occurrence, c.failure.value, c.failure.errorNumber);
    const auto before = openDescriptors();
    std::optional<LDError> error;
    EXPECT_FALSE(LDLoopbackListeners::initWithPort(port, withErrorPlace ? &error : nullptr, systemCalls));
    EXPECT_EQ(descriptorDifference(before, openDescriptors()), "");
    EXPECT_GE(systemCalls.callCount(c.failure.call), c.failure.occurrence) << "the scripted call was never reached";
    if (withErrorPlace) {
      expectError(error, c.expected);
    } else {
      EXPECT_FALSE(error.has_value());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, InitFailureTest,
    testing::Values(
        InitFailureCase{"IPv4Socket", {"socket", 1, -1, EMFILE},
                        {1, "socket failed: Too many open files (24)", EMFILE}},
        InitFailureCase{"IPv4CloseOnExecRead", {"fcntl(F_GETFD)", 1, -1, EBADF},
                        {1, "fcntl(F_GETFD) failed: Bad file descriptor (9)", EBADF}},
        InitFailureCase{"IPv4CloseOnExecWrite", {"fcntl(F_SETFD)", 1, -1, EINVAL},
                        {1, "fcntl(F_SETFD) failed: Invalid argument (22)", EINVAL}},
        // F_SETFD counts as done only when it returns exactly 0.
        InitFailureCase{"IPv4CloseOnExecWriteReturnsOne", {"fcntl(F_SETFD)", 1, 1, 0},
                        {1, "fcntl(F_SETFD) failed: Success (0)", 0}},
        InitFailureCase{"IPv4CloseOnExecNotKept", {"fcntl(F_GETFD)", 2, 0, 0},
                        {2, "Unable to set FD_CLOEXEC", std::nullopt}},
        InitFailureCase{"IPv4CloseOnExecRereadFails", {"fcntl(F_GETFD)", 2, -1, EBADF},
                        {2, "Unable to set FD_CLOEXEC", std::nullopt}},
        InitFailureCase{"IPv4ReuseAddress", {"setsockopt(SO_REUSEADDR)", 1, -1, ENOBUFS},
                        {1, "setsockopt(SO_REUSEADDR) failed: No buffer space available (105)", ENOBUFS}},
        InitFailureCase{"IPv4Encode", {"inet_pton", 1, 0, 0},
                        {2, "Unable to encode IPv4 loopback", std::nullopt}},
        InitFailureCase{"IPv4BindInUse", {"bind", 1, -1, EADDRINUSE},
                        {3, "bind failed: Address already in use (98)", EADDRINUSE}},
        InitFailureCase{"IPv4BindDenied", {"bind", 1, -1, EACCES},
                        {1, "bind failed: Permission denied (13)", EACCES}},
        InitFailureCase{"IPv4Listen", {"listen", 1, -1, EOPNOTSUPP},
                        {1, "listen failed: Operation not supported (95)", EOPNOTSUPP}},
        InitFailureCase{"IPv6Socket", {"socket", 2, -1, EAFNOSUPPORT},
                        {1, "socket failed: Address family not supported by protocol (97)", EAFNOSUPPORT}},
        InitFailureCase{"IPv6CloseOnExec", {"fcntl(F_SETFD)", 2, -1, EBADF},
                        {1, "fcntl(F_SETFD) failed: Bad file descriptor (9)", EBADF}},
        InitFailureCase{"IPv6ReuseAddress", {"setsockopt(SO_REUSEADDR)", 2, -1, ENOMEM},
                        {1, "setsockopt(SO_REUSEADDR) failed: Cannot allocate memory (12)", ENOMEM}},
        InitFailureCase{"IPv6Only", {"setsockopt(IPV6_V6ONLY)", 1, -1, ENOPROTOOPT},
                        {1, "setsockopt(IPV6_V6ONLY) failed: Protocol not available (92)", ENOPROTOOPT}},
        InitFailureCase{"IPv6BindNotConfigured", {"bind", 2, -1, EADDRNOTAVAIL},
                        {1, "bind failed: Cannot assign requested address (99)", EADDRNOTAVAIL}},
        InitFailureCase{"IPv6BindInUse", {"bind", 2, -1, EADDRINUSE},
                        {3, "bind failed: Address already in use (98)", EADDRINUSE}},
        InitFailureCase{"IPv6Listen", {"listen", 2, -1, EADDRINUSE},
                        {3, "listen failed: Address already in use (98)", EADDRINUSE}}),
    ldtest::CaseName());

struct DuplicateFailureCase {
  const char* name;
  ScriptedFailure failure;  // occurrence counted from the first call after the pair exists
  ExpectedError expected;
};

class DuplicateFailureTest : public testing::TestWithParam<DuplicateFailureCase> {};

TEST_P(DuplicateFailureTest, EmptiesBothPlacesLeavesNoDuplicateAndKeepsTheOriginals) {
  const DuplicateFailureCase& c = GetParam();
  ScriptedSystemCalls systemCalls;
  auto listeners = LDLoopbackListeners::initWithPort(ldtest::freeLoopbackPort(), nullptr, systemCalls);
  ASSERT_TRUE(listeners);
  systemCalls.script(c.failure.call, systemCalls.callCount(c.failure.call) + c.failure.occurrence,
                     c.failure.value, c.failure.errorNumber);

  // The places hold handles already: they are emptied (and those descriptors closed) first.
  const auto before = openDescriptors();
  LDFileHandle ipv4(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  LDFileHandle ipv6(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  std::optional<LDError> error;
  EXPECT_FALSE(listeners->duplicateIntoIPv4(ipv4, ipv6, &error));
  expectError(error, c.expected);
  EXPECT_FALSE(ipv4.isValid());
  EXPECT_FALSE(ipv6.isValid());
  EXPECT_EQ(descriptorDifference(before, openDescriptors()), "");
  EXPECT_FALSE(listeners->originalsAreClosed());
  EXPECT_EQ(intOption(listeners->ipv4FileDescriptor(), SOL_SOCKET, SO_ACCEPTCONN), 1);
  EXPECT_EQ(intOption(listeners->ipv6FileDescriptor(), SOL_SOCKET, SO_ACCEPTCONN), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Table, DuplicateFailureTest,
    testing::Values(
        DuplicateFailureCase{"IPv4Dup", {"dup", 1, -1, EMFILE},
                             {1, "dup(IPv4) failed: Too many open files (24)", EMFILE}},
        DuplicateFailureCase{"IPv4CloseOnExec", {"fcntl(F_SETFD)", 1, -1, EBADF},
                             {1, "fcntl(F_SETFD) failed: Bad file descriptor (9)", EBADF}},
        DuplicateFailureCase{"IPv6Dup", {"dup", 2, -1, EMFILE},
                             {1, "dup(IPv6) failed: Too many open files (24)", EMFILE}},
        DuplicateFailureCase{"IPv6CloseOnExec", {"fcntl(F_GETFD)", 4, 0, 0},
                             {2, "Unable to set FD_CLOEXEC", std::nullopt}}),
    ldtest::CaseName());

TEST(LoopbackListeners, DuplicateFailureWithoutAnErrorPlaceCleansUpAlike) {
  ScriptedSystemCalls systemCalls;
  auto listeners = LDLoopbackListeners::initWithPort(ldtest::freeLoopbackPort(), nullptr, systemCalls);
  ASSERT_TRUE(listeners);
  systemCalls.script("dup", systemCalls.callCount("dup") + 2, -1, EMFILE);
  const auto before = openDescriptors();
  LDFileHandle ipv4, ipv6;
  EXPECT_FALSE(listeners->duplicateIntoIPv4(ipv4, ipv6));
  EXPECT_FALSE(ipv4.isValid() || ipv6.isValid());
  EXPECT_EQ(descriptorDifference(before, openDescriptors()), "");
}

}  // namespace
