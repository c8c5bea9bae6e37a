// The helper as a real root process, socket-activated, with real clients running as nobody, in a
// private network namespace where it binds the real port 80.

#include <signal.h>
#include <sys/socket.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <openssl/pem.h>

#include "shared/code_signature.h"
#include "shared/file_handle.h"
#include "support/descriptors.h"
#include "support/helper_harness.h"
#include "support/network_namespace.h"
#include "tools/code_signer.h"

namespace {

using ldtest::ChildProcess;
using ldtest::ProgramDirectory;
using ldtest::runInPrivateNetworkNamespace;

constexpr int kNobody = 65534;
const std::string kApp = LD_APP_IDENTIFIER;

// Collects what went wrong inside the namespace, where gtest's assertions cannot reach.
class Findings {
 public:
  void expect(bool ok, const std::string& what) {
    if (!ok) _text += what + "\n";
  }
  void expectEqual(const std::string& actual, const std::string& expected, const std::string& what) {
    expect(actual == expected, what + ": expected \"" + expected + "\", got \"" + actual + "\"");
  }
  void expectContains(const std::string& actual, const std::string& part, const std::string& what) {
    expect(actual.find(part) != std::string::npos, what + ": \"" + actual + "\" lacks \"" + part + "\"");
  }
  std::string text() const { return _text; }

