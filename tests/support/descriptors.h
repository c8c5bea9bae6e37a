#pragma once

// Proof that descriptors were closed: the set of open descriptors from /proc/self/fd.

#include <set>
#include <string>

namespace ldtest {

std::set<int> openDescriptors();

// Readable difference between two snapshots, empty when they are equal.
std::string descriptorDifference(const std::set<int>& before, const std::set<int>& after);

// A TCP port on which both 127.0.0.1 and ::1 are free right now, asked of the kernel.
unsigned short freeLoopbackPort();

}  // namespace ldtest
