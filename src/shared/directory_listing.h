#pragma once

// The entries of one directory, read once, the directory closed when the listing goes: a
// process's /proc/<pid>/fd read without a descriptor left open on any path.

#include <dirent.h>

class LDDirectoryListing {
 public:
  // Lists path (relative to directory unless absolute); isValid() is false when it could not be
  // opened as a directory.
  LDDirectoryListing(int directory, const char* path);
  ~LDDirectoryListing();
  LDDirectoryListing(const LDDirectoryListing&) = delete;
  LDDirectoryListing& operator=(const LDDirectoryListing&) = delete;

  bool isValid() const { return _listing != nullptr; }

  // The next entry's name, never "." or ".."; nullptr at the end or when reading failed.
  const char* next();

  // The listed directory, for the *at calls on its entries; owned by the listing.
  int fileDescriptor() const { return ::dirfd(_listing); }

 private:
  DIR* _listing = nullptr;
};
