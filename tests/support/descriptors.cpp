#include "support/descriptors.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace ldtest {

std::set<int> openDescriptors() {
  std::set<int> fds;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    fds.insert(std::stoi(entry.path().filename()));
  }
  std::erase_if(fds, [](int fd) { return ::fcntl(fd, F_GETFD) < 0; });  // the listing's own, closed again
  return fds;
}

socklen_t loopbackAddress(int family, uint16_t port, sockaddr_storage* storage) {
  *storage = {};
  if (family == AF_INET) {
    auto* address = reinterpret_cast<sockaddr_in*>(storage);
    address->sin_family = AF_INET;
    address->sin_port = htons(port);
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sizeof(sockaddr_in);
  }
  auto* address = reinterpret_cast<sockaddr_in6*>(storage);
  address->sin6_family = AF_INET6;
  address->sin6_port = htons(port);
  address->sin6_addr = in6addr_loopback;
  return sizeof(sockaddr_in6);
}

LDFileHandle loopbackSocket(int family, int type, uint16_t port, bool listening) {
  LDFileHandle fd(::socket(family, type, 0));
  const int on = 1;
  ::setsockopt(fd.fileDescriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (family == AF_INET6) ::setsockopt(fd.fileDescriptor(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  sockaddr_storage storage;
  const socklen_t length = loopbackAddress(family, port, &storage);
  if (::bind(fd.fileDescriptor(), reinterpret_cast<sockaddr*>(&storage), length) != 0 ||
      (listening && ::listen(fd.fileDescriptor(), 8) != 0)) {
    throw std::runtime_error("cannot bind a loopback test socket at port " + std::to_string(port));
  }
  return fd;
}

LDFileHandle seqpacketSocket(const std::string& path, Seqpacket what) {
  LDFileHandle fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  const bool done = what == Seqpacket::connected
                        ? ::connect(fd.fileDescriptor(), generic, sizeof address) == 0
                        : ::bind(fd.fileDescriptor(), generic, sizeof address) == 0 &&
                              (what == Seqpacket::bound ||
                               (::chmod(path.c_str(), 0666) == 0 && ::listen(fd.fileDescriptor(), 64) == 0));
  if (!done) throw std::runtime_error("seqpacket socket at " + path + ": " + std::strerror(errno));
  return fd;
}

int sendPacketWithDescriptors(int socket, const std::string& bytes, const std::vector<int>& descriptors) {
  iovec vector{const_cast<char*>(bytes.data()), bytes.size()};
  std::vector<char> control(CMSG_SPACE(sizeof(int) * descriptors.size()));
  msghdr header{};
  header.msg_iov = &vector;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  cmsghdr* message = CMSG_FIRSTHDR(&header);
  message->cmsg_level = SOL_SOCKET;
  message->cmsg_type = SCM_RIGHTS;
  message->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
  if (!descriptors.empty()) std::memcpy(CMSG_DATA(message), descriptors.data(), sizeof(int) * descriptors.size());
  return ::sendmsg(socket, &header, MSG_NOSIGNAL) < 0 ? errno : 0;
}

}  // namespace ldtest
