// Lock annotations that Clang's thread safety analysis checks (preset `clang`), and a mutex that
// carries them. Other compilers see nothing of it.
#pragma once

#include <mutex>

#if defined(__clang__)
#define TW_ANNOTATION(x) __attribute__((x))
#else
#define TW_ANNOTATION(x)
#endif

#define CAPABILITY(x) TW_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY TW_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) TW_ANNOTATION(guarded_by(x))
#define REQUIRES(...) TW_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) TW_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) TW_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TW_ANNOTATION(release_capability(__VA_ARGS__))

namespace support {

// A plain, non-recursive mutex. Locking throws std::system_error when the system refuses.
class CAPABILITY("mutex") mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

class SCOPED_CAPABILITY lockGuard {
 public:
  explicit lockGuard(mutex& m) ACQUIRE(m) : mutex_(m) { mutex_.lock(); }
  ~lockGuard() RELEASE() { mutex_.unlock(); }
  lockGuard(const lockGuard&) = delete;
  lockGuard& operator=(const lockGuard&) = delete;

 private:
  mutex& mutex_;
};

}  // namespace support
