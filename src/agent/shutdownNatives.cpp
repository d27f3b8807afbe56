// The native method of AgentShutdown: an action before the program's shutdown hooks.
#include <com_korvane_twutils_nativeagent_AgentShutdown.h>

#include <string>

#include "agent/nativeMethod.h"
#include "agent/shutdownHook.h"

using namespace agent;

JNIEXPORT jstring JNICALL Java_com_korvane_twutils_nativeagent_AgentShutdown_beforeHooks(
    JNIEnv* jni, jclass /*cls*/, jobject action) {
  std::string problem = "an error in the agent, see its log";
  native("Java_com_korvane_twutils_nativeagent_AgentShutdown_beforeHooks", [&] {
    problem = shutdownHook::ofProcess().run(jni, action);
    return 1;
  });
  return textFor(jni, problem);
}
