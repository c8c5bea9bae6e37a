#pragma once

// What one build of the helper runs with. The shipped helper takes the shared constants
// (shipped_settings.cpp); the test builds that tests/CMakeLists.txt makes shorten time-outs and
// change admission the way each end-to-end test needs (test_build_settings.cpp).

#include "admission/peer_identity.h"
#include "helper/service_listener.h"
#include "shared/constants.h"

struct LDHelperSettings {
  double acknowledgementTimeout = LDAcknowledgementTimeout;
  double replyBarrierFallbackTimeout = LDReplyBarrierFallbackTimeout;
  LDAdmissionPolicy admission = {.requireSecureExecution = LDRequireSecureExecution,
                                 .verifiedExecutables = LD_VERIFIED_EXECUTABLE_DIRECTORY};
  LDServiceListener::Timing timing;
};

// Defined once per build: by the shipped helper's settings, or by a test build's.
LDHelperSettings LDHelperSettingsOfThisBuild();
