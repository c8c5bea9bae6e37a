#pragma once

// Certificate authorities and leaves made at test time with libcrypto, written as PEM files into
// a temporary directory, for signing and verifying test programs.

#include <optional>
#include <string>

#include "tools/openssl_handles.h"

namespace ldtest {

struct TestIdentity {
  ldssl::Key key;
  ldssl::Certificate certificate;
  std::string keyPath;
  std::string certificatePath;

  // An identity from its PEM files (such as the build's development root); empty keys when unreadable.
  static TestIdentity load(const std::string& keyPath, const std::string& certificatePath);
};

struct LeafOptions {
  std::optional<std::string> team = "TEAMONE001";  // the subject OU; none when nullopt
  std::string extendedUsage = "codeSigning";        // the extended key usage; "" for none
  bool expired = false;                             // validity ended a year ago
  bool secondOrganizationalUnit = false;            // a second OU in the subject
  std::string key = "P-256";                        // "P-256", "P-384" or "RSA-<bits>"
  std::string keyUsage = "critical,digitalSignature";
  std::string extraExtension = "";                  // "OID=value" in openssl.cnf syntax
};

class TestPki {
 public:
  // Files go below directory, which must exist.
  explicit TestPki(std::string directory) : _directory(std::move(directory)) {}

  TestIdentity makeRoot(const std::string& name, const LeafOptions& options = {}) { return make(nullptr, name, true, options); }
  TestIdentity makeIntermediate(const TestIdentity& issuer, const std::string& name) { return make(&issuer, name, true, {}); }
  TestIdentity makeLeaf(const TestIdentity& issuer, const std::string& name, const LeafOptions& options = {}) {
    return make(&issuer, name, false, options);
  }

  static std::string pemOf(const TestIdentity& identity);

 private:
  TestIdentity make(const TestIdentity* issuer, const std::string& name, bool authority,
                    const LeafOptions& options);
  std::string _directory;
  long _serial = 1;
};

// A fresh private directory under /tmp, removed with its contents on destruction.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  const std::string& path() const { return _path; }
  std::string file(const std::string& name) const { return _path + "/" + name; }

 private:
  std::string _path;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content, unsigned mode = 0755);

// Flips the byte at offset in place, then puts the access and modification times back with
// utimensat: only the change time still tells. It first waits (a jiffy at most) for the clock
// the kernel stamps files with to pass the file's change time, so that the change is visible
// even on kernels that stamp every change in a tick alike.
void rewriteInPlaceKeepingTimes(const std::string& path, size_t offset);

}  // namespace ldtest
