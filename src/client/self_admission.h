#pragma once

// The helper keeps no log: a client it refuses sees only a closed connection. So before it
// connects, the client runs on itself every admission check that a process can run on itself,
// and says which one fails and how to mend it.

#include <optional>
#include <string>

// Why the helper would refuse this process, with the fix, or nothing when every check it can
// run on itself passes. requireSecureExecution: the helper's build admits only a process that
// runs set-group-ID to a group of its own.
std::optional<std::string> LDSelfAdmissionProblem(bool requireSecureExecution);
