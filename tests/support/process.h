#pragma once

// Child processes for tests: run one to completion and collect what it printed, or start one and
// talk to it line by line.

#include <sys/types.h>

#include <string>
#include <vector>

namespace ldtest {

struct ProcessResult {
  int exitStatus;  // the exit status, or 128 + signal
  std::string standardOutput;
  std::string standardError;
};

// A child with pipes to its standard input, output and error; killed if still running when
// destroyed. argv[0] is the program's path. When uid is not -1 the child drops to that uid, and
// the group of the same number with no supplementary groups, before exec. A listening socket,
// when given, is passed as systemd passes one: descriptor 3, with LISTEN_PID and LISTEN_FDS.
class ChildProcess {
 public:
  static ChildProcess start(const std::vector<std::string>& argv, int uid = -1, int listeningSocket = -1);
  ChildProcess(const ChildProcess&) = delete;
  ~ChildProcess();

  // The next line of standard output (without LF) within the time, or "(nothing)".
  std::string readLine(int milliseconds);
  void writeLine(const std::string& line);
  // The exit status (128 + signal when killed), or -1 if still running after the time.
  int wait(int milliseconds);
  // Closes standard input, then collects both outputs until the child closes them, and its status.
  ProcessResult finish();
  pid_t pid() const { return _pid; }

 private:
  ChildProcess(pid_t pid, int input, int output, int error) : _pid(pid), _input(input), _output(output), _error(error) {}
  pid_t _pid;
  int _input;
  int _output;
  int _error;
  std::string _buffered;
  bool _reaped = false;
  int _status = -1;
};

inline ProcessResult runProgram(const std::vector<std::string>& argv, int uid = -1) {
  return ChildProcess::start(argv, uid).finish();
}

}  // namespace ldtest
