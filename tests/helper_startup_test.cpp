// The helper's start-up refusals, that its service socket comes only from socket activation,
// and the client's word when there is no helper.

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/socket_activation.h"
#include "signing/code_signature.h"
#include "support/descriptors.h"
#include "support/helper_harness.h"
#include "support/scripted_system_calls.h"
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

  // The team is looked for before the socket: started by hand, the same line.
  for (const int activated : {-1, listening.fileDescriptor()}) {
    const auto result = ldtest::ChildProcess::start({unsignedHelper}, -1, activated).finish();
    EXPECT_EQ(result.standardError,
              "quillfern-local-domain-listener: This build carries no Team ID; it is unsigned or ad-hoc "
              "signed, so the privileged listener peers cannot authenticate each other\n");
    EXPECT_EQ(result.exitStatus, 1);
  }
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

  // A socket the kernel would not make non-blocking is refused with the reason, and closed.
  ldtest::ProgramDirectory directory;
  const LDFileHandle listening = seqpacketSocket(directory.file("s.sock"), Seqpacket::listening);
  const LDFileHandle saved(::fcntl(3, F_DUPFD_CLOEXEC, 10));  // whatever this process keeps there
  ASSERT_EQ(::dup2(listening.fileDescriptor(), 3), 3);
  ldtest::ScriptedSystemCalls calls;
  calls.script("fcntl(F_SETFL)", 0, -1, EBADF);
  ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
  ::setenv("LISTEN_FDS", "1", 1);
  EXPECT_FALSE(LDTakeActivatedSocket(&activated, &error, calls));
  EXPECT_EQ(error, "fcntl on the activated socket failed: Bad file descriptor");
  EXPECT_EQ(::fcntl(3, F_GETFD), -1) << "closed";
  if (saved.isValid()) {
    ASSERT_EQ(::dup2(saved.fileDescriptor(), 3), 3);
  }
}

}  // namespace
