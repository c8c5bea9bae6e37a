// The application side against helpers that misbehave and against installs the helper refuses:
// it checks itself before it asks, checks what it is handed before it acknowledges, and gives its
// group up however it ends.

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <quillfern/local_domain_listener.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <set>

#include "client/listener_client.h"
#include "platform/seqpacket.h"
#include "signing/code_signature.h"
#include "tools/code_signer.h"
#include "protocol/wire.h"
#include "shared/loopback_listeners.h"
#include "support/descriptors.h"
#include "support/helper_harness.h"

namespace {

// Whether any descriptor of process pid is one of the sockets.
bool holdsAny(pid_t pid, const std::vector<ino_t>& sockets) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    struct stat status {};
    if (::stat(entry.path().c_str(), &status) == 0 &&
        std::find(sockets.begin(), sockets.end(), status.st_ino) != sockets.end()) {
      return true;
    }
  }
  return false;
}

// " gids REAL EFFECTIVE SAVED" of this process.
std::string gids() {
  gid_t real = 1, effective = 1, saved = 1;
  ::getresgid(&real, &effective, &saved);
  return " gids " + std::to_string(real) + " " + std::to_string(effective) + " " + std::to_string(saved);
}

// How the fake helper ends the exchange, or what the client is made to lack.
enum class Fault {
  none, notSetGroupId, noSocket, staleSocket, permissionDenied, closeBeforeHello, closeDuringRequest, silent, malformed,
  busy, portInUse, noHandles, otherNamespace, swapped, tooManyFiles, acknowledgementRejected,
};

struct Case {
  Fault fault;
  std::string expected;  // in the error's description, or "acquired"
  LDClientFailure failure = LDClientFailure::helperFailed;
};

