// The helper daemon: started as root on demand for its service socket, it admits only clients
// signed as the application by its own team, hands over the loopback listener pair once, and
// ends.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "helper/helper_settings.h"
#include "helper/listener_service.h"
#include "helper/service_listener.h"
#include "platform/dispatch.h"
#include "platform/run_loop.h"
#include "platform/socket_activation.h"
#include "shared/constants.h"
#include "shared/printable.h"
#include "signing/code_signing.h"

namespace {

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

  const LDHelperSettings settings = LDHelperSettingsOfThisBuild();
  // Every call to the kernel that a test replaces goes through this one seam, handed down.
  LDSystemCalls& kernel = LDSystemCalls::real();
  LDRunLoop runLoop(kernel);
  int errorNumber = 0;
  const int activatedSocket = socket->fileDescriptor();  // owned by the listener from here on
  if (!runLoop.isValid(&errorNumber)) return cannotServe(activatedSocket, systemCallFailure("epoll_create1", errorNumber));
  LDServiceListener listener(std::move(*socket), runLoop);
  listener.setSystemCalls(kernel);
  listener.setConnectionCodeSigningRequirement(*requirement);
  listener.setAdmissionPolicy(settings.admission);
  listener.setTiming(settings.timing);
  // Forks the keepers' zygote, so it comes before the utility queue starts its thread.
  if (!listener.activate(&errorNumber)) return cannotServe(activatedSocket, systemCallFailure("activation", errorNumber));

  LDUtilityQueue utilityQueue;
  const std::shared_ptr<LDListenerService> service = LDListenerService::initWithPort(
      LDListenerPort, settings.acknowledgementTimeout, settings.replyBarrierFallbackTimeout, nullptr,
      [](int32_t status) { std::exit(status); }, utilityQueue, kernel);
  LDListenerServiceDelegate delegate(service);
  listener.setDelegate(&delegate);
  listener.setAcceptsWhile([&service] { return service->state() != LDListenerServiceStateFinished; });
  // Every ending goes through the service's once-only termination: the first status wins.
  listener.setTerminate([&service](int status) { service->terminateOnce(status); });
  // The loop ends only through the terminate callback; a loop that cannot wait serves no one.
  if (!runLoop.run(&errorNumber)) service->terminateOnce(1);
  return 1;
}
