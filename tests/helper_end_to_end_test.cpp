// The helper as a real root process, socket-activated, with real clients running as nobody, in a
// private network namespace where it binds the real port 80.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <sstream>


#include "shared/file_handle.h"
#include "support/descriptors.h"
#include "support/helper_harness.h"
#include "tools/code_signer.h"

namespace {

using ldtest::ChildProcess;
using ldtest::startHelper;

constexpr int kNobody = 65534;
const std::string kApp = LD_APP_IDENTIFIER;

// Sends signal to pid and to every process below it (the helper's zygote and keepers).
void signalTree(pid_t pid, int signal) {
  ::kill(pid, signal);
  const std::string children = ldtest::readFile("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
  std::istringstream each(children);
  for (pid_t child; each >> child;) signalTree(child, signal);
}

// pid and the processes below it.
int countTree(pid_t pid) {
  std::istringstream each(ldtest::readFile("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children"));
  int count = ::kill(pid, 0) == 0 ? 1 : 0;
  for (pid_t child; each >> child;) count += countTree(child);
  return count;
}

std::string outputOf(const std::vector<std::string>& argv, int uid = kNobody) {
  return ldtest::runProgram(argv, uid).standardOutput;
}

// Installed programs: the protocol probe signed as the application (set-group-ID, as applications
// are installed), the demo, and the path of the helper's socket.
// Each test has a private mount namespace: what it mounts is gone with its process.
class HelperEndToEnd : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  }
  std::string installSignedProbe(const std::string& name, bool setGroupId = true) {
    const std::string path = programs.install(LD_PROBE, name, setGroupId);
    const std::string problem = ldtest::signWithBuildIdentity(path, kApp);
    if (!problem.empty()) throw std::runtime_error(problem);
    return path;
  }
  // The signed probe, root-owned and set-group-ID on a tmpfs mounted nosuid, where the kernel
  // ignores set-group-ID.
  std::string installOnNosuidMount() {
    const std::string nosuid = programs.file("nosuid");
    ::mkdir(nosuid.c_str(), 0755);
    EXPECT_EQ(::mount("tmpfs", nosuid.c_str(), "tmpfs", MS_NOSUID, "mode=0755"), 0);
    ldtest::writeFile(nosuid + "/app", ldtest::readFile(probe), 0755);
    EXPECT_EQ(::chown((nosuid + "/app").c_str(), 0, ldtest::applicationGroup()), 0);
    EXPECT_EQ(::chmod((nosuid + "/app").c_str(), 02755), 0);
    return nosuid + "/app";
  }
  // Every refusal leaves the helper running and greeting a legitimate client; at the end it
  // serves one and exits 0.
  void expectRefusals(const std::string& helperPath);

  ldtest::ProgramDirectory programs;
  const std::string socket = programs.file("helper.sock");
  const std::string probe = installSignedProbe("probe");
  const std::string demo = programs.install(LD_DEMO, "quillfern-listen");
};

