#include "support/helper_harness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "shared/file_handle.h"

#include "support/process.h"
#include "tools/code_signer.h"

namespace ldtest {

namespace {

int64_t nowMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

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

ChildProcess ChildProcess::start(const std::vector<std::string>& argv, int uid, int listeningSocket) {
  int input[2], output[2];
  if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("fork");
  if (child == 0) {
    ::dup2(input[0], 0);
    ::dup2(output[1], 1);
    ::dup2(output[1], 2);
    if (listeningSocket >= 0) {
      const int target = 3;
      if (!LDPlaceDescriptorsForExec(&listeningSocket, &target, 1)) ::_exit(125);
      ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
      ::setenv("LISTEN_FDS", "1", 1);
    }
    execAs(argv, uid);
  }
  ::close(input[0]);
  ::close(output[1]);
  ChildProcess process;
  process._pid = child;
  process._input = input[1];
  process._output = output[0];
  return process;
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : _pid(std::exchange(other._pid, -1)),
      _input(std::exchange(other._input, -1)),
      _output(std::exchange(other._output, -1)),
      _buffered(std::move(other._buffered)),
      _reaped(other._reaped),
      _status(other._status) {}

ChildProcess::~ChildProcess() {
  if (_pid > 0 && !_reaped) {
    kill();
    wait(5000);
  }
  if (_input >= 0) ::close(_input);
  if (_output >= 0) ::close(_output);
}

std::optional<std::string> ChildProcess::readLine(int milliseconds) {
  const int64_t deadline = nowMilliseconds() + milliseconds;
  for (;;) {
    const size_t end = _buffered.find('\n');
    if (end != std::string::npos) {
      std::string line = _buffered.substr(0, end);
      _buffered.erase(0, end + 1);
      return line;
    }
    const int64_t left = deadline - nowMilliseconds();
    pollfd entry{_output, POLLIN, 0};
    if (left <= 0 || ::poll(&entry, 1, static_cast<int>(left)) != 1) return std::nullopt;
    char buffer[4096];
    const ssize_t got = ::read(_output, buffer, sizeof buffer);
    if (got <= 0) return std::nullopt;
    _buffered.append(buffer, static_cast<size_t>(got));
  }
}

std::string ChildProcess::readAll(int milliseconds) {
  const int64_t deadline = nowMilliseconds() + milliseconds;
  for (;;) {
    const int64_t left = deadline - nowMilliseconds();
    pollfd entry{_output, POLLIN, 0};
    if (left <= 0 || ::poll(&entry, 1, static_cast<int>(left)) != 1) break;
    char buffer[4096];
    const ssize_t got = ::read(_output, buffer, sizeof buffer);
    if (got <= 0) break;
    _buffered.append(buffer, static_cast<size_t>(got));
  }
  return std::exchange(_buffered, "");
}

void ChildProcess::writeLine(const std::string& line) {
  const std::string text = line + "\n";
  (void)::write(_input, text.data(), text.size());
}

int ChildProcess::wait(int milliseconds) {
  if (_reaped) return _status;
  const int64_t deadline = nowMilliseconds() + milliseconds;
  for (;;) {
    int status = 0;
    const pid_t done = ::waitpid(_pid, &status, WNOHANG);
    if (done == _pid) {
      _reaped = true;
      _status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return _status;
    }
    if (nowMilliseconds() >= deadline) return -1;
    ::usleep(5000);
  }
}

void ChildProcess::kill() {
  if (_pid > 0 && !_reaped) ::kill(_pid, SIGKILL);
}

ChildProcess startHelper(const std::string& helperPath, const std::string& socketPath) {
  LDFileHandle socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
  ::unlink(socketPath.c_str());
  if (::bind(socket.fileDescriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::chmod(socketPath.c_str(), 0666) != 0 || ::listen(socket.fileDescriptor(), 16) != 0) {
    throw std::runtime_error("cannot listen at " + socketPath + ": " + std::strerror(errno));
  }
  return ChildProcess::start({helperPath}, -1, socket.fileDescriptor());
}

std::string httpGet(const std::string& address, uint16_t port, int milliseconds) {
  const bool v6 = address.find(':') != std::string::npos;
  LDFileHandle fd(::socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_storage storage{};
  socklen_t length;
  if (v6) {
    auto* a = reinterpret_cast<sockaddr_in6*>(&storage);
    a->sin6_family = AF_INET6;
    a->sin6_port = htons(port);
    inet_pton(AF_INET6, address.c_str(), &a->sin6_addr);
    length = sizeof(sockaddr_in6);
  } else {
    auto* a = reinterpret_cast<sockaddr_in*>(&storage);
    a->sin_family = AF_INET;
    a->sin_port = htons(port);
    inet_pton(AF_INET, address.c_str(), &a->sin_addr);
    length = sizeof(sockaddr_in);
  }
  if (::connect(fd.fileDescriptor(), reinterpret_cast<sockaddr*>(&storage), length) != 0) {
    return std::string("error: connect: ") + std::strerror(errno);
  }
  const std::string request = "GET / HTTP/1.0\r\nHost: test\r\n\r\n";
  (void)::send(fd.fileDescriptor(), request.data(), request.size(), MSG_NOSIGNAL);
  std::string response;
  const int64_t deadline = nowMilliseconds() + milliseconds;
  for (;;) {
    const int64_t left = deadline - nowMilliseconds();
    pollfd entry{fd.fileDescriptor(), POLLIN, 0};
    if (left <= 0 || ::poll(&entry, 1, static_cast<int>(left)) != 1) return "error: timed out";
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