 private:
  std::string _text;
};

// A signed copy of the protocol probe, as the application.
std::string installSignedProbe(ProgramDirectory& programs, const std::string& name = "probe",
                               bool setGroupId = true) {
  const std::string probe = programs.install(LD_PROBE, name, setGroupId);
  const std::string problem = ldtest::signWithBuildIdentity(probe, kApp);
  if (!problem.empty()) throw std::runtime_error(problem);
  return probe;
}

std::string lineOr(std::optional<std::string> line) { return line.value_or("<nothing>"); }

// While one client holds the listeners, a second is told the helper is busy and no other process
// of the same user can take them; the next client, the demo, serves both addresses and gives its
// group up, and the listeners outlive the helper.
TEST(HelperEndToEnd, EachClientAsNobodyGetsTheListenersForItselfAlone) {
  EXPECT_EQ(runInPrivateNetworkNamespace([] {
    Findings findings;
    ProgramDirectory programs;
    const std::string probe = installSignedProbe(programs);
    const std::string thief = programs.install(LD_PROBE, "thief", false);
    const std::string demo = programs.install(LD_DEMO, "quillfern-listen");
    const std::string socket = programs.file("helper.sock");
    ChildProcess helper = ldtest::startHelper(LD_HELPER, socket);
    ChildProcess holder = ChildProcess::start({probe, "hold", socket}, kNobody);
    findings.expectEqual(lineOr(holder.readLine(10000)), "hello", "first client greeted");
    findings.expectEqual(lineOr(holder.readLine(10000)), "status 0 -", "first client served");
    const auto second = ldtest::runProgram({demo, "--socket", socket}, kNobody);
    findings.expect(second.exitStatus == 1, "the second client fails");
    findings.expectContains(second.standardError, "A listener transfer is already in progress", "busy");
    findings.expectEqual(ldtest::runProgram({thief, "steal", std::to_string(holder.pid())}, kNobody).standardOutput,
                         "refused\n", "theft while set-group-ID");
    holder.writeLine("go");
    findings.expectEqual(lineOr(holder.readLine(10000)), "completed 1 -", "first client acknowledged");
    findings.expect(helper.wait(5000) == 0, "the helper exits 0 after an acknowledged transfer");

    ChildProcess secondHelper = ldtest::startHelper(LD_HELPER, socket);
    ChildProcess client = ChildProcess::start({demo, "--socket", socket}, kNobody);
    findings.expectEqual(lineOr(client.readLine(15000)),
                         "quillfern-listen: serving http://127.0.0.1/ and http://[::1]/ (Ctrl-C to stop)",
                         "the demo's first line");
    findings.expectContains(ldtest::httpGet("127.0.0.1", 80), "Hello from quillfern-listen on 127.0.0.1:80", "IPv4");
    findings.expectContains(ldtest::httpGet("::1", 80), "Hello from quillfern-listen on [::1]:80", "IPv6");
    findings.expect(secondHelper.wait(5000) == 0, "the second helper exits 0");
    findings.expectContains(ldtest::httpGet("127.0.0.1", 80), "127.0.0.1:80", "IPv4 after the helper exited");
    findings.expectEqual(ldtest::runProgram({thief, "steal", std::to_string(client.pid())}, kNobody).standardOutput,
                         "refused\n", "theft after the group was given up");
    const std::string status = ldtest::readFile("/proc/" + std::to_string(client.pid()) + "/status");
    findings.expectContains(status, "\nGid:\t65534\t65534\t65534\t65534\n", "the demo gave its group up");
    return findings.text();
  }), "");
}

TEST(HelperEndToEnd, TakenPortIsReportedToTheUserAndEndsTheHelperWithOne) {
  EXPECT_EQ(runInPrivateNetworkNamespace([] {
    Findings findings;
    const LDFileHandle holder = ldtest::loopbackSocket(AF_INET, SOCK_STREAM, 80, true);  // another program
    ProgramDirectory programs;
    const std::string demo = programs.install(LD_DEMO, "quillfern-listen");
    const std::string socket = programs.file("helper.sock");
    ChildProcess helper = ldtest::startHelper(LD_HELPER, socket);
    const auto result = ldtest::runProgram({demo, "--socket", socket}, kNobody);
    findings.expect(result.exitStatus == 1, "the demo fails");
    findings.expectEqual(result.standardError,
                         "quillfern-listen: Port 80 on 127.0.0.1 or ::1 is already in use by another program "
                         "(bind failed: Address already in use (98)): stop that program and try again.\n",
                         "the user is told");
    findings.expect(helper.wait(5000) == 1, "the helper exits 1");
    return findings.text();
  }), "");
}

// The short-time-out build waits 0.5 s for the acknowledgement and 0.3 s for a reply to leave.
TEST(HelperEndToEnd, NoAcknowledgementEndsTheHelperWithOneAfterTheTimeOut) {
  EXPECT_EQ(runInPrivateNetworkNamespace([] {
    Findings findings;
    ProgramDirectory programs;
    const std::string probe = installSignedProbe(programs);
    const std::string socket = programs.file("helper.sock");
    ChildProcess helper = ldtest::startHelper(LD_HELPER_SHORT_TIMEOUTS, socket);
    const auto result = ldtest::runProgram({probe, "no-ack", socket}, kNobody);
    findings.expectEqual(result.standardOutput, "hello\nstatus 0 -\nclosed\n", "the probe saw");
    findings.expect(helper.wait(5000) == 1, "the helper exits 1");
    return findings.text();
  }), "");
}

// Every one of these is refused without disturbing the helper, which greets a legitimate client
// right after each, and at the end serves one and exits 0.
std::string refusalScenario(const std::string& helperPath) {
    Findings findings;
    ProgramDirectory programs;
    ldtest::TemporaryDirectory pkiDirectory;
    ldtest::TestPki pki(pkiDirectory.path());
    const std::string socket = programs.file("helper.sock");
    const std::string signedProbe = installSignedProbe(programs);
    const std::string unsignedProbe = programs.install(LD_PROBE, "unsigned");
    const std::string plainProbe = installSignedProbe(programs, "plain", false);
    const std::string group = std::to_string(ldtest::applicationGroup());

    std::string error;
    const auto stranger = pki.makeLeaf(pki.makeRoot("Stranger Root"), "Stranger", {.team = "DEVTEAM001"});
    const auto strangerIdentity = LDLoadSigningIdentity(stranger.keyPath, stranger.certificatePath, "", &error);
    const std::string otherCa = programs.install(LD_PROBE, "other-ca");
    findings.expect(strangerIdentity && LDSignFile(otherCa, kApp, *strangerIdentity, &error), "sign by another CA: " + error);

    const std::string wrongIdentifier = programs.install(LD_PROBE, "wrong-identifier");
    findings.expectEqual(ldtest::signWithBuildIdentity(wrongIdentifier, kApp + ".other"), "", "sign as another identifier");

    const std::string tampered = installSignedProbe(programs, "tampered");
    std::string bytes = ldtest::readFile(tampered);
    bytes[1000] = static_cast<char>(bytes[1000] ^ 0x40);
    ldtest::writeFile(tampered, bytes, 02755);

    const std::string writable = installSignedProbe(programs, "writable");
    ::chmod(writable.c_str(), 02775);
    const std::string notRoots = installSignedProbe(programs, "not-roots");
    findings.expect(::chown(notRoots.c_str(), kNobody, ldtest::applicationGroup()) == 0 &&
                        ::chmod(notRoots.c_str(), 02755) == 0,
                    "chown");
    // A copy of the C library, to mount over the real one where a user namespace allows it.
    const std::string libc = "/lib/x86_64-linux-gnu/libc.so.6";
    ldtest::writeFile(programs.file("libc-copy"), ldtest::readFile(libc), 0755);

    struct Case {
      std::string name;
      std::vector<std::string> argv;
      std::string output;
      int uid = kNobody;
    };
    const std::vector<std::string> request = {"version", "1", socket};
    auto run = [&](std::vector<std::string> prefix, const std::string& program) {
      prefix.push_back(program);
      prefix.insert(prefix.end(), request.begin(), request.end());
      return prefix;
    };
    std::vector<Case> cases = {
        {"unsigned", run({}, unsignedProbe), "closed\n"},
        {"another CA", run({}, otherCa), "closed\n"},
        {"wrong identifier", run({}, wrongIdentifier), "closed\n"},
        {"tampered after signing", run({}, tampered), "closed\n"},
        {"writable by its group", run({}, writable), "closed\n"},
        {"not owned by root", run({}, notRoots), "closed\n"},
        {"signed, installed without set-group-ID", run({}, plainProbe), "closed\n"},
        {"preloaded into a plain install", run({"/usr/bin/env", "LD_PRELOAD=" + libc}, plainProbe), "closed\n"},
        {"set-group-ID under no-new-privs", run({"/usr/bin/setpriv", "--no-new-privs"}, signedProbe), "closed\n"},
        {"in a user namespace of its own", run({"/usr/bin/unshare", "-Ur"}, signedProbe), "closed\n"},
        {"a library mounted over in its own namespace",
         run({"/usr/bin/unshare", "-Urm", "sh", "-c",
              "mount --bind \"$0\" " + libc + " && exec \"$@\"", programs.file("libc-copy")},
             signedProbe),
         "closed\n"},
        {"exe swapped with PR_SET_MM_MAP", {LD_EXE_SWAP_PROBE, signedProbe, socket}, "swapped\nclosed\n"},
        {"a member of the application's group",
         run({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--groups=" + group}, signedProbe),
         "closed\n", -1},
        {"garbage after Hello", {signedProbe, "after-hello-garbage", socket}, "hello\nclosed\n"},
        {"gives its group up after Hello", {signedProbe, "drop-group", socket}, "hello\nclosed\n"},
        {"execs another program after Hello", {signedProbe, "exec-after-hello", socket, unsignedProbe},
         "hello\nclosed\n"},
        // The child's request is refused, then so is the parent.
        {"request from a forked unsigned child", {signedProbe, "forked-sender", socket, unsignedProbe},
         "hello\nclosed\nclosed\n"},
        // Whether the helper looks before or after the exec, it must refuse.
        {"connects, then execs the signed client", {unsignedProbe, "connect-then-exec", socket, signedProbe}, "closed\n"},
    };
#ifdef LD_BUILD_ROOT_KEY
    {
      // A leaf of the build's own root, for another team.
      ldtest::TestIdentity root;
      root.keyPath = LD_BUILD_ROOT_KEY;
      root.certificatePath = LD_BUILD_ROOT_CERT;
      const std::string pem = ldtest::readFile(LD_BUILD_ROOT_KEY);
      ldssl::Bio keyText(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
      root.key.reset(PEM_read_bio_PrivateKey(keyText.get(), nullptr, nullptr, nullptr));
      const std::string certificate = ldtest::readFile(LD_BUILD_ROOT_CERT);
      ldssl::Bio certificateText(BIO_new_mem_buf(certificate.data(), static_cast<int>(certificate.size())));
      root.certificate.reset(PEM_read_bio_X509(certificateText.get(), nullptr, nullptr, nullptr));
      const auto otherTeam = pki.makeLeaf(root, "Other Team", {.team = "OTHERTEAM9"});
      const auto identity = LDLoadSigningIdentity(otherTeam.keyPath, otherTeam.certificatePath, "", &error);
      const std::string wrongTeam = programs.install(LD_PROBE, "wrong-team");
      findings.expect(identity && LDSignFile(wrongTeam, kApp, *identity, &error), "sign for another team: " + error);
      cases.push_back({"wrong team", run({}, wrongTeam), "closed\n"});
    }
#endif

    ChildProcess helper = ldtest::startHelper(helperPath, socket);
    for (const Case& c : cases) {
      findings.expectEqual(ldtest::runProgram(c.argv, c.uid).standardOutput, c.output, c.name);
      findings.expectEqual(ldtest::runProgram({signedProbe, "greet", socket}, kNobody).standardOutput, "hello\n",
                           "a legitimate client right after: " + c.name);
    }
    // These send at once; the helper is stopped until they have, so what it finds was there
    // before it could have greeted them.
    for (const std::string mode : {"early", "garbage", "descriptors", "oversized"}) {
      ::kill(helper.pid(), SIGSTOP);
      ChildProcess early = ChildProcess::start({signedProbe, mode, socket}, kNobody);
      findings.expectEqual(lineOr(early.readLine(5000)), "sent", mode + " sent");
      ::kill(helper.pid(), SIGCONT);
      findings.expectEqual(lineOr(early.readLine(10000)), "closed", mode + " refused without Hello");
    }
    findings.expect(helper.wait(0) == -1, "the helper is still running after the refusals");

    const std::string demo = programs.install(LD_DEMO, "quillfern-listen");
    ChildProcess client = ChildProcess::start({demo, "--socket", socket}, kNobody);
    findings.expectContains(lineOr(client.readLine(15000)), "serving", "the legitimate client");
    findings.expectContains(ldtest::httpGet("::1", 80), "[::1]:80", "IPv6 through the legitimate client");
    findings.expect(helper.wait(5000) == 0, "the helper exits 0");
    return findings.text();
}

TEST(HelperEndToEnd, RefusedPeersNeverReachTheServiceWhileItKeepsServing) {
  EXPECT_EQ(runInPrivateNetworkNamespace([] { return refusalScenario(LD_HELPER); }), "");
}

// As on kernels before 6.5: the peer is pinned by pid and start time, not by SO_PEERPIDFD.
TEST(HelperEndToEnd, RefusalsHoldWithoutPeerPidfd) {
  EXPECT_EQ(runInPrivateNetworkNamespace([] { return refusalScenario(LD_HELPER_WITHOUT_PEER_PIDFD); }), "");
}

// Built for signature-only admission, the helper serves a signed client that is not set-group-ID.
TEST(HelperEndToEnd, SignatureOnlyBuildAdmitsAPlainInstall) {
  EXPECT_EQ(runInPrivateNetworkNamespace([] {
    Findings findings;
    ProgramDirectory programs;
    const std::string plainProbe = installSignedProbe(programs, "plain", false);
    const std::string socket = programs.file("helper.sock");
    ChildProcess helper = ldtest::startHelper(LD_HELPER_SIGNATURE_ONLY, socket);
    // Without set-group-ID the user namespace is what keeps a rewritten exe link out.
    findings.expectEqual(ldtest::runProgram({LD_EXE_SWAP_PROBE, plainProbe, socket}, kNobody).standardOutput,
                         "swapped\nclosed\n", "exe swapped with PR_SET_MM_MAP");
    findings.expectEqual(ldtest::runProgram({plainProbe, "version", "2", socket}, kNobody).standardOutput,
                         "hello\nstatus 3 Unsupported protocol version\n", "the plain install is admitted");
    findings.expect(helper.wait(5000) == 1, "the helper exits 1");
    return findings.text();
  }), "");
}

// Peers built to cost admission the most, or to fool it through the file system: each refused,
// and a legitimate client greeted right after.
TEST(HelperEndToEnd, HostileAdmissionIsRefusedCheaply) {
  EXPECT_EQ(runInPrivateNetworkNamespace([] {
    Findings findings;
    ProgramDirectory programs;
    const std::string signedProbe = installSignedProbe(programs);
    const std::string socket = programs.file("helper.sock");

    // A FUSE file system that claims root owns the signed bytes it serves, mounted suid.
    const std::string fuseMount = programs.file("fuse");
    const std::string fuseLog = programs.file("fuse.log");
    ::mkdir(fuseMount.c_str(), 0755);
    ChildProcess server = ChildProcess::start({LD_LYING_FILE_SYSTEM, signedProbe,
                                               std::to_string(ldtest::applicationGroup()), fuseLog, fuseMount,
                                               "-f", "-o", "allow_other,suid"});
    // A tmpfs mounted nosuid, where set-group-ID has no effect.
    const std::string nosuid = programs.file("nosuid");
    ::mkdir(nosuid.c_str(), 0755);
    findings.expect(::mount("tmpfs", nosuid.c_str(), "tmpfs", MS_NOSUID, "mode=0755") == 0, "mount nosuid tmpfs");
    const std::string onNosuid = nosuid + "/app";
    ldtest::writeFile(onNosuid, ldtest::readFile(signedProbe), 02755);
    findings.expect(::chown(onNosuid.c_str(), 0, ldtest::applicationGroup()) == 0 && ::chmod(onNosuid.c_str(), 02755) == 0,
                    "install on the nosuid mount");
    for (int i = 0; i < 100 && ::access((fuseMount + "/app").c_str(), X_OK) != 0; ++i) ::usleep(20000);

    ChildProcess helper = ldtest::startHelper(LD_HELPER, socket);
    const struct {
      std::string name;
      std::vector<std::string> argv;
    } cases[] = {
        {"an executable on FUSE", {fuseMount + "/app", "greet", socket}},
        {"an executable on a nosuid mount", {onNosuid, "greet", socket}},
        {"2000 descriptors", {signedProbe, "many-descriptors", "2000", socket}},
    };
    for (const auto& c : cases) {
      findings.expectEqual(ldtest::runProgram(c.argv, kNobody).standardOutput, "closed\n", c.name);
      findings.expectEqual(ldtest::runProgram({signedProbe, "greet", socket}, kNobody).standardOutput, "hello\n",
                           "a legitimate client right after: " + c.name);
    }
    const std::string requests = ldtest::readFile(fuseLog);
    findings.expect(!requests.empty(), "the file system logs the requests made while the client started");
    findings.expect(requests.find("\n" + std::to_string(helper.pid()) + " ") == std::string::npos &&
                        requests.rfind(std::to_string(helper.pid()) + " ", 0) != 0,
                    "the helper asked the FUSE server nothing: " + requests);
    ::umount2(fuseMount.c_str(), MNT_DETACH);
    ::umount2(nosuid.c_str(), MNT_DETACH);
    return findings.text();
  }), "");
}

// Any server that understands socket activation runs unprivileged on port 80.
TEST(HelperEndToEnd, SocketProxydRunsOnPort80InFrontOfAnUnprivilegedServer) {
  EXPECT_EQ(runInPrivateNetworkNamespace([] {
    Findings findings;
    const std::string proxyd = ::access("/lib/systemd/systemd-socket-proxyd", X_OK) == 0
                                   ? "/lib/systemd/systemd-socket-proxyd"
                                   : "/usr/lib/systemd/systemd-socket-proxyd";
    ProgramDirectory programs;
    const std::string backend = programs.install(LD_PROBE, "backend");
    const std::string demo = programs.install(LD_DEMO, "quillfern-listen");
    const std::string socket = programs.file("helper.sock");
    ChildProcess server = ChildProcess::start({backend, "http-server", "8080"}, kNobody);
    findings.expectEqual(lineOr(server.readLine(5000)), "listening", "the backend");
    ChildProcess helper = ldtest::startHelper(LD_HELPER, socket);
    ChildProcess proxy = ChildProcess::start({demo, "--socket", socket, "--", proxyd, "127.0.0.1:8080"}, kNobody);
    findings.expect(helper.wait(15000) == 0, "the helper exits 0");
    findings.expectEqual(ldtest::httpGet("127.0.0.1", 80), "backend\n", "IPv4 through the proxy");
    findings.expectEqual(ldtest::httpGet("::1", 80), "backend\n", "IPv6 through the proxy");
    return findings.text();
  }), "");
}

}  // namespace
