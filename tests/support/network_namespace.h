#pragma once

// Runs test code in a forked child inside a private network namespace with loopback up, where
// port 80 is free and binding it needs no more than the root the tests run as.

#include <functional>
#include <string>

namespace ldtest {

// body returns an empty string on success or a description of what went wrong. The result is
// body's text, or why the namespace could not be made (never silently empty).
std::string runInPrivateNetworkNamespace(const std::function<std::string()>& body);

}  // namespace ldtest
