#include "shared/directory_listing.h"

#include <fcntl.h>

#include <cstring>

#include "shared/file_handle.h"

LDDirectoryListing::LDDirectoryListing(int directory, const char* path) {
  LDFileHandle opened(::openat(directory, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened.isValid()) return;
  _listing = ::fdopendir(opened.fileDescriptor());
  if (_listing != nullptr) (void)opened.release();  // closedir closes it
}

LDDirectoryListing::~LDDirectoryListing() {
  if (_listing != nullptr) ::closedir(_listing);
}

const char* LDDirectoryListing::next() {
  if (_listing == nullptr) return nullptr;
  while (const dirent* entry = ::readdir(_listing)) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) return entry->d_name;
  }
  return nullptr;
}
