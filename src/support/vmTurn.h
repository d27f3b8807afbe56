// Taking turns in asking the VM for a global safepoint: one gets dearer with every thread that
// queues for it inside the VM.
#pragma once

#include <atomic>
#include <chrono>

#include "support/annotations.h"

namespace support {

// The clock of waits that must end. ThreadSanitizer does not see waits on the steady one.
#if defined(__SANITIZE_THREAD__)
using patienceClock = std::chrono::system_clock;
#else
using patienceClock = std::chrono::steady_clock;
#endif

// Where threads take turns.
class vmTurns {
  friend class vmTurn;
  timedMutex mutex_;
  // The thread whose turn it is keeps it for too long: nobody waits until it gives it back.
  std::atomic<bool> isStuck_{false};
};

// Held around one such call and nothing else: together with no other lock, and across no call into
// Java. The wait is bounded: a debugger may have suspended the thread whose turn it is, and then
// everybody goes on without one, all but the first without waiting.
class vmTurn {
 public:
  // The analysis knows of no lock that is held or not.
  explicit vmTurn(vmTurns& turns) NO_THREAD_SAFETY_ANALYSIS : turns_(turns) {
    if (turns.isStuck_.load()) {
      isMine_ = turns.mutex_.tryLock();
    } else {
      isMine_ = turns.mutex_.tryLockUntil(patienceClock::now() + kPatience);
      if (!isMine_) {
        turns.isStuck_.store(true);
      }
    }
  }
  ~vmTurn() NO_THREAD_SAFETY_ANALYSIS {
    if (isMine_) {
      turns_.isStuck_.store(false);
      turns_.mutex_.unlock();
    }
  }
  vmTurn(const vmTurn&) = delete;
  vmTurn& operator=(const vmTurn&) = delete;

  // Whether this thread has the turn, or goes on without.
  bool isMine() const { return isMine_; }

 private:
  static constexpr std::chrono::seconds kPatience{1};
  vmTurns& turns_;
  bool isMine_ = false;
};

}  // namespace support
