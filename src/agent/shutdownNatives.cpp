// The native method of AgentShutdown: an action before the program's shutdown hooks.
#include <com_korvane_twutils_nativeagent_AgentShutdown.h>

#include <string>

#include "agent/nativeMethod.h"
#include "agent/shutdownHook.h"

using namespace agent;

JNIEXPORT jstring JNICALL Java_com_korvane_twutils_nativeagent_AgentShutdown_beforeHooks(
    JNIEnv* jni, jclass /*cls*/, jobject action) {
  return nativeText("Java_com_korvane_twutils_nativeagent_AgentShutdown_beforeHooks", jni,
                    [&] { return shutdownHook::ofProcess().run(jni, action); });
}
