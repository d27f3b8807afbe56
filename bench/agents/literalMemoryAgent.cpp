// Makes every VM call of straightforward tagging and a straightforward heap scan, one after
// another, and keeps nothing of the results: what an implementation without any shortcut pays to
// the VM alone.
//
// Works through the natives of the class LiteralMemory. It has a JVMTI environment of its own, and
// so tags of its own: it may be loaded beside another agent that tags the same objects.
#include <jvmti.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <ctime>
#include <numeric>
#include <vector>

#include "agentSupport.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"

namespace {

using support::jvmtiPtr;
using support::jvmtiText;
using support::localRef;

jvmtiEnv* jvmti = nullptr;  // Written by Agent_OnLoad, before any native.

// Where the processor time of a scan goes, in nanoseconds, and how many objects it has met.
struct scanTimes {
  jlong walk = 0;     // IterateThroughHeap
  jlong queries = 0;  // GetObjectsWithTags
  jlong objects = 0;  // all that is done for each object
  jlong met = 0;
  jlong longestQuery = 0;  // by the clock on the wall
};

jlong nanos(clockid_t clock) {
  constexpr jlong kSecond = 1'000'000'000;
  timespec now{};
  clock_gettime(clock, &now);
  return now.tv_sec * kSecond + now.tv_nsec;
}

jlong processorNanos() {
  return nanos(CLOCK_PROCESS_CPUTIME_ID);
}

jint JNICALL countObject(jlong, jlong, jlong*, jint, void* count) {
  ++*static_cast<jlong*>(count);
  return JVMTI_VISIT_OBJECTS;
}

void readObject(JNIEnv* jni, jobject given) {
  const localRef<> object(jni, given);
  const localRef<jclass> type(jni, jni->GetObjectClass(object.get()));
  jlong size = 0;
  jvmti->GetObjectSize(object.get(), &size);
  jvmtiText signature(jvmti);
  signature.fill([&](char** out) { return jvmti->GetClassSignature(type.get(), out, nullptr); });
  jlong tag = 0;
  jvmti->GetTag(object.get(), &tag);
}

void readGeneration(JNIEnv* jni, jlong tag, scanTimes& times) {
  const jlong before = processorNanos();
  const jlong asked = nanos(CLOCK_MONOTONIC);
  jint count = 0;
  jvmtiPtr<jobject> objects(jvmti);
  const jvmtiError error = objects.fill(
      [&](jobject** out) { return jvmti->GetObjectsWithTags(1, &tag, &count, out, nullptr); });
  times.longestQuery = std::max(times.longestQuery, nanos(CLOCK_MONOTONIC) - asked);
  const jlong answered = processorNanos();
  times.queries += answered - before;
  if (!bench::ok(error, "GetObjectsWithTags")) {
    return;
  }
  for (jint i = 0; i < count; i++) {
    readObject(jni, objects[i]);
  }
  times.objects += processorNanos() - answered;
  times.met += count;
}

}  // namespace

extern "C" {

// Gives the object a tag; 0 takes it away.
JNIEXPORT void JNICALL Java_LiteralMemory_setTag(JNIEnv*, jclass, jobject object, jlong tag) {
  jvmti->SetTag(object, tag);
}

// The same after asking for the old one.
JNIEXPORT void JNICALL Java_LiteralMemory_replaceTag(JNIEnv*, jclass, jobject object, jlong tag) {
  jlong old = 0;
  jvmti->GetTag(object, &old);
  jvmti->SetTag(object, tag);
}

// Scans the generations 1 to `generations`; gives the members of scanTimes in their order.
JNIEXPORT jlongArray JNICALL Java_LiteralMemory_scan(JNIEnv* jni, jclass, jint generations) {
  scanTimes times;
  jlong tagged = 0;
  jvmtiHeapCallbacks callbacks{};
  callbacks.heap_iteration_callback = countObject;
  const jlong start = processorNanos();
  bench::ok(jvmti->IterateThroughHeap(JVMTI_HEAP_FILTER_UNTAGGED, nullptr, &callbacks, &tagged),
            "IterateThroughHeap");
  times.walk = processorNanos() - start;
  for (jlong tag = 1; tag <= generations; tag++) {
    readGeneration(jni, tag, times);
  }
  const std::array<jlong, 5> members = {times.walk, times.queries, times.objects, times.met,
                                        times.longestQuery};
  jlongArray result = jni->NewLongArray(static_cast<jsize>(members.size()));
  if (result != nullptr) {
    jni->SetLongArrayRegion(result, 0, static_cast<jsize>(members.size()), members.data());
  }
  return result;
}

// Asks once for all objects of the generations 1 to `generations` and their tags, and drops them;
// gives the processor time of that call, which a scan in one query cannot do without.
JNIEXPORT jlong JNICALL Java_LiteralMemory_query(JNIEnv*, jclass, jint generations) {
  std::vector<jlong> tags(static_cast<std::size_t>(generations));
  std::iota(tags.begin(), tags.end(), jlong{1});
  jint count = 0;
  jlong* tagsWritten = nullptr;
  jvmtiPtr<jobject> objects(jvmti);
  const jlong before = processorNanos();
  const jvmtiError error = objects.fill([&](jobject** out) {
    return jvmti->GetObjectsWithTags(generations, tags.data(), &count, out, &tagsWritten);
  });
  const jlong time = processorNanos() - before;
  jvmtiPtr<jlong> tagsFound(jvmti);
  tagsFound.adopt(error == JVMTI_ERROR_NONE ? tagsWritten : nullptr);
  return bench::ok(error, "GetObjectsWithTags") ? time : -1;
}

JNIEXPORT jlong JNICALL Java_LiteralMemory_processorNanos(JNIEnv*, jclass) {
  return processorNanos();
}

JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char*, void*) {
  jvmti = bench::toolEnvironment(vm);
  if (jvmti == nullptr) {
    return JNI_ERR;
  }
  jvmtiCapabilities capabilities{};
  capabilities.can_tag_objects = 1;
  return bench::enable(jvmti, capabilities, {}, {});
}

}  // extern "C"
