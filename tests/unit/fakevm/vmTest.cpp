#include "vmTest.h"

namespace fake {

attachedThread::attachedThread(virtualMachine& vm, javaThread* as,
                               std::function<void(JNIEnv*)> body)
    : java_(as), thread_([&vm, as, body = std::move(body)] {
        JNIEnv* env = vm.attach(as);
        body(env);
        vm.detach();
      }) {}

}  // namespace fake
