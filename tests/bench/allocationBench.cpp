// Events of the allocation profile.
#include <array>

#include "allocations/allocationRecorder.h"
#include "handlerBench.h"

namespace {

constexpr std::int64_t kInterval = 512 * 1024;
constexpr jlong kSize = 64;

// A thread that allocates, and what records it.
struct sampled {
  sampled() {
    const jthread worker = agent.vm.ref(agent.makeThread("http-worker-12", 0));
    fake::javaClass* const cls = agent.vm.makeClass("com.example.shop.Session");
    type = agent.vm.ref(cls);
    for (int i = 0; i < kObjects; ++i) {
      allocators.push_back({worker, agent.vm.ref(agent.vm.makeObject(cls))});
    }
    recorder.begin(nullptr, kInterval);
    take(agent.vm.jvmti(), agent.vm.env(), worker, allocators.front().object);
  }

  // Takes the sample out of the queue, too, so that there is always room.
  void take(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object) {
    recorder.take(jvmti, jni, thread, object, type, kSize);
    recorder.queue().take([&](const ::agent::sampleQueue::entry& each) {
      jni->DeleteWeakGlobalRef(each.sample.object);
    });
  }

  static constexpr int kObjects = 16;
  loadedAgent& agent = loaded();
  jclass type = nullptr;
  std::vector<contender> allocators;
  ::agent::allocationRecorder recorder{[] {}};
};

sampled& profile() {
  static sampled& made = *new sampled;
  return made;
}

void sampledAllocation(benchmark::State& state) {
  sampled& made = profile();
  runEvents(state, made.allocators,
            [&](jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object) {
              made.take(jvmti, jni, thread, object);
            });
}

void sampledAllocationCalls(benchmark::State& state) {
  sampled& made = profile();
  constexpr jint kDepth = ::agent::sampleQueue::kMostDepth + 1;
  const auto calls = [&](jvmtiEnv* jvmti, JNIEnv* jni, jthread /*thread*/, jobject object) {
    char* signature = nullptr;
    std::array<jvmtiFrameInfo, kDepth> frames;
    jint depth = 0;
    benchmark::DoNotOptimize(jni->ExceptionOccurred());
    jvmti->GetClassSignature(made.type, &signature, nullptr);
    jvmti->Deallocate(reinterpret_cast<unsigned char*>(signature));
    jweak const held = jni->NewWeakGlobalRef(object);
    jvmti->GetStackTrace(nullptr, 0, kDepth, frames.data(), &depth);
    jni->DeleteWeakGlobalRef(held);
  };
  runEvents(state, made.allocators, calls);
}

}  // namespace

EVENT_BENCHMARK(sampledAllocation);
EVENT_BENCHMARK(sampledAllocationCalls);
