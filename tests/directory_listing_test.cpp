#include <fcntl.h>

#include <gtest/gtest.h>

#include <filesystem>

#include "shared/directory_listing.h"
#include "support/descriptors.h"

namespace {

// Each path and how many names are asked for: the names listed (nothing when it cannot be listed),
// and no descriptor of the listing outlives it, whether it read to the end, stopped or never opened.
TEST(DirectoryListing, ListsEveryNameButDotsAndLeavesNothingOpen) {
  char directory[] = "/tmp/listing-XXXXXX";
  ASSERT_NE(::mkdtemp(directory), nullptr);
  const std::string base = std::string(directory) + "/";
  const std::set<std::string> all = {"a", ".b", "..c"};
  for (const std::string& name : all) LDFileHandle(::open((base + name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  const std::set<int> before = ldtest::openDescriptors();
  for (const auto& [path, asked] : std::initializer_list<std::pair<std::string, size_t>>{
           {directory, 4}, {directory, 1}, {base + "a", 4}, {base + "none", 4}}) {
    {
      LDDirectoryListing listing(AT_FDCWD, path.c_str());
      EXPECT_EQ(listing.isValid(), path == directory) << path;
      std::set<std::string> names;
      for (size_t i = 0; i < asked; ++i) if (const char* name = listing.next()) names.insert(name);
      EXPECT_EQ(names.size(), path == directory ? std::min(asked, all.size()) : 0) << path;
    }
    EXPECT_EQ(ldtest::openDescriptors(), before) << path << ", " << asked << " names asked for";
  }
  std::filesystem::remove_all(directory);
}

}  // namespace
