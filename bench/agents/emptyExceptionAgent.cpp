// Receives the exceptions that are thrown and does nothing with them: what remains is the VM's own
// price for the capabilities and for posting the event.
#include "exceptionAgent.h"

namespace {

void JNICALL Exception(jvmtiEnv*, JNIEnv*, jthread, jmethodID, jlocation, jobject, jmethodID,
                       jlocation) {}

}  // namespace

JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char*, void*) {
  return bench::listenToExceptions(vm, Exception);
}