// While one client holds the listeners, a second is told the helper is busy and no other process
// of the same user can take them; the next client, the demo, serves both addresses and gives its
// group up, and the listeners outlive the helper.
TEST_F(HelperEndToEnd, EachClientAsNobodyGetsTheListenersForItselfAlone) {
  const std::string thief = programs.install(LD_PROBE, "thief", false);
  ChildProcess helper = startHelper(LD_HELPER, socket);
  ChildProcess holder = ChildProcess::start({probe, "hold", socket}, kNobody);
  EXPECT_EQ(holder.readLine(10000), "hello");
  EXPECT_EQ(holder.readLine(10000), "status 0 -");
  const auto second = ldtest::runProgram({demo, "--socket", socket}, kNobody);
  EXPECT_EQ(second.exitStatus, 1);
  EXPECT_NE(second.standardError.find("A listener transfer is already in progress"), std::string::npos)
      << second.standardError;
  EXPECT_EQ(outputOf({thief, "steal", std::to_string(holder.pid())}), "refused\n") << "while set-group-ID";
  holder.writeLine("go");
  EXPECT_EQ(holder.readLine(10000), "completed 1 -");
  // The client leaves at once; the helper ends as its reply leaves, not at the 2 s fallback, so
  // that the next client finds a fresh one rather than this one's "already in progress".
  EXPECT_EQ(helper.wait(1500), 0);

  ChildProcess secondHelper = startHelper(LD_HELPER, socket);
  ChildProcess client = ChildProcess::start({demo, "--socket", socket}, kNobody);
  EXPECT_EQ(client.readLine(15000), "quillfern-listen: serving http://127.0.0.1/ and http://[::1]/ (Ctrl-C to stop)");
  EXPECT_NE(ldtest::httpGet("127.0.0.1", 80).find("Hello from quillfern-listen on 127.0.0.1:80"), std::string::npos);
  EXPECT_NE(ldtest::httpGet("::1", 80).find("Hello from quillfern-listen on [::1]:80"), std::string::npos);
  EXPECT_EQ(secondHelper.wait(5000), 0);
  EXPECT_NE(ldtest::httpGet("127.0.0.1", 80).find("127.0.0.1:80"), std::string::npos) << "after the helper exited";
  EXPECT_EQ(outputOf({thief, "steal", std::to_string(client.pid())}), "refused\n") << "after the group was given up";
  const std::string status = ldtest::readFile("/proc/" + std::to_string(client.pid()) + "/status");
  EXPECT_NE(status.find("\nGid:\t65534\t65534\t65534\t65534\n"), std::string::npos) << status;
}

// The helper ends with 1 when the port is taken, and the user is told; or when no acknowledgement
// comes (the short-time-out build waits 0.5 s for it and 0.3 s for a reply to leave).
TEST_F(HelperEndToEnd, ATakenPortOrNoAcknowledgementEndsTheHelperWithOne) {
  {
    const LDFileHandle holder = ldtest::loopbackSocket(AF_INET, SOCK_STREAM, 80, true);  // another program
    ChildProcess helper = startHelper(LD_HELPER, socket);
    const auto result = ldtest::runProgram({demo, "--socket", socket}, kNobody);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.standardError,
              "quillfern-listen: Port 80 on 127.0.0.1 or ::1 is already in use by another program "
              "(bind failed: Address already in use (98)): stop that program and try again.\n");
    EXPECT_EQ(helper.wait(5000), 1);
  }
  ChildProcess helper = startHelper(LD_HELPER_SHORT_TIMEOUTS, socket);
  EXPECT_EQ(outputOf({probe, "no-ack", socket}), "hello\nstatus 0 -\nclosed\n");
  EXPECT_EQ(helper.wait(5000), 1);
}


