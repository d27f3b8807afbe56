// The allocation profile: samples of what the program allocates, and which of it survives its
// garbage collections; all the time, at little cost.
//
// It has a JVMTI environment of its own. A handler puts samples into a queue (allocationRecorder);
// a thread of its own names them, sees which are alive (survivingSamples) and counts collections
// (collectionRounds). Objects are held by weak references of JNI, not by tags: the VM looks for n
// tags in n times n steps, and keeps all that it finds alive for the current collection. Control
// calls come from Java on any thread, and take turns. There is one in the process, and it is never
// destroyed: handlers and its thread may run while the process ends.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "allocations/allocationFigures.h"
#include "allocations/allocationPush.h"
#include "allocations/allocationRecorder.h"
#include "allocations/allocationReport.h"
#include "allocations/allocationSettings.h"
#include "allocations/collectionRounds.h"
#include "allocations/survivingSamples.h"
#include "instruments/costAccount.h"
#include "instruments/lastReport.h"
#include "instruments/ownEnvironment.h"
#include "instruments/ownThread.h"
#include "pprof/keptWindows.h"
#include "support/annotations.h"

namespace agent {

class allocationProfile {
 public:
  static allocationProfile& ofProcess();

  // Has it start when the VM is ready. Why it will not, or an empty text.
  std::string startWithVm(JavaVM* vm, const allocationSettings& settings);

  // The next six: see AgentAllocations.java. Texts are empty when all went well.
  std::string start(JavaVM* vm, JNIEnv* jni, const allocationSettings& settings)
      EXCLUDES(controlMutex_);
  bool isRunning() const { return recorder_.isOn(); }

  // The VM is about to wait for all handlers: none begins any more, and those that run have left
  // when it returns, except for one that takes more than 2 seconds. The last report is still
  // written. On the thread that ends the VM.
  void leaveBeforeVmEnds();

  // Whether it runs and has more samples than a VM that does next to nothing gives. Any thread.
  bool isWorthReporting() const;
  std::string snapshot(JNIEnv* jni, const std::string& path, bool afterCollection)
      EXCLUDES(controlMutex_);
  bool stop(JNIEnv* jni, bool afterCollection) EXCLUDES(controlMutex_);
  bool reportAtEnd(const std::string& path, bool isEnding) EXCLUDES(controlMutex_);
  // What it has counted since the process started, whether it runs or not. Any Java thread.
  allocationFigures figures(JNIEnv* jni) EXCLUDES(samplesMutex_);
  // Keeps nothing when `haveHooksBegun` is true by the time that the collection is over.
  void shutdownBegins(JNIEnv* jni, bool afterCollection,
                      const std::function<bool()>& haveHooksBegun) EXCLUDES(controlMutex_);

  // A window in the pprof form, as AgentPush.java has it; empty for none. On a Java thread.
  std::string window(JNIEnv* jni, bool isKept) EXCLUDES(samplesMutex_);
  // Windows of sessions that had no room.
  std::uint64_t lostWindows() EXCLUDES(samplesMutex_);

  // Stops it, drops all that was gathered and gives its capabilities back; it does not start again
  // before comeBack(). Empty, or what could not be done. On a Java thread, in the live phase.
  std::string leave(JNIEnv* jni) EXCLUDES(controlMutex_);
  void comeBack() EXCLUDES(controlMutex_);

 private:
  allocationProfile();

  static void JNICALL VMInit(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread);
  static void JNICALL VMDeath(jvmtiEnv* jvmti, JNIEnv* jni);
  static void JNICALL SampledObjectAlloc(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                         jobject object, jclass cls, jlong size);
  static void JNICALL GarbageCollectionFinish(jvmtiEnv* jvmti);

  std::string open(JavaVM* vm);
  bool handlersHaveLeft();
  void begin(JNIEnv* jni, const allocationSettings& settings) REQUIRES(controlMutex_)
      EXCLUDES(samplesMutex_);
  void end(JNIEnv* jni, bool afterCollection) REQUIRES(controlMutex_) EXCLUDES(samplesMutex_);
  void dropAll(JNIEnv* jni) REQUIRES(samplesMutex_);
  std::optional<std::int64_t> takeStep(JNIEnv* jni) EXCLUDES(samplesMutex_);
  void drain(JNIEnv* jni) REQUIRES(samplesMutex_);
  void makeRoom(JNIEnv* jni) REQUIRES(samplesMutex_);
  void catchUp(JNIEnv* jni) REQUIRES(samplesMutex_);
  bool collect(JNIEnv* jni) EXCLUDES(samplesMutex_);
  bool isFrozen() EXCLUDES(samplesMutex_);
  aliveState stateOf(bool afterCollection) REQUIRES(samplesMutex_);
  bool prepareLastCollection(JNIEnv* jni) REQUIRES(samplesMutex_);
  bool isLastCollectionDue(JNIEnv* jni) EXCLUDES(samplesMutex_);
  void collectAtEnd();
  void endWithVm(JNIEnv* jni) EXCLUDES(samplesMutex_);
  void finish(JNIEnv* jni) REQUIRES(samplesMutex_);
  std::string reportText(bool afterCollection) REQUIRES(samplesMutex_);
  void endSession() REQUIRES(samplesMutex_);

  std::string newWindow(JNIEnv* jni) REQUIRES(samplesMutex_);
  void keepWindow(JNIEnv* jni) REQUIRES(samplesMutex_);

  instruments::ownEnvironment environment_;  // opened by Agent_OnLoad, or under controlMutex_
  allocationRecorder recorder_;
  allocationSettings settingsForVm_;

  support::mutex controlMutex_;  // outside samplesMutex_: one control call at a time
  bool hasLeft_ GUARDED_BY(controlMutex_) = false;
  jclass virtualThread_ GUARDED_BY(controlMutex_) = nullptr;

  // No handler takes it.
  support::timedMutex samplesMutex_;
  allocationSession session_ GUARDED_BY(samplesMutex_);
  survivingSamples samples_ GUARDED_BY(samplesMutex_);
  collectionRounds rounds_;  // under samplesMutex_, except for the handler
  bool hasDead_ GUARDED_BY(samplesMutex_) = false;
  std::int64_t lastRemoval_ GUARDED_BY(samplesMutex_) = 0;
  std::atomic<std::int64_t> collectionNanos_{0};  // of the last one asked for
  // What was alive when the profile was stopped, or the VM began to shut down.
  std::optional<aliveState> frozen_ GUARDED_BY(samplesMutex_);
  std::optional<afterHooks> left_ GUARDED_BY(samplesMutex_);
  instruments::costAccount cost_ GUARDED_BY(samplesMutex_);
  allocationFigures earlier_ GUARDED_BY(samplesMutex_);  // of sessions that are over
  bool isPushed_ GUARDED_BY(samplesMutex_) = false;
  allocationPush push_ GUARDED_BY(samplesMutex_);
  pprof::keptWindows windows_ GUARDED_BY(samplesMutex_);

  // The collection after the shutdown hooks.
  enum class lastCollection : std::uint8_t { none, asked, begun, answered, done };
  std::atomic<lastCollection> lastCollection_{lastCollection::none};

  instruments::lastReport lastReport_;
  instruments::ownThread thread_;
};

}  // namespace agent
