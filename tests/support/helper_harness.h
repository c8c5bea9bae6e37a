#pragma once

// Real processes for end-to-end tests, run inside a private network namespace: the helper
// started the way systemd starts it, clients installed root-owned in a directory anyone may run
// from, signed or not.

#include <sys/types.h>

#include <string>

#include "shared/file_handle.h"
#include "support/process.h"
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

 private:
  TemporaryDirectory _directory;
};

// Signs path as identifier with the build's own signing identity; empty string on success,
// otherwise why not.
std::string signWithBuildIdentity(const std::string& path, const std::string& identifier);

// The helper, socket-activated on a fresh socket at socketPath that anyone may connect to.
ChildProcess startHelper(const std::string& helperPath, const std::string& socketPath);
// The same in two steps, so that a client can connect before the helper starts, as the connection
// that has systemd start a helper does.
LDFileHandle listenAt(const std::string& socketPath);
ChildProcess startHelperOn(const std::string& helperPath, const LDFileHandle& listening);

// GET / on address:port; the response body, or "error: ..." when there is none.
std::string httpGet(const std::string& address, uint16_t port);

}  // namespace ldtest
