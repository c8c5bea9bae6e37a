#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "shared/loopback_listeners.h"
#include "support/network_namespace.h"

namespace {

std::string describe(const std::optional<LDError>& error) { return error ? error->description() : "no error"; }

// The helper's real port, in a private network namespace so that nothing on the machine is
// disturbed and port 80 is free. Needs root; the test command runs as root.
TEST(Port80, PairOnTheListenerPortPassesTheReceivingChecks) {
  const std::string failure = ldtest::runInPrivateNetworkNamespace([]() -> std::string {
    std::optional<LDError> error;
    auto listeners = LDLoopbackListeners::initWithPort(LDListenerPort, &error);
    if (!listeners) return "listener pair on port 80: " + describe(error);

    // The port is now taken on both addresses: a second pair fails with code 3.
    std::optional<LDError> taken;
    if (LDLoopbackListeners::initWithPort(LDListenerPort, &taken)) return "a second pair on port 80 succeeded";
    if (!taken || taken->code() != LDListenerErrorAddressInUse) return "second pair: " + describe(taken);

    LDFileHandle ipv4, ipv6;
    if (!listeners->duplicateIntoIPv4(ipv4, ipv6, &error)) return "duplicate: " + describe(error);
    listeners->closeOriginals();
    const LDListenerEndpoint expected4(AF_INET, "127.0.0.1", LDListenerPort);
    const LDListenerEndpoint expected6(AF_INET6, "::1", LDListenerPort);
    if (!LDLoopbackListeners::validateReceivedFileDescriptor(ipv4.fileDescriptor(), expected4, &error)) {
      return "IPv4 duplicate: " + describe(error);
    }
    if (!LDLoopbackListeners::validateReceivedFileDescriptor(ipv6.fileDescriptor(), expected6, &error)) {
      return "IPv6 duplicate: " + describe(error);
    }
    // Crossed over, each fails on the endpoint comparison.
    if (LDLoopbackListeners::validateReceivedFileDescriptor(ipv4.fileDescriptor(), expected6, &error)) {
      return "the IPv4 listener passed as [::1]:80";
    }
    if (describe(error) != "Expected [::1]:80, received 127.0.0.1:80") return "crossed: " + describe(error);
    return "";
  });
  EXPECT_EQ(failure, "");
}

}  // namespace
