// One look at a lock: who owns it, and where the owner and those that wait for it are.
#pragma once

#include <jvmti.h>

#include <cstdint>
#include <vector>

#include "contention/blockRecorder.h"
#include "contention/contentionSamples.h"
#include "support/jvmtiRecords.h"

namespace agent {

// A blocked thread, as a sample shows it.
struct waiterSeen {
  std::uint32_t thread = 0;  // name and stack by id
  std::uint32_t stack = 0;
  std::int64_t since = 0;
};

struct lockSeen {
  ownerSeen owner;
  std::vector<waiterSeen> waiters;
};

// Who waits, and in which slot.
struct waitingThread {
  std::uint32_t slot;
  blockedThread block;
};

// What tells owners; classes are global references, null where the JDK has none.
struct ownerClasses {
  jclass synchronizer = nullptr;
  jfieldID owner = nullptr;  // of it
  jclass virtualThread = nullptr;
};

// Looks at locks for the profile's own thread, within a local frame of its own.
class lockLook {
 public:
  // `canCheck`: the environment can tell which frames hold monitors.
  lockLook(jvmtiEnv* jvmti, JNIEnv* jni, blockRecorder& recorder, contentionSamples& samples,
           const ownerClasses& classes, bool canCheck)
      : jvmti_(jvmti),
        jni_(jni),
        recorder_(recorder),
        samples_(samples),
        classes_(classes),
        canCheck_(canCheck) {}

  // At most `most` of the waiting ones are shown: those that are still there and may be asked for.
  lockSeen at(std::uint32_t place, const std::vector<waitingThread>& waiting, std::size_t most);

 private:
  void readOwner(const lockRecord& record, jobject lock, ownerSeen& seen);
  // The owner as the VM or a field names it; null when none is.
  jthread ownerOf(const lockRecord& record, jobject lock, support::monitorUsage& usage,
                  bool& isAsked);
  ownerNote noteWithout(const lockRecord& record) const;
  bool holdsStill(const lockRecord& record, jobject lock, jthread owner,
                  std::int32_t& holdingFrame);
  bool holdsMonitor(jobject monitor, jthread owner, std::int32_t& holdingFrame);
  std::uint32_t stackOf(jthread thread);
  std::uint32_t nameOf(jthread thread);

  jvmtiEnv* jvmti_;
  JNIEnv* jni_;
  blockRecorder& recorder_;
  contentionSamples& samples_;
  const ownerClasses& classes_;
  bool canCheck_;
};

}  // namespace agent
