// What the events of blocked threads write: counts by lock, and who is blocked now.
//
// It runs on the program's threads, at any rate: it allocates nothing, takes no lock, never waits,
// and asks for no stack, name or owner. Between the begin and the end of a block it keeps one word
// in the thread's own storage in the VM, so that a virtual thread may change its carrier.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>

#include "contention/blockedThreads.h"
#include "contention/lockTable.h"
#include "instruments/handlerGate.h"

namespace agent {

class blockRecorder {
 public:
  // Handlers record from begin() to end(). No handler is inside when it begins.
  void begin(JNIEnv* jni, std::int32_t locks, const parkClasses& parks);
  void end() { isOn_.store(false); }
  bool isOn() const { return isOn_.load(std::memory_order_acquire); }

  // `storage` is the thread whose word is used, null for the calling one; `thread` the blocked one.
  void blockBegins(jvmtiEnv* jvmti, JNIEnv* jni, jthread storage, jthread thread, channel by,
                   jobject object);
  void blockEnds(jvmtiEnv* jvmti, JNIEnv* jni, jthread storage, channel by);
  // A wait of the calling thread for a notification.
  void waitEnds(jvmtiEnv* jvmti, JNIEnv* jni, bool timedOut);
  // The parks that follow belong to one acquisition of a lock.
  void acquisitionBegins(jvmtiEnv* jvmti);

  // The lock that a thread waits for, as a place; lockTable::kNone when it waits for none. For the
  // sampler.
  std::uint32_t awaitedBy(jvmtiEnv* jvmti, jthread thread) const;

  // The slot of a blocked thread; blockedThreads::kNone for others. Likewise.
  std::uint32_t slotOf(jvmtiEnv* jvmti, jthread thread) const;

  // Places from here on stand for the locks of a class that have no record.
  static constexpr std::uint32_t kOthers = 0x8000'0000;
  static std::uint32_t othersOf(channel by, std::uint32_t cls) {
    return kOthers | (static_cast<std::uint32_t>(by) << 16U) | cls;
  }
  lockKind kindOf(std::uint32_t place) const;

  lockTable& locks() { return locks_; }
  const lockTable& locks() const { return locks_; }
  blockedThreads& threads() { return threads_; }
  const blockedThreads& threads() const { return threads_; }
  const instruments::handlerGate& gate() const { return gate_; }

  // What is not in the tables; since begin().
  struct omissions {
    std::atomic<std::uint64_t> startsNotSeen{0};
    std::atomic<std::uint64_t> notSampled{0};  // no slot was free
    std::atomic<std::uint64_t> otherLocks{0};  // no record was free
    std::atomic<std::uint64_t> classes{0};     // nor one for the class
  };
  const omissions& omitted() const { return omitted_; }

 private:
  bool endBlock(jvmtiEnv* jvmti, JNIEnv* jni, jthread storage);
  std::uint64_t wordFor(const blockedThreads::block& begun, JNIEnv* jni, jthread thread);
  void add(const blockedThreads::block& ended, std::int64_t end);
  blockCounts& countsOf(std::uint32_t place);

  instruments::handlerGate gate_;
  std::atomic<bool> isOn_{false};
  lockTable locks_;
  blockedThreads threads_;
  // Constant while handlers record.
  parkClasses parks_;
  std::uint32_t session_ = 0;  // how many have begun
  std::int64_t started_ = 0;
  omissions omitted_;
};

}  // namespace agent
