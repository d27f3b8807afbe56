// The lock profiler: monitor events are counted by lock, thread, owner, minute and stack trace.
//
// Handlers run on the application's threads, many at once, and for MonitorContendedEntered even
// while the monitor is held. Control operations come from the native methods, one at a time; events
// may go on meanwhile. A session's data is in a lockStore that setProfileData replaces as a whole;
// handlers hold a share of the one they began with.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "agent/profiler.h"
#include "locks/lockOwners.h"
#include "locks/lockStore.h"
#include "locks/lockWork.h"
#include "locks/stackTraces.h"
#include "support/annotations.h"
#include "support/javaClasses.h"

namespace agent {

struct handlerTexts;
struct monitorEvent;

class mutexLockProfiler : public profiler {
 public:
  mutexLockProfiler();

  void publish(const std::shared_ptr<profiler>& self) override;
  void withdraw() override;
  void noteSwitchedHandlers() override { noteLostEvents(); }
  void setEventCallbacks() override;
  void release() override;
  void addCapabilities() override;
  // Takes a LockSessionConfig and starts with an empty store.
  std::int32_t setProfileData(std::unique_ptr<sessionSettings> settings) override;
  // Acts in state kLockProfiling only.
  void setProfilerEventMode(bool enable) override;
  void sortData() override;
  std::int32_t dumpJsonObjectFromMapDS(JNIEnv* jni, jstring path) override;

  // At most so many lookups for the owner or the waiters of a monitor a second, from all events; no
  // limit for 0. By Agent_OnLoad only.
  void limitOwnerLookups(std::int32_t perSecond) { lookups_.limit(perSecond); }

  // Every change of the state also ends what is known about waiting threads.
  void setState(std::int32_t state);
  // Events may not have reached their handlers until now: what is known about waiting threads ends,
  // and blocks and waits from before count only where their end cannot have been missed.
  void noteLostEvents();

  // Event handlers, as JVMTI calls them.
  static void JNICALL VMInit(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread);
  static void JNICALL MonitorContendedEnter(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                            jobject object);
  static void JNICALL MonitorContendedEntered(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                              jobject object);
  static void JNICALL MonitorWait(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object,
                                  jlong timeout);
  static void JNICALL MonitorWaited(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object,
                                    jboolean timedOut);

  // Appends the stack traces met since the last time to the session's stack file.
  void dumpStackInFile(lockStore& store);

  // The store of the session; never null.
  std::shared_ptr<lockStore> store() const EXCLUDES(storeMutex_);
  // The record of a lock that is selected in this session, or none; it stays as long as the store.
  topLockBean* findTopLock(std::string_view lockName) const;
  // Origin of the minute graphs; below 1 until the first contended entry.
  std::int64_t startTime() const { return startTime_.load(); }
  void setStartTime(std::int64_t nanos) { startTime_.store(nanos); }
  std::size_t classNameCount() const { return classes_.size(); }

 private:
  template <typename Handle>
  static void handle(const handlerTexts& texts, jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                     jobject object, Handle&& handleEvent);

  void contendedEnter(monitorEvent& event);
  void contendedEntered(monitorEvent& event);
  void wait(monitorEvent& event);
  void waited(monitorEvent& event);

  bool identify(monitorEvent& event, identifiedLock& lock);
  lockStore::recordedLock recordLock(monitorEvent& event, const identifiedLock& lock);
  void countDetail(monitorEvent& event, lockBean* lock);
  void beginGraphs(std::int64_t time);
  std::size_t minuteSlot(std::int64_t time) const;
  void findOwner(monitorEvent& event, topLockBean& top);
  void closePeriod(const monitorEvent& event, topLockBean& top);
  void openPeriod(monitorEvent& event, topLockBean& top, bool hasKnownWaiters);
  void updateStackTrace(monitorEvent& event, threadBean* thread, topLockBean* top);
  std::uint64_t hashOf(const monitorEvent& event, stackFrames frames);

  bool useStore(std::shared_ptr<lockStore> next) EXCLUDES(storeMutex_);
  void writeReport(const std::shared_ptr<lockStore>& store, std::string path) const;

  mutable support::mutex storeMutex_;
  std::shared_ptr<lockStore> store_ GUARDED_BY(storeMutex_);
  std::atomic<std::int64_t> startTime_{0};
  // See waiterTally: moves on whenever events may have been missed.
  std::atomic<std::uint32_t> epoch_{0};

  support::javaClasses classes_;  // of monitors
  heldClasses stackClasses_;      // of methods on stacks
  monitorLookups lookups_;
};

}  // namespace agent
