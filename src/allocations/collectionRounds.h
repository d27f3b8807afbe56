// Which samples have outlived a garbage collection, whatever the collector.
//
// Collectors report one to four events for a collection. What is sure is a canary: an object that
// only a weak reference leads to. When it is gone, there was a collection, at least one, which
// began after the canary was made. All that was allocated before the canary and is still there has
// outlived a collection of the young objects at least. Each canary that died is one round.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>

namespace agent {

// One thread at a time, except for collectionFinished().
class collectionRounds {
 public:
  // The first canary; those of before are let go.
  void begin(JNIEnv* jni);
  void end(JNIEnv* jni);

  // For GarbageCollectionFinish: on the VM's thread, at a safepoint.
  void collectionFinished() { events_.fetch_add(1); }

  // Whether a round has ended since the last call. Without an event of the VM since then it asks
  // nothing.
  bool look(JNIEnv* jni);

  // A canary of now takes the place of the current one, so that a collection that begins now is a
  // round for all that there is. False when the VM has no memory for one.
  bool renew(JNIEnv* jni);

  // Rounds that have ended.
  std::uint32_t ended() const { return ended_; }
  // When the current canary was made, in steady nanoseconds.
  std::int64_t canaryAt() const { return canaryAt_; }
  // The first round that something allocated at `time` can outlive.
  std::uint32_t roundOf(std::int64_t time) const {
    return canary_ != nullptr && time < canaryAt_ ? ended_ : ended_ + 1;
  }

 private:
  bool make(JNIEnv* jni);
  void drop(JNIEnv* jni);

  std::atomic<std::uint64_t> events_{0};
  std::uint64_t eventsSeen_ = 0;
  std::uint32_t ended_ = 0;
  std::int64_t canaryAt_ = 0;
  jweak canary_ = nullptr;
};

}  // namespace agent
