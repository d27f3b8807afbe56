// Lock annotations that Clang's thread safety analysis checks (scripts/check threads), and mutexes
// that carry them. Other compilers see nothing of it. Locking throws std::system_error when the
// system refuses.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

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
#define ACQUIRE_SHARED(...) TW_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) TW_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) TW_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) TW_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS TW_ANNOTATION(no_thread_safety_analysis)

namespace support {

// A plain, non-recursive mutex.
class CAPABILITY("mutex") mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  friend class condition;
  std::mutex mutex_;
};

// One whose owner others wait for only so long.
class CAPABILITY("mutex") timedMutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  bool tryLock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  template <typename Clock, typename Duration>
  bool tryLockUntil(const std::chrono::time_point<Clock, Duration>& end) TRY_ACQUIRE(true) {
    return mutex_.try_lock_until(end);
  }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  std::timed_mutex mutex_;
};

// One that readers share.
class CAPABILITY("mutex") sharedMutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  void lockShared() ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void unlockShared() RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

template <typename Mutex>
class SCOPED_CAPABILITY lockGuard {
 public:
  explicit lockGuard(Mutex& m) ACQUIRE(m) : mutex_(m) { mutex_.lock(); }
  ~lockGuard() RELEASE() { mutex_.unlock(); }
  lockGuard(const lockGuard&) = delete;
  lockGuard& operator=(const lockGuard&) = delete;

 private:
  Mutex& mutex_;
};

class SCOPED_CAPABILITY sharedLockGuard {
 public:
  explicit sharedLockGuard(sharedMutex& m) ACQUIRE_SHARED(m) : mutex_(m) { mutex_.lockShared(); }
  ~sharedLockGuard() RELEASE() { mutex_.unlockShared(); }
  sharedLockGuard(const sharedLockGuard&) = delete;
  sharedLockGuard& operator=(const sharedLockGuard&) = delete;

 private:
  sharedMutex& mutex_;
};

// What threads that hold a mutex wait for.
class condition {
 public:
  void notifyAll() { condition_.notify_all(); }

  // Waits for a notification, which may come for nothing; false when `end` has come before it.
  template <typename Clock, typename Duration>
  bool waitUntil(mutex& held, const std::chrono::time_point<Clock, Duration>& end) REQUIRES(held) {
    std::unique_lock<std::mutex> lock(held.mutex_, std::adopt_lock);
    const std::cv_status status = condition_.wait_until(lock, end);
    lock.release();
    return status == std::cv_status::no_timeout;
  }

 private:
  std::condition_variable condition_;
};

}  // namespace support
