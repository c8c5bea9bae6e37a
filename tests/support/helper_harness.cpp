#include "support/helper_harness.h"

#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "support/descriptors.h"
#include "tools/code_signer.h"

namespace ldtest {

gid_t applicationGroup() {
  static const gid_t group = [] {
    gid_t candidate = 64000;
    while (::getgrgid(candidate) != nullptr) ++candidate;
    return candidate;
  }();
  return group;
}

ProgramDirectory::ProgramDirectory() { ::chmod(_directory.path().c_str(), 0755); }

std::string ProgramDirectory::install(const std::string& source, const std::string& name, bool setGroupId) {
  const std::string target = _directory.file(name);
  writeFile(target, readFile(source), 0755);
  if (::chown(target.c_str(), 0, setGroupId ? applicationGroup() : 0) != 0 ||
      ::chmod(target.c_str(), setGroupId ? 02755 : 0755) != 0) {
    throw std::runtime_error("chown/chmod " + target);
  }
  return target;
}

std::string signWithBuildIdentity(const std::string& path, const std::string& identifier) {
  std::string error;
  const auto identity = LDLoadSigningIdentity(LD_BUILD_SIGNING_KEY, LD_BUILD_SIGNING_CERT,
                                              LD_BUILD_SIGNING_CHAIN, &error);
  if (!identity) return error;
  if (!LDSignFile(path, identifier, *identity, &error)) return error;
  return "";
}

ChildProcess startHelper(const std::string& helperPath, const std::string& socketPath) {
  return startHelperOn(helperPath, listenAt(socketPath));
}

LDFileHandle listenAt(const std::string& socketPath) {
  ::unlink(socketPath.c_str());
  return seqpacketSocket(socketPath, Seqpacket::listening);
}

ChildProcess startHelperOn(const std::string& helperPath, const LDFileHandle& listening) {
  return ChildProcess::start({helperPath}, -1, listening.fileDescriptor());
}

std::string httpGet(const std::string& address, uint16_t port) {
  const int family = address.find(':') != std::string::npos ? AF_INET6 : AF_INET;
  LDFileHandle fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_storage storage{};
  const socklen_t length = loopbackAddress(family, port, &storage);
  if (::connect(fd.fileDescriptor(), reinterpret_cast<sockaddr*>(&storage), length) != 0) {
    return std::string("error: connect: ") + std::strerror(errno);
  }
  const std::string request = "GET / HTTP/1.0\r\nHost: test\r\n\r\n";
  (void)::send(fd.fileDescriptor(), request.data(), request.size(), MSG_NOSIGNAL);
  std::string response;
  for (;;) {
    pollfd entry{fd.fileDescriptor(), POLLIN, 0};
    if (::poll(&entry, 1, 3000) != 1) return "error: timed out";
    char buffer[4096];
    const ssize_t got = ::read(fd.fileDescriptor(), buffer, sizeof buffer);
    if (got < 0) return std::string("error: read: ") + std::strerror(errno);
    if (got == 0) break;
    response.append(buffer, static_cast<size_t>(got));
  }
  const size_t body = response.find("\r\n\r\n");
  return body == std::string::npos ? "error: no body in " + response : response.substr(body + 4);
}

}  // namespace ldtest
