// A test client that speaks (or abuses) the helper's protocol step by step and prints what it
// saw, one word or line per step. Installed signed or unsigned by the tests.
//
//   handoff_probe early|garbage|oversized PATH              send before Hello, report
//   handoff_probe linger|nested|linger-after-hello PATH    send a lingering TCP socket, report, stay
//   handoff_probe greet PATH                                report whether the helper greets us
//   handoff_probe version PATH N                            request with version N
//   handoff_probe hold PATH                                 request, wait for "go" on stdin, complete
//   handoff_probe no-ack PATH                               request, never complete, wait for the end
//   handoff_probe after-hello-garbage PATH                  garbage after Hello, report
//   handoff_probe drop-saved-group|drop-fs-group|drop-effective-group PATH
//                                                           greeted, give up only that gid of the
//                                                           application's group, then request
//   handoff_probe drop-saved-group-first|drop-fs-group-first PATH
//                                                           give up only that gid, then greet
//   handoff_probe many-descriptors PATH N                   hold N more descriptors, then greet
//   handoff_probe forked-sender PATH PROGRAM                a child running PROGRAM asks on our socket
//   handoff_probe connect-then-exec PATH PROGRAM            connect, then exec PROGRAM on the socket
//   handoff_probe connect-fork-exec PATH PROGRAM            connect, fork a child that reports what
//                                                           arrives, exec PROGRAM without the socket
//   handoff_probe exec-after-hello PATH PROGRAM             greeted, then exec PROGRAM on the socket
//   handoff_probe inherited-wait FD                         say "waiting", report what arrives on an
//                                                           inherited socket
//   handoff_probe pause -                                   say "waiting", wait to be killed
//   handoff_probe stall-exec PATH FILE PROGRAM              connect with FILE open close-on-exec,
//                                                           say "stalling PID FD", exec PROGRAM
//   handoff_probe stall-after-hello PATH FILE PROGRAM       as stall-exec, but greeted first, then
//                                                           wait for "go" on stdin, request, exec
//   handoff_probe inherited-ask FD                          request on an inherited socket, report
//   handoff_probe http-server PORT                          serve "backend" on 127.0.0.1:PORT
//   handoff_probe steal PID                                 try to take PID's descriptors

#include <netinet/in.h>
#include <poll.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "platform/seqpacket.h"
#include "shared/file_handle.h"
#include "protocol/wire.h"

namespace {

int connectTo(const char* path) {
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    std::printf("connect-failed\n");
    std::exit(2);
  }
  return fd;
}

// The next message within the time: its name, "closed" or "timeout".
std::string next(int fd, int milliseconds, LDReceivedPacket* packet = nullptr) {
  pollfd entry{fd, POLLIN, 0};
  if (::poll(&entry, 1, milliseconds) != 1) return "timeout";
  LDReceivedPacket local;
  LDReceivedPacket& received = packet ? *packet : local;
  int errorNumber = 0;
  if (LDReceivePacket(fd, LDWireMaximumPacketSize, &received, &errorNumber) != LDReceiveResult::packet) {
    return "closed";
  }
  const auto message = LDDecodeMessage(received.bytes, received.descriptors.size());
  if (!message) return "malformed";
  if (std::holds_alternative<LDHelloMessage>(*message)) return "hello";
  if (const auto* reply = std::get_if<LDRequestReplyMessage>(&*message)) {
    return "status " + std::to_string(reply->status) + " " + reply->message.value_or("-") +
           (reply->token ? " token " + *reply->token : "");
  }
  if (const auto* reply = std::get_if<LDCompleteReplyMessage>(&*message)) {
    return "completed " + std::to_string(reply->status) + " " + reply->message.value_or("-");
  }
  return "unexpected";
}

void say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void sendMessage(int fd, const LDMessage& message, const std::vector<int>& descriptors = {}) {
  (void)LDSendPacket(fd, LDEncodeMessage(message), descriptors, false);
}

int httpServer(int port) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 8) != 0) {
    return 1;
  }
  say("listening");
  for (;;) {
    const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    char buffer[4096];
    (void)::read(client, buffer, sizeof buffer);
    const char response[] = "HTTP/1.1 200 OK\r\nContent-Length: 8\r\nConnection: close\r\n\r\nbackend\n";
    (void)::send(client, response, sizeof response - 1, MSG_NOSIGNAL);
    ::close(client);
  }
}

