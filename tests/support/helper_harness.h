#pragma once

// Real processes for end-to-end tests, run inside a private network namespace: the helper
// started the way systemd starts it (a listening socket as descriptor 3, LISTEN_PID and
// LISTEN_FDS), clients installed root-owned in a directory anyone may run from, signed or not.

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "support/test_pki.h"

namespace ldtest {

// A group with no name and no members, as an application's own group is installed.
gid_t applicationGroup();

// Root-owned programs under a directory that user nobody can enter.
class ProgramDirectory {
 public:
  ProgramDirectory();
  // Copies source in as name and returns its path: owner root, mode 2755 with the application's
  // group as an application is installed, or 0755 with group root.
  std::string install(const std::string& source, const std::string& name, bool setGroupId = true);
  std::string file(const std::string& name) const { return _directory.file(name); }
  const std::string& path() const { return _directory.path(); }

 private:
  TemporaryDirectory _directory;
};

// Signs path as identifier with the build's own signing identity; empty string on success,
// otherwise why not.
std::string signWithBuildIdentity(const std::string& path, const std::string& identifier);

// A child process with pipes to its standard input and output; killed if still running when
// destroyed.
class ChildProcess {
 public:
  // uid -1 keeps root. environment entries "NAME=value" are added to the child's.
  static ChildProcess start(const std::vector<std::string>& argv, int uid = -1,
                            int listeningSocket = -1);
  ChildProcess(ChildProcess&& other) noexcept;
  ~ChildProcess();

  // The next line of output (without LF) within the time, or nullopt.
  std::optional<std::string> readLine(int milliseconds);
  // Everything the child wrote until it closed its output or the time ran out.
  std::string readAll(int milliseconds);
  void writeLine(const std::string& line);
  // The exit status (128 + signal when killed), or -1 if still running after the time.
  int wait(int milliseconds);
  void kill();
  pid_t pid() const { return _pid; }

 private:
  ChildProcess() = default;
  pid_t _pid = -1;
  int _input = -1;
  int _output = -1;
  std::string _buffered;
  bool _reaped = false;
  int _status = -1;
};

// The helper, socket-activated on a fresh socket at socketPath (mode 0666).
ChildProcess startHelper(const std::string& helperPath, const std::string& socketPath);

// GET / on address:port; the response body, or "error: ..." when there is none.
std::string httpGet(const std::string& address, uint16_t port, int milliseconds = 3000);

}  // namespace ldtest
