// Makes every VM call of a straightforward recorder of exceptions, one after another, and keeps
// nothing of the results but a count of records: what an implementation without any shortcut pays
// to the VM alone.
//
// Option `frames=N`: how many frames of the stack it reads. All calls run on the thread that
// throws.
#include "exceptionAgent.h"
#include "exceptionCalls.h"

namespace {

jint frameCount = 0;             // Written by Agent_OnLoad, before any event.
thread_local bool runs = false;  // What Java code throws that the handler calls is not recorded.

void readThreadName(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread) {
  support::threadName name(jvmti, jni);
  name.read(thread);
}

void readThrower(jvmtiEnv* jvmti, JNIEnv* jni, jmethodID method) {
  jclass written = nullptr;
  if (jvmti->GetMethodDeclaringClass(method, &written) != JVMTI_ERROR_NONE) {
    return;
  }
  const support::localRef<jclass> thrower(jni, written);
  bench::readClassName(jvmti, thrower.get());
}

// A text is asked for by toString, whatever its class.
void readText(JNIEnv* jni, jobject object) {
  const support::localRef<jclass> cls(jni, jni->GetObjectClass(object));
  const jmethodID toString = jni->GetMethodID(cls.get(), "toString", "()Ljava/lang/String;");
  const support::localRef<jstring> text(
      jni, static_cast<jstring>(jni->CallObjectMethod(object, toString)));
  support::tryTextOf(jni, text.get());
}

void readFields(jvmtiEnv* jvmti, JNIEnv* jni, jobject object) {
  bench::readFields(
      jvmti, jni, object,
      [&](jclass cls, jfieldID, const char* name, const char* signature, bool isStatic) {
        return isStatic ? jni->GetStaticFieldID(cls, name, signature)
                        : jni->GetFieldID(cls, name, signature);
      },
      [&](jobject value) { readText(jni, value); });
}

void readFrame(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jmethodID method, jint depth) {
  bench::readHeader(jvmti, jni, method);
  bench::readSlotCounts(jvmti, method);
  if (depth == 0) {
    bench::readThis(jvmti, jni, thread, method,
                    [&](jobject self) { readFields(jvmti, jni, self); });
  }
  support::localVariables variables(jvmti);
  variables.read(method);
  for (const jvmtiLocalVariableEntry& variable : variables) {
    if (bench::isThis(variable)) {
      continue;
    }
    bench::readLocal(jvmti, jni, thread, depth, variable, [&](jobject value, bool isText) {
      if (isText) {
        readText(jni, value);
      } else {
        readFields(jvmti, jni, value);
      }
    });
  }
}

void JNICALL Exception(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jmethodID method, jlocation,
                       jobject exception, jmethodID, jlocation) {
  if (runs) {
    return;
  }
  runs = true;
  readThreadName(jvmti, jni, thread);
  const support::localRef<jclass> cls(jni, jni->GetObjectClass(exception));
  bench::readClassName(jvmti, cls.get());
  readThrower(jvmti, jni, method);
  bench::readStack(jvmti, thread, frameCount, [&](const jvmtiFrameInfo& frame, jint depth) {
    readFrame(jvmti, jni, thread, frame.method, depth);
  });
  bench::deliver(jni, exception);
  runs = false;
}

}  // namespace

JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void*) {
  frameCount = bench::framesOption(options);
  return frameCount == 0 ? JNI_ERR : bench::listenToExceptions(vm, Exception);
}
