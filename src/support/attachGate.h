// Keeps questions for the owner of a monitor apart from threads that attach themselves to the VM.
//
// A thread that attaches itself through JNI is among the VM's threads before it has its
// java.lang.Thread. From HotSpot 23 on, GetObjectMonitorUsage reads that object of every thread and
// crashes the VM when there is none. The last thread of a program attaches itself, too, as
// DestroyJavaVM, when `main` has returned: other threads may then still be at work.
#pragma once

#include <jvmti.h>

#include <atomic>

#include "support/annotations.h"
#include "support/vmTurn.h"

namespace support {

// Two groups of threads, of which one at a time is inside: those that attach and those that look.
// Neither keeps the other out for good: who waits goes in as soon as those inside have left. All
// waits are bounded, as a debugger may have suspended a thread inside: after one that has taken too
// long nobody waits for that group any more until it has left. Any thread.
class attachGate {
 public:
  // The gate of the process.
  static attachGate& ofProcess();

  // Has the threads that attach themselves to `vm` pass the gate, by a copy of its invocation
  // interface, when the VM is one that needs it. In a VM that is running, threads may be under way
  // that have not passed it: nobody looks before they have had their time.
  void install(JavaVM* vm, jvmtiEnv* jvmti, bool isRunning = false) EXCLUDES(mutex_);
  // Gives the VM its own interface back, if nobody else has replaced it meanwhile.
  void remove(JavaVM* vm) EXCLUDES(mutex_);

  // Whether the calling thread is within DestroyJavaVM, as far as the functions are replaced.
  static bool isDestroyer();

  // Around GetObjectMonitorUsage and nothing else.
  class look {
   public:
    look()
        : gate_(ofProcess().isNeeded_.load() ? &ofProcess() : nullptr),
          mayLook_(gate_ == nullptr || gate_->enterLook()) {}
    ~look() {
      if (gate_ != nullptr && mayLook_) {
        gate_->leaveLook();
      }
    }
    look(const look&) = delete;
    look& operator=(const look&) = delete;

    // False when threads have been attaching for too long: the VM is not asked.
    explicit operator bool() const { return mayLook_; }

   private:
    attachGate* const gate_;  // none where the VM needs none
    const bool mayLook_;
  };

  // Around the attaching of a thread.
  class attaching {
   public:
    attaching() { ofProcess().enterAttach(); }
    ~attaching() { ofProcess().leaveAttach(); }
    attaching(const attaching&) = delete;
    attaching& operator=(const attaching&) = delete;
  };

 private:
  // One of the two groups.
  struct side {
    int inside = 0;
    int waiting = 0;
    bool isStuck = false;  // somebody has waited for it in vain
  };

  bool enterLook() EXCLUDES(mutex_);
  void leaveLook() EXCLUDES(mutex_);
  void enterAttach() EXCLUDES(mutex_);
  void leaveAttach() EXCLUDES(mutex_);
  template <typename Duration>
  bool waitFor(side& other, side& own, bool isTurnOfLooks, Duration patience) REQUIRES(mutex_);
  void leave(side& own) REQUIRES(mutex_);

  std::atomic<bool> isNeeded_{false};
  mutex mutex_;
  condition changed_;
  side looks_ GUARDED_BY(mutex_);
  side attaches_ GUARDED_BY(mutex_);
  bool looksAreNext_ GUARDED_BY(mutex_) = false;  // when both wait
  patienceClock::time_point firstLook_ GUARDED_BY(mutex_){};
};

}  // namespace support