// The client in a child that runs with another effective and saved group than its real one, as
// an application installed set-group-ID does; it reports what it said and its gids afterwards.
[[noreturn]] void runClient(Fault fault, const std::string& path, int report) {
  if (::setresgid(0, 4242, 4242) != 0) ::_exit(2);
  // Another user than the socket's directory lets in.
  if (fault == Fault::permissionDenied && ::setresuid(65534, 65534, 65534) != 0) ::_exit(2);
  if (fault == Fault::otherNamespace && ::unshare(CLONE_NEWNET) != 0) ::_exit(2);
  if (fault == Fault::tooManyFiles) {
    // Room for the self-check's two descriptors and then the connection to the helper (the
    // lowest free number), but not for both listeners it sends.
    const int lowest = ::dup(0);
    ::close(lowest);
    const rlimit limit{static_cast<rlim_t>(lowest + 2), static_cast<rlim_t>(lowest + 2)};
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  std::optional<LDError> error;
  LDClientFailure failure{};
  int diagnoses = 0;  // the diagnosis reads and hashes the whole executable: only after a refusal
  const bool acquired = LDAcquireListeners({.socketPath = fault == Fault::noSocket ? path + ".none" : path,
                                            .activationTimeout = fault == Fault::silent ? 0.05 : 5,
                                            .requireSecureExecution = fault == Fault::notSetGroupId,
                                            .diagnoseRefusal = [&](const std::string& socket) {
                                              ++diagnoses;
                                              return "diagnosed " + socket;
                                            }},
                                           &error, &failure)
                            .has_value();
  const std::string text = (acquired ? std::string("acquired") : error->description()) + "\n" +
                           std::to_string(acquired ? 0 : static_cast<int>(failure)) + gids() + " diagnoses " +
                           std::to_string(diagnoses);
  (void)!::write(report, text.data(), text.size());
  ::_exit(0);
}

// Plays the helper's part on one connection up to the fault.
void playHelper(int connection, Fault fault, pid_t client, const LDFileHandle& ipv4, const LDFileHandle& ipv6) {
  if (fault == Fault::closeBeforeHello) return;
  LDReceivedPacket packet;
  auto receive = [&] {
    pollfd entry{connection, POLLIN, 0};
    int errorNumber = 0;
    return ::poll(&entry, 1, 5000) == 1 &&
           LDReceivePacket(connection, 4096, &packet, &errorNumber) == LDReceiveResult::packet;
  };
  if (fault == Fault::silent) return (void)receive();  // until the client gives up and closes
  LDSendPacket(connection, LDEncodeMessage(LDHelloMessage{}), {}, false);
  receive();
  if (fault == Fault::closeDuringRequest) return;
  if (fault == Fault::malformed) {
    LDSendPacket(connection, "QLD1 and then nonsense", {}, false);
    return;
  }
  const int64_t status = fault == Fault::busy ? 4 : fault == Fault::portInUse ? 8 : 0;
  const std::vector<int> descriptors = fault == Fault::noHandles || status != 0 ? std::vector<int>{}
                                       : fault == Fault::swapped ? std::vector{ipv6.fileDescriptor(), ipv4.fileDescriptor()}
                                                                 : std::vector{ipv4.fileDescriptor(), ipv6.fileDescriptor()};
  LDSendPacket(connection,
               LDEncodeMessage(LDRequestReplyMessage{1, status, std::string(64, 'a'),
                                                     static_cast<uint8_t>(descriptors.empty() ? 0 : 3), 1, "refused"}),
               descriptors, false);
  if (!receive()) return;
  const auto complete = LDDecodeMessage(packet.bytes, 0);
  const bool accepted = complete && std::holds_alternative<LDCompleteMessage>(*complete) &&
                        std::get<LDCompleteMessage>(*complete).accepted;
  const bool faulty = fault == Fault::otherNamespace || fault == Fault::swapped || fault == Fault::tooManyFiles;
  EXPECT_EQ(accepted, !faulty) << "the client accepts in its completion exactly what passed its checks";
  if (faulty) {
    struct stat v4 {}, v6 {};
    ::fstat(ipv4.fileDescriptor(), &v4);
    ::fstat(ipv6.fileDescriptor(), &v6);
    EXPECT_FALSE(holdsAny(client, {v4.st_ino, v6.st_ino})) << "the client still holds a refused listener";
  }
  const int64_t reply = fault == Fault::acknowledgementRejected || !accepted ? 2 : 1;
  LDSendPacket(connection, LDEncodeMessage(LDCompleteReplyMessage{1, reply, "no"}), {}, false);
}

// However the request ends, the client says why in words and in kind, and has given its group up
// (real, effective and saved gid all the real one) before it returns.
TEST(Client, ExplainsEveryFailureAndGivesItsGroupUpOnEveryPath) {
  const std::vector<Case> cases = {
      {Fault::none, "acquired"},
      {Fault::notSetGroupId, "This program must be installed set-group-ID to a group of its own",
       LDClientFailure::notAdmissible},
      {Fault::noSocket, ".none: start a helper there, as root: systemd-socket-activate --seqpacket -l ",
       LDClientFailure::noHelper},
      {Fault::staleSocket, "sock (a socket file left behind by a stopped listener): start a helper there",
       LDClientFailure::noHelper},
      {Fault::permissionDenied, "sock (permission denied): the socket must be writable by everyone",
       LDClientFailure::noHelper},
      {Fault::closeBeforeHello, "diagnosed /tmp/", LDClientFailure::refused},
      // Admitted, so not a refusal of what this program is: no diagnosis.
      {Fault::closeDuringRequest, "The helper closed the connection while waiting for the listeners."},
      {Fault::silent, "The helper did not answer in time while waiting to be admitted", LDClientFailure::timedOut},
      {Fault::malformed, "The helper sent a malformed message while waiting for the listeners"},
      {Fault::busy, "Another program is taking the listeners from the helper right now (refused)",
       LDClientFailure::busy},
      {Fault::portInUse, "Port 80 on 127.0.0.1 or ::1 is already in use by another program (refused)",
       LDClientFailure::portInUse},
      {Fault::noHandles, "The helper's reply lacks a listener or the token."},
      {Fault::otherNamespace, "Received 127.0.0.1:80 belongs to another network namespace",
       LDClientFailure::invalidListeners},
      {Fault::swapped, "Expected 127.0.0.1:80, received [::1]:80", LDClientFailure::invalidListeners},
      {Fault::tooManyFiles, "this process has too many open files (RLIMIT_NOFILE is ", LDClientFailure::systemError},
      {Fault::acknowledgementRejected, "The helper did not accept the acknowledgement (no)."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    ldtest::TemporaryDirectory directory;
    const std::string path = directory.file("helper.sock");
    LDFileHandle listening = ldtest::seqpacketSocket(path, ldtest::Seqpacket::listening);
    if (c.fault == Fault::staleSocket) listening.reset();  // its file stays, nobody listens
    auto pair = LDLoopbackListeners::initWithPort(80);
    LDFileHandle ipv4, ipv6;
    ASSERT_TRUE(pair && pair->duplicateIntoIPv4(ipv4, ipv6));
    int report[2];
    ASSERT_EQ(::pipe2(report, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      ipv4.reset();  // the client must hold only what it receives
      ipv6.reset();
      pair.reset();
      runClient(c.fault, path, report[1]);
    }
    ::close(report[1]);
    pollfd incoming[2] = {{listening.fileDescriptor(), POLLIN, 0}, {report[0], POLLIN, 0}};
    if (::poll(incoming, 2, 5000) > 0 && (incoming[0].revents & POLLIN) != 0) {
      const LDFileHandle connection(::accept4(listening.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC));
      playHelper(connection.fileDescriptor(), c.fault, child, ipv4, ipv6);
    }
    std::string text;
    char buffer[1024];
    for (ssize_t got; (got = ::read(report[0], buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(got));
    ::close(report[0]);
    ::waitpid(child, nullptr, 0);
    EXPECT_NE(text.find(c.expected), std::string::npos) << "the client said: " << text;
    const int kind = c.expected == "acquired" ? 0 : static_cast<int>(c.failure);
    const std::string gids = std::to_string(kind) + " gids 0 0 0 diagnoses " +  // not "\n" + ...: g++ 12 -Wrestrict
                             (c.fault == Fault::closeBeforeHello ? "1" : "0");
    EXPECT_NE(text.find('\n' + gids), std::string::npos) << text;
  }
}

// What a C caller sees, each case in a process of its own (one call per process): arguments it
// cannot serve refused before anything is asked or opened, the group given up all the same, a
// second call told apart, and a
// message that a buffer of LD_ACQUIRE_MESSAGE_SIZE holds whole while a smaller one holds its start.
TEST(Client, CInterfaceAnswersEachCallerMistakeInAnyBuffer) {
  const std::string none = "/nonexistent/helper.sock";
  // What a call with a whole buffer returns and says: the code, both places, the gids after it (the
  // group is given up on every path) and the message.
  auto said = [](const char* path, int* ipv4, int* ipv6) {
    char message[LD_ACQUIRE_MESSAGE_SIZE];
    const int code = ld_acquire_listeners(path, ipv4, ipv6, message, sizeof message);
    return std::to_string(code) + " " + (ipv4 ? std::to_string(*ipv4) : "NULL") + " " + std::to_string(*ipv6) + gids() +
           " " + message;
  };
  int ipv4 = 7, ipv6 = 7;  // each case runs in a child of its own
  const std::vector<std::pair<std::function<std::string()>, std::string>> cases = {
      {[&] {
         const std::set<int> before = ldtest::openDescriptors();
         const std::string result = said(none.c_str(), &ipv4, &ipv4);
         return result + (ldtest::openDescriptors() == before ? " (nothing opened)" : " (opened)");
       },
       "1 -1 -1 gids 0 0 0 ld_acquire_listeners: ipv4 and ipv6 must be two different places (nothing opened)"},
      {[&] { return said(none.c_str(), nullptr, &ipv6); },
       "1 NULL -1 gids 0 0 0 ld_acquire_listeners: ipv4 and ipv6 must not be NULL"},
      {[&] { said(none.c_str(), &ipv4, &ipv6); return said(nullptr, &ipv4, &ipv6); },
       "11 -1 -1 gids 0 0 0 ld_acquire_listeners was called before in this process, which gave its set-group-ID group up"},
      {[&] {
         const std::string text = said(std::string(10000, 'p').c_str(), &ipv4, &ipv6);
         return std::to_string(text.size()) + " " + text.substr(0, 62) + text.substr(text.size() - 5);
       },
       "4114 3 -1 -1 gids 0 0 0 The helper's socket path is too long (10000pp..."},  // 19 + 4095
      // One byte more than sun_path holds with its NUL.
      {[&] { return said(std::string(108, 'p').c_str(), &ipv4, &ipv6); },
       "3 -1 -1 gids 0 0 0 The helper's socket path is too long (108 bytes"},
      {[&] {
         said(none.c_str(), &ipv4, &ipv6);
         std::string seen;
         for (const size_t size : {size_t{0}, size_t{1}, size_t{16}, size_t{LD_ACQUIRE_MESSAGE_SIZE}}) {
           char buffer[LD_ACQUIRE_MESSAGE_SIZE + 1];
           std::memset(buffer, 'x', sizeof buffer);
           ld_acquire_listeners(none.c_str(), &ipv4, &ipv6, buffer, size);
           seen += "[" + std::string(buffer, std::min(size, ::strnlen(buffer, sizeof buffer) + 1) + 1) + "]";
         }
         return seen;
       },
       "[x][\0x][ld_acquire_list\0x]"},
  };
  for (const auto& [run, expected] : cases) {
    SCOPED_TRACE(expected);
    int report[2];
    ASSERT_EQ(::pipe2(report, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      if (::setresgid(0, 4242, 4242) != 0) ::_exit(2);  // as installed set-group-ID
      const std::string text = run();
      (void)!::write(report[1], text.data(), text.size());
      ::_exit(0);
    }
    ::close(report[1]);
    std::string text;
    char buffer[8192];
    for (ssize_t got; (got = ::read(report[0], buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(got));
    ::close(report[0]);
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(text.substr(0, expected.size()), expected);
  }
}

// Installed as the helper would refuse it, the demo names the one check it fails before it ever
// connects; installed right, it passes all of them and goes on to look for the helper.
TEST(Client, NamesTheAdmissionCheckItWouldFail) {
  constexpr int kNobody = 65534;
  ldtest::ProgramDirectory programs;
  const std::string installed = programs.install(LD_DEMO, "installed");
  const std::string plain = programs.install(LD_DEMO, "plain", false);
  const std::string writable = programs.install(LD_DEMO, "writable");
  ASSERT_EQ(::chmod(writable.c_str(), 02775), 0);
  const std::string group = std::to_string(ldtest::applicationGroup());
  const std::string nosuid = programs.file("nosuid"), fuse = programs.file("fuse");
  ::mkdir(nosuid.c_str(), 0755);
  ::mkdir(fuse.c_str(), 0755);
  ASSERT_EQ(::mount("tmpfs", nosuid.c_str(), "tmpfs", MS_NOSUID, "mode=0755"), 0);
  ldtest::writeFile(nosuid + "/app", ldtest::readFile(installed), 0755);
  ASSERT_EQ(::chown((nosuid + "/app").c_str(), 0, ldtest::applicationGroup()), 0);
  ASSERT_EQ(::chmod((nosuid + "/app").c_str(), 02755), 0);
  ldtest::ChildProcess server = ldtest::ChildProcess::start(
      {LD_LYING_FILE_SYSTEM, installed, group, programs.file("fuse.log"), fuse, "-f", "-o", "allow_other,suid"});
  for (int i = 0; i < 100 && ::access((fuse + "/app").c_str(), X_OK) != 0; ++i) ::usleep(20000);

  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{installed}, "There is no helper socket at "},
      {{plain}, "This program must be installed set-group-ID to a group of its own"},
      {{writable}, "must be a regular file owned by root and not writable by group or others"},
      {{nosuid + "/app"}, "lies on a file system mounted nosuid"},
      {{fuse + "/app"}, "lies on a fuse"},
      {{"/usr/bin/setpriv", "--no-new-privs", installed}, "it was not started in secure-execution mode"},
      {{"/usr/bin/unshare", "-Ur", installed}, "runs in a user namespace of its own"},
      {{"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--groups=" + group, installed},
       "is a member of " + installed + "'s group"},
      {{"/usr/bin/setpriv", "--reuid=65534", "--regid=" + group, "--clear-groups", installed},
       installed + "'s group (gid " + group + ") is the primary group of the user running it"},
  };
  for (const auto& [prefix, expected] : cases) {
    std::vector<std::string> argv = prefix;
    argv.insert(argv.end(), {"--socket", programs.file("none.sock")});
    const bool asRoot = prefix[0] == "/usr/bin/setpriv" && prefix[1] == "--reuid=65534";
    const ldtest::ProcessResult result = ldtest::runProgram(argv, asRoot ? -1 : kNobody);
    EXPECT_EQ(result.exitStatus, 1) << expected;
    EXPECT_NE(result.standardError.find(expected), std::string::npos) << result.standardError;
  }
  // Each word alone: --socket without its path is a usage error.
  for (const auto& [word, status, start] : {std::tuple{"--socket", 64, ""}, std::tuple{"--version", 0, "quillfern-listen "},
                                            std::tuple{"--help", 0, "usage: "}}) {
    const ldtest::ProcessResult alone = ldtest::runProgram({installed, word}, kNobody);
    EXPECT_TRUE(alone.exitStatus == status && alone.standardOutput.starts_with(start)) << word << alone.standardError;
  }
  ::umount2(fuse.c_str(), MNT_DETACH);
  ::umount2(nosuid.c_str(), MNT_DETACH);
}

// Refused by the real helper, the demo checks its own signature against what the helper requires
// and names the one part that fails, both values and the command that shows them; when its own
// signature holds, it blames the helper, built for another identifier or by another build.
TEST(Client, SaysWhichPartOfItsSignatureTheHelperRefused) {
  const std::string app = LD_APP_IDENTIFIER;
  ldtest::ProgramDirectory programs;
  ldtest::TemporaryDirectory pkiDirectory;
  ldtest::TestPki pki(pkiDirectory.path());
  const ldtest::TestIdentity buildRoot = ldtest::TestIdentity::load(LD_BUILD_ROOT_KEY, LD_BUILD_ROOT_CERT);
  ASSERT_TRUE(buildRoot.key && buildRoot.certificate);
  const ldtest::TestIdentity otherTeam = pki.makeLeaf(buildRoot, "Other Team", {.team = "OTHERTEAM1"});
  const ldtest::TestIdentity stranger = pki.makeLeaf(pki.makeRoot("Stranger Root"), "Stranger", {.team = "DEVTEAM001"});
  auto signedCopy = [&](const std::string& source, const std::string& name, const std::string& identifier,
                        const ldtest::TestIdentity& signer, bool setGroupId = true) {
    const std::string path = programs.install(source, name, setGroupId);
    std::string error;
    const auto identity = LDLoadSigningIdentity(signer.keyPath, signer.certificatePath, "", &error);
    EXPECT_TRUE(identity && LDSignFile(path, identifier, *identity, &error)) << name << ": " << error;
    return path;
  };
  const std::string stripped = programs.install(LD_DEMO, "stripped");
  const std::string bytes = ldtest::readFile(stripped);
  const LDSignatureLocation signature =
      LDLocateSignature(bytes.size(), std::string_view(bytes).substr(bytes.size() - LDSignatureTrailerSize));
  ASSERT_EQ(::truncate(stripped.c_str(), static_cast<off_t>(signature.codeSize)), 0);
  const std::string otherHelper =
      signedCopy(LD_HELPER, "other-helper", app + ".local-domain-listener-helper", otherTeam, false);
  const std::string socket = programs.file("helper.sock"), otherSocket = programs.file("other.sock");
  ldtest::ChildProcess helper = ldtest::startHelper(LD_HELPER, socket);
  ldtest::ChildProcess other = ldtest::startHelper(otherHelper, otherSocket);

  const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
      {stripped, socket, " carries no signature, where one as identifier " + app + " by team DEVTEAM001 is required"},
      {signedCopy(LD_DEMO, "wrong-identifier", app + ".other", otherTeam), socket,
       "signed as identifier " + app + ".other where the helper requires " + app + ":"},
      {signedCopy(LD_DEMO, "wrong-team", app, otherTeam), socket,
       "signed by team OTHERTEAM1 where the helper requires team DEVTEAM001:"},
      {signedCopy(LD_DEMO, "stranger", app, stranger), socket,
       "(CN=Stranger,OU=DEVTEAM001,O=Quillfern Test, issued by CN=Stranger Root,O=Quillfern Test) does not chain "
       "to the root the helper trusts (CN=Quillfern Development Root"},
      {programs.install(LD_DEMO, "right"), otherSocket,
       "this program's signature is what its helper requires (identifier " + app + ", team DEVTEAM001, under "},
  };
  for (const auto& [program, helperSocket, cause] : cases) {
    const ldtest::ProcessResult result = ldtest::runProgram({program, "--socket", helperSocket}, 65534);
    EXPECT_EQ(result.exitStatus, 1) << cause;
    EXPECT_NE(result.standardError.find("The helper at " + helperSocket + " refused this program: "), std::string::npos)
        << result.standardError;
    EXPECT_NE(result.standardError.find(cause), std::string::npos) << result.standardError;
    EXPECT_NE(result.standardError.find("`ld-codesign display "), std::string::npos) << result.standardError;
    for (const auto& [ignored, ignoredSocket, otherCause] : cases) {
      if (otherCause != cause) {
        EXPECT_EQ(result.standardError.find(otherCause), std::string::npos) << result.standardError;
      }
    }
  }
}

}  // namespace
