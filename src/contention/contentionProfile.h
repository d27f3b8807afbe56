// The contention profile: which locks threads are blocked by, for how long, who holds them
// meanwhile and where; all the time, at little cost.
//
// It has a JVMTI environment of its own. Events write counts (blockRecorder); a thread of its own
// looks at the blocked threads so many times a second (contentionSampler). Control calls come from
// Java on any thread, and take turns. There is one in the process, and it is never destroyed:
// handlers and its thread may run while the process ends.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "contention/blockRecorder.h"
#include "contention/contentionFigures.h"
#include "contention/contentionPush.h"
#include "contention/contentionReport.h"
#include "contention/contentionSampler.h"
#include "contention/contentionSamples.h"
#include "contention/contentionSettings.h"
#include "contention/lockLook.h"
#include "instruments/lastReport.h"
#include "instruments/ownEnvironment.h"
#include "instruments/ownThread.h"
#include "pprof/keptWindows.h"
#include "support/annotations.h"

namespace agent {

class contentionProfile {
 public:
  static contentionProfile& ofProcess();

  // Has it start when the VM is ready; for Agent_OnLoad, where more capabilities can be had than
  // later. Why it will not, or an empty text.
  std::string startWithVm(JavaVM* vm, const contentionSettings& settings);

  // The next five: see AgentContention.java. Texts are empty when all went well.
  std::string start(JavaVM* vm, JNIEnv* jni, const contentionSettings& settings)
      EXCLUDES(controlMutex_);
  bool isRunning() const { return recorder_.isOn(); }

  // The VM is about to wait for all handlers: none begins any more, and those that run have left
  // when it returns, except for one that takes more than 2 seconds. The last report is still
  // written. On the thread that ends the VM.
  void leaveBeforeVmEnds();

  // Whether it runs and a thread was blocked by a lock since it began. Any thread.
  bool hasContention() const;
  std::string snapshot(JNIEnv* jni, const std::string& path) EXCLUDES(controlMutex_);
  bool stop(JNIEnv* jni) EXCLUDES(controlMutex_);
  bool reportAtEnd(const std::string& path, bool isEnding) EXCLUDES(controlMutex_);

  // What it has counted since the process started, whether it runs or not. Any Java thread.
  contentionFigures figures(JNIEnv* jni) EXCLUDES(samplesMutex_);

  // A window in the pprof form, as AgentPush.java has it; empty for none. On a Java thread.
  std::string window(JNIEnv* jni, bool isKept) EXCLUDES(samplesMutex_);
  // Windows of sessions that had no room.
  std::uint64_t lostWindows() EXCLUDES(samplesMutex_);

  // Stops it, drops all that was gathered and gives its capabilities back; it does not start again
  // before comeBack(). Empty, or what could not be done. On a Java thread, in the live phase.
  std::string leave(JNIEnv* jni) EXCLUDES(controlMutex_);
  void comeBack() EXCLUDES(controlMutex_);

 private:
  contentionProfile();

  static void JNICALL VMInit(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread);
  static void JNICALL VMDeath(jvmtiEnv* jvmti, JNIEnv* jni);
  static void JNICALL MonitorContendedEnter(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                            jobject object);
  static void JNICALL MonitorContendedEntered(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                              jobject object);
  static void JNICALL MonitorWait(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object,
                                  jlong timeout);
  static void JNICALL MonitorWaited(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object,
                                    jboolean timedOut);
  static void acquisitionBegins(JNIEnv* jni);
  static void blockerSet(JNIEnv* jni, jthread thread, jobject blocker);

  std::string open(JavaVM* vm);
  bool handlersHaveLeft();
  void findClasses(JNIEnv* jni) REQUIRES(controlMutex_);
  std::string hookParks(JNIEnv* jni) REQUIRES(controlMutex_);
  void begin(JNIEnv* jni, const contentionSettings& settings) REQUIRES(controlMutex_)
      EXCLUDES(samplesMutex_);
  void takeBack(JNIEnv* jni) EXCLUDES(samplesMutex_);
  std::string end(JNIEnv* jni) REQUIRES(controlMutex_) EXCLUDES(samplesMutex_);
  void dropClasses(JNIEnv* jni) REQUIRES(controlMutex_);
  std::optional<std::int64_t> takeStep(JNIEnv* jni) EXCLUDES(samplesMutex_);
  void endWithVm(JNIEnv* jni) EXCLUDES(samplesMutex_);
  std::string reportText(JNIEnv* jni) REQUIRES(samplesMutex_);
  void addSession(JNIEnv* jni, contentionFigures& all) REQUIRES(samplesMutex_);
  void endSession(JNIEnv* jni) REQUIRES(samplesMutex_);

  std::string newWindow(JNIEnv* jni) REQUIRES(samplesMutex_);
  void keepWindow(JNIEnv* jni) REQUIRES(samplesMutex_);

  instruments::ownEnvironment environment_;  // opened by Agent_OnLoad, or under controlMutex_
  blockRecorder recorder_;
  contentionSettings settingsForVm_;

  support::mutex controlMutex_;  // outside samplesMutex_: one control call at a time
  bool hasLeft_ GUARDED_BY(controlMutex_) = false;
  parkClasses parks_ GUARDED_BY(controlMutex_);
  ownerClasses owners_ GUARDED_BY(controlMutex_);

  // Held while the blocked threads are sampled, calls into the VM included; no handler takes it.
  support::timedMutex samplesMutex_;
  contentionSession session_ GUARDED_BY(samplesMutex_);
  contentionSamples samples_ GUARDED_BY(samplesMutex_);
  contentionSampler sampler_ GUARDED_BY(samplesMutex_);
  contentionFigures earlier_ GUARDED_BY(samplesMutex_);  // of sessions that are over
  bool isPushed_ GUARDED_BY(samplesMutex_) = false;
  contentionPush push_ GUARDED_BY(samplesMutex_);
  pprof::keptWindows windows_ GUARDED_BY(samplesMutex_);

  instruments::lastReport lastReport_;
  instruments::ownThread thread_;
};

}  // namespace agent
