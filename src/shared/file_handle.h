#pragma once

// The one owner of a descriptor: move-only, closes in its destructor. Raw descriptors appear only
// at the system-call boundary and while a factory is still building what it returns.

#include <utility>

// Closes fd once, ignoring the result and leaving errno as it was. Never retried on EINTR: on Linux
// the descriptor is gone whatever close reports, and a retry could close a descriptor that another
// thread has just been given the same number.
void LDCloseDescriptor(int fd) noexcept;

// Makes sources[i] available as descriptor targets[i] (e.g. 3 and 4) for a program about to be
// exec'd: the targets are not close-on-exec, the sources are left as they were. Safe when a
// source already has a target's number (dup2 onto itself would keep close-on-exec) and when
// sources and targets overlap. Returns false with errno set.
bool LDPlaceDescriptorsForExec(const int* sources, const int* targets, int count);

// For a child just forked: descriptors 0, 1 and 2 become nullDevice (an open /dev/null; -1 leaves
// them as they are), and every descriptor but those and `keep` is closed. False if any step failed, in which case the
// child must not go on as though it held only what it meant to.
bool LDKeepOnlyDescriptors(int nullDevice, const int* keep, int count);

class LDFileHandle {
 public:
  LDFileHandle() noexcept = default;
  explicit LDFileHandle(int fd) noexcept : _fd(fd) {}
  ~LDFileHandle() { reset(); }

  LDFileHandle(LDFileHandle&& other) noexcept : _fd(other.release()) {}
  LDFileHandle& operator=(LDFileHandle&& other) noexcept {
    if (this != &other) {
      reset(other.release());
    }
    return *this;
  }
  LDFileHandle(const LDFileHandle&) = delete;
  LDFileHandle& operator=(const LDFileHandle&) = delete;

  // The descriptor, still owned by this handle; -1 when it holds none.
  int fileDescriptor() const noexcept { return _fd; }
  bool isValid() const noexcept { return _fd >= 0; }

  // Gives up ownership without closing; the caller now owns the descriptor.
  [[nodiscard]] int release() noexcept { return std::exchange(_fd, -1); }

  // Closes what it holds (if anything) and takes fd.
  void reset(int fd = -1) noexcept {
    const int old = std::exchange(_fd, fd);
    if (old >= 0) {
      LDCloseDescriptor(old);
    }
  }

 private:
  int _fd = -1;
};
