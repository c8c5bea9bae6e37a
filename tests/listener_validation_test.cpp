#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>

#include "shared/loopback_listeners.h"
#include "support/descriptors.h"
#include "support/expect_error.h"
#include "support/scripted_system_calls.h"

namespace {

using ldtest::ExpectedError;
using ldtest::openDescriptors;

enum class Subject { listener4, listener6, bound4, udp4, pipe, local, closed };

struct ValidationCase {
  const char* name;
  Subject subject;
  int family;      // of the expected endpoint
  int portOffset;  // the expected endpoint's port is the test's port + offset
  ExpectedError expected;  // code 0: valid
};

class ValidationTest : public testing::TestWithParam<ValidationCase> {};

TEST_P(ValidationTest, ChecksInOrderAndNeverClosesTheDescriptor) {
  const ValidationCase& c = GetParam();
  const uint16_t port = LDListenerPort;
  std::vector<LDFileHandle> keep;
  int pipeEnds[2] = {-1, -1};
  switch (c.subject) {
    case Subject::listener4: keep.push_back(ldtest::loopbackSocket(AF_INET, SOCK_STREAM, port, true)); break;
    case Subject::listener6: keep.push_back(ldtest::loopbackSocket(AF_INET6, SOCK_STREAM, port, true)); break;
    case Subject::bound4: keep.push_back(ldtest::loopbackSocket(AF_INET, SOCK_STREAM, port, false)); break;
    case Subject::udp4: keep.push_back(ldtest::loopbackSocket(AF_INET, SOCK_DGRAM, port, false)); break;
    case Subject::pipe:
      ASSERT_EQ(::pipe(pipeEnds), 0);
      keep.emplace_back(pipeEnds[0]);
      keep.emplace_back(pipeEnds[1]);
      break;
    case Subject::local: keep.emplace_back(::socket(AF_UNIX, SOCK_STREAM, 0)); break;
    case Subject::closed: break;
  }
  const int fd = keep.empty() ? 60000 : keep.front().fileDescriptor();  // 60000 names nothing here
  const LDListenerEndpoint expected(c.family, c.family == AF_INET ? "127.0.0.1" : "::1", static_cast<uint16_t>(port + c.portOffset));
  const auto before = openDescriptors();
  std::optional<LDError> error;
  EXPECT_EQ(LDLoopbackListeners::validateReceivedFileDescriptor(fd, expected, &error), c.expected.code == 0);
  if (c.expected.code != 0) {
    ldtest::expectError(error, c.expected);
    EXPECT_FALSE(LDLoopbackListeners::validateReceivedFileDescriptor(fd, expected)) << "without an error place";
  } else {
    EXPECT_FALSE(error.has_value());
    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "validation leaves the descriptor close-on-exec";
  }
  EXPECT_EQ(ldtest::openDescriptors(), before);
}

// A dual-stack IPv6 listener cannot be bound to ::1 (Linux turns IPV6_V6ONLY on for it); the
// seam table below reaches that check instead.
INSTANTIATE_TEST_SUITE_P(
    Table, ValidationTest,
    testing::Values(ValidationCase{"IPv4Listener", Subject::listener4, AF_INET, 0, {0, "", std::nullopt}},
                    ValidationCase{"IPv6OnlyListener", Subject::listener6, AF_INET6, 0, {0, "", std::nullopt}},
                    ValidationCase{"WrongPort", Subject::listener4, AF_INET, 1, {2, "Expected 127.0.0.1:81, received 127.0.0.1:80", std::nullopt}},
                    ValidationCase{"IPv4WhereIPv6Expected", Subject::listener4, AF_INET6, 0, {2, "Expected [::1]:80, received 127.0.0.1:80", std::nullopt}},
                    ValidationCase{"Udp", Subject::udp4, AF_INET, 0, {2, "Received 127.0.0.1:80 is not SOCK_STREAM", std::nullopt}},
                    ValidationCase{"BoundNotListening", Subject::bound4, AF_INET, 0, {2, "Received 127.0.0.1:80 is not accepting", std::nullopt}},
                    ValidationCase{"Pipe", Subject::pipe, AF_INET, 0, {1, "getsockname failed: Socket operation on non-socket (88)", ENOTSOCK}},
                    ValidationCase{"LocalDomainSocket", Subject::local, AF_INET, 0, {2, "Unexpected socket family 1", std::nullopt}},
                    ValidationCase{"ClosedDescriptor", Subject::closed, AF_INET, 0, {1, "fcntl(F_GETFD) failed: Bad file descriptor (9)", EBADF}}),
    ldtest::CaseName());

// ---- Failures only the seam can produce ----

struct ScriptedCase {
  const char* name;
  int family;
  const char* call;
  int occurrence;
  long value;
  int errorNumber;
  std::optional<int> optionValue;
  ExpectedError expected;
};

class ScriptedValidationTest : public testing::TestWithParam<ScriptedCase> {};

TEST_P(ScriptedValidationTest, ReportsTheScriptedFailure) {
  const ScriptedCase& c = GetParam();
  const uint16_t port = LDListenerPort;
  LDFileHandle listener = ldtest::loopbackSocket(c.family, SOCK_STREAM, port, true);
  const LDListenerEndpoint expected(c.family, c.family == AF_INET ? "127.0.0.1" : "::1", port);
  ldtest::ScriptedSystemCalls systemCalls;
  // Linux reports SO_ACCEPTCONN; every case here takes the probe path as other kernels would.
  systemCalls.script("getsockopt(SO_ACCEPTCONN)", 0, -1, ENOPROTOOPT);
  systemCalls.script(c.call, c.occurrence, c.value, c.errorNumber, c.optionValue);
  const auto before = openDescriptors();
  std::optional<LDError> error;
  EXPECT_FALSE(LDLoopbackListeners::validateReceivedFileDescriptor(listener.fileDescriptor(), expected, &error, systemCalls));
  ldtest::expectError(error, c.expected);
  EXPECT_EQ(ldtest::openDescriptors(), before);
  EXPECT_GE(::fcntl(listener.fileDescriptor(), F_GETFD), 0) << "the received descriptor stays open";
}

INSTANTIATE_TEST_SUITE_P(
    Table, ScriptedValidationTest,
    testing::Values(
        // The third F_GETFD is the re-check after close-on-exec was set and confirmed.
        ScriptedCase{"CloseOnExecRecheckFails", AF_INET, "fcntl(F_GETFD)", 3, -1, EBADF, {}, {2, "FD_CLOEXEC is not set for 127.0.0.1:80", std::nullopt}},
        ScriptedCase{"CloseOnExecRecheckClear", AF_INET6, "fcntl(F_GETFD)", 3, 0, 0, {}, {2, "FD_CLOEXEC is not set for [::1]:80", std::nullopt}},
        ScriptedCase{"CloseOnExecCannotBeSet", AF_INET, "fcntl(F_SETFD)", 1, -1, EPERM, {}, {1, "fcntl(F_SETFD) failed: Operation not permitted (1)", EPERM}},
        ScriptedCase{"AddressUnprintable", AF_INET, "inet_ntop", 1, -1, ENOSPC, {}, {1, "inet_ntop(IPv4) failed: No space left on device (28)", ENOSPC}},
        ScriptedCase{"IPv6AddressUnprintable", AF_INET6, "inet_ntop", 1, -1, ENOSPC, {}, {1, "inet_ntop(IPv6) failed: No space left on device (28)", ENOSPC}},
        ScriptedCase{"SocketTypeUnreadable", AF_INET, "getsockopt(SO_TYPE)", 1, -1, ENOBUFS, {}, {1, "getsockopt(3) failed: No buffer space available (105)", ENOBUFS}},
        ScriptedCase{"NotAStreamSocket", AF_INET, "getsockopt(SO_TYPE)", 1, 0, 0, SOCK_SEQPACKET, {2, "Received 127.0.0.1:80 is not SOCK_STREAM", std::nullopt}},
        ScriptedCase{"V6OnlyUnreadable", AF_INET6, "getsockopt(IPV6_V6ONLY)", 1, -1, EINVAL, {}, {1, "getsockopt(26) failed: Invalid argument (22)", EINVAL}},
        ScriptedCase{"V6OnlyOff", AF_INET6, "getsockopt(IPV6_V6ONLY)", 1, 0, 0, 0, {2, "Received [::1]:80 is not IPv6-only", std::nullopt}},
        ScriptedCase{"AcceptConnUnreadable", AF_INET, "getsockopt(SO_ACCEPTCONN)", 1, -1, EBADF, {}, {1, "getsockopt(SO_ACCEPTCONN) failed: Bad file descriptor (9)", EBADF}},
        ScriptedCase{"ProbeNeverReadable", AF_INET, "poll", 1, 0, 0, {}, {2, "Received 127.0.0.1:80 did not become readable", std::nullopt}},
        ScriptedCase{"ProbePollFails", AF_INET6, "poll", 1, -1, EINTR, {}, {2, "Received [::1]:80 did not become readable", std::nullopt}},
        ScriptedCase{"ProbeAcceptFails", AF_INET6, "accept", 1, -1, ECONNABORTED, {}, {1, "accept([::1]:80) failed: Software caused connection abort (103)", ECONNABORTED}},
        ScriptedCase{"ProbeClientSocketFails", AF_INET, "socket", 1, -1, EMFILE, {}, {1, "socket(client) failed: Too many open files (24)", EMFILE}}),
    ldtest::CaseName());

// Where the kernel cannot report SO_ACCEPTCONN, a listener is proven by connecting to it. The
// probe takes the first queued connection, whichever it is, and closes it: one of two is left.
TEST(ValidateAccepting, ProbeTakesExactlyOneQueuedConnection) {
  for (const int family : {AF_INET, AF_INET6}) {
    const uint16_t port = LDListenerPort;
    LDFileHandle listener = ldtest::loopbackSocket(family, SOCK_STREAM, port, true);
    const LDListenerEndpoint endpoint(family, family == AF_INET ? "127.0.0.1" : "::1", port);
    ASSERT_TRUE(LDLoopbackListeners::connectToEndpoint(endpoint));  // queued before the probe
    ldtest::ScriptedSystemCalls systemCalls;
    systemCalls.script("getsockopt(SO_ACCEPTCONN)", 1, -1, ENOPROTOOPT);
    const auto before = openDescriptors();
    std::optional<LDError> error;
    ASSERT_TRUE(LDLoopbackListeners::validateReceivedFileDescriptor(listener.fileDescriptor(), endpoint, &error, systemCalls));
    EXPECT_EQ(systemCalls.callCount("connect"), 1);
    EXPECT_EQ(ldtest::openDescriptors(), before);
    ASSERT_EQ(::fcntl(listener.fileDescriptor(), F_SETFL, O_NONBLOCK), 0);
    EXPECT_TRUE(LDFileHandle(::accept4(listener.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC)).isValid()) << "one remains";
    EXPECT_FALSE(LDFileHandle(::accept4(listener.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC)).isValid()) << "and only one";
  }
}

TEST(ConnectToEndpoint, OutcomesAndTheirMessages) {
  const uint16_t port = LDListenerPort;
  LDFileHandle listener4 = ldtest::loopbackSocket(AF_INET, SOCK_STREAM, port, true);
  LDFileHandle listener6 = ldtest::loopbackSocket(AF_INET6, SOCK_STREAM, port, true);
  const uint16_t closedPort = 81;  // nothing listens there
  struct Case {
    LDListenerEndpoint endpoint;
    ExpectedError expected;  // code 0: connects
  };
  for (const Case& c : {
           Case{{AF_INET, "127.0.0.1", port}, {0, "", std::nullopt}},
           Case{{AF_INET6, "::1", port}, {0, "", std::nullopt}},
           Case{{AF_INET, "127.0.0.1", closedPort}, {1, "connect(127.0.0.1:81) failed: Connection refused (111)", ECONNREFUSED}},
           Case{{AF_INET6, "::1", closedPort}, {1, "connect([::1]:81) failed: Connection refused (111)", ECONNREFUSED}},
           Case{{AF_INET, "localhost", port}, {2, "Invalid IPv4 endpoint localhost:80", std::nullopt}},
           Case{{AF_INET, std::nullopt, port}, {2, "Invalid IPv4 endpoint (null):80", std::nullopt}},
           Case{{AF_INET6, "127.0.0.1", port}, {2, "Invalid IPv6 endpoint [127.0.0.1]:80", std::nullopt}},
       }) {
    SCOPED_TRACE(c.endpoint.description());
    const auto before = openDescriptors();
    std::optional<LDError> error;
    EXPECT_EQ(LDLoopbackListeners::connectToEndpoint(c.endpoint, &error), c.expected.code == 0);
    EXPECT_EQ(LDLoopbackListeners::canConnectToEndpoint(c.endpoint), c.expected.code == 0);
    if (c.expected.code != 0) ldtest::expectError(error, c.expected);
    EXPECT_EQ(error.has_value(), c.expected.code != 0);
    EXPECT_EQ(ldtest::openDescriptors(), before);
  }
}

}  // namespace