// Every way a process of the same user could take another's descriptors: "stolen N", or
// "refused" when the kernel said no (not merely found nothing).
std::string steal(pid_t target) {
  const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, target, 0u));
  int stolen = 0;
  bool denied = false;
  for (int fd = 0; fd < 64; ++fd) {
    const std::string path = "/proc/" + std::to_string(target) + "/fd/" + std::to_string(fd);
    for (const int got : {pidfd < 0 ? -1 : static_cast<int>(::syscall(SYS_pidfd_getfd, pidfd, fd, 0u)),
                          ::open(path.c_str(), O_RDONLY | O_CLOEXEC)}) {
      if (got >= 0) {
        ++stolen;
        ::close(got);
      } else if (errno == EPERM || errno == EACCES) {
        denied = true;
      }
    }
  }
  return stolen > 0 ? "stolen " + std::to_string(stolen) : denied ? "refused" : "nothing to take";
}

// Gives up the application's group in the saved, effective or file-system gid only, or takes it as the
// real gid too.
bool dropGroup(const std::string& mode) {
  const gid_t real = ::getgid();
  if (mode.find("real") != std::string::npos) return ::setresgid(::getegid(), -1u, -1u) == 0;
  if (mode.find("saved") != std::string::npos) return ::setresgid(-1u, -1u, real) == 0;
  if (mode.find("effective") != std::string::npos) {  // the file-system gid follows it: take that back
    const gid_t group = ::getegid();
    if (::setresgid(-1u, real, -1u) != 0) return false;
    ::setfsgid(group);
    return ::setfsgid(-1u) == static_cast<int>(group);
  }
  ::setfsgid(real);
  return ::setfsgid(-1u) == static_cast<int>(real);  // an invalid id only reports the current one
}

// A TCP connection on loopback whose client end lingers for 2^31-1 s on close with data it cannot
// send: the server end (kept open in *server, never read) has a full window. Closing the last
// reference to the client end waits, unless the closer is exiting.
int lingeringSocket(int* server) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int small = 4096;
  ::setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 1) != 0 ||
      ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return -1;
  }
  (void)::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address);
  *server = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  ::close(listener);
  const linger forever{1, 0x7fffffff};
  ::setsockopt(client, SOL_SOCKET, SO_LINGER, &forever, sizeof forever);
  const std::string chunk(65536, 'x');
  while (::send(client, chunk.data(), chunk.size(), MSG_NOSIGNAL) > 0) {
  }
  return *server < 0 ? -1 : client;
}

