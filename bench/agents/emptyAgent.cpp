// Receives the events of the lock profiler and does nothing with them: what remains is the VM's own
// price for the capabilities and for posting the events.
#include "monitorAgent.h"

namespace {

void JNICALL MonitorContendedEnter(jvmtiEnv*, JNIEnv*, jthread, jobject) {}
void JNICALL MonitorContendedEntered(jvmtiEnv*, JNIEnv*, jthread, jobject) {}
void JNICALL MonitorWait(jvmtiEnv*, JNIEnv*, jthread, jobject, jlong) {}
void JNICALL MonitorWaited(jvmtiEnv*, JNIEnv*, jthread, jobject, jboolean) {}

}  // namespace

JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char*, void*) {
  jvmtiEventCallbacks handlers{};
  handlers.MonitorContendedEnter = MonitorContendedEnter;
  handlers.MonitorContendedEntered = MonitorContendedEntered;
  handlers.MonitorWait = MonitorWait;
  handlers.MonitorWaited = MonitorWaited;
  return bench::listenToMonitors(vm, handlers);
}
