// Native methods of AgentPush: what the profiles have counted since they were asked before.
#include <com_korvane_twutils_nativeagent_AgentPush.h>

#include <string>
#include <utility>

#include "agent/nativeMethod.h"
#include "allocations/allocationProfile.h"
#include "contention/contentionProfile.h"
#include "exceptions/exceptionPush.h"

using namespace agent;

#define TW_PUSH(method) Java_com_korvane_twutils_nativeagent_AgentPush_##method
#define TW_PUSH_NAME(method) "Java_com_korvane_twutils_nativeagent_AgentPush_" #method
#define TW_PUSH_KIND(name) com_korvane_twutils_nativeagent_AgentPush_##name

namespace {

std::string windowOf(JNIEnv* jni, jint kind, bool isKept) {
  switch (kind) {
    case TW_PUSH_KIND(CONTENTION):
      return contentionProfile::ofProcess().window(jni, isKept);
    case TW_PUSH_KIND(ALLOCATIONS):
      return allocationProfile::ofProcess().window(jni, isKept);
    case TW_PUSH_KIND(EXCEPTIONS):
      return isKept ? std::string() : exceptionPush::ofProcess().take(coarseMillis());
    default:
      return {};
  }
}

}  // namespace

// Without memory for the array, a Java exception is pending, and the window is lost.
JNIEXPORT jbyteArray JNICALL TW_PUSH(window)(JNIEnv* jni, jclass /*cls*/, jint kind,
                                             jboolean isKept) {
  jbyteArray result = nullptr;
  native(TW_PUSH_NAME(window), [&] {
    const std::string window = windowOf(jni, kind, isKept == JNI_TRUE);
    const auto size = static_cast<jsize>(window.size());
    result = window.empty() ? nullptr : jni->NewByteArray(size);
    if (result != nullptr) {
      jni->SetByteArrayRegion(result, 0, size, reinterpret_cast<const jbyte*>(window.data()));
    }
    return 1;
  });
  return result;
}

JNIEXPORT jlong JNICALL TW_PUSH(lost)(JNIEnv* /*jni*/, jclass /*cls*/) {
  return static_cast<jlong>(contentionProfile::ofProcess().lostWindows() +
                            allocationProfile::ofProcess().lostWindows());
}
