#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "shared/constants.h"
#include "support/expect_error.h"

namespace {

using ldtest::ExpectedError;
using ldtest::expectError;

TEST(Constants, ProtocolValuesAreTheWireContract) {
  EXPECT_EQ(LDListenerProtocolVersion, 1);
  EXPECT_EQ(LDListenerPort, 80);
  EXPECT_EQ(LDAcknowledgementTimeout, 10.0);
  EXPECT_EQ(LDReplyBarrierFallbackTimeout, 2.0);
  EXPECT_EQ(LDActivationTimeout, 15.0);
  EXPECT_EQ(LDAcknowledgementReplyTimeout, 5.0);
}

TEST(Constants, EveryIdentifierDerivesFromTheApplicationIdentifier) {
  const std::string app(LDAppSigningIdentifier);
  ASSERT_FALSE(app.empty());
  EXPECT_EQ(LDHelperSigningIdentifier, app + ".local-domain-listener-helper");
  EXPECT_EQ(LDDaemonPlistName, app + ".local-domain-listener.plist");
  EXPECT_EQ(LDMachServiceName, app + ".local-domain-listener");
  EXPECT_EQ(LDListenerErrorDomain, LDMachServiceName);
  EXPECT_EQ(LDHelperBundleRelativePath,
            "Contents/Library/LaunchServices/QuillfernLocalDomainListener");
}

struct SystemCallErrorCase {
  const char* operation;
  int32_t errorNumber;
  ExpectedError expected;
};

class SystemCallErrorTest : public testing::TestWithParam<SystemCallErrorCase> {};

TEST_P(SystemCallErrorTest, CodeDescriptionAndErrorNumber) {
  const SystemCallErrorCase& c = GetParam();
  expectError(LDSystemCallError(c.operation, c.errorNumber), c.expected);
}

// Only EADDRINUSE is singled out; zero is a number like any other.
INSTANTIATE_TEST_SUITE_P(
    Table, SystemCallErrorTest,
    testing::Values(
        SystemCallErrorCase{"bind", EADDRINUSE, {3, "bind failed: Address already in use (98)", 98}},
        SystemCallErrorCase{"bind", EACCES, {1, "bind failed: Permission denied (13)", 13}},
        SystemCallErrorCase{"socket", 0, {1, "socket failed: Success (0)", 0}},
        SystemCallErrorCase{"connect(127.0.0.1:80)", ECONNREFUSED,
                            {1, "connect(127.0.0.1:80) failed: Connection refused (111)", 111}},
        SystemCallErrorCase{"getsockopt(3)", 9999, {1, "getsockopt(3) failed: Unknown error 9999 (9999)", 9999}},
        SystemCallErrorCase{"", EMFILE, {1, " failed: Too many open files (24)", 24}}));

TEST(ErrorValues, EndpointAndSigningErrorsKeepTheMessageAndCarryNoErrorNumber) {
  for (const std::string message : {"", "Unable to set FD_CLOEXEC", "line\nbreak \"quoted\" %d %@"}) {
    expectError(LDEndpointError(message), {2, message, std::nullopt});
    expectError(LDSigningError(message), {2, message, std::nullopt});
  }
}

}  // namespace
