// Threads that attach themselves to the VM and detach again, without end.
#include <jni.h>

#include <atomic>
#include <thread>

namespace {

std::atomic<long> attached{0};

void attachAndDetach(JavaVM* vm) {
  void* environment = nullptr;
  while (vm->AttachCurrentThreadAsDaemon(&environment, nullptr) == JNI_OK) {
    // Attached already: nothing happens.
    vm->AttachCurrentThread(&environment, nullptr);
    vm->DetachCurrentThread();
    ++attached;
  }
}

}  // namespace

extern "C" JNIEXPORT void JNICALL Java_AttachStorm_begin(JNIEnv* jni, jclass /*cls*/,
                                                         jint threads) {
  JavaVM* vm = nullptr;
  jni->GetJavaVM(&vm);
  for (jint i = 0; i < threads; ++i) {
    std::thread(attachAndDetach, vm).detach();
  }
}

extern "C" JNIEXPORT jlong JNICALL Java_AttachStorm_attached(JNIEnv* /*jni*/, jclass /*cls*/) {
  return attached.load();
}
