// Tagging objects, and the scan that counts those that are tagged.
#include <string>
#include <vector>

#include "handlerBench.h"
#include "memory/memoryprofiler.h"

namespace {

constexpr int kClasses = 8;
constexpr int kGenerations = 5;  // that a scan counts
constexpr int kCounted = 1000;   // objects, in all
constexpr int kOthers = 16;      // objects of the current generation

// A memory session with tagged objects in it. Each generation has objects of each class.
struct taggedHeap {
  taggedHeap() {
    fake::virtualMachine& vm = agent.vm;
    const auto text = [&](std::string_view it) { return vm.ref(vm.makeString(it)); };
    TW_NATIVE(startMemoryLeaksProfileSession)
    (vm.env(), nullptr, JNI_TRUE, 60, 1, text("bench"), -1, text(""), text(""), text(""), text(""));
    std::vector<fake::javaClass*> classes;
    for (int i = 0; i < kClasses; ++i) {
      classes.push_back(vm.makeClass("com.example.shop.Item" + std::to_string(i)));
    }
    for (int made = 0; made < kCounted; ++made) {
      if (made % (kCounted / kGenerations) == 0) {
        vm.garbageCollectionFinish();
      }
      const auto type = static_cast<std::size_t>(made % kClasses);
      fake::object* const object = vm.makeObject(classes[type]);
      object->size = 16 * (1 + static_cast<jlong>(type));
      TW_NATIVE(setObjectTag)(vm.env(), nullptr, vm.ref(object));
    }
    vm.garbageCollectionFinish();
    for (int i = 0; i < kOthers; ++i) {
      jobject const other = vm.ref(vm.makeObject(classes.front()));
      TW_NATIVE(setObjectTag)(vm.env(), nullptr, other);
      others.push_back({nullptr, other});
    }
  }

  loadedAgent& agent = loaded();
  std::vector<contender> others;  // on no thread
};

taggedHeap& heap() {
  static taggedHeap& made = *new taggedHeap;
  return made;
}

void setObjectTag(benchmark::State& state) {
  runEvents(state, heap().others, [](jvmtiEnv*, JNIEnv* jni, jthread, jobject object) {
    TW_NATIVE(setObjectTag)(jni, nullptr, object);
  });
}
void setObjectTagCalls(benchmark::State& state) {
  runEvents(state, heap().others, [](jvmtiEnv* jvmti, JNIEnv*, jthread, jobject object) {
    jlong tag = 0;
    jvmti->GetTag(object, &tag);
    jvmti->SetTag(object, tag);
  });
}

// Times `scan()`, after a first one; an event is one of the objects that it counts.
template <typename Scan>
void runScans(benchmark::State& state, Scan&& scan) {
  scan();
  countAllocations(state, [&] {
    CALLGRIND_START_INSTRUMENTATION;
    while (state.KeepRunningBatch(kCounted)) {
      scan();
    }
    CALLGRIND_STOP_INSTRUMENTATION;
    CALLGRIND_DUMP_STATS;
  });
}

void scanHeap(benchmark::State& state) {
  fake::virtualMachine& vm = heap().agent.vm;
  jstring const path = vm.ref(vm.makeString(heap().agent.reportPath()));
  runScans(state, [&] { agent::getMemoryProfiler()->scanJavaHeap(vm.env(), path); });
}

// What cannot be left out of a scan with a walk, save what it asks of each class.
void scanHeapCalls(benchmark::State& state) {
  jvmtiEnv* const jvmti = heap().agent.vm.jvmti();
  JNIEnv* const jni = heap().agent.vm.env();
  jvmtiHeapCallbacks callbacks{};
  callbacks.heap_iteration_callback = [](jlong, jlong, jlong*, jint, void*) -> jint { return 0; };
  runScans(state, [&] {
    jvmti->IterateThroughHeap(JVMTI_HEAP_FILTER_UNTAGGED, nullptr, &callbacks, nullptr);
    for (jlong generation = 1; generation <= kGenerations; ++generation) {
      jint found = 0;
      jobject* objects = nullptr;
      jlong* tags = nullptr;
      jvmti->GetObjectsWithTags(1, &generation, &found, &objects, &tags);
      jni->PushLocalFrame(found + 1);
      for (jint i = 0; i < found; ++i) {
        jlong size = 0;
        jclass const cls = jni->GetObjectClass(objects[i]);
        jvmti->GetObjectSize(objects[i], &size);
        benchmark::DoNotOptimize(jni->IsSameObject(cls, cls));
        jni->DeleteLocalRef(cls);
        jni->DeleteLocalRef(objects[i]);
      }
      jni->PopLocalFrame(nullptr);
      jvmti->Deallocate(reinterpret_cast<unsigned char*>(objects));
      jvmti->Deallocate(reinterpret_cast<unsigned char*>(tags));
    }
  });
}

}  // namespace

EVENT_BENCHMARK(setObjectTag);
EVENT_BENCHMARK(setObjectTagCalls);
BENCHMARK(scanHeap)->Apply(setEvents<2 * kCounted>);
BENCHMARK(scanHeapCalls)->Apply(setEvents<2 * kCounted>);
