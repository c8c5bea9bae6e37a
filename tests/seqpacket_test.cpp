#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/seqpacket.h"
#include "support/descriptors.h"

namespace {

// Every packet that does not fit, in bytes or in descriptors, is refused, and each descriptor
// that did arrive is closed: the pipe's write end travels in the packet only, so its read end
// sees end-of-file once the receiver let go of every copy.
TEST(Seqpacket, RefusesWhatDoesNotFitAndClosesEveryDescriptorThatArrived) {
  struct Case {
    const char* name;
    size_t bytes;
    size_t copies;  // of the pipe's write end
    LDReceiveResult expected;
  };
  for (const Case& c : {Case{"thirty-two descriptors", 1, 32, LDReceiveResult::truncated},
                        Case{"oversized with descriptors", 5000, 2, LDReceiveResult::truncated},
                        Case{"eight descriptors", 1, 8, LDReceiveResult::packet}}) {
    SCOPED_TRACE(c.name);
    int pair[2], pipeEnds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    ASSERT_EQ(::pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK), 0);
    LDFileHandle sender(pair[0]), receiver(pair[1]), readEnd(pipeEnds[0]);
    const std::vector<int> copies(c.copies, pipeEnds[1]);
    ASSERT_EQ(ldtest::sendPacketWithDescriptors(sender.fileDescriptor(), std::string(c.bytes, 'x'), copies), 0);
    LDCloseDescriptor(pipeEnds[1]);
    const auto before = ldtest::openDescriptors();
    LDReceivedPacket packet;
    int errorNumber = 0;
    EXPECT_EQ(LDReceivePacket(receiver.fileDescriptor(), 4096, &packet, &errorNumber), c.expected);
    for (const LDFileHandle& received : packet.descriptors) {
      EXPECT_NE(::fcntl(received.fileDescriptor(), F_GETFD) & FD_CLOEXEC, 0) << "received close-on-exec";
    }
    EXPECT_EQ(packet.descriptors.size(), c.expected == LDReceiveResult::packet ? c.copies : 0u);
    packet.descriptors.clear();
    char byte;
    EXPECT_EQ(::read(readEnd.fileDescriptor(), &byte, 1), 0) << "a received copy is still open";
    EXPECT_EQ(ldtest::openDescriptors(), before);
    EXPECT_EQ(LDReceivePacket(receiver.fileDescriptor(), 4096, &packet, &errorNumber), LDReceiveResult::wouldBlock);
    sender.reset();
    EXPECT_EQ(LDReceivePacket(receiver.fileDescriptor(), 4096, &packet, &errorNumber), LDReceiveResult::closed);
  }
}

}  // namespace
