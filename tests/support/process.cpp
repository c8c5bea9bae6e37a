#include "support/process.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace ldtest {

void execAs(const std::vector<std::string>& argv, int uid) {
  std::vector<char*> arguments;
  for (const std::string& word : argv) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  if (uid >= 0) {
    const auto id = static_cast<uid_t>(uid);
    const passwd* user = ::getpwuid(id);
    const gid_t group = user ? user->pw_gid : static_cast<gid_t>(uid);
    if (::setgroups(0, nullptr) != 0 || ::setresgid(group, group, group) != 0 ||
        ::setresuid(id, id, id) != 0) {
      ::_exit(126);
    }
  }
  ::execv(arguments[0], arguments.data());
  ::_exit(127);
}

ProcessResult runProgram(const std::vector<std::string>& argv, int runAsUid) {
  int out[2], err[2];
  if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("fork");
  if (child == 0) {
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    execAs(argv, runAsUid);
  }
  ::close(out[1]);
  ::close(err[1]);
  ProcessResult result{-1, "", ""};
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  int open = 2;
  while (open > 0) {
    if (::poll(fds, 2, -1) < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t got = ::read(fds[i].fd, buffer, sizeof buffer);
      if (got <= 0) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      } else {
        (i == 0 ? result.standardOutput : result.standardError).append(buffer, static_cast<size_t>(got));
      }
    }
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace ldtest
