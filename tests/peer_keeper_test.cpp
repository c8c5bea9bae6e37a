// The keepers' plumbing: only whole records cross between the monitor and a keeper, a child keeps
// exactly the descriptors it is told to (0-2 on /dev/null), and the zygote hands each keeper the
// pin the monitor made.

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "admission/peer_keeper.h"
#include "support/descriptors.h"
#include "support/test_pki.h"

namespace {

TEST(KeeperRecords, OnlyWholeRecordsAreTaken) {
  struct Case {
    const char* name;
    size_t bytes;  // SIZE_MAX: nothing sent; 0: the other end closed
    bool taken;
    bool ended;
  };
  for (const Case& c : {Case{"a whole record", sizeof(LDKeeperReport), true, false},
                        Case{"a short one", 3, false, true}, Case{"a long one", sizeof(LDKeeperReport) + 1, false, true},
                        Case{"nothing yet", SIZE_MAX, false, false}, Case{"the other end gone", 0, false, true}}) {
    SCOPED_TRACE(c.name);
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair), 0);
    LDFileHandle reading(pair[0]), writing(pair[1]);
    const std::string bytes(c.bytes == SIZE_MAX ? 0 : c.bytes, '\x05');
    if (c.bytes == 0) writing.reset();
    if (c.bytes != 0 && c.bytes != SIZE_MAX) {
      ASSERT_EQ(::send(writing.fileDescriptor(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    LDKeeperReport report{};
    bool ended = false;
    EXPECT_EQ(LDReceiveRecord(reading.fileDescriptor(), &report, &ended), c.taken);
    EXPECT_EQ(ended, c.ended);
    if (c.taken) {
      EXPECT_EQ(static_cast<int>(report.kind), 5);
    }
  }
}

// In a child: keep only `keep` (with nullDevice, or -1), then the open descriptors and whether
// 0-2 are /dev/null, as one line: "fds 0 1 2 5 null yes", or "refused".
std::string keptInChild(int nullDevice, std::vector<int> keep) {
  int report[2];
  EXPECT_EQ(::pipe(report), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    keep.push_back(report[1]);
    if (nullDevice == 0) ::dup2(::open("/dev/null", O_RDWR | O_CLOEXEC), 0);  // as opened with 0 closed
    if (!LDKeepOnlyDescriptors(nullDevice, keep.data(), static_cast<int>(keep.size()))) {
      (void)!::write(report[1], "refused", 7);
      ::_exit(0);
    }
    struct stat null {}, standard {};
    ::stat("/dev/null", &null);
    bool allNull = true;
    std::string line = "fds";
    for (int fd = 0; fd < 64; ++fd) {
      if (::fcntl(fd, F_GETFD) < 0 || fd == report[1]) continue;
      line += " " + std::to_string(fd);
      if (fd <= 2) allNull = allNull && ::fstat(fd, &standard) == 0 && standard.st_rdev == null.st_rdev;
    }
    line += allNull ? " null yes" : " null no";
    (void)!::write(report[1], line.data(), line.size());
    ::_exit(0);
  }
  ::close(report[1]);
  char buffer[256] = {};
  const ssize_t got = ::read(report[0], buffer, sizeof buffer - 1);
  ::close(report[0]);
  ::waitpid(child, nullptr, 0);
  return std::string(buffer, got > 0 ? static_cast<size_t>(got) : 0);
}

TEST(KeepOnlyDescriptors, KeepsWhatItIsToldAndPutsNullUnderTheStandardOnes) {
  // Descriptors 0-2 of a test program need not be /dev/null: the first row leaves them as they
  // are, so it states only which stay open.
  const LDFileHandle a(::open("/dev/zero", O_RDONLY | O_CLOEXEC)), b(::open("/dev/zero", O_RDONLY | O_CLOEXEC));
  const LDFileHandle null(::open("/dev/null", O_RDWR | O_CLOEXEC));
  const std::string both = std::to_string(a.fileDescriptor()) + " " + std::to_string(b.fileDescriptor());
  EXPECT_TRUE(keptInChild(-1, {b.fileDescriptor(), a.fileDescriptor(), a.fileDescriptor()}).starts_with("fds 0 1 2 " + both + " null"));
  EXPECT_EQ(keptInChild(null.fileDescriptor(), {a.fileDescriptor()}),
            "fds 0 1 2 " + std::to_string(a.fileDescriptor()) + " " + std::to_string(null.fileDescriptor()) + " null yes");
  EXPECT_EQ(keptInChild(0, {a.fileDescriptor()}), "fds 0 1 2 " + std::to_string(a.fileDescriptor()) + " null yes");
  EXPECT_EQ(keptInChild(null.fileDescriptor(), {1}), "refused") << "a kept standard descriptor would be overwritten";
  EXPECT_EQ(keptInChild(-1, {a.fileDescriptor(), -1}), "refused") << "a negative number names no descriptor to keep";
}

// What the keeper saw of its start, sent back as its first report.
void reportThePin(LDKeeperStart& start) {
  LDKeeperReport seen{};
  seen.kind = LDKeeperReportKind::inspected;
  seen.protocolVersion = start.peer.pid;
  seen.group = start.peer.gid;
  seen.tokenLength = start.peer.uid;
  seen.accepted = start.peer.pidfdFromSocket ? 1 : 0;
  seen.hasGroup = start.peer.pidfd.isValid() && start.peer.processDirectory.isValid() ? 1 : 0;
  (void)LDSendRecord(start.channel.fileDescriptor(), seen);
}

TEST(KeeperZygote, HandsEachKeeperThePinAsMade) {
  int errorNumber = 0;
  std::optional<LDKeeperZygote> zygote = LDKeeperZygote::start(reportThePin, LDSystemCalls::real(), &errorNumber);
  ASSERT_TRUE(zygote) << errorNumber;
  for (const bool pinned : {true, false}) {
    for (const bool fromSocket : {true, false}) {
      SCOPED_TRACE(std::string(pinned ? "pinned" : "not pinned") + (fromSocket ? ", pidfd from the socket" : ""));
      int peer[2], channel[2];
      ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, peer), 0);
      ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, channel), 0);
      LDFileHandle client(peer[1]), monitorEnd(channel[0]);
      LDKeeperStart start;
      start.socket.reset(peer[0]);
      start.channel.reset(channel[1]);
      start.peer.pid = 4242;
      start.peer.uid = 1234;
      start.peer.gid = 5678;
      start.peer.pidfdFromSocket = fromSocket;
      if (pinned) {
        start.peer.pidfd.reset(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0u)));
        start.peer.processDirectory.reset(::open("/proc/self", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      }
      std::optional<LDKeeperZygote::Keeper> keeper = zygote->spawn(start);
      ASSERT_TRUE(keeper);
      LDKeeperReport seen{};
      bool ended = false;
      pollfd reported{monitorEnd.fileDescriptor(), POLLIN, 0};
      ::poll(&reported, 1, 5000);
      EXPECT_TRUE(LDReceiveRecord(monitorEnd.fileDescriptor(), &seen, &ended));
      EXPECT_EQ(seen.protocolVersion, 4242);
      EXPECT_EQ(seen.tokenLength, 1234u);
      EXPECT_EQ(seen.group, 5678u);
      EXPECT_EQ(seen.accepted, fromSocket ? 1 : 0);
      EXPECT_EQ(seen.hasGroup, pinned ? 1 : 0);
      EXPECT_EQ(::syscall(SYS_pidfd_send_signal, keeper->pidfd.fileDescriptor(), SIGKILL, nullptr, 0u), 0);
    }
  }
  // After one exchange that fails (here: no descriptors to send; a zygote gone fails the same
  // way) it makes no more keepers, since its next answer could be a late one, and says so.
  LDKeeperStart start;
  EXPECT_FALSE(zygote->spawn(start));
  start.socket.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  start.channel.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(zygote->spawn(start) || zygote->isAlive());
}

}  // namespace
