// Native methods of AgentContention: the contention profile, as Java starts and stops it.
#include <com_korvane_twutils_nativeagent_AgentContention.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>

#include "agent/idle.h"
#include "agent/nativeMethod.h"
#include "contention/contentionProfile.h"
#include "support/jniRef.h"

using namespace agent;

namespace {

using limits = contentionSettings;

std::string refusal(const contentionSettings& settings) {
  constexpr std::int64_t kForEver = std::numeric_limits<std::int64_t>::max() / 1'000'000;
  for (const std::string& each :
       {outOfRange("locks", settings.locks, limits::kFewestLocks, limits::kMostLocks),
        outOfRange("samples", settings.samplesPerSecond, 0, limits::kMostSamples),
        outOfRange("budget", settings.budgetPercent, 1, limits::kMostBudget),
        outOfRange("stuck", settings.stuckMillis, limits::kShortestStuck, kForEver),
        outOfRange("window", settings.windowMillis, limits::kShortestWindow,
                   limits::kLongestWindow)}) {
    if (!each.empty()) {
      return each;
    }
  }
  return {};
}

}  // namespace

#define TW_CONTENTION(method) Java_com_korvane_twutils_nativeagent_AgentContention_##method
#define TW_CONTENTION_NAME(method) "Java_com_korvane_twutils_nativeagent_AgentContention_" #method

JNIEXPORT jstring JNICALL TW_CONTENTION(start)(JNIEnv* jni, jclass /*cls*/, jint locks,
                                               jint samples, jint budget, jlong stuckMillis,
                                               jlong windowMillis) {
  wakeIdle(jni);
  return nativeText(TW_CONTENTION_NAME(start), jni, [&] {
    const contentionSettings settings{locks, samples, budget, stuckMillis, windowMillis};
    std::string problem = refusal(settings);
    JavaVM* vm = nullptr;
    if (problem.empty() && jni->GetJavaVM(&vm) != JNI_OK) {
      problem = "the VM does not give itself";
    }
    return problem.empty() ? contentionProfile::ofProcess().start(vm, jni, settings) : problem;
  });
}

JNIEXPORT jboolean JNICALL TW_CONTENTION(isRunning)(JNIEnv* /*jni*/, jclass /*cls*/) {
  return contentionProfile::ofProcess().isRunning() ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jstring JNICALL TW_CONTENTION(snapshot)(JNIEnv* jni, jclass /*cls*/, jstring path) {
  return nativeText(TW_CONTENTION_NAME(snapshot), jni, [&] {
    const std::string name = support::textOf(jni, path);
    return name.empty() ? "no path" : contentionProfile::ofProcess().snapshot(jni, name);
  });
}

JNIEXPORT jboolean JNICALL TW_CONTENTION(reportAtEnd)(JNIEnv* jni, jclass /*cls*/, jstring path,
                                                      jboolean isEnding) {
  const jint runs = native(TW_CONTENTION_NAME(reportAtEnd), [&] {
    const std::string name = support::textOf(jni, path);
    return !name.empty() && contentionProfile::ofProcess().reportAtEnd(name, isEnding == JNI_TRUE)
               ? 1
               : 0;
  });
  return runs == 1 ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL TW_CONTENTION(stop)(JNIEnv* jni, jclass /*cls*/) {
  const jint stopped = native(TW_CONTENTION_NAME(stop),
                              [&] { return contentionProfile::ofProcess().stop(jni) ? 1 : 0; });
  return stopped == 1 ? JNI_TRUE : JNI_FALSE;
}
