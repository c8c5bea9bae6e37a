// The helper's test builds (tests/CMakeLists.txt): shorter time-outs, records of verified
// executables where a test mounts a tmpfs of its own and made of files changed just now, admission
// by signature alone, or pinning without SO_PEERPIDFD as on kernels before 6.5.

#include "helper/helper_settings.h"

LDHelperSettings LDHelperSettingsOfThisBuild() {
  LDHelperSettings settings;
#ifdef LD_TEST_ACKNOWLEDGEMENT_TIMEOUT
  settings.acknowledgementTimeout = LD_TEST_ACKNOWLEDGEMENT_TIMEOUT;
  settings.replyBarrierFallbackTimeout = LD_TEST_REPLY_BARRIER_FALLBACK_TIMEOUT;
#endif
#ifdef LD_TEST_VERIFIED_EXECUTABLES
  settings.admission.verifiedExecutables = LD_TEST_VERIFIED_EXECUTABLES;
  settings.admission.recordSettling = 0;
#endif
#ifdef LD_TEST_SIGNATURE_ONLY
  settings.admission.requireSecureExecution = false;
#endif
#ifdef LD_TEST_WITHOUT_PEER_PIDFD
  settings.admission.usePeerPidfd = false;
#endif
#ifdef LD_TEST_MESSAGE_CHECK_DEADLINE
  settings.timing.messageCheck = LD_TEST_MESSAGE_CHECK_DEADLINE;
#endif
  return settings;
}
