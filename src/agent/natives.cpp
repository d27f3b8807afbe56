// The native methods of the companion: each takes C++ values out of JNI types, finds its profiler
// and calls it.

#include <jvmti.h>

#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>

#include "agent/idle.h"
#include "agent/nativeMethod.h"
#include "agent/profilerRegistry.h"
#include "agent/twAprLib.h"
#include "exceptions/captureMode.h"
#include "exceptions/exceptionprofiler.h"
#include "locks/mutexlockprofiler.h"
#include "memory/memoryprofiler.h"
#include "support/annotations.h"
#include "support/jniRef.h"
#include "support/sourcePlace.h"
#include "support/text.h"

using namespace agent;

namespace {

void trace(const char* function, const char* message, jlong sessionId,
           support::sourcePlace where = support::sourcePlace::current()) {
  if (twAprLib::level() < kLogTrace) {
    return;
  }
  twAprLib::write(nullptr, 0, kLogModule, kSeverityTrace, where.file, where.line, function,
                  "%s%lld", message, static_cast<long long>(sessionId));
}

// Reports on standard error what is wrong with a black list that is refused.
void refuseBlackList(const std::string& text, const std::exception& error) {
  twAprLib::print(stderr,
                  "javanativeagent: enableCaptureVariableinException: argument 'blackList' is "
                  "'%s': expected class names separated by commas within one character on each "
                  "side, as in '[a.B,c.D]' (%s)\n",
                  text.c_str(), error.what());
}

// One step of a lock session: the event switch, then the new state.
void stepLockSession(bool events, std::int32_t state, bool rank = false) {
  const std::shared_ptr<mutexLockProfiler> locks = getMutexProfiler();
  if (!locks) {
    return;
  }
  if (rank) {
    locks->sortData();
  }
  // Deliberate: acts in state kLockProfiling only, so that stopping a phase leaves the events on.
  locks->setProfilerEventMode(events);
  locks->setState(state);
}

}  // namespace

