// Records of verified executables: when a record stands in for verification, and every way it
// must not, so that the file is verified in full again.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "admission/verified_executable_records.h"
#include "support/descriptors.h"
#include "support/test_pki.h"
#include "tools/code_signer.h"

namespace {

constexpr const char* kIdentifier = "com.example.recorded";
constexpr int64_t kHour = 3600'000'000'000;

struct Pki {
  ldtest::TemporaryDirectory directory;
  ldtest::TestPki pki{directory.path()};
  ldtest::TestIdentity root = pki.makeRoot("Trusted Root");
  ldtest::TestIdentity leaf = pki.makeLeaf(root, "Leaf");
  std::string rootPem = ldtest::TestPki::pemOf(root);
  std::string strangerPem = ldtest::TestPki::pemOf(pki.makeRoot("Stranger Root"));
};

// A signed, root-owned file that nobody else may write, and an empty record directory.
struct World {
  explicit World(const Pki& pki) : anchors(LDTrustAnchors::fromPEM(pki.rootPem)) {
    ldtest::writeFile(app, std::string(8192, 'x'), 0755);
    std::string error;
    const auto identity = LDLoadSigningIdentity(pki.leaf.keyPath, pki.leaf.certificatePath, "", &error);
    if (!identity || !LDSignFile(app, kIdentifier, *identity, &error) || ::mkdir(records.c_str(), 0700) != 0) {
      throw std::runtime_error("world: " + error);
    }
  }
  ~World() { ::umount2(records.c_str(), MNT_DETACH); }

  int32_t check(bool* recalled) const {
    const LDFileHandle file(::open(app.c_str(), O_RDONLY | O_CLOEXEC));
    const auto store = LDVerifiedExecutableRecords::open(records, anchors, requirement, settling);
    std::string detail;
    std::optional<LDVerifiedVersion> verified;
    const int32_t status = LDCheckSignatureWithRecords(
        file.fileDescriptor(), store ? &*store : nullptr,
        [&](int fd, std::string* why) { return LDCheckSignatureOfDescriptor(fd, &requirement, anchors, why); }, &detail,
        &verified, recalled);
    if (verified) store->record(verified->before, verified->after);
    return status;
  }
  std::vector<std::string> recordPaths() const {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(records)) paths.push_back(entry.path());
    return paths;
  }

  ldtest::TemporaryDirectory directory;
  std::string app = directory.file("app"), records = directory.file("records");
  LDTrustAnchors anchors;
  LDRequirement requirement = *LDParseRequirement(std::string("identifier \"") + kIdentifier + "\" and anchor apple generic");
  int64_t settling = 0;
};

void plantOldRecords(const World& world, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    const std::string path = world.records + "/" + std::string(64 - number.size(), '0') + number;
    ldtest::writeFile(path, "old", 0600);
    const timespec longAgo[2] = {{1000, 0}, {static_cast<time_t>(1000 + i), 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), longAgo, 0), 0);
  }
  ldtest::writeFile(world.records + "/" + std::string(64, 'x'), "not a record: never counted, never removed", 0600);
}

TEST(VerifiedExecutableRecords, StandInOnlyForTheSameVersionVerifiedTheSameWay) {
  ASSERT_EQ(::unshare(CLONE_NEWNS), 0);
  ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  const Pki pki;
  using Change = std::function<void(World&)>;
  const auto onlyRecord = [](World& world, const std::function<void(const std::string&)>& change) {
    ASSERT_EQ(world.recordPaths().size(), 1u);
    change(world.recordPaths()[0]);
  };
  struct Case {
    const char* name;
    Change before;  // the first check, which must pass, comes after
    Change after;   // the second check comes after
    int32_t status;
    bool recalled;
    size_t records;  // in the directory at the end
  } cases[] = {
      {"unchanged", {}, {}, 0, true, 1},
      {"rewritten in place, size and modification time put back", {},
       [](World& w) { ldtest::rewriteInPlaceKeepingTimes(w.app, 100); }, errSecCSSignatureFailed, false, 1},
      // A record made for one requirement or one set of roots admits nothing under another.
      {"another requirement", {},
       [](World& w) { w.requirement = *LDParseRequirement("identifier \"com.example.reworded\" and anchor apple generic"); },
       errSecCSReqFailed, false, 1},
      {"another anchor set", {}, [&](World& w) { w.anchors = LDTrustAnchors::fromPEM(pki.strangerPem); },
       errSecCSSignatureUntrusted, false, 1},
      {"a corrupt record", {},
       [&](World& w) { onlyRecord(w, [](const std::string& p) { ldtest::rewriteInPlaceKeepingTimes(p, 20); }); }, 0,
       false, 1},
      {"an oversized record", {},
       [&](World& w) {
         onlyRecord(w, [](const std::string& p) { ldtest::writeFile(p, ldtest::readFile(p) + "\n", 0600); });
       },
       0, false, 1},
      {"a record not root's", {},
       [&](World& w) { onlyRecord(w, [](const std::string& p) { ASSERT_EQ(::chown(p.c_str(), 65534, 0), 0); }); }, 0,
       false, 1},
      {"a record its group may read", {},
       [&](World& w) { onlyRecord(w, [](const std::string& p) { ASSERT_EQ(::chmod(p.c_str(), 0640), 0); }); }, 0, false, 1},
      {"a directory others may enter", {}, [](World& w) { ::chmod(w.records.c_str(), 0755); }, 0, false, 1},
      {"a read-only directory",
       [](World& w) { ASSERT_EQ(::mount("tmpfs", w.records.c_str(), "tmpfs", MS_RDONLY, "mode=0700"), 0); }, {}, 0,
       false, 0},
      {"a file a user owns", [](World& w) { ASSERT_EQ(::chown(w.app.c_str(), 65534, 65534), 0); }, {}, 0, false, 0},
      {"a file changed just now, its modification time set back",
       [](World& w) {
         w.settling = kHour;
         const timespec longAgo[2] = {{1000, 0}, {1000, 0}};
         ASSERT_EQ(::utimensat(AT_FDCWD, w.app.c_str(), longAgo, 0), 0);
       },
       {}, 0, false, 0},
      {"a full directory: the oldest gives way",
       [](World& w) { plantOldRecords(w, LDVerifiedExecutableRecords::kMaximumRecords); },
       [](World& w) { EXPECT_NE(::access((w.records + "/" + std::string(64, '0')).c_str(), F_OK), 0); },
       0, true, LDVerifiedExecutableRecords::kMaximumRecords + 1},
  };
  const std::set<int> descriptors = ldtest::openDescriptors();
  for (const Case& c : cases) {
    World world(pki);
    if (c.before) c.before(world);
    bool recalled = false;
    EXPECT_EQ(world.check(&recalled), 0) << c.name;
    EXPECT_FALSE(recalled) << c.name;
    if (c.after) c.after(world);
    EXPECT_EQ(world.check(&recalled), c.status) << c.name;
    EXPECT_EQ(recalled, c.recalled) << c.name;
    EXPECT_EQ(world.recordPaths().size(), c.records) << c.name;
  }
  EXPECT_EQ(ldtest::openDescriptors(), descriptors);
}

}  // namespace
