// The helper daemon: started as root on demand for its service socket, it admits only clients
// signed as the application by its own team, hands over the loopback listener pair once, and
// ends.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "helper/listener_service.h"
#include "helper/service_listener.h"
#include "platform/dispatch.h"
#include "platform/run_loop.h"
#include "platform/socket_activation.h"
#include "shared/constants.h"
#include "shared/printable.h"
#include "signing/code_signing.h"

namespace {

// A test build may shorten the time-outs; the shipped helper uses the shared constants.
#ifdef LD_TEST_ACKNOWLEDGEMENT_TIMEOUT
constexpr double kAcknowledgementTimeout = LD_TEST_ACKNOWLEDGEMENT_TIMEOUT;
constexpr double kReplyBarrierFallbackTimeout = LD_TEST_REPLY_BARRIER_FALLBACK_TIMEOUT;
#define LD_ACKNOWLEDGEMENT_TIMEOUT kAcknowledgementTimeout
#define LD_REPLY_BARRIER_FALLBACK_TIMEOUT kReplyBarrierFallbackTimeout
#else
#define LD_ACKNOWLEDGEMENT_TIMEOUT LDAcknowledgementTimeout
#define LD_REPLY_BARRIER_FALLBACK_TIMEOUT LDReplyBarrierFallbackTimeout
#endif

// Test builds may admit by signature alone, pin peers without SO_PEERPIDFD as on kernels before
// 6.5, or keep their records of verified executables elsewhere and record files changed just now.
LDAdmissionPolicy admissionPolicy() {
  LDAdmissionPolicy policy;
  policy.requireSecureExecution = LDRequireSecureExecution;
  policy.verifiedExecutables = LD_VERIFIED_EXECUTABLE_DIRECTORY;
#ifdef LD_TEST_VERIFIED_EXECUTABLES
  policy.verifiedExecutables = LD_TEST_VERIFIED_EXECUTABLES;
  policy.recordSettling = 0;
#endif
#ifdef LD_TEST_SIGNATURE_ONLY
  policy.requireSecureExecution = false;
#endif
#ifdef LD_TEST_WITHOUT_PEER_PIDFD
  policy.usePeerPidfd = false;
#endif
  return policy;
}

constexpr const char kMustRunAsRoot[] = "quillfern-local-domain-listener: must run as a root LaunchDaemon\n";

int fail(const std::string& text) {
  std::fprintf(stderr, "quillfern-local-domain-listener: %s\n", LDPrintable(text).c_str());
  return 1;
}

// Closes the connections already waiting, then writes the line. systemd starts the service again
// for as long as a connection waits, so a helper that cannot serve must use the waiting ones up,
// or every failed start would be followed by another at once.
int cannotServe(int socket, const std::string& text) {
  LDRefuseWaitingConnections(socket);
  return fail(text);
}

std::string systemCallFailure(const char* call, int errorNumber) {
  return std::string(call) + " failed: " + std::strerror(errorNumber);
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
  // Only a socket handed over by socket activation is served: a helper started by hand (with
  // any arguments) binds nothing, so it can neither leave a socket file behind nor stay as a
  // root process that nobody started on purpose.
  bool activated = false;
  std::string problem;
  std::optional<LDFileHandle> socket = LDTakeActivatedSocket(&activated, &problem);
  if (!requirement) {
    const std::string text = error && !error->description().empty() ? error->description()
                                                                     : "unable to derive the client requirement";
    return socket ? cannotServe(socket->fileDescriptor(), text) : fail(text);
  }
  if (!activated) return fail(LDNotSocketActivatedMessage());
  if (!socket) return fail(problem);

  LDRunLoop runLoop;
  int errorNumber = 0;
  const int activatedSocket = socket->fileDescriptor();  // owned by the listener from here on
  if (!runLoop.isValid(&errorNumber)) return cannotServe(activatedSocket, systemCallFailure("epoll_create1", errorNumber));
  LDServiceListener listener(std::move(*socket), runLoop);
  listener.setConnectionCodeSigningRequirement(*requirement);
  listener.setAdmissionPolicy(admissionPolicy());
#ifdef LD_TEST_MESSAGE_CHECK_DEADLINE
  LDServiceListener::Timing timing;
  timing.messageCheck = LD_TEST_MESSAGE_CHECK_DEADLINE;
  listener.setTiming(timing);
#endif
  // Forks the keepers' zygote, so it comes before the utility queue starts its thread.
  if (!listener.activate(&errorNumber)) return cannotServe(activatedSocket, systemCallFailure("activation", errorNumber));

  LDUtilityQueue utilityQueue;
  const std::shared_ptr<LDListenerService> service = LDListenerService::initWithPort(
      LDListenerPort, LD_ACKNOWLEDGEMENT_TIMEOUT, LD_REPLY_BARRIER_FALLBACK_TIMEOUT, nullptr,
      [](int32_t status) { std::exit(status); }, utilityQueue);
  LDListenerServiceDelegate delegate(service);
  listener.setDelegate(&delegate);
  listener.setAcceptsWhile([&service] { return service->state() != LDListenerServiceStateFinished; });
  // Every ending goes through the service's once-only termination: the first status wins.
  listener.setTerminate([&service](int status) { service->terminateOnce(status); });
  // The loop ends only through the terminate callback; a loop that cannot wait serves no one.
  if (!runLoop.run(&errorNumber)) service->terminateOnce(1);
  return 1;
}
