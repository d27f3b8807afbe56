// A monitor event as its handler sees it, and what the handlers write to the log.
#pragma once

#include <jvmti.h>

#include <array>
#include <cstdint>

#include "agent/profiler.h"
#include "agent/twAprLib.h"
#include "locks/lockOwners.h"
#include "locks/lockStore.h"
#include "support/jvmtiRecords.h"

namespace agent {

// Null texts are not written.
struct handlerTexts {
  const char* function;
  std::array<const char*, 6> notIdentified;  // by identityFailure
  const char* threadIsNull;
  const char* exception;
  bool showsThreadAndLock = true;  // of every event, at Debug
};

// Deliberate: the odd words and blanks are those that operators know.
inline constexpr handlerTexts kEnterTexts = {
    "mutexLockProfiler::MonitorContendedEnter",
    {nullptr, "monitor object is NULL", "Unable to get method id of class object",
     "Unable to get method id for java/lang/string", "object class is empty", nullptr},
    "object thread is NULL",
    "Exception occured in mutexprofiler : MonitorContendedEnter"};

inline constexpr handlerTexts kEnteredTexts = {
    "mutexLockProfiler::MonitorContendedEntered",
    {nullptr, "monitor entered object is NULL", "entered method is not found",
     "entered mid for java/lang/string not found", "enter class is empty", nullptr},
    "entered thread is NULL",
    "Exception occured in  mutexprofiler : MonitorContendedEntered"};

inline constexpr handlerTexts kWaitTexts = {
    "mutexLockProfiler::MonitorWait",
    {nullptr, "wait object is NULL", "wait method is is empty",
     "wait mid for java/lang/string is empty", "wait class is empty", nullptr},
    "wait thread is NULL",
    "Exception occured in  mutexprofiler : MonitorWait"};

// Deliberate: only the missing thread is logged.
inline constexpr handlerTexts kWaitedTexts = {"mutexLockProfiler::MonitorWaited",
                                              {},
                                              "waited thread is NULL",
                                              "Exception occured in  mutexprofiler : MonitorWaited",
                                              false};

// One event, on its own thread.
struct monitorEvent {
  jvmtiEnv* jvmti;
  JNIEnv* jni;
  jthread thread;
  jobject object;
  const handlerTexts& texts;
  std::int32_t state;
  std::uint32_t epoch;
  lockStore& store;
  support::threadName name;
  bool nameIsRead = false;
  jlong time = 0;  // 0 when the VM gave none

  bool detail() const { return state == kLockDetail; }
  bool showsThreadAndLock() const {
    return texts.showsThreadAndLock && twAprLib::level() >= kLogDebug;
  }
  void readTime() {
    if (jvmti->GetTime(&time) != JVMTI_ERROR_NONE) {
      time = 0;
    }
  }
  // The name of the event's thread; asked for when it is used first.
  const support::threadName& threadName() {
    if (!nameIsRead) {
      name.read(thread);
    }
    nameIsRead = true;
    return name;
  }
  // The event's time is the start of a block or wait.
  void leaveStart() {
    readTime();
    store.starts.leave(jvmti, thread, time);
  }
  // A wait of the event's thread has ended.
  void leaveWait() {
    readTime();
    store.starts.leaveWait(jvmti, thread, time);
  }
  // What the thread has begun last.
  blockStarts::begun takeStart() {
    readTime();
    return store.starts.take(jvmti, thread);
  }
  monitorQuestion question() const { return {jvmti, jni, object, time}; }
};

}  // namespace agent
