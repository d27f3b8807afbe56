// The functions of JavaVM.
#include "machine.h"
#include "unmodelled.h"

namespace fake {

namespace {

template <typename Body>
jint perform(JavaVM* javaVm, functionId id, jint number, jint failed, Body body) {
  const agentCode scope(false);
  machine& vm = machine::of(javaVm);
  threadEnv* env = vm.currentOrNull();
  vm.count(env, id);
  if (vm.watched(id) && !vm.consult(env, id, {.number = number}).carriedOut) {
    return failed;
  }
  return body(vm, env);
}

bool isJvmtiVersion(jint version) {
  return (version & JVMTI_VERSION_MASK_INTERFACE_TYPE) == JVMTI_VERSION_INTERFACE_JVMTI;
}

jint JNICALL getEnv(JavaVM* javaVm, void** result, jint version) {
  return perform(javaVm, FAKE_INVOCATION(GetEnv), version, JNI_EVERSION,
                 [&](machine& vm, threadEnv* env) -> jint {
                   if (isJvmtiVersion(version)) {
                     const bool isMain = version == virtualMachine::kMainInterfaceVersion;
                     if (isMain) {
                       vm.jvmti.disposed = false;  // a new one, which takes the place of that
                     }
                     *result = static_cast<jvmtiEnv*>(isMain ? &vm.jvmti : &vm.addEnvironment());
                     return JNI_OK;
                   }
                   if (version < JNI_VERSION_1_1 || version > JNI_VERSION_10) {
                     return JNI_EVERSION;
                   }
                   *result = static_cast<JNIEnv*>(env);
                   return env == nullptr ? JNI_EDETACHED : JNI_OK;
                 });
}

template <functionId id>
jint JNICALL attachCurrentThread(JavaVM* javaVm, void** result, void* arguments) {
  return perform(javaVm, id, 0, JNI_ERR, [&](machine& vm, threadEnv* env) -> jint {
    if (env == nullptr) {
      const auto* given = static_cast<const JavaVMAttachArgs*>(arguments);
      const bool named = given != nullptr && given->name != nullptr;
      env = &vm.attach(vm.makeThread(named ? given->name : "attached by the agent"));
    }
    *result = static_cast<JNIEnv*>(env);
    return JNI_OK;
  });
}

jint JNICALL detachCurrentThread(JavaVM* javaVm) {
  return perform(javaVm, FAKE_INVOCATION(DetachCurrentThread), 0, JNI_ERR,
                 [](machine& vm, threadEnv*) -> jint {
                   vm.detach();
                   return JNI_OK;
                 });
}

}  // namespace

const JNIInvokeInterface_& invocationTable() {
  static const JNIInvokeInterface_ table = [] {
    auto made = tableOfUnmodelled<kFirstInvocationId, JNIInvokeInterface_>();
    made.GetEnv = getEnv;
    made.AttachCurrentThread = attachCurrentThread<FAKE_INVOCATION(AttachCurrentThread)>;
    made.AttachCurrentThreadAsDaemon =
        attachCurrentThread<FAKE_INVOCATION(AttachCurrentThreadAsDaemon)>;
    made.DetachCurrentThread = detachCurrentThread;
    return made;
  }();
  return table;
}

}  // namespace fake
