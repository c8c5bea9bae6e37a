#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>

#include "shared/loopback_listeners.h"
#include "support/expect_error.h"
#include "support/scripted_system_calls.h"

namespace {

// Whatever getsockname reports is taken as it is; what it cannot describe is an error.
TEST(ListenerEndpoint, ReadsWhatTheSocketIsBoundToOrNamesTheCause) {
  int pipeEnds[2];
  ASSERT_EQ(::pipe2(pipeEnds, O_CLOEXEC), 0);
  LDFileHandle readEnd(pipeEnds[0]), writeEnd(pipeEnds[1]);
  LDFileHandle local(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  LDFileHandle unbound4(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), unbound6(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int closed = ::dup(local.fileDescriptor());
  ::close(closed);
  struct Case {
    int fd;
    const char* inetNtop;  // the operation named when inet_ntop is made to fail
    ldtest::ExpectedError expected;  // code 0: the description of the endpoint read
  };
  for (const Case& c : {
           Case{unbound4.fileDescriptor(), "inet_ntop(IPv4)", {0, "0.0.0.0:0", std::nullopt}},
           Case{unbound6.fileDescriptor(), "inet_ntop(IPv6)", {0, "[::]:0", std::nullopt}},
           Case{readEnd.fileDescriptor(), nullptr, {1, "getsockname failed: Socket operation on non-socket (88)", ENOTSOCK}},
           Case{closed, nullptr, {1, "getsockname failed: Bad file descriptor (9)", EBADF}},
           Case{local.fileDescriptor(), nullptr, {2, "Unexpected socket family 1", std::nullopt}},
       }) {
    SCOPED_TRACE(c.expected.description);
    std::optional<LDError> error;
    const auto endpoint = LDLoopbackListeners::endpointForFileDescriptor(c.fd, &error);
    if (c.expected.code == 0) {
      ASSERT_TRUE(endpoint) << error->description();
      EXPECT_EQ(endpoint->description(), c.expected.description);
      ldtest::ScriptedSystemCalls systemCalls;
      systemCalls.script("inet_ntop", 1, -1, ENOSPC);
      EXPECT_FALSE(LDLoopbackListeners::endpointForFileDescriptor(c.fd, &error, systemCalls));
      ldtest::expectError(error, {1, std::string(c.inetNtop) + " failed: No space left on device (28)", ENOSPC});
    } else {
      EXPECT_FALSE(endpoint);
      ldtest::expectError(error, c.expected);
      EXPECT_FALSE(LDLoopbackListeners::endpointForFileDescriptor(c.fd));
    }
  }
}

TEST(ListenerEndpoint, EqualityComparesFamilyPortAndAddressText) {
  const LDListenerEndpoint loopback6(AF_INET6, "::1", 80);
  EXPECT_TRUE(loopback6.isEqualToEndpoint(&loopback6));
  EXPECT_FALSE(loopback6.isEqualToEndpoint(nullptr));
  for (const LDListenerEndpoint& other : {LDListenerEndpoint(AF_INET, "::1", 80), LDListenerEndpoint(AF_INET6, "::1", 8080),
                                          LDListenerEndpoint(AF_INET6, "0:0:0:0:0:0:0:1", 80), LDListenerEndpoint(AF_INET6, std::nullopt, 80)}) {
    EXPECT_FALSE(loopback6.isEqualToEndpoint(&other)) << other.description();
  }
  const LDListenerEndpoint blank(AF_INET, std::nullopt, 80);
  EXPECT_FALSE(blank.isEqualToEndpoint(&blank)) << "endpoints without an address never match";
}

TEST(ListenerEndpoint, DescriptionBracketsOnlyIPv6) {
  EXPECT_EQ(LDListenerEndpoint(AF_INET, "127.0.0.1", 80).description(), "127.0.0.1:80");
  EXPECT_EQ(LDListenerEndpoint(AF_INET6, "::1", 65535).description(), "[::1]:65535");
  EXPECT_EQ(LDListenerEndpoint(12345, std::nullopt, 1).description(), "(null):1");
}

}  // namespace
