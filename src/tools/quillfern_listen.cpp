// quillfern-listen: the demo application. Gets the 127.0.0.1:80 and [::1]:80 listeners from the
// privileged helper, then either serves a small HTTP page on both until interrupted, or runs a
// command with the listeners as descriptors 3 and 4 in the systemd socket-activation convention:
//
//   quillfern-listen [--socket PATH]
//   quillfern-listen [--socket PATH] -- COMMAND [ARGS...]
//   quillfern-listen --help | --version

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "client/listener_client.h"
#include "shared/loopback_listeners.h"

namespace {

constexpr const char kUsage[] =
    "usage: quillfern-listen [--socket PATH] [-- COMMAND [ARGS...]]\n"
    "       quillfern-listen --help | --version\n";

int runCommand(LDAcquiredListeners listeners, char** command) {
  // Descriptors 3 and 4, inherited across exec; the originals are close-on-exec and go.
  const int sources[] = {listeners.ipv4.fileDescriptor(), listeners.ipv6.fileDescriptor()};
  const int targets[] = {3, 4};
  if (!LDPlaceDescriptorsForExec(sources, targets, 2)) {
    std::fprintf(stderr, "quillfern-listen: cannot place the listeners at 3 and 4: %s\n", std::strerror(errno));
    return 1;
  }
  ::setenv("LISTEN_FDS", "2", 1);
  ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
  ::setenv("LISTEN_FDNAMES", "ipv4:ipv6", 1);
  ::execvp(command[0], command);
  std::fprintf(stderr, "quillfern-listen: cannot run %s: %s\n", command[0], std::strerror(errno));
  return 127;
}

void answer(int listener, const std::string& where) {
  LDFileHandle client(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
  if (!client.isValid()) return;
  // Read the request head (bounded in size and time); its content does not matter.
  char request[8192];
  size_t got = 0;
  while (got < sizeof request) {
    pollfd entry{client.fileDescriptor(), POLLIN, 0};
    if (::poll(&entry, 1, 2000) != 1) break;
    const ssize_t n = ::read(client.fileDescriptor(), request + got, sizeof request - got);
    if (n <= 0) break;
    got += static_cast<size_t>(n);
    if (std::string_view(request, got).find("\r\n\r\n") != std::string_view::npos) break;
  }
  const std::string body = "Hello from quillfern-listen on " + where +
                           ": an unprivileged process serving a listener handed over by the "
                           "privileged helper.\n";
  const std::string response = "HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: " +
                               std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
  (void)::send(client.fileDescriptor(), response.data(), response.size(), MSG_NOSIGNAL);
}

int serve(const LDAcquiredListeners& listeners) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  LDFileHandle stop(::signalfd(-1, &signals, SFD_CLOEXEC));
  std::printf("quillfern-listen: serving http://127.0.0.1/ and http://[::1]/ (Ctrl-C to stop)\n");
  std::fflush(stdout);
  for (;;) {
    pollfd entries[3] = {{listeners.ipv4.fileDescriptor(), POLLIN, 0},
                         {listeners.ipv6.fileDescriptor(), POLLIN, 0},
                         {stop.fileDescriptor(), POLLIN, 0}};
    if (::poll(entries, 3, -1) < 0 && errno != EINTR) return 1;
    if (entries[2].revents != 0) return 0;
    if (entries[0].revents & POLLIN) answer(listeners.ipv4.fileDescriptor(), "127.0.0.1:80");
    if (entries[1].revents & POLLIN) answer(listeners.ipv6.fileDescriptor(), "[::1]:80");
  }
}

}  // namespace

int main(int argc, char** argv) {
  LDClientOptions options;
  char** command = nullptr;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (argc == 2 && word == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (argc == 2 && word == "--version") {
      std::puts("quillfern-listen " LD_VERSION);
      return 0;
    }
    if (word == "--socket" && i + 1 < argc) {
      options.socketPath = argv[++i];
    } else if (word == "--") {
      if (i + 1 >= argc) {
        std::fputs(kUsage, stderr);
        return 64;
      }
      command = argv + i + 1;
      break;
    } else {
      std::fputs(kUsage, stderr);
      return 64;
    }
  }
  std::optional<LDError> error;
  std::optional<LDAcquiredListeners> listeners = LDAcquireListeners(options, &error);
  if (!listeners) {
    std::fprintf(stderr, "quillfern-listen: %s\n", error->description().c_str());
    return 1;
  }
  if (command) return runCommand(std::move(*listeners), command);
  return serve(*listeners);
}
