// Makes only those VM calls that a record of an exception cannot do without: the stack trace, the
// names and tables of its frames, and the values of the variables that are in scope. Keeps nothing
// but a count of records.
//
// Option `frames=N`: how many frames of the stack it reads. All calls run on the thread that
// throws.
#include <algorithm>
#include <array>

#include "exceptionAgent.h"
#include "exceptionCalls.h"

namespace {

jint frameCount = 0;             // Written by Agent_OnLoad, before any event.
thread_local bool runs = false;  // What Java code throws that the handler calls is not recorded.

void readText(JNIEnv* jni, jobject string) {
  constexpr jsize kMost = 256;
  std::array<char, 3 * kMost + 1> bytes;
  const auto text = static_cast<jstring>(string);
  jni->GetStringUTFRegion(text, 0, std::min(kMost, jni->GetStringLength(text)), bytes.data());
}

void readFields(jvmtiEnv* jvmti, JNIEnv* jni, jobject object) {
  bench::readFields(
      jvmti, jni, object, [](jclass, jfieldID id, const char*, const char*, bool) { return id; },
      [&](jobject value) { readText(jni, value); });
}

bool inScope(const jvmtiLocalVariableEntry& variable, jlocation location) {
  return location >= variable.start_location &&
         location < variable.start_location + variable.length;
}

void readFrame(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, const jvmtiFrameInfo& frame,
               jint depth) {
  bench::readHeader(jvmti, jni, frame.method);
  if (depth == 0) {
    bench::readThis(jvmti, jni, thread, frame.method,
                    [&](jobject self) { readFields(jvmti, jni, self); });
  }
  support::localVariables variables(jvmti);
  if (variables.read(frame.method) != JVMTI_ERROR_NONE) {
    return;
  }
  bench::readSlotCounts(jvmti, frame.method);
  for (const jvmtiLocalVariableEntry& variable : variables) {
    if (bench::isThis(variable) || !inScope(variable, frame.location)) {
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

void JNICALL Exception(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jmethodID, jlocation,
                       jobject exception, jmethodID, jlocation) {
  if (runs) {
    return;
  }
  runs = true;
  bench::readStack(jvmti, thread, frameCount, [&](const jvmtiFrameInfo& frame, jint depth) {
    readFrame(jvmti, jni, thread, frame, depth);
  });
  bench::deliver(jni, exception);
  runs = false;
}

}  // namespace

JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void*) {
  frameCount = bench::framesOption(options);
  return frameCount == 0 ? JNI_ERR : bench::listenToExceptions(vm, Exception);
}
