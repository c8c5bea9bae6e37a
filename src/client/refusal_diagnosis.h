#pragma once

// The helper keeps no log: a process it refuses sees only a closed connection. Once that has
// happened, and never before (on the way to a transfer, reading and hashing a large executable
// would cost every start), the client checks its own signature against what its helper requires
// and says which part fails, with both values and the command that shows them.

#include <string>

// Why the helper serving socketPath closed the connection before admitting this process.
std::string LDDiagnoseRefusal(const std::string& socketPath);
