#pragma once

// Lock annotations for clang's -Wthread-safety analysis; other compilers ignore them.

#include <mutex>

#if defined(__clang__)
#define LD_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define LD_THREAD_ANNOTATION(x)
#endif

#define LD_CAPABILITY(name) LD_THREAD_ANNOTATION(capability(name))
#define LD_SCOPED_CAPABILITY LD_THREAD_ANNOTATION(scoped_lockable)
#define LD_GUARDED_BY(lock) LD_THREAD_ANNOTATION(guarded_by(lock))
#define LD_ACQUIRE(...) LD_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define LD_RELEASE(...) LD_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define LD_EXCLUDES(...) LD_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define LD_REQUIRES(...) LD_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))

// A non-recursive mutual-exclusion lock that the analysis can follow (std::mutex in libstdc++
// carries no annotations).
class LD_CAPABILITY("mutex") LDLock {
 public:
  LDLock() = default;
  LDLock(const LDLock&) = delete;
  LDLock& operator=(const LDLock&) = delete;

  void lock() LD_ACQUIRE() { _mutex.lock(); }
  void unlock() LD_RELEASE() { _mutex.unlock(); }

 private:
  std::mutex _mutex;
};

class LD_SCOPED_CAPABILITY LDLockGuard {
 public:
  explicit LDLockGuard(LDLock& lock) LD_ACQUIRE(lock) : _lock(lock) { _lock.lock(); }
  ~LDLockGuard() LD_RELEASE() { _lock.unlock(); }
  LDLockGuard(const LDLockGuard&) = delete;
  LDLockGuard& operator=(const LDLockGuard&) = delete;

 private:
  LDLock& _lock;
};
