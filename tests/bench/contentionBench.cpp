// Events of the contention profile.
#include <vector>

#include "contention/blockRecorder.h"
#include "handlerBench.h"

namespace {

constexpr int kLocks = 16;
constexpr int kMostLocks = 4096;

// A thread that contends for locks, and what records it. The recorder is as large as a process has
// one, so it lasts as long.
struct recorded {
  recorded() {
    const jthread worker = agent.vm.ref(agent.makeThread("http-worker-12", 0));
    for (int i = 0; i < kLocks; ++i) {
      contenders.push_back({worker, agent.makeLock(nullptr)});
    }
    recorder.begin(agent.vm.env(), kMostLocks, ::agent::parkClasses{});
    for (const contender& each : contenders) {
      block(agent.vm.jvmti(), agent.vm.env(), each.thread, each.object);
    }
    // As in a session whose threads block often: few leave a reference.
    for (std::uint32_t i = 0; i < recorder.locks().end(); ++i) {
      recorder.locks().at(i).thinning.store(~std::uint32_t{0});
    }
  }

  void block(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
    recorder.blockBegins(jvmti, jni, thread, thread, ::agent::channel::enter, lock);
    recorder.blockEnds(jvmti, jni, thread, ::agent::channel::enter);
  }

  loadedAgent& agent = loaded();
  std::vector<contender> contenders;
  ::agent::blockRecorder recorder;
};

recorded& profile() {
  static recorded& made = *new recorded;
  return made;
}

// A contended enter and its end.
void contentionBlock(benchmark::State& state) {
  recorded& made = profile();
  runEvents(state, made.contenders,
            [&](jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
              made.block(jvmti, jni, thread, lock);
            });
}

void contentionBlockCalls(benchmark::State& state) {
  recorded& made = profile();
  const auto calls = [](jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
    void* word = nullptr;
    jint hash = 0;
    jvmti->GetThreadLocalStorage(thread, &word);
    jvmti->GetObjectHashCode(lock, &hash);
    benchmark::DoNotOptimize(jni->IsSameObject(lock, lock));
    jvmti->SetThreadLocalStorage(thread, word);
    jvmti->GetThreadLocalStorage(thread, &word);
  };
  runEvents(state, made.contenders, calls);
}

}  // namespace

EVENT_BENCHMARK(contentionBlock);
EVENT_BENCHMARK(contentionBlockCalls);
