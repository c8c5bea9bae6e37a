// The helper's start-up refusals, where its service socket comes from, and the client's word
// when there is no helper.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <cstring>

#include "client/listener_client.h"
#include "platform/socket_activation.h"
#include "shared/code_signature.h"
#include "support/helper_harness.h"
#include "support/process.h"
#include "support/test_pki.h"

namespace {

using ldtest::runProgram;

TEST(HelperStartup, RefusesToRunWithoutRootOrWithoutATeam) {
  ldtest::ProgramDirectory programs;
  const std::string helper = programs.install(LD_HELPER, "helper");
  // An unsigned copy: the signature cut off, the code unchanged.
  const std::string image = ldtest::readFile(helper);
  const LDSignatureLocation location =
      LDLocateSignature(image.size(), std::string_view(image).substr(image.size() - LDSignatureTrailerSize));
  ASSERT_EQ(location.status, 0) << "the built helper is signed";
  const std::string unsignedHelper = programs.file("unsigned-helper");
  ldtest::writeFile(unsignedHelper, image.substr(0, location.codeSize), 0755);

  struct Case {
    const char* name;
    std::string program;
    int uid;
    std::string standardError;
  };
  for (const Case& c : {
           Case{"not root", helper, 65534, "quillfern-local-domain-listener: must run as a root LaunchDaemon\n"},
           Case{"no team", unsignedHelper, -1,
                "quillfern-local-domain-listener: This build carries no Team ID; it is unsigned or ad-hoc "
                "signed, so the privileged listener peers cannot authenticate each other\n"},
       }) {
    const auto result = runProgram({c.program}, c.uid);
    EXPECT_EQ(result.exitStatus, 1) << c.name;
    EXPECT_EQ(result.standardError, c.standardError) << c.name;
    EXPECT_EQ(result.standardOutput, "") << c.name;
  }
}

int connectTo(const std::string& path) {
  LDFileHandle socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  return ::connect(socket.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address);
}

TEST(ServiceSocket, BindsFreshReplacesStaleAndRefusesEverythingElse) {
  ldtest::TemporaryDirectory directory;
  std::string error;

  const std::string fresh = directory.file("fresh.sock");
  auto bound = LDBindServiceSocket(fresh, &error);
  ASSERT_TRUE(bound) << error;
  struct stat status {};
  ASSERT_EQ(::stat(fresh.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0666u);
  EXPECT_EQ(connectTo(fresh), 0) << "listening";

  // Someone listens there: refused, and the live socket is left alone.
  EXPECT_FALSE(LDBindServiceSocket(fresh, &error));
  EXPECT_EQ(error, "another helper is already listening at " + fresh);
  EXPECT_EQ(connectTo(fresh), 0);

  // The listener is gone, its socket file is stale: replaced.
  bound.reset();
  EXPECT_NE(connectTo(fresh), 0);
  EXPECT_TRUE(LDBindServiceSocket(fresh, &error)) << error;

  const std::string file = directory.file("file");
  ldtest::writeFile(file, "precious", 0644);
  EXPECT_FALSE(LDBindServiceSocket(file, &error));
  EXPECT_EQ(error, file + " exists and is not a socket; refusing to replace it");
  EXPECT_EQ(ldtest::readFile(file), "precious");
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

TEST(ServiceSocket, ActivatedDescriptorMustBeAListeningSeqpacketSocket) {
  // Run in a child: it takes descriptor 3 over and closes it.
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const int stream = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::dup2(stream, 3) != 3) ::_exit(2);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    ::setenv("LISTEN_FDS", "1", 1);
    bool activated = false;
    std::string error;
    const bool refused = !LDTakeActivatedSocket(&activated, &error) && activated &&
                         error == "the activated socket is not a listening AF_UNIX SOCK_SEQPACKET socket";
    ::_exit(refused ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(Client, SaysWhatToDoWhenThereIsNoHelper) {
  ldtest::TemporaryDirectory directory;
  LDClientOptions options;
  options.socketPath = directory.file("nothing.sock");
  options.requireSecureExecution = false;
  std::optional<LDError> error;
  EXPECT_FALSE(LDAcquireListeners(options, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->description(), "The helper is not installed: there is no socket at " + options.socketPath +
                                      ". Install quillfern-local-domain-listener and enable " +
                                      std::string(LDMachServiceName) + ".socket.");
}

}  // namespace
