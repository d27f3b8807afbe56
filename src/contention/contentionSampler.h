// Looks at the blocked threads so many times a second, and keeps the profile's tables in order.
#pragma once

#include <jvmti.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "contention/blockRecorder.h"
#include "contention/contentionSamples.h"
#include "contention/contentionSettings.h"
#include "contention/lockLook.h"

namespace agent {

// On the profile's own thread, under the profile's lock; what is public otherwise is on the thread
// of a control call, under the same lock. Times are steady nanoseconds.
class contentionSampler {
 public:
  contentionSampler(blockRecorder& recorder, contentionSamples& samples)
      : recorder_(recorder), samples_(samples) {}

  // What a session is begun with; `canCheck` as for lockLook.
  void begin(const contentionSettings& settings, const ownerClasses& classes, bool canCheck,
             std::int64_t now);

  // When there is something to do again.
  std::int64_t nextStep(std::int64_t now) const;
  // Does what is due.
  void step(jvmtiEnv* jvmti, JNIEnv* jni, std::int64_t now);

  // Brings names and the current window up to `now`, for a report.
  void catchUp(jvmtiEnv* jvmti, JNIEnv* jni, std::int64_t now);

  // The blocked threads of each lock, by place, as of the last step or catchUp().
  struct blockedNow {
    std::uint32_t threads = 0;
    std::uint64_t nanos = 0;
    std::int64_t since = 0;  // of the one that is blocked longest
  };
  const std::vector<blockedNow>& blocked() const { return blocked_; }
  // The same of the locks of a class without records, by blockRecorder::othersOf.
  using blockedOthers = std::unordered_map<std::uint32_t, blockedNow>;
  const blockedOthers& blockedAtOthers() const { return others_; }

 private:
  static constexpr std::size_t kLocksPerTick = 8;
  static constexpr std::size_t kWaitersPerLock = 4;
  static constexpr std::size_t kMostWaiting = 256;  // of a lock, for a sample to choose from
  static constexpr std::uint64_t kWaitShare = 20;   // of ticks: one in so many samples waits

  // Sums of a lock, or of all, when the current window began.
  struct baseline {
    std::uint32_t id = 0;
    std::uint64_t nanos = 0;
    std::uint64_t entries = 0;
  };
  // Blocked time of a lock that no sample stands for yet.
  struct weight {
    std::uint32_t id = 0;
    std::uint64_t nanos = 0;
  };
  struct sums {
    std::uint64_t nanos = 0;
    std::uint64_t entries = 0;
  };
  struct allSums {
    std::vector<sums> locks;  // by place
    sums contended;
    sums waits;
  };

  void scan(std::int64_t now);
  void tick(jvmtiEnv* jvmti, JNIEnv* jni, std::int64_t now);
  void weigh(std::int64_t now);
  std::uint64_t& weightOf(std::uint32_t place);
  void thinOut(std::int64_t now);
  void sample(lockLook& look, std::uint32_t place);
  void book(const pairKey& key, const lockRecord& record, std::uint64_t nanos);
  void readNames(jvmtiEnv* jvmti, JNIEnv* jni);
  allSums sumUp(std::int64_t now);
  void fillWindow(const allSums& now, std::int64_t end);
  void endWindow(const allSums& now, std::int64_t end);
  void findStuck(jvmtiEnv* jvmti, JNIEnv* jni, std::int64_t now);
  std::vector<waitingThread> stuckAt(jvmtiEnv* jvmti, JNIEnv* jni, std::uint32_t place,
                                     std::int64_t now);
  void adoptThreads(jvmtiEnv* jvmti, JNIEnv* jni, const std::vector<waitingThread>& waiting);
  void findDeadlocks();
  void reportStuck(std::int64_t now);

  blockRecorder& recorder_;
  contentionSamples& samples_;
  contentionSettings settings_;
  ownerClasses classes_;
  bool canCheck_ = false;

  std::vector<std::vector<waitingThread>> waiting_;  // by place, of the last scan
  std::vector<std::uint32_t> waitedFor_;             // places with waiting threads
  std::vector<blockedNow> blocked_;                  // by place
  blockedOthers others_;
  std::vector<weight> weights_;               // by place
  std::vector<baseline> baselines_;           // by place
  std::vector<std::uint64_t> entriesBefore_;  // by place: as of the last thinning
  baseline contended_;
  baseline waits_;
  std::int64_t nextTick_ = 0;
  std::int64_t lastTick_ = 0;
  std::int64_t lastWaitTick_ = 0;
  std::int64_t nextUpkeep_ = 0;
  std::int64_t nextThinning_ = 0;
  std::int64_t nextStuckLook_ = 0;
  std::uint64_t tickNumber_ = 0;
  std::vector<std::int64_t> stuckSince_;  // of the locks that were stuck at the last step
  std::set<std::pair<std::uint32_t, std::int64_t>> reportedStuck_;
  std::set<std::vector<std::uint32_t>> reportedDeadlocks_;  // by ids of locks
};

}  // namespace agent