JNIEXPORT jint JNICALL TW_NATIVE(startMutexLockProfilingSession)(
    JNIEnv* jni, jclass /*cls*/, jlong sessionId, jstring sessionName, jlong duration,
    jint topLockCount, jint maxLockCount, jint maxThreadPerLockCount, jint maxThreadCount,
    jint maxStackTraceCount, jint maxStackTraceCountPerThread, jstring stackFilePath) {
  constexpr const char* kFunction = TW_NATIVE_NAME(startMutexLockProfilingSession);
  wakeIdle(jni);
  return native(kFunction, [&] {
    trace(kFunction, "Initializing Lock Profiling Session Id -> ", sessionId);
    constexpr std::int32_t kSecondsPerMinute = 60;
    // Deliberate: of the low 32 bits of the duration; a graph has no slots for less than a minute.
    const std::int32_t graphSize = static_cast<std::int32_t>(duration) / kSecondsPerMinute;
    auto settings = std::make_unique<LockSessionConfig>(
        sessionId, support::textOf(jni, sessionName), duration, topLockCount, maxLockCount,
        maxThreadPerLockCount, maxThreadCount, maxStackTraceCount, maxStackTraceCountPerThread,
        support::textOf(jni, stackFilePath), graphSize);
    getRegistry()->switchProfiler(kMutexLockProfiler, true);
    const std::shared_ptr<mutexLockProfiler> locks = getMutexProfiler();
    return locks ? locks->setProfileData(std::move(settings)) : 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(startMutexLockSummarySession)(JNIEnv* /*jni*/, jclass /*cls*/,
                                                               jlong sessionId) {
  constexpr const char* kFunction = TW_NATIVE_NAME(startMutexLockSummarySession);
  return native(kFunction, [&] {
    trace(kFunction, "Initializing Lock Summary Session Id -> ", sessionId);
    stepLockSession(true, kLockSummary);
    return 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(startMutexLockDetailSession)(JNIEnv* /*jni*/, jclass /*cls*/,
                                                              jlong sessionId) {
  constexpr const char* kFunction = TW_NATIVE_NAME(startMutexLockDetailSession);
  return native(kFunction, [&] {
    trace(kFunction, "Initializing Lock Detail Session Id -> ", sessionId);
    stepLockSession(true, kLockDetail, true);
    return 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(stopMutexLockSummarySession)(JNIEnv* /*jni*/, jclass /*cls*/,
                                                              jlong sessionId) {
  constexpr const char* kFunction = TW_NATIVE_NAME(stopMutexLockSummarySession);
  return native(kFunction, [&] {
    trace(kFunction, "Stopping Lock Summary Session Id -> ", sessionId);
    stepLockSession(false, kLockProfiling);
    return 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(stopMutexLockDetailSession)(JNIEnv* /*jni*/, jclass /*cls*/,
                                                             jlong sessionId) {
  constexpr const char* kFunction = TW_NATIVE_NAME(stopMutexLockDetailSession);
  return native(kFunction, [&] {
    trace(kFunction, "Stopping Lock Detail Session Id -> ", sessionId);
    stepLockSession(false, kLockStopped);
    return 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(stopMutexLockProfilingSession)(JNIEnv* jni, jclass /*cls*/,
                                                                jlong sessionId,
                                                                jstring reportPath) {
  constexpr const char* kFunction = TW_NATIVE_NAME(stopMutexLockProfilingSession);
  return native(kFunction, [&] {
    trace(kFunction, "Stopping Lock Profiling Session Id -> ", sessionId);
    getRegistry()->switchProfiler(kMutexLockProfiler, false);
    const std::shared_ptr<mutexLockProfiler> locks = getMutexProfiler();
    return locks ? locks->dumpJsonObjectFromMapDS(jni, reportPath) : 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(startMemoryLeaksProfileSession)(
    JNIEnv* jni, jclass /*cls*/, jboolean memoryLeakEnable, jlong duration, jint sessionId,
    jstring sessionName, jint topNClassCount, jstring excludeClasses, jstring excludePackages,
    jstring includeClasses, jstring includePackages) {
  constexpr const char* kFunction = TW_NATIVE_NAME(startMemoryLeaksProfileSession);
  wakeIdle(jni);
  return native(kFunction, [&] {
    trace(kFunction, "******Starting memory Profiling Session Id -> ", sessionId);
    auto settings = std::make_unique<MemorySessionConfig>();
    settings->memoryLeakEnable = memoryLeakEnable;
    settings->duration = duration;
    settings->sessionId = sessionId;
    settings->sessionName = support::textOf(jni, sessionName);
    settings->topNClassCount = topNClassCount;
    settings->filters.excludeClasses = support::textOf(jni, excludeClasses);
    settings->filters.excludePackages = support::textOf(jni, excludePackages);
    settings->filters.includeClasses = support::textOf(jni, includeClasses);
    settings->filters.includePackages = support::textOf(jni, includePackages);
    getRegistry()->switchProfiler(kMemoryProfiler, true);
    const std::shared_ptr<memoryProfiler> memory = getMemoryProfiler();
    if (!memory) {
      return 0;
    }
    memory->setProfilerEventMode(true);
    return memory->setProfileData(std::move(settings));
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(stopMemoryLeaksProfileSession)(JNIEnv* jni, jclass /*cls*/,
                                                                jlong sessionId,
                                                                jstring reportPath) {
  constexpr const char* kFunction = TW_NATIVE_NAME(stopMemoryLeaksProfileSession);
  return native(kFunction, [&] {
    trace(kFunction, "******Stopping memory Profiling Session Id -> ", sessionId);
    const std::shared_ptr<profilerRegistry> registry = findRegistry();
    const std::shared_ptr<memoryProfiler> memory = getMemoryProfiler();
    if (!registry || !memory) {
      return 0;
    }
    registry->switchProfiler(kMemoryProfiler, false);
    memory->setProfilerEventMode(false);
    return memory->scanJavaHeap(jni, reportPath);
  });
}

JNIEXPORT void JNICALL TW_NATIVE(forceGarbageCollection)(JNIEnv* jni, jclass /*cls*/) {
  wakeIdle(jni);
  native(TW_NATIVE_NAME(forceGarbageCollection), [] {
    jvmtiEnv* const jvmti = getRegistry()->environment();
    if (jvmti != nullptr) {
      jvmti->ForceGarbageCollection();
    }
    return 0;
  });
}

JNIEXPORT void JNICALL TW_NATIVE(setObjectTag)(JNIEnv* jni, jclass /*cls*/, jobject object) {
  wakeIdle(jni);
  native(TW_NATIVE_NAME(setObjectTag), [&] {
    const std::shared_ptr<memoryProfiler> memory = getMemoryProfiler();
    if (memory && object != nullptr) {
      memory->setObjectTag(jni, object);
    }
    return 0;
  });
}

JNIEXPORT jint JNICALL TW_NATIVE(getExtendedMatricesFromNative)(JNIEnv* jni, jclass /*cls*/,
                                                                jstring text) {
  if (text == nullptr) {
    return 0;
  }
  // Deliberate: a placeholder, which reads its argument and answers 0.
  const char* const chars = jni->GetStringUTFChars(text, nullptr);
  if (chars == nullptr) {
    jni->ExceptionClear();
  } else {
    jni->ReleaseStringUTFChars(text, chars);
  }
  return 0;
}

// Deliberate: an empty black list throws out of here, as the text conversions of the start-up do.
JNIEXPORT jint JNICALL TW_NATIVE(enableCaptureVariableinException)(
    JNIEnv* jni, jclass /*cls*/, jboolean enable, jboolean classVariables, jboolean methodArguments,
    jboolean localVariables, jboolean threadLocals, jint captureRate, jint stackTraceDepth,
    jstring blackList) {
  constexpr const char* kFunction = TW_NATIVE_NAME(enableCaptureVariableinException);
  if (enable == JNI_TRUE) {
    wakeIdle(jni);
  }
  std::exception_ptr refused;  // thrown on: what the black list is refused with is not contained
  const jint result = native(kFunction, [&] {
    auto settings = std::make_unique<ExceptionCaptureSettings>();
    if (const auto text = support::tryTextOf(jni, blackList)) {
      try {
        settings->blackList = parseBlackList(*text);
      } catch (const std::out_of_range& error) {
        refuseBlackList(*text, error);
        refused = std::current_exception();
        return 0;
      }
    }
    settings->enabled = enable == JNI_TRUE;
    settings->captureClassVariables = classVariables == JNI_TRUE;
    settings->captureMethodArguments = methodArguments == JNI_TRUE;
    settings->captureLocalVariables = localVariables == JNI_TRUE;
    settings->captureThreadLocals = threadLocals == JNI_TRUE;
    settings->captureRate = captureRate;
    settings->stackTraceDepth = stackTraceDepth;
    settings->findCallback(jni);
    // Calls that meet would leave the events of the one with the settings of the other.
    static support::mutex& oneCall = *new support::mutex;
    const support::lockGuard guard(oneCall);
    getRegistry()->switchProfiler(kExceptionProfiler, settings->enabled);
    const std::shared_ptr<exceptionProfiler> exceptions = getExceptionProfiler();
    if (!exceptions) {
      return 0;
    }
    exceptions->setProfilerEventMode(settings->enabled);
    if (exceptionsAreCapturedWhereMade() && !exceptions->switchMade(jni, settings->enabled)) {
      return 0;
    }
    return exceptions->setProfileData(std::move(settings));
  });
  if (refused) {
    std::rethrow_exception(refused);
  }
  return result;
}