void HelperEndToEnd::expectRefusals(const std::string& helperPath) {
  const std::string unsignedProbe = programs.install(LD_PROBE, "unsigned");
  const std::string plainProbe = installSignedProbe("plain", false);
  const std::string group = std::to_string(ldtest::applicationGroup());
  ldtest::TemporaryDirectory pkiDirectory;
  ldtest::TestPki pki(pkiDirectory.path());
  auto signedBy = [&](const std::string& name, const ldtest::TestIdentity& signer) {
    const std::string path = programs.install(LD_PROBE, name);
    std::string error;
    const auto identity = LDLoadSigningIdentity(signer.keyPath, signer.certificatePath, "", &error);
    EXPECT_TRUE(identity && LDSignFile(path, kApp, *identity, &error)) << name << ": " << error;
    return path;
  };
  const std::string otherCa = signedBy("other-ca", pki.makeLeaf(pki.makeRoot("Stranger Root"), "Stranger", {.team = "DEVTEAM001"}));
  const std::string wrongIdentifier = programs.install(LD_PROBE, "wrong-identifier");
  EXPECT_EQ(ldtest::signWithBuildIdentity(wrongIdentifier, kApp + ".other"), "");
  const std::string tampered = installSignedProbe("tampered");
  std::string bytes = ldtest::readFile(tampered);
  bytes[1000] = static_cast<char>(bytes[1000] ^ 0x40);
  ldtest::writeFile(tampered, bytes, 02755);
  const std::string writable = installSignedProbe("writable");
  ::chmod(writable.c_str(), 02775);
  const std::string notSetGroupId = installSignedProbe("not-set-group-id");
  EXPECT_EQ(::chmod(notSetGroupId.c_str(), 0755), 0);  // its group's, and that group may run it
  const std::string notRoots = installSignedProbe("not-roots");
  EXPECT_EQ(::chown(notRoots.c_str(), kNobody, ldtest::applicationGroup()), 0);
  EXPECT_EQ(::chmod(notRoots.c_str(), 02755), 0);
  // A copy of the C library, to mount over the real one where a user namespace allows it.
  const std::string libc = "/lib/x86_64-linux-gnu/libc.so.6";
  ldtest::writeFile(programs.file("libc-copy"), ldtest::readFile(libc), 0755);
  // A FUSE file system that claims root owns the signed bytes it serves, mounted suid; and a
  // tmpfs mounted nosuid, where set-group-ID has no effect.
  const std::string fuseMount = programs.file("fuse"), fuseLog = programs.file("fuse.log");
  ::mkdir(fuseMount.c_str(), 0755);
  ChildProcess server = ChildProcess::start(
      {LD_LYING_FILE_SYSTEM, probe, group, fuseLog, fuseMount, "-f", "-o", "allow_other,suid"});
  const std::string nosuid = installOnNosuidMount();
  for (int i = 0; i < 100 && ::access((fuseMount + "/app").c_str(), X_OK) != 0; ++i) ::usleep(20000);

  struct Case {
    std::string name;
    std::vector<std::string> argv;
    std::string output = "closed\n";
    int uid = kNobody;
  };
  auto ask = [&](std::vector<std::string> prefix, const std::string& program) {
    prefix.insert(prefix.end(), {program, "version", socket, "1"});
    return prefix;
  };
  std::vector<Case> cases = {
      {"unsigned", ask({}, unsignedProbe)},
      {"another CA", ask({}, otherCa)},
      {"wrong identifier", ask({}, wrongIdentifier)},
      {"tampered after signing", ask({}, tampered)},
      {"writable by its group", ask({}, writable)},
      {"not owned by root", ask({}, notRoots)},
      {"signed, installed without set-group-ID", ask({}, plainProbe)},
      {"its group's without set-group-ID, run by root with that effective gid",
       ask({"/usr/bin/setpriv", "--egid=" + group, "--clear-groups"}, notSetGroupId), "closed\n", -1},
      {"preloaded into a plain install", ask({"/usr/bin/env", "LD_PRELOAD=" + libc}, plainProbe)},
      {"set-group-ID under no-new-privs", ask({"/usr/bin/setpriv", "--no-new-privs"}, probe)},
      {"in a user namespace of its own", ask({"/usr/bin/unshare", "-Ur"}, probe)},
      {"a library mounted over in its own namespace",
       ask({"/usr/bin/unshare", "-Urm", "sh", "-c", "mount --bind \"$0\" " + libc + " && exec \"$@\"",
            programs.file("libc-copy")},
           probe)},
      {"exe swapped with PR_SET_MM_MAP", {LD_EXE_SWAP_PROBE, probe, socket}, "swapped\nclosed\n"},
      {"a member of the application's group",
       ask({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--groups=100," + group}, probe), "closed\n", -1},
      {"an executable on FUSE", ask({}, fuseMount + "/app")},
      {"an executable on a nosuid mount", ask({}, nosuid)},
      {"2000 descriptors", {probe, "many-descriptors", socket, "2000"}},
      {"garbage after Hello", {probe, "after-hello-garbage", socket}, "hello\nclosed\n"},
      {"gives up only its saved group", {probe, "drop-saved-group-first", socket}},
      {"gives up only its file-system group", {probe, "drop-fs-group-first", socket}},
      {"gives up only its saved group after Hello", {probe, "drop-saved-group", socket}, "hello\nclosed\n"},
      {"gives up only its file-system group after Hello", {probe, "drop-fs-group", socket}, "hello\nclosed\n"},
      {"gives up only its effective group after Hello", {probe, "drop-effective-group", socket}, "hello\nclosed\n"},
      {"takes its group as its real group after Hello", {probe, "drop-real-group", socket}, "hello\nclosed\n"},
      {"execs another program after Hello", {probe, "exec-after-hello", socket, unsignedProbe}, "hello\nclosed\n"},
      // The child's request is refused, then so is the parent.
      {"request from a forked unsigned child", {probe, "forked-sender", socket, unsignedProbe}, "hello\nclosed\nclosed\n"},
  };
#ifdef LD_BUILD_ROOT_KEY
  cases.push_back({"wrong team", ask({}, signedBy("wrong-team", pki.makeLeaf(ldtest::TestIdentity::load(LD_BUILD_ROOT_KEY, LD_BUILD_ROOT_CERT), "Other", {.team = "OTHERTEAM9"})))});
#endif

  ChildProcess helper = startHelper(helperPath, socket);
  for (const Case& c : cases) {
    EXPECT_EQ(outputOf(c.argv, c.uid), c.output) << c.name;
    EXPECT_EQ(outputOf({probe, "greet", socket}), "hello\n") << "a legitimate client right after: " << c.name;
  }
  // These act at once, and the helper is stopped until they have: what it finds is a message
  // sent before Hello, or the signed client exec'd on a connection an unsigned program made.
  for (const auto& [argv, first] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{probe, "early", socket}, "sent"},
           {{probe, "garbage", socket}, "sent"},
           {{probe, "oversized", socket}, "sent"},
           {{unsignedProbe, "connect-then-exec", socket, probe}, "waiting"},  // the socket crossed the exec
           {{unsignedProbe, "connect-fork-exec", socket, probe}, "waiting"},  // a forked child kept it
       }) {
    ::kill(helper.pid(), SIGSTOP);
    ChildProcess early = ChildProcess::start(argv, kNobody);
    EXPECT_EQ(early.readLine(5000), first) << argv[1];
    ::kill(helper.pid(), SIGCONT);
    EXPECT_EQ(early.readLine(10000), "closed") << argv[1] << " refused without Hello";
  }
  const std::string requests = "\n" + ldtest::readFile(fuseLog);
  EXPECT_NE(requests, "\n") << "the file system logs the requests made while the client started";
  EXPECT_EQ(requests.find("\n" + std::to_string(helper.pid()) + " "), std::string::npos)
      << "the helper asked the FUSE server:" << requests;

  ChildProcess client = ChildProcess::start({demo, "--socket", socket}, kNobody);
  EXPECT_NE(client.readLine(15000).find("serving"), std::string::npos);
  EXPECT_NE(ldtest::httpGet("::1", 80).find("[::1]:80"), std::string::npos);
  EXPECT_EQ(helper.wait(5000), 0);
}

TEST_F(HelperEndToEnd, RefusedPeersNeverReachTheServiceWhileItKeepsServing) { expectRefusals(LD_HELPER); }

// As on kernels before 6.5: the peer is pinned by pid and start time, not by SO_PEERPIDFD.
TEST_F(HelperEndToEnd, RefusalsHoldWithoutPeerPidfd) { expectRefusals(LD_HELPER_WITHOUT_PEER_PIDFD); }

// A keyless user freezes peers inside an exec, where every read of their stat, exe, ns/user and
// auxv waits: they connect with a close-on-exec file open on a FUSE file system of their own
// (mounted through fusermount3) whose FLUSH never answers, then exec the signed application. In
// either admission mode a legitimate client is served promptly and the helper ends by itself.
TEST_F(HelperEndToEnd, PeersFrozenInsideAnExecHoldNobodyUp) {
  // /dev/fuse usable by users in this mount namespace only, as some hosts make it 0600.
  const std::string devices = programs.file("dev");
  ::mkdir(devices.c_str(), 0755);
  ASSERT_EQ(::mount("tmpfs", devices.c_str(), "tmpfs", 0, "mode=0755"), 0);
  ASSERT_EQ(::mknod((devices + "/fuse").c_str(), S_IFCHR | 0666, makedev(10, 229)), 0);
  ASSERT_EQ(::chmod((devices + "/fuse").c_str(), 0666), 0);
  ASSERT_EQ(::mount((devices + "/fuse").c_str(), "/dev/fuse", nullptr, MS_BIND, nullptr), 0);
  const std::string unsignedProbe = programs.install(LD_PROBE, "unsigned", false), mount = programs.file("stall");
  ASSERT_EQ(::mkdir(mount.c_str(), 0755) | ::chown(mount.c_str(), kNobody, kNobody), 0);
  ChildProcess server = ChildProcess::start(
      {LD_LYING_FILE_SYSTEM, probe, "0", "/dev/null", mount, "-f", "-o", "max_threads=100"}, kNobody);
  for (int i = 0; i < 100 && ldtest::readFile("/proc/self/mountinfo").find(mount + " ") == std::string::npos; ++i) {
    ::usleep(20000);
  }
  for (const char* helperPath : {LD_HELPER, LD_HELPER_SIGNATURE_ONLY}) {
    ChildProcess helper = startHelper(helperPath, socket);
    ::kill(helper.pid(), SIGSTOP);  // until every peer is frozen: the exec has taken its file away
    ChildProcess peers = ChildProcess::start({"/bin/sh", "-c", "for i in $(seq 32); do \"$0\" stall-exec \"$@\" & done; wait",
                                              unsignedProbe, socket, mount + "/stall", probe},
                                             kNobody);
    for (int i = 0; i < 32; ++i) {
      std::istringstream line(peers.readLine(5000));
      std::string word, pid, fd;
      ASSERT_TRUE(line >> word >> pid >> fd && word == "stalling") << helperPath;
      const std::string held = "/proc/" + pid + "/fdinfo/" + fd;  // fd/ would follow the link, and wait
      for (int wait = 0; wait < 100 && ::access(held.c_str(), F_OK) == 0; ++wait) ::usleep(10000);
      ASSERT_NE(::access(held.c_str(), F_OK), 0) << held;
    }
    ::kill(helper.pid(), SIGCONT);
    const auto asked = std::chrono::steady_clock::now();
    ChildProcess client = ChildProcess::start({demo, "--socket", socket}, kNobody);
    EXPECT_NE(client.readLine(15000).find("serving"), std::string::npos) << helperPath;
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(3)) << helperPath;
    EXPECT_EQ(helper.wait(5000), 0) << helperPath << " ends by itself after the transfer";
  }
  // Frozen right after it asked, an admitted peer holds up its keeper's check of that message
  // (on kernels where that read waits for the exec): that costs its connection at the check's
  // deadline, never the helper, which goes on admitting and ends with a status of its own, never
  // by a signal. (Only in signature-only admission: FUSE serves a set-group-ID process only on an
  // allow_other mount, which a user cannot make.)
  const std::string plainProbe = installSignedProbe("plain", false);
  ChildProcess helper = startHelper(LD_HELPER_SIGNATURE_ONLY, socket);
  ChildProcess peer = ChildProcess::start({plainProbe, "stall-after-hello", socket, mount + "/stall", plainProbe}, kNobody);
  ASSERT_EQ(peer.readLine(5000), "hello");
  std::istringstream line(peer.readLine(5000));
  std::string word, pid, fd;
  ASSERT_TRUE(line >> word >> pid >> fd && word == "stalling");
  signalTree(helper.pid(), SIGSTOP);  // its keeper reads the request only once the peer is frozen
  peer.writeLine("go");
  const std::string held = "/proc/" + pid + "/fdinfo/" + fd;
  for (int wait = 0; wait < 100 && ::access(held.c_str(), F_OK) == 0; ++wait) ::usleep(10000);
  signalTree(helper.pid(), SIGCONT);
  // Where that check waits (a read of the frozen peer's exe link waits on this kernel), its keeper
  // is killed at the check's deadline and the helper goes on.
  const pid_t reader = ::fork();
  if (reader == 0) {
    char target[256];
    ::_exit(::readlink(("/proc/" + pid + "/exe").c_str(), target, sizeof target) > 0 ? 0 : 1);
  }
  for (int wait = 0; wait < 30 && ::waitpid(reader, nullptr, WNOHANG) == 0; ++wait) ::usleep(10000);
  const bool checkWaits = ::kill(reader, SIGKILL) == 0 && ::waitpid(reader, nullptr, 0) == reader;
  for (int wait = 0; checkWaits && wait < 500 && countTree(helper.pid()) > 2; ++wait) ::usleep(10000);
  if (checkWaits) {
    EXPECT_EQ(countTree(helper.pid()), 2) << "the helper and its zygote alone";
  }
  EXPECT_EQ(outputOf({plainProbe, "greet", socket}), "hello\n") << "admission goes on";
  // Served, and 0, where the check waited; where it did not (Linux 6.1 reads the exe link
  // mid-exec), the frozen peer had the transfer, and the acknowledgement time-out ends with 1.
  ChildProcess client = ChildProcess::start({demo, "--socket", socket}, kNobody);
  const int status = helper.wait(15000);
  EXPECT_TRUE(status == 0 || status == 1) << status;
  ::kill(server.pid(), SIGKILL);  // the frozen execs go on, into a program that exits at once
}

