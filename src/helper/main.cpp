// The helper daemon: started as root on demand for its service socket, it admits only clients
// signed as the application by its own team, hands over the loopback listener pair once, and
// ends.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "helper/listener_service.h"
#include "helper/service_listener.h"
#include "platform/dispatch.h"
#include "platform/run_loop.h"
#include "platform/socket_activation.h"
#include "shared/code_signing.h"
#include "shared/constants.h"

namespace {

// A test build may shorten the two time-outs; the shipped helper uses the shared constants.
#ifdef LD_TEST_ACKNOWLEDGEMENT_TIMEOUT
constexpr double kAcknowledgementTimeout = LD_TEST_ACKNOWLEDGEMENT_TIMEOUT;
constexpr double kReplyBarrierFallbackTimeout = LD_TEST_REPLY_BARRIER_FALLBACK_TIMEOUT;
#define LD_ACKNOWLEDGEMENT_TIMEOUT kAcknowledgementTimeout
#define LD_REPLY_BARRIER_FALLBACK_TIMEOUT kReplyBarrierFallbackTimeout
#else
#define LD_ACKNOWLEDGEMENT_TIMEOUT LDAcknowledgementTimeout
#define LD_REPLY_BARRIER_FALLBACK_TIMEOUT LDReplyBarrierFallbackTimeout
#endif

constexpr const char kMustRunAsRoot[] = "quillfern-local-domain-listener: must run as a root LaunchDaemon\n";

int fail(const std::string& text) {
  std::fprintf(stderr, "quillfern-local-domain-listener: %s\n", text.c_str());
  return 1;
}

}  // namespace

int main() {
  if (::geteuid() != 0) {
    std::fputs(kMustRunAsRoot, stderr);
    return 1;
  }
  std::optional<LDError> error;
  const std::optional<std::string> requirement =
      LDCodeSigningRequirementForIdentifier(LDAppSigningIdentifier, &error);
  if (!requirement) {
    return fail(error && !error->description().empty() ? error->description()
                                                       : "unable to derive the client requirement");
  }

  LDUtilityQueue utilityQueue;
  const std::shared_ptr<LDListenerService> service = LDListenerService::initWithPort(
      LDListenerPort, LD_ACKNOWLEDGEMENT_TIMEOUT, LD_REPLY_BARRIER_FALLBACK_TIMEOUT, nullptr,
      [](int32_t status) { std::exit(status); }, utilityQueue);
  LDListenerServiceDelegate delegate(service);

  bool activated = false;
  std::string problem;
  std::optional<LDFileHandle> socket = LDTakeActivatedSocket(&activated, &problem);
  if (!activated) socket = LDBindServiceSocket(LDServiceSocketPath(), &problem);
  if (!socket) return fail(problem);

  LDRunLoop runLoop;
  LDServiceListener listener(std::move(*socket), runLoop);
  listener.setConnectionCodeSigningRequirement(*requirement);
  listener.setDelegate(&delegate);
  listener.activate();
  runLoop.run();
  return 0;
}
