#pragma once

// Runs a program to completion and collects what it printed.

#include <string>
#include <vector>

namespace ldtest {

struct ProcessResult {
  int exitStatus;  // the exit status, or 128 + signal
  std::string standardOutput;
  std::string standardError;
};

// argv[0] is the program's path. When runAsUid is not -1 the child drops to that uid (and its
// primary group) before exec.
ProcessResult runProgram(const std::vector<std::string>& argv, int runAsUid = -1);

// In a forked child: drops to uid (and its primary group, no supplementary groups) unless uid is
// -1, then execs argv. Exits 126 if the identity cannot be changed, 127 if exec fails.
[[noreturn]] void execAs(const std::vector<std::string>& argv, int uid);

}  // namespace ldtest