// A keyless user's TCP socket, set to linger for 2^31-1 s with data it cannot send, in flight to
// the helper: whoever drops its last reference waits, unless exiting. Sent before Hello (alone, or
// inside a socket that carries it) on a connection made before the helper started, as the one that
// has systemd start it is, so that SO_PASSRIGHTS cannot refuse it; and after admission, where the
// kernel may refuse it at the sender. Each time a legitimate client is served promptly and the
// helper ends with 0 after its transfer.
TEST_F(HelperEndToEnd, LingeringSocketsInFlightHoldNobodyUp) {
  const auto expectServedPromptlyAndEnd = [&](ChildProcess& helper) {
    const auto asked = std::chrono::steady_clock::now();
    ChildProcess client = ChildProcess::start({demo, "--socket", socket}, kNobody);
    EXPECT_NE(client.readLine(15000).find("serving"), std::string::npos);
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(3));
    EXPECT_EQ(helper.wait(5000), 0);
  };
  const std::string plainProbe = installSignedProbe("plain", false);
  struct Case {
    const char* helper;
    std::string program;
    std::string mode;
  };
  for (const Case& c : {Case{LD_HELPER, probe, "linger"}, Case{LD_HELPER_SIGNATURE_ONLY, plainProbe, "linger"},
                        Case{LD_HELPER, probe, "nested"}, Case{LD_HELPER_SIGNATURE_ONLY, plainProbe, "linger-after-hello"}}) {
    SCOPED_TRACE(c.mode + " " + c.helper);
    const LDFileHandle listening = ldtest::listenAt(socket);
    const bool afterHello = c.mode == "linger-after-hello";
    ChildProcess attacker = afterHello ? ChildProcess::start({"/bin/true"}) : ChildProcess::start({c.program, c.mode, socket}, kNobody);
    if (!afterHello) {
      EXPECT_EQ(attacker.readLine(5000), "connected");
      EXPECT_EQ(attacker.readLine(5000), "sent") << "in flight before the helper starts";
    }
    ChildProcess helper = ldtest::startHelperOn(c.helper, listening);
    if (afterHello) {
      ChildProcess admitted = ChildProcess::start({c.program, c.mode, socket}, kNobody);
      EXPECT_EQ(admitted.readLine(5000), "connected");
      EXPECT_EQ(admitted.readLine(5000), "hello");
      const std::string sent = admitted.readLine(5000);
      EXPECT_TRUE(sent == "sent" || sent == "refused by the kernel") << sent;
      expectServedPromptlyAndEnd(helper);
    } else {
      EXPECT_EQ(attacker.readLine(5000), "closed") << "refused: it sent before Hello";
      expectServedPromptlyAndEnd(helper);
    }
  }
}