// Runs program with fd as its descriptor 3, in the given mode.
int execWithSocket(int fd, const char* program, const char* mode) {
  const int target = 3;
  if (!LDPlaceDescriptorsForExec(&fd, &target, 1)) return 125;
  ::execl(program, program, mode, "3", static_cast<char*>(nullptr));
  return 127;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 64;
  const std::string mode = argv[1];
  const char* extra = argc > 3 ? argv[3] : "";
  if (mode == "http-server") return httpServer(std::atoi(argv[2]));
  if (mode == "steal") {
    say(steal(std::atoi(argv[2])));
    return 0;
  }
  if (mode == "inherited-ask") sendMessage(std::atoi(argv[2]), LDRequestMessage{1});
  if (mode == "inherited-wait" || mode == "pause") say("waiting");
  if (mode == "pause") ::pause();
  if (mode == "inherited-ask" || mode == "inherited-wait") {
    say(next(std::atoi(argv[2]), 3000));
    return 0;
  }
  if (mode == "many-descriptors") {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    for (int i = std::atoi(extra); i > 0; --i) {
      if (::fcntl(0, F_DUPFD_CLOEXEC, 0) < 0) return 71;
    }
  }
  if (mode.ends_with("-first") && !dropGroup(mode)) return 1;
  const int held = mode.starts_with("stall-") ? ::open(extra, O_RDONLY | O_CLOEXEC) : -1;
  const int fd = connectTo(argv[2]);
  if (mode == "stall-exec") {
    say(held < 0 ? "cannot open" : "stalling " + std::to_string(::getpid()) + " " + std::to_string(held));
    ::execl(argv[4], argv[4], static_cast<char*>(nullptr));
    return 127;
  }
  // Before Hello, a lingering TCP socket in flight ("linger"), or a socket that itself carries one
  // ("nested"); every copy of ours but the server end is closed, so that whoever drops the message
  // drops the last reference. Stays until killed (its server end must stay open).
  if (mode == "linger" || mode == "nested" || mode == "linger-after-hello") {
    say("connected");
    int server = -1;
    int sent = lingeringSocket(&server);
    if (sent < 0) return 70;
    if (mode == "nested") {
      int pair[2];
      if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return 71;
      sendMessage(pair[0], LDRequestMessage{1}, {sent});
      ::close(sent);
      ::close(pair[0]);
      sent = pair[1];
    }
    if (mode == "linger-after-hello") say(next(fd, 10000));
    const int refused = LDSendPacket(fd, LDEncodeMessage(LDRequestMessage{1}), {sent}, false);
    say(refused == EPERM ? "refused by the kernel" : refused == 0 ? "sent" : std::strerror(refused));
    if (refused == 0) ::close(sent);  // unsent, it stays ours: our own close would linger
    say(next(fd, 10000));
    ::pause();
  }
  if (mode == "early" || mode == "garbage" || mode == "oversized") {
    if (mode == "early") sendMessage(fd, LDRequestMessage{1});
    if (mode == "garbage") (void)::send(fd, "\x01\x02garbage!", 10, MSG_NOSIGNAL);
    if (mode == "oversized") (void)::send(fd, std::string(5000, 'x').data(), 5000, MSG_NOSIGNAL);
    say("sent");
    say(next(fd, 10000));
    return 0;
  }
  if (mode == "connect-then-exec") return execWithSocket(fd, extra, "inherited-wait");
  if (mode == "connect-fork-exec") {
    if (::fork() == 0) {
      say(next(fd, 10000));
      ::_exit(0);
    }
    ::execl(extra, extra, "pause", "-", static_cast<char*>(nullptr));
    return 127;
  }
  const std::string greeting = next(fd, 5000);
  say(greeting);
  if (greeting != "hello" || mode == "greet" || mode == "many-descriptors" || mode.ends_with("-first")) return 0;
  if (mode == "exec-after-hello") return execWithSocket(fd, extra, "inherited-ask");
  if (mode == "stall-after-hello") {
    say(held < 0 ? "cannot open" : "stalling " + std::to_string(::getpid()) + " " + std::to_string(held));
    std::string go;
    std::getline(std::cin, go);
    sendMessage(fd, LDRequestMessage{1});
    ::execl(argv[4], argv[4], static_cast<char*>(nullptr));
    return 127;
  }
  if (mode == "after-hello-garbage") (void)::send(fd, "QLD1\x09\x00", 6, MSG_NOSIGNAL);
  if (mode == "forked-sender") {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(execWithSocket(fd, extra, "inherited-ask"));
    ::waitpid(child, nullptr, 0);
  }
  const bool dropsAfterHello = mode.starts_with("drop-") && !mode.ends_with("-first");
  if (dropsAfterHello && !dropGroup(mode)) return 1;
  if (mode == "version") sendMessage(fd, LDRequestMessage{std::atoll(extra)});
  if (dropsAfterHello || mode == "hold" || mode == "no-ack") sendMessage(fd, LDRequestMessage{1});
  LDReceivedPacket packet;
  const std::string reply = next(fd, 3000, &packet);
  if (mode != "hold" && mode != "no-ack") {
    say(reply);
    return 0;
  }
  say(reply.substr(0, reply.find(" token ")));
  if (mode == "no-ack") {
    say(next(fd, 10000));  // the helper ends without a word
    return 0;
  }
  std::string go;
  std::getline(std::cin, go);
  const size_t token = reply.find(" token ");
  sendMessage(fd, LDCompleteMessage{1, token == std::string::npos ? std::nullopt
                                                                   : std::optional<std::string>(reply.substr(token + 7)),
                                    true});
  say(next(fd, 3000));
  return 0;
}
