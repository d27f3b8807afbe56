// Native methods of AgentAllocations: the allocation profile, as Java starts and stops it.
#include <com_korvane_twutils_nativeagent_AgentAllocations.h>

#include <string>

#include "agent/idle.h"
#include "agent/nativeMethod.h"
#include "agent/shutdownHook.h"
#include "allocations/allocationProfile.h"
#include "support/jniRef.h"

using namespace agent;

namespace {

using limits = allocationSettings;

std::string refusal(jlong intervalBytes, jint liveSamples) {
  const std::string interval =
      outOfRange("interval", intervalBytes, limits::kShortestInterval, limits::kLongestInterval);
  return interval.empty()
             ? outOfRange("samples", liveSamples, limits::kFewestSamples, limits::kMostSamples)
             : interval;
}

}  // namespace

#define TW_ALLOCATIONS(method) Java_com_korvane_twutils_nativeagent_AgentAllocations_##method
#define TW_ALLOCATIONS_NAME(method) "Java_com_korvane_twutils_nativeagent_AgentAllocations_" #method

JNIEXPORT jstring JNICALL TW_ALLOCATIONS(start)(JNIEnv* jni, jclass /*cls*/, jlong intervalBytes,
                                                jint liveSamples) {
  wakeIdle(jni);
  return nativeText(TW_ALLOCATIONS_NAME(start), jni, [&] {
    std::string problem = refusal(intervalBytes, liveSamples);
    JavaVM* vm = nullptr;
    if (problem.empty() && jni->GetJavaVM(&vm) != JNI_OK) {
      problem = "the VM does not give itself";
    }
    return problem.empty()
               ? allocationProfile::ofProcess().start(vm, jni, {intervalBytes, liveSamples})
               : problem;
  });
}

JNIEXPORT jboolean JNICALL TW_ALLOCATIONS(isRunning)(JNIEnv* /*jni*/, jclass /*cls*/) {
  return allocationProfile::ofProcess().isRunning() ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jstring JNICALL TW_ALLOCATIONS(snapshot)(JNIEnv* jni, jclass /*cls*/, jstring path,
                                                   jboolean afterCollection) {
  return nativeText(TW_ALLOCATIONS_NAME(snapshot), jni, [&] {
    const std::string name = support::textOf(jni, path);
    return name.empty()
               ? "no path"
               : allocationProfile::ofProcess().snapshot(jni, name, afterCollection == JNI_TRUE);
  });
}

JNIEXPORT jboolean JNICALL TW_ALLOCATIONS(reportAtEnd)(JNIEnv* jni, jclass /*cls*/, jstring path,
                                                       jboolean isEnding) {
  const jint runs = native(TW_ALLOCATIONS_NAME(reportAtEnd), [&] {
    const std::string name = support::textOf(jni, path);
    return !name.empty() && allocationProfile::ofProcess().reportAtEnd(name, isEnding == JNI_TRUE)
               ? 1
               : 0;
  });
  return runs == 1 ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL TW_ALLOCATIONS(stop)(JNIEnv* jni, jclass /*cls*/,
                                                jboolean afterCollection) {
  const jint stopped = native(TW_ALLOCATIONS_NAME(stop), [&] {
    return allocationProfile::ofProcess().stop(jni, afterCollection == JNI_TRUE) ? 1 : 0;
  });
  return stopped == 1 ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL TW_ALLOCATIONS(shutdownBegins)(JNIEnv* jni, jclass /*cls*/,
                                                      jboolean afterCollection) {
  native(TW_ALLOCATIONS_NAME(shutdownBegins), [&] {
    allocationProfile::ofProcess().shutdownBegins(jni, afterCollection == JNI_TRUE, [] {
      return shutdownHook::ofProcess().haveHooksBegun();
    });
    return 1;
  });
}

JNIEXPORT void JNICALL TW_ALLOCATIONS(leaveOut)(JNIEnv* /*jni*/, jclass /*cls*/,
                                                jboolean isLeftOut) {
  allocationRecorder::leaveOutThisThread(isLeftOut == JNI_TRUE);
}
