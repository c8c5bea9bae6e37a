#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>

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

enum class Listen { no, yes };

LDFileHandle loopbackSocket(int family, int type, uint16_t port, Listen listen, bool v6only = true) {
  return ldtest::loopbackSocket(family, type, port, listen == Listen::yes, v6only);
}

// The descriptor under test and whatever must stay open while it is tested.
struct Subject {
  int fd;
  std::vector<LDFileHandle> keep;
};

// Far above anything this process opens, so it names no descriptor.
constexpr int kNeverOpen = 60000;

LDFileHandle anyAddressDualStackListener(uint16_t port) {
  LDFileHandle fd(::socket(AF_INET6, SOCK_STREAM, 0));
  const int off = 0;
  EXPECT_EQ(::setsockopt(fd.fileDescriptor(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off), 0);
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  address.sin6_addr = in6addr_any;
  EXPECT_EQ(::bind(fd.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(fd.fileDescriptor(), 8), 0);
  return fd;
}

struct ValidationCase {
  const char* name;
  std::function<Subject(uint16_t port)> make;
  int expectedFamily;
  int expectedPortOffset;  // the expected endpoint's port is port + offset
  std::function<std::optional<ExpectedError>(uint16_t port)> expected;  // nullopt: valid
};

class ValidationTest : public testing::TestWithParam<ValidationCase> {};

TEST_P(ValidationTest, ChecksInOrderAndNeverClosesTheDescriptor) {
  const ValidationCase& c = GetParam();
  const uint16_t port = ldtest::freeLoopbackPort();
  const Subject subject = c.make(port);
  const int fd = subject.fd;
  const LDListenerEndpoint expected(c.expectedFamily, c.expectedFamily == AF_INET ? "127.0.0.1" : "::1",
                                    static_cast<uint16_t>(port + c.expectedPortOffset));
  const auto before = openDescriptors();
  std::optional<LDError> error;
  const bool valid = LDLoopbackListeners::validateReceivedFileDescriptor(fd, expected, &error);
  const std::optional<ExpectedError> want = c.expected(port);
  if (want) {
    EXPECT_FALSE(valid);
    expectError(error, *want);
    EXPECT_FALSE(LDLoopbackListeners::validateReceivedFileDescriptor(fd, expected)) << "without an error place";
  } else {
    EXPECT_TRUE(valid) << (error ? error->description() : "");
    EXPECT_FALSE(error.has_value());
    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "validation leaves the descriptor close-on-exec";
  }
  EXPECT_EQ(descriptorDifference(before, openDescriptors()), "");
}

Subject one(LDFileHandle fd) {
  Subject subject{fd.fileDescriptor(), {}};
  subject.keep.push_back(std::move(fd));
  return subject;
}

std::string at(const char* address, uint16_t port) { return std::string(address) + ":" + std::to_string(port); }

INSTANTIATE_TEST_SUITE_P(
    Table, ValidationTest,
    testing::Values(
        ValidationCase{"IPv4Listener",
                       [](uint16_t p) { return one(loopbackSocket(AF_INET, SOCK_STREAM, p, Listen::yes)); },
                       AF_INET, 0, [](uint16_t) { return std::optional<ExpectedError>(); }},
        ValidationCase{"IPv6OnlyListener",
                       [](uint16_t p) { return one(loopbackSocket(AF_INET6, SOCK_STREAM, p, Listen::yes)); },
                       AF_INET6, 0, [](uint16_t) { return std::optional<ExpectedError>(); }},
        ValidationCase{"WrongPort",
                       [](uint16_t p) { return one(loopbackSocket(AF_INET, SOCK_STREAM, p, Listen::yes)); },
                       AF_INET, 1,
                       [](uint16_t p) {
                         return std::optional<ExpectedError>({2, "Expected " + at("127.0.0.1", p + 1) +
                                                                     ", received " + at("127.0.0.1", p), std::nullopt});
                       }},
        ValidationCase{"IPv4WhereIPv6Expected",
                       [](uint16_t p) { return one(loopbackSocket(AF_INET, SOCK_STREAM, p, Listen::yes)); },
                       AF_INET6, 0,
                       [](uint16_t p) {
                         return std::optional<ExpectedError>({2, "Expected [::1]:" + std::to_string(p) +
                                                                     ", received " + at("127.0.0.1", p), std::nullopt});
                       }},
        ValidationCase{"Udp",
                       [](uint16_t p) { return one(loopbackSocket(AF_INET, SOCK_DGRAM, p, Listen::no)); },
                       AF_INET, 0,
                       [](uint16_t p) {
                         return std::optional<ExpectedError>({2, "Received " + at("127.0.0.1", p) + " is not SOCK_STREAM", std::nullopt});
                       }},
        ValidationCase{"BoundNotListening",
                       [](uint16_t p) { return one(loopbackSocket(AF_INET, SOCK_STREAM, p, Listen::no)); },
                       AF_INET, 0,
                       [](uint16_t p) {
                         return std::optional<ExpectedError>({2, "Received " + at("127.0.0.1", p) + " is not accepting", std::nullopt});
                       }},
        // Linux turns IPV6_V6ONLY on when a socket binds a specific IPv6 address such as ::1, so a
        // dual-stack listener can only be bound to [::], and fails on the endpoint.
        ValidationCase{"IPv6WithoutV6Only",
                       [](uint16_t p) { return one(anyAddressDualStackListener(p)); },
                       AF_INET6, 0,
                       [](uint16_t p) {
                         return std::optional<ExpectedError>({2, "Expected [::1]:" + std::to_string(p) +
                                                                     ", received [::]:" + std::to_string(p), std::nullopt});
                       }},
        ValidationCase{"Pipe",
                       [](uint16_t) {
                         int ends[2];
                         EXPECT_EQ(::pipe(ends), 0);
                         Subject subject{ends[0], {}};
                         subject.keep.emplace_back(ends[0]);
                         subject.keep.emplace_back(ends[1]);
                         return subject;
                       },
                       AF_INET, 0,
                       [](uint16_t) {
                         return std::optional<ExpectedError>({1, "getsockname failed: Socket operation on non-socket (88)", ENOTSOCK});
                       }},
        ValidationCase{"LocalDomainSocket",
                       [](uint16_t) { return one(LDFileHandle(::socket(AF_UNIX, SOCK_STREAM, 0))); },
                       AF_INET, 0,
                       [](uint16_t) { return std::optional<ExpectedError>({2, "Unexpected socket family 1", std::nullopt}); }},
        ValidationCase{"ClosedDescriptor",
                       [](uint16_t) { return Subject{kNeverOpen, {}}; },
                       AF_INET, 0,
                       [](uint16_t) {
                         return std::optional<ExpectedError>({1, "fcntl(F_GETFD) failed: Bad file descriptor (9)", EBADF});
                       }}),
    ldtest::CaseName());

// ---- Failures only the seam can produce ----

struct ScriptedValidationCase {
  const char* name;
  int family;
  const char* call;
  int occurrence;
  long value;
  int errorNumber;
  std::optional<int> optionValue;
  std::function<ExpectedError(const std::string& endpoint)> expected;
};

class ScriptedValidationTest : public testing::TestWithParam<ScriptedValidationCase> {};

TEST_P(ScriptedValidationTest, ReportsTheScriptedFailure) {
  const ScriptedValidationCase& c = GetParam();
  const uint16_t port = ldtest::freeLoopbackPort();
  LDFileHandle listener = loopbackSocket(c.family, SOCK_STREAM, port, Listen::yes);
  const LDListenerEndpoint expected(c.family, c.family == AF_INET ? "127.0.0.1" : "::1", port);
  ScriptedSystemCalls systemCalls;
  // Linux reports SO_ACCEPTCONN; every case here takes the probe path as other kernels would.
  systemCalls.script("getsockopt(SO_ACCEPTCONN)", 0, -1, ENOPROTOOPT);
  systemCalls.script(c.call, c.occurrence, c.value, c.errorNumber, c.optionValue);
  const auto before = openDescriptors();
  std::optional<LDError> error;
  EXPECT_FALSE(LDLoopbackListeners::validateReceivedFileDescriptor(listener.fileDescriptor(), expected,
                                                                   &error, systemCalls));
  expectError(error, c.expected(expected.description()));
  EXPECT_EQ(descriptorDifference(before, openDescriptors()), "");
  EXPECT_GE(::fcntl(listener.fileDescriptor(), F_GETFD), 0) << "the received descriptor stays open";
}

INSTANTIATE_TEST_SUITE_P(
    Table, ScriptedValidationTest,
    testing::Values(
        // The third F_GETFD is the re-check after close-on-exec was set and confirmed.
        ScriptedValidationCase{"CloseOnExecRecheckFails", AF_INET, "fcntl(F_GETFD)", 3, -1, EBADF, std::nullopt,
                               [](const std::string& e) { return ExpectedError{2, "FD_CLOEXEC is not set for " + e, std::nullopt}; }},
        ScriptedValidationCase{"CloseOnExecRecheckClear", AF_INET6, "fcntl(F_GETFD)", 3, 0, 0, std::nullopt,
                               [](const std::string& e) { return ExpectedError{2, "FD_CLOEXEC is not set for " + e, std::nullopt}; }},
        ScriptedValidationCase{"CloseOnExecCannotBeSet", AF_INET, "fcntl(F_SETFD)", 1, -1, EPERM, std::nullopt,
                               [](const std::string&) { return ExpectedError{1, "fcntl(F_SETFD) failed: Operation not permitted (1)", EPERM}; }},
        ScriptedValidationCase{"SocketTypeUnreadable", AF_INET, "getsockopt(SO_TYPE)", 1, -1, ENOBUFS, std::nullopt,
                               [](const std::string&) { return ExpectedError{1, "getsockopt(3) failed: No buffer space available (105)", ENOBUFS}; }},
        ScriptedValidationCase{"V6OnlyUnreadable", AF_INET6, "getsockopt(IPV6_V6ONLY)", 1, -1, EINVAL, std::nullopt,
                               [](const std::string&) { return ExpectedError{1, "getsockopt(26) failed: Invalid argument (22)", EINVAL}; }},
        ScriptedValidationCase{"V6OnlyOff", AF_INET6, "getsockopt(IPV6_V6ONLY)", 1, 0, 0, 0,
                               [](const std::string& e) { return ExpectedError{2, "Received " + e + " is not IPv6-only", std::nullopt}; }},
        ScriptedValidationCase{"NotAStreamSocket", AF_INET, "getsockopt(SO_TYPE)", 1, 0, 0, SOCK_SEQPACKET,
                               [](const std::string& e) { return ExpectedError{2, "Received " + e + " is not SOCK_STREAM", std::nullopt}; }},
        ScriptedValidationCase{"AcceptConnUnreadable", AF_INET, "getsockopt(SO_ACCEPTCONN)", 1, -1, EBADF, std::nullopt,
                               [](const std::string&) { return ExpectedError{1, "getsockopt(SO_ACCEPTCONN) failed: Bad file descriptor (9)", EBADF}; }},
        ScriptedValidationCase{"ProbeNeverReadable", AF_INET, "poll", 1, 0, 0, std::nullopt,
                               [](const std::string& e) { return ExpectedError{2, "Received " + e + " did not become readable", std::nullopt}; }},
        ScriptedValidationCase{"ProbePollFails", AF_INET6, "poll", 1, -1, EINTR, std::nullopt,
                               [](const std::string& e) { return ExpectedError{2, "Received " + e + " did not become readable", std::nullopt}; }},
        ScriptedValidationCase{"ProbeAcceptFails", AF_INET6, "accept", 1, -1, ECONNABORTED, std::nullopt,
                               [](const std::string& e) { return ExpectedError{1, "accept(" + e + ") failed: Software caused connection abort (103)", ECONNABORTED}; }},
        ScriptedValidationCase{"ProbeClientSocketFails", AF_INET, "socket", 1, -1, EMFILE, std::nullopt,
                               [](const std::string&) { return ExpectedError{1, "socket(client) failed: Too many open files (24)", EMFILE}; }}),
    ldtest::CaseName());

// Where the kernel cannot report SO_ACCEPTCONN, a listening descriptor is proven by connecting to
// it. The probe takes the first queued connection, whichever it is, and closes it: one of the two
// connections is left.
TEST(ValidateAccepting, ProbeTakesExactlyOneQueuedConnection) {
  for (const int family : {AF_INET, AF_INET6}) {
    const uint16_t port = ldtest::freeLoopbackPort();
    LDFileHandle listener = loopbackSocket(family, SOCK_STREAM, port, Listen::yes);
    const LDListenerEndpoint endpoint(family, family == AF_INET ? "127.0.0.1" : "::1", port);
    ASSERT_TRUE(LDLoopbackListeners::connectToEndpoint(endpoint));  // queued before the probe
    ScriptedSystemCalls systemCalls;
    systemCalls.script("getsockopt(SO_ACCEPTCONN)", 1, -1, ENOPROTOOPT);
    const auto before = openDescriptors();
    std::optional<LDError> error;
    ASSERT_TRUE(LDLoopbackListeners::validateReceivedFileDescriptor(listener.fileDescriptor(), endpoint,
                                                                    &error, systemCalls))
        << error->description();
    EXPECT_EQ(systemCalls.callCount("connect"), 1);
    EXPECT_EQ(descriptorDifference(before, openDescriptors()), "");
    ASSERT_EQ(::fcntl(listener.fileDescriptor(), F_SETFL, O_NONBLOCK), 0);
    LDFileHandle left(::accept4(listener.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_TRUE(left.isValid()) << "one queued connection remains";
    LDFileHandle none(::accept4(listener.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_FALSE(none.isValid()) << "the probe accepted exactly one";
  }
}

TEST(ValidateAccepting, ProbeOfANonListeningSocketReportsTheRefusedConnect) {
  const uint16_t port = ldtest::freeLoopbackPort();
  LDFileHandle bound = loopbackSocket(AF_INET, SOCK_STREAM, port, Listen::no);
  const LDListenerEndpoint endpoint(AF_INET, "127.0.0.1", port);
  ScriptedSystemCalls systemCalls;
  systemCalls.script("getsockopt(SO_ACCEPTCONN)", 1, -1, ENOPROTOOPT);
  const auto before = openDescriptors();
  std::optional<LDError> error;
  EXPECT_FALSE(LDLoopbackListeners::validateAccepting(bound.fileDescriptor(), endpoint, &error, systemCalls));
  expectError(error, {1, "connect(127.0.0.1:" + std::to_string(port) + ") failed: Connection refused (111)", ECONNREFUSED});
  EXPECT_EQ(descriptorDifference(before, openDescriptors()), "");
}

TEST(ConnectToEndpoint, OutcomesAndTheirMessages) {
  const uint16_t port = ldtest::freeLoopbackPort();
  LDFileHandle listener4 = loopbackSocket(AF_INET, SOCK_STREAM, port, Listen::yes);
  LDFileHandle listener6 = loopbackSocket(AF_INET6, SOCK_STREAM, port, Listen::yes);
  const uint16_t closedPort = ldtest::freeLoopbackPort();
  const std::string p = std::to_string(port), q = std::to_string(closedPort);
  struct Case {
    LDListenerEndpoint endpoint;
    std::optional<ExpectedError> expected;
  };
  for (const Case& c : {
           Case{{AF_INET, "127.0.0.1", port}, std::nullopt},
           Case{{AF_INET6, "::1", port}, std::nullopt},
           Case{{AF_INET, "127.0.0.1", closedPort}, ExpectedError{1, "connect(127.0.0.1:" + q + ") failed: Connection refused (111)", ECONNREFUSED}},
           Case{{AF_INET6, "::1", closedPort}, ExpectedError{1, "connect([::1]:" + q + ") failed: Connection refused (111)", ECONNREFUSED}},
           Case{{AF_INET, "localhost", port}, ExpectedError{2, "Invalid IPv4 endpoint localhost:" + p, std::nullopt}},
           Case{{AF_INET, std::nullopt, port}, ExpectedError{2, "Invalid IPv4 endpoint (null):" + p, std::nullopt}},
           Case{{AF_INET6, "127.0.0.1", port}, ExpectedError{2, "Invalid IPv6 endpoint [127.0.0.1]:" + p, std::nullopt}},
           // Every family but AF_INET takes the IPv6 branch: a local-domain client socket parses
           // the address and then cannot connect to it.
           Case{{AF_UNIX, "::1", port}, ExpectedError{1, "connect(::1:" + p + ") failed: Invalid argument (22)", EINVAL}},
           Case{{AF_UNIX, "nowhere", port}, ExpectedError{2, "Invalid IPv6 endpoint nowhere:" + p, std::nullopt}},
           Case{{12345, "::1", port}, ExpectedError{1, "socket(client) failed: Address family not supported by protocol (97)", EAFNOSUPPORT}},
       }) {
    SCOPED_TRACE(c.endpoint.description());
    const auto before = openDescriptors();
    std::optional<LDError> error;
    EXPECT_EQ(LDLoopbackListeners::connectToEndpoint(c.endpoint, &error), !c.expected);
    EXPECT_EQ(LDLoopbackListeners::canConnectToEndpoint(c.endpoint), !c.expected);
    if (c.expected) {
      expectError(error, *c.expected);
    } else {
      EXPECT_FALSE(error.has_value());
    }
    EXPECT_EQ(descriptorDifference(before, openDescriptors()), "");
  }
}

}  // namespace
