#include "platform/seqpacket.h"

#include <cerrno>
#include <cstring>

namespace {

// Room for more descriptors than any message carries (two), so that a peer sending extras is
// seen and not silently cut; plus credentials and a pidfd the kernel may add.
constexpr size_t kMaximumDescriptors = 8;
constexpr int kScmPidfd = 0x04;  // SCM_PIDFD, missing from older headers

// The control room recvmsg is given: credentials always, and room for maximumDescriptors so that
// one more is cut (MSG_CTRUNC) rather than received.
size_t controlRoom(size_t maximumDescriptors, size_t whole) {
  if (maximumDescriptors == 0) return CMSG_SPACE(sizeof(ucred));
  if (maximumDescriptors >= kMaximumDescriptors) return whole;
  return CMSG_SPACE(sizeof(int) * maximumDescriptors) + CMSG_SPACE(sizeof(ucred));
}

// Takes every descriptor of the control messages into packet (a pidfd is closed: the sender's
// identity comes from SO_PEERPIDFD instead), whatever else is wrong with the packet, and the
// credentials.
void takeControlMessages(msghdr& header, LDReceivedPacket* packet) {
  for (cmsghdr* message = CMSG_FIRSTHDR(&header); message != nullptr; message = CMSG_NXTHDR(&header, message)) {
    if (message->cmsg_level != SOL_SOCKET) continue;
    if (message->cmsg_type == SCM_RIGHTS || message->cmsg_type == kScmPidfd) {
      const size_t count = (message->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      for (size_t i = 0; i < count; ++i) {
        int descriptor;
        std::memcpy(&descriptor, CMSG_DATA(message) + i * sizeof(int), sizeof descriptor);
        if (message->cmsg_type == SCM_RIGHTS) {
          packet->descriptors.emplace_back(descriptor);
        } else {
          LDCloseDescriptor(descriptor);
        }
      }
    } else if (message->cmsg_type == SCM_CREDENTIALS && message->cmsg_len >= CMSG_LEN(sizeof(ucred))) {
      ucred credentials;
      std::memcpy(&credentials, CMSG_DATA(message), sizeof credentials);
      packet->credentials = credentials;
    }
  }
}

}  // namespace

LDReceiveResult LDReceivePacket(int fd, size_t maximumSize, LDReceivedPacket* packet,
                                int* errorNumber, size_t maximumDescriptors) {
  packet->bytes.assign(maximumSize, '\0');
  packet->descriptors.clear();
  packet->credentials.reset();
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaximumDescriptors) +
                                CMSG_SPACE(sizeof(ucred)) + CMSG_SPACE(sizeof(int))];
  iovec vector{packet->bytes.data(), packet->bytes.size()};
  msghdr header{};
  header.msg_iov = &vector;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = controlRoom(maximumDescriptors, sizeof control);
  ssize_t received;
  do {
    received = ::recvmsg(fd, &header, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
  } while (received < 0 && errno == EINTR);
  if (received < 0) {
    *errorNumber = errno;
    return *errorNumber == EAGAIN || *errorNumber == EWOULDBLOCK ? LDReceiveResult::wouldBlock
                                                                 : LDReceiveResult::failed;
  }
  takeControlMessages(header, packet);
  if ((header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
    packet->descriptors.clear();
    return LDReceiveResult::truncated;
  }
  if (received == 0) {
    // A zero-length packet and the end of the stream look alike; neither is a message.
    packet->descriptors.clear();
    return LDReceiveResult::closed;
  }
  packet->bytes.resize(static_cast<size_t>(received));
  return LDReceiveResult::packet;
}

int LDSendPacket(int fd, std::string_view bytes, const std::vector<int>& descriptors,
                 bool dontWait) {
  iovec vector{const_cast<char*>(bytes.data()), bytes.size()};
  msghdr header{};
  header.msg_iov = &vector;
  header.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaximumDescriptors)] = {};
  if (!descriptors.empty()) {
    if (descriptors.size() > kMaximumDescriptors) return EINVAL;
    header.msg_control = control;
    header.msg_controllen = CMSG_SPACE(sizeof(int) * descriptors.size());
    cmsghdr* message = CMSG_FIRSTHDR(&header);
    message->cmsg_level = SOL_SOCKET;
    message->cmsg_type = SCM_RIGHTS;
    message->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
    std::memcpy(CMSG_DATA(message), descriptors.data(), sizeof(int) * descriptors.size());
  }
  ssize_t sent;
  do {
    sent = ::sendmsg(fd, &header, MSG_NOSIGNAL | (dontWait ? MSG_DONTWAIT : 0));
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return errno;
  return static_cast<size_t>(sent) == bytes.size() ? 0 : EMSGSIZE;
}