// Built for signature-only admission, the helper serves a signed client that is not set-group-ID;
// the user namespace is what keeps a rewritten exe link out, and the mount check one on a nosuid
// mount (where a set-group-ID install would lose its protection without a word).
TEST_F(HelperEndToEnd, SignatureOnlyBuildAdmitsAPlainInstall) {
  const std::string plainProbe = installSignedProbe("plain", false);
  ChildProcess helper = startHelper(LD_HELPER_SIGNATURE_ONLY, socket);
  EXPECT_EQ(outputOf({LD_EXE_SWAP_PROBE, plainProbe, socket}), "swapped\nclosed\n");
  EXPECT_EQ(outputOf({installOnNosuidMount(), "version", socket, "1"}), "closed\n");
  EXPECT_EQ(outputOf({plainProbe, "version", socket, "2"}), "hello\nstatus 3 Unsupported protocol version\n");
  EXPECT_EQ(helper.wait(5000), 1);
}

// Counts the reads of one file, by process, through fanotify (root only).
class ReadWatch {
 public:
  explicit ReadWatch(const std::string& path)
      : _fanotify(::fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY | O_CLOEXEC)) {
    if (::fanotify_mark(_fanotify.fileDescriptor(), FAN_MARK_ADD, FAN_ACCESS, AT_FDCWD, path.c_str()) != 0) {
      throw std::runtime_error("fanotify on " + path + ": " + std::strerror(errno));
    }
  }
  // Whether a process other than `except` read the file since the last call.
  bool readByOtherThan(pid_t except) {
    bool read = false;
    alignas(fanotify_event_metadata) char buffer[4096];
    for (ssize_t got; (got = ::read(_fanotify.fileDescriptor(), buffer, sizeof buffer)) > 0;) {
      fanotify_event_metadata event;
      for (size_t at = 0; at + sizeof event <= static_cast<size_t>(got); at += event.event_len) {
        std::memcpy(&event, buffer + at, sizeof event);
        if (event.event_len < sizeof event || at + event.event_len > static_cast<size_t>(got)) break;
        const LDFileHandle opened(event.fd);
        read = read || event.pid != except;
      }
    }
    return read;
  }

 private:
  LDFileHandle _fanotify;
};

