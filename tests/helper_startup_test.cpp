// The helper's start-up refusals, that its service socket comes only from socket activation,
// and the client's word when there is no helper.

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/socket_activation.h"
#include "shared/code_signature.h"
#include "support/descriptors.h"
#include "support/helper_harness.h"
#include "support/test_pki.h"

namespace {

using ldtest::Seqpacket;
using ldtest::seqpacketSocket;

TEST(HelperStartup, RefusesToRunWithoutRootOrAnActivatedListeningSeqpacketSocket) {
  ldtest::ProgramDirectory programs;
  const std::string helper = programs.install(LD_HELPER, "helper", false);
  const std::string notActivated = "quillfern-local-domain-listener: " + LDNotSocketActivatedMessage() + "\n";
  const LDFileHandle stream(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  struct Case { std::vector<std::string> argv; int uid; int activated; std::string standardError; };
  for (const Case& c : {
           Case{{helper}, 65534, -1, "quillfern-local-domain-listener: must run as a root LaunchDaemon\n"},
           Case{{helper}, -1, -1, notActivated},
           Case{{helper, "--help"}, -1, -1, notActivated},
           Case{{helper}, -1, stream.fileDescriptor(),
                "quillfern-local-domain-listener: the activated socket is not a listening AF_UNIX SOCK_SEQPACKET socket\n"},
       }) {
    const auto result = ldtest::ChildProcess::start(c.argv, c.uid, c.activated).finish();
    EXPECT_EQ(result.exitStatus, 1) << c.standardError;
    EXPECT_EQ(result.standardError, c.standardError);
    EXPECT_EQ(result.standardOutput, "");
  }
}

TEST(HelperStartup, WithoutATeamItClosesTheWaitingConnectionsSoSystemdCannotSpinIt) {
  ldtest::ProgramDirectory programs;
  const std::string helper = programs.install(LD_HELPER, "helper", false);
  // An unsigned copy: the signature cut off, the code unchanged.
  const std::string image = ldtest::readFile(helper);
  const LDSignatureLocation location =
      LDLocateSignature(image.size(), std::string_view(image).substr(image.size() - LDSignatureTrailerSize));
  ASSERT_EQ(location.status, 0) << "the built helper is signed";
  const std::string unsignedHelper = programs.file("unsigned-helper");
  ldtest::writeFile(unsignedHelper, image.substr(0, location.codeSize), 0755);

  // The listening socket stays open here as systemd keeps it: a waiting connection ends only if
  // the helper accepted and closed it.
  const std::string path = programs.file("helper.sock");
  const LDFileHandle listening = seqpacketSocket(path, Seqpacket::listening);
  const LDFileHandle first = seqpacketSocket(path, Seqpacket::connected);
  const LDFileHandle second = seqpacketSocket(path, Seqpacket::connected);

  const auto result = ldtest::ChildProcess::start({unsignedHelper}, -1, listening.fileDescriptor()).finish();
  EXPECT_EQ(result.standardError,
            "quillfern-local-domain-listener: This build carries no Team ID; it is unsigned or ad-hoc "
            "signed, so the privileged listener peers cannot authenticate each other\n");
  EXPECT_EQ(result.exitStatus, 1);
  for (const LDFileHandle* waiting : {&first, &second}) {
    pollfd entry{waiting->fileDescriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&entry, 1, 0), 1) << "closed by the helper";
    EXPECT_TRUE(entry.revents & POLLHUP);
  }
}

TEST(ServiceSocket, ActivationIsTakenOnlyWhenItNamesThisProcess) {
  std::string error;
  bool activated = true;
  ::setenv("LISTEN_PID", std::to_string(::getpid() + 1).c_str(), 1);
  ::setenv("LISTEN_FDS", "1", 1);
  EXPECT_FALSE(LDTakeActivatedSocket(&activated, &error));
  EXPECT_FALSE(activated) << "another process's variables";
  EXPECT_EQ(std::getenv("LISTEN_PID"), nullptr) << "the variables are removed either way";

  ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
  ::setenv("LISTEN_FDS", "2", 1);
  EXPECT_FALSE(LDTakeActivatedSocket(&activated, &error));
  EXPECT_TRUE(activated);
  EXPECT_EQ(error, "socket activation must pass exactly one socket");
}

}  // namespace
