#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>

#include "shared/loopback_listeners.h"
#include "support/descriptors.h"
#include "support/expect_error.h"
#include "support/scripted_system_calls.h"

namespace {

using ldtest::expectError;

TEST(ListenerEndpoint, ReadsTheBoundEndpointOfBothListeners) {
  const uint16_t port = ldtest::freeLoopbackPort();
  auto listeners = LDLoopbackListeners::initWithPort(port);
  ASSERT_TRUE(listeners);
  const auto ipv4 = LDLoopbackListeners::endpointForFileDescriptor(listeners->ipv4FileDescriptor());
  const auto ipv6 = LDLoopbackListeners::endpointForFileDescriptor(listeners->ipv6FileDescriptor());
  ASSERT_TRUE(ipv4 && ipv6);
  EXPECT_EQ(ipv4->family(), AF_INET);
  EXPECT_EQ(ipv4->address(), "127.0.0.1");
  EXPECT_EQ(ipv4->port(), port);
  EXPECT_EQ(ipv6->family(), AF_INET6);
  EXPECT_EQ(ipv6->address(), "::1");
  EXPECT_EQ(ipv6->port(), port);
}

// Whatever getsockname reports is taken as it is: an unbound socket is 0.0.0.0:0 or [::]:0.
TEST(ListenerEndpoint, UnboundSocketsGiveTheUnspecifiedAddressAndPortZero) {
  for (const auto& [family, printed] : {std::pair{AF_INET, "0.0.0.0:0"}, std::pair{AF_INET6, "[::]:0"}}) {
    LDFileHandle fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    std::optional<LDError> error;
    const auto endpoint = LDLoopbackListeners::endpointForFileDescriptor(fd.fileDescriptor(), &error);
    ASSERT_TRUE(endpoint) << error->description();
    EXPECT_EQ(endpoint->description(), printed);
    EXPECT_FALSE(error.has_value());
  }
}

TEST(ListenerEndpoint, FailuresNameTheirCause) {
  int pipeEnds[2];
  ASSERT_EQ(::pipe2(pipeEnds, O_CLOEXEC), 0);
  LDFileHandle readEnd(pipeEnds[0]), writeEnd(pipeEnds[1]);
  LDFileHandle local(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  LDFileHandle closed(::socket(AF_INET, SOCK_STREAM, 0));
  const int closedNumber = closed.fileDescriptor();
  closed.reset();

  struct Case {
    int fd;
    ldtest::ExpectedError expected;
  };
  for (const Case& c : {
           Case{readEnd.fileDescriptor(), {1, "getsockname failed: Socket operation on non-socket (88)", ENOTSOCK}},
           Case{closedNumber, {1, "getsockname failed: Bad file descriptor (9)", EBADF}},
           Case{local.fileDescriptor(), {2, "Unexpected socket family 1", std::nullopt}},
       }) {
    SCOPED_TRACE(c.expected.description);
    std::optional<LDError> error;
    EXPECT_FALSE(LDLoopbackListeners::endpointForFileDescriptor(c.fd, &error));
    expectError(error, c.expected);
    EXPECT_FALSE(LDLoopbackListeners::endpointForFileDescriptor(c.fd));
  }
}

TEST(ListenerEndpoint, AddressConversionFailureNamesTheFamily) {
  auto listeners = LDLoopbackListeners::initWithPort(ldtest::freeLoopbackPort());
  ASSERT_TRUE(listeners);
  for (const auto& [fd, operation] : {std::pair{listeners->ipv4FileDescriptor(), "inet_ntop(IPv4)"},
                                      std::pair{listeners->ipv6FileDescriptor(), "inet_ntop(IPv6)"}}) {
    ldtest::ScriptedSystemCalls systemCalls;
    systemCalls.script("inet_ntop", 1, -1, ENOSPC);
    std::optional<LDError> error;
    EXPECT_FALSE(LDLoopbackListeners::endpointForFileDescriptor(fd, &error, systemCalls));
    expectError(error, {1, std::string(operation) + " failed: No space left on device (28)", ENOSPC});
  }
}

TEST(ListenerEndpoint, EqualityComparesFamilyPortAndAddressText) {
  const LDListenerEndpoint loopback6(AF_INET6, "::1", 80);
  struct Case {
    const char* name;
    std::optional<LDListenerEndpoint> other;
    bool equal;
  };
  for (const Case& c : {
           Case{"same", LDListenerEndpoint(AF_INET6, "::1", 80), true},
           Case{"none", std::nullopt, false},
           Case{"other family", LDListenerEndpoint(AF_INET, "::1", 80), false},
           Case{"other port", LDListenerEndpoint(AF_INET6, "::1", 8080), false},
           Case{"other spelling", LDListenerEndpoint(AF_INET6, "0:0:0:0:0:0:0:1", 80), false},
           Case{"no address", LDListenerEndpoint(AF_INET6, std::nullopt, 80), false},
       }) {
    EXPECT_EQ(loopback6.isEqualToEndpoint(c.other ? &*c.other : nullptr), c.equal) << c.name;
  }
  const LDListenerEndpoint blank(AF_INET, std::nullopt, 80);
  EXPECT_FALSE(blank.isEqualToEndpoint(&blank)) << "endpoints without an address never match";
}

TEST(ListenerEndpoint, DescriptionBracketsOnlyIPv6) {
  EXPECT_EQ(LDListenerEndpoint(AF_INET, "127.0.0.1", 80).description(), "127.0.0.1:80");
  EXPECT_EQ(LDListenerEndpoint(AF_INET6, "::1", 65535).description(), "[::1]:65535");
  EXPECT_EQ(LDListenerEndpoint(12345, "::1", 1).description(), "::1:1");
  EXPECT_EQ(LDListenerEndpoint(AF_UNIX, "/run/x", 0).description(), "/run/x:0");
}

}  // namespace
