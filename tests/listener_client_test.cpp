// The application side against helpers that misbehave: it checks itself before it asks, and
// checks what it is handed before it acknowledges.

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "client/listener_client.h"
#include "platform/seqpacket.h"
#include "platform/wire.h"
#include "shared/loopback_listeners.h"
#include "support/descriptors.h"
#include "support/test_pki.h"

namespace {

TEST(Client, RefusesToAskUnlessItRunsSetGroupId) {
  std::optional<LDError> error;
  EXPECT_FALSE(LDAcquireListeners({.socketPath = "/nonexistent/helper.sock"}, &error));
  ASSERT_TRUE(error);
  EXPECT_NE(error->description().find("This program must be installed set-group-ID to a group of its own"),
            std::string::npos)
      << error->description();
  EXPECT_NE(error->description().find("&& chmod 2755 "), std::string::npos) << "says how";
}

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

enum class Fault { otherNamespace, swapped, tooManyFiles };

// A fake helper hands over the listener pair with a fault; the client, in a child, must refuse,
// close what it got before it says so, and tell why.
TEST(Client, RefusesListenersItCannotVouchFor) {
  for (const auto& [fault, expectedError] : {
           std::pair{Fault::otherNamespace, "Received 127.0.0.1:80 belongs to another network namespace"},
           std::pair{Fault::swapped, "Expected 127.0.0.1:80, received [::1]:80"},
           std::pair{Fault::tooManyFiles, "this process has too many open files (RLIMIT_NOFILE is "},
       }) {
    SCOPED_TRACE(expectedError);
    ldtest::TemporaryDirectory directory;
    const std::string path = directory.file("helper.sock");
    const LDFileHandle listening = ldtest::seqpacketSocket(path, ldtest::Seqpacket::listening);
    auto pair = LDLoopbackListeners::initWithPort(80);
    LDFileHandle ipv4, ipv6;
    ASSERT_TRUE(pair && pair->duplicateIntoIPv4(ipv4, ipv6));
    struct stat v4 {}, v6 {};
    ::fstat(ipv4.fileDescriptor(), &v4);
    ::fstat(ipv6.fileDescriptor(), &v6);
    int report[2];
    ASSERT_EQ(::pipe2(report, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      ipv4.reset();  // the client must hold only what it receives
      ipv6.reset();
      pair.reset();
      if (fault == Fault::otherNamespace && ::unshare(CLONE_NEWNET) != 0) ::_exit(2);
      if (fault == Fault::tooManyFiles) {
        // Room for the connection to the helper (the lowest free number), none for what it sends.
        const int lowest = ::dup(0);
        ::close(lowest);
        const rlimit limit{static_cast<rlim_t>(lowest + 1), static_cast<rlim_t>(lowest + 1)};
        ::setrlimit(RLIMIT_NOFILE, &limit);
      }
      std::optional<LDError> error;
      const bool acquired = LDAcquireListeners({.socketPath = path, .requireSecureExecution = false}, &error).has_value();
      const std::string text = acquired ? "acquired" : error->description();
      (void)!::write(report[1], text.data(), text.size());
      ::_exit(0);
    }
    ::close(report[1]);
    LDFileHandle connection(::accept4(listening.fileDescriptor(), nullptr, nullptr, SOCK_CLOEXEC));
    LDSendPacket(connection.fileDescriptor(), LDEncodeMessage(LDHelloMessage{}), {}, false);
    LDReceivedPacket packet;
    auto receive = [&] {
      pollfd entry{connection.fileDescriptor(), POLLIN, 0};
      int errorNumber = 0;
      return ::poll(&entry, 1, 5000) == 1 &&
             LDReceivePacket(connection.fileDescriptor(), 4096, &packet, &errorNumber) == LDReceiveResult::packet;
    };
    receive();
    const std::vector<int> descriptors = fault == Fault::swapped
                                             ? std::vector{ipv6.fileDescriptor(), ipv4.fileDescriptor()}
                                             : std::vector{ipv4.fileDescriptor(), ipv6.fileDescriptor()};
    LDSendPacket(connection.fileDescriptor(),
                 LDEncodeMessage(LDRequestReplyMessage{1, 0, std::string(64, 'a'), 3, 1, std::nullopt}), descriptors,
                 false);
    if (receive()) {
      const auto complete = LDDecodeMessage(packet.bytes, 0);
      EXPECT_TRUE(complete && std::holds_alternative<LDCompleteMessage>(*complete) &&
                  !std::get<LDCompleteMessage>(*complete).accepted)
          << "the client refuses in its completion";
      EXPECT_FALSE(holdsAny(child, {v4.st_ino, v6.st_ino})) << "the client still holds a refused listener";
      LDSendPacket(connection.fileDescriptor(), LDEncodeMessage(LDCompleteReplyMessage{1, 2, "rejected"}), {}, false);
    }
    std::string text;
    char buffer[1024];
    for (ssize_t got; (got = ::read(report[0], buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(got));
    ::close(report[0]);
    ::waitpid(child, nullptr, 0);
    EXPECT_NE(text.find(expectedError), std::string::npos) << "the client said: " << text;
  }
}

}  // namespace
