// Native methods of AgentAttach: the agent in a JVM that it was loaded into while it ran.
#include <com_korvane_twutils_nativeagent_AgentAttach.h>

#include <string>

#include "agent/attach.h"
#include "agent/nativeMethod.h"

using namespace agent;

#define TW_ATTACH(method) Java_com_korvane_twutils_nativeagent_AgentAttach_##method
#define TW_ATTACH_NAME(method) "Java_com_korvane_twutils_nativeagent_AgentAttach_" #method

JNIEXPORT jboolean JNICALL TW_ATTACH(isAttached)(JNIEnv* /*jni*/, jclass /*cls*/) {
  return isAttached() ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jstring JNICALL TW_ATTACH(missing)(JNIEnv* jni, jclass /*cls*/) {
  std::string text;
  native(TW_ATTACH_NAME(missing), [&] {
    text = missingWhenAttached();
    return 0;
  });
  return jni->NewStringUTF(text.c_str());
}

// Not counted among the natives that it waits for.
JNIEXPORT jstring JNICALL TW_ATTACH(detach)(JNIEnv* jni, jclass /*cls*/) {
  std::string problem = "an error in the agent, see its log";
  contained(TW_ATTACH_NAME(detach), "Exception occured in jagent : detach",
            [&] { problem = detach(jni); });
  return textFor(jni, problem);
}