// A client that passed verification is recorded, and then admitted without the helper reading any
// of it; rewritten in place with its size and modification time put back, it is read, verified
// again and refused.
TEST_F(HelperEndToEnd, ARecordedClientIsNotReadAgainUntilItChanges) {
  ::mkdir(LD_TEST_VERIFIED_EXECUTABLES, 0755);  // only the tmpfs over it has the mode the helper needs
  ASSERT_EQ(::mount("tmpfs", LD_TEST_VERIFIED_EXECUTABLES, "tmpfs", 0, "mode=0700"), 0);
  ReadWatch watch(probe);
  ChildProcess helper = startHelper(LD_HELPER_SHORT_TIMEOUTS, socket);
  const auto greet = [&] {
    (void)watch.readByOtherThan(0);  // not the test's own reads
    ChildProcess client = ChildProcess::start({probe, "greet", socket}, kNobody);
    const pid_t pid = client.pid();  // its exec reads the file too
    const std::string output = client.finish().standardOutput;
    return std::make_pair(output, watch.readByOtherThan(pid));
  };
  EXPECT_EQ(greet(), std::make_pair(std::string("hello\n"), true)) << "verified in full";
  EXPECT_EQ(greet(), std::make_pair(std::string("hello\n"), false)) << "admitted on its record";
  ldtest::rewriteInPlaceKeepingTimes(probe, 1000);
  EXPECT_EQ(greet(), std::make_pair(std::string("closed\n"), true)) << "verified again";
}

// Any server that understands socket activation runs unprivileged on port 80.
TEST_F(HelperEndToEnd, SocketProxydRunsOnPort80InFrontOfAnUnprivilegedServer) {
  const std::string proxyd = ::access("/lib/systemd/systemd-socket-proxyd", X_OK) == 0
                                 ? "/lib/systemd/systemd-socket-proxyd"
                                 : "/usr/lib/systemd/systemd-socket-proxyd";
  const std::string backend = programs.install(LD_PROBE, "backend", false);
  ChildProcess server = ChildProcess::start({backend, "http-server", "8080"}, kNobody);
  EXPECT_EQ(server.readLine(5000), "listening");
  ChildProcess helper = startHelper(LD_HELPER, socket);
  ChildProcess proxy = ChildProcess::start({demo, "--socket", socket, "--", proxyd, "127.0.0.1:8080"}, kNobody);
  EXPECT_EQ(helper.wait(15000), 0);
  EXPECT_EQ(ldtest::httpGet("127.0.0.1", 80), "backend\n");
  EXPECT_EQ(ldtest::httpGet("::1", 80), "backend\n");
}

}  // namespace
