#include "support/descriptors.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace ldtest {

std::set<int> openDescriptors() {
  std::set<int> fds;
  DIR* directory = opendir("/proc/self/fd");
  if (directory == nullptr) throw std::runtime_error("cannot read /proc/self/fd");
  const int own = dirfd(directory);
  while (const dirent* entry = readdir(directory)) {
    if (entry->d_name[0] == '.') continue;
    const int fd = std::atoi(entry->d_name);
    if (fd != own) fds.insert(fd);
  }
  closedir(directory);
  return fds;
}

std::string descriptorDifference(const std::set<int>& before, const std::set<int>& after) {
  std::string difference;
  for (const int fd : after) {
    if (!before.count(fd)) difference += " opened " + std::to_string(fd);
  }
  for (const int fd : before) {
    if (!after.count(fd)) difference += " closed " + std::to_string(fd);
  }
  return difference;
}

LDFileHandle loopbackSocket(int family, int type, uint16_t port, bool listening, bool v6only) {
  LDFileHandle fd(::socket(family, type, 0));
  if (family == AF_INET6) {
    const int option = v6only ? 1 : 0;
    ::setsockopt(fd.fileDescriptor(), IPPROTO_IPV6, IPV6_V6ONLY, &option, sizeof option);
  }
  sockaddr_storage storage{};
  socklen_t length;
  if (family == AF_INET) {
    auto* address = reinterpret_cast<sockaddr_in*>(&storage);
    address->sin_family = AF_INET;
    address->sin_port = htons(port);
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    length = sizeof(sockaddr_in);
  } else {
    auto* address = reinterpret_cast<sockaddr_in6*>(&storage);
    address->sin6_family = AF_INET6;
    address->sin6_port = htons(port);
    address->sin6_addr = in6addr_loopback;
    length = sizeof(sockaddr_in6);
  }
  if (::bind(fd.fileDescriptor(), reinterpret_cast<sockaddr*>(&storage), length) != 0 ||
      (listening && ::listen(fd.fileDescriptor(), 8) != 0)) {
    throw std::runtime_error("cannot bind a loopback test socket at port " + std::to_string(port));
  }
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
  std::memcpy(CMSG_DATA(message), descriptors.data(), sizeof(int) * descriptors.size());
  return ::sendmsg(socket, &header, MSG_NOSIGNAL) < 0 ? errno : 0;
}

unsigned short freeLoopbackPort() {
  for (int attempt = 0; attempt < 64; ++attempt) {
    const LDFileHandle probe4 = loopbackSocket(AF_INET, SOCK_STREAM, 0, false);
    sockaddr_in address4{};
    socklen_t length = sizeof address4;
    ::getsockname(probe4.fileDescriptor(), reinterpret_cast<sockaddr*>(&address4), &length);
    const unsigned short port = ntohs(address4.sin_port);
    try {
      loopbackSocket(AF_INET6, SOCK_STREAM, port, false);
      return port;
    } catch (const std::runtime_error&) {
    }
  }
  throw std::runtime_error("no loopback port free on both 127.0.0.1 and ::1");
}

}  // namespace ldtest
