// What the monitor handlers cost on the fake VM, an event at a time: nanoseconds and heap
// allocations, and instructions when it runs under callgrind (see guard.py). Each "...Calls"
// benchmark makes the VM calls alone that the handler of the same name cannot do without; the
// difference between the two is what the agent adds.
#include <benchmark/benchmark.h>
#include <com_korvane_twutils_nativeagent_TWNativeAgentProfiling.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include "allocations.h"
#include "fakevm/fakeVm.h"
#include "mutexlockprofiler.h"
#include "profilerRegistry.h"

#define TW_NATIVE(method) Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_##method

namespace {

using agent::mutexLockProfiler;

constexpr jint kNoLimit = 1000000;
constexpr int kLocks = 16;
constexpr int kFrames = 20;

// One VM with the agent loaded, for all benchmarks.
class loadedAgent {
 public:
  loadedAgent() : folder_(makeFolder()) {
    std::string options = "features=mutexprofiling,logLevel=1,twHome=" + folder_;
    Agent_OnLoad(vm.javaVm(), options.data(), nullptr);
    fake::javaClass* const type = vm.makeClass("com.example.shop.Inventory");
    fake::javaThread* const owner = vm.makeThread("inventory-loader");
    for (int i = 0; i < kLocks; ++i) {
      fake::object* const lock = vm.makeObject(type);
      vm.setOwner(lock, owner);
      locks.push_back(vm.ref(lock));
    }
    fake::javaThread* const thread = vm.makeThread("http-worker-12");
    std::vector<fake::frame> frames;
    for (int i = 0; i < kFrames; ++i) {
      frames.push_back({vm.makeMethod("com.example.shop.Layer" + std::to_string(i), "reserve")});
    }
    thread->setFrames(frames);
    worker = vm.ref(thread);
    vm.setTime(1000000000);
    vm.setTimeStep(10);
    vm.setRecording(false);
  }

  // Starts a session anew; in a detail session no lock is selected, or all are.
  void start(bool detail, jint topLocks) {
    TW_NATIVE(startMutexLockProfilingSession)
    (vm.env(), nullptr, 1, vm.ref(vm.makeString("bench")), 60, topLocks, kNoLimit, kNoLimit,
     kNoLimit, 0, 0, vm.ref(vm.makeString(folder_ + "/stacks.txt")));
    TW_NATIVE(startMutexLockSummarySession)(vm.env(), nullptr, 1);
    for (jobject lock : locks) {
      mutexLockProfiler::MonitorContendedEnter(vm.jvmti(), vm.env(), worker, lock);
    }
    if (detail) TW_NATIVE(startMutexLockDetailSession)(vm.env(), nullptr, 1);
  }

  fake::virtualMachine vm;
  std::vector<jobject> locks;
  jthread worker = nullptr;

 private:
  static std::string makeFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "handlerBenchXXXXXX").string();
    std::filesystem::create_directories(std::string(::mkdtemp(name.data())) + "/logs");
    std::filesystem::current_path(name);
    return name;
  }

  std::string folder_;
};

loadedAgent& loaded() {
  static loadedAgent& agent = *new loadedAgent;
  return agent;
}

// Runs `event(jvmti, jni, thread, lock)` over the locks in turn.
template <typename Event>
void runEvents(benchmark::State& state, Event&& event) {
  loadedAgent& agent = loaded();
  jvmtiEnv* const jvmti = agent.vm.jvmti();
  JNIEnv* const jni = agent.vm.env();
  std::size_t next = 0;
  const std::uint64_t before = allocationsSoFar();
  CALLGRIND_START_INSTRUMENTATION;
  for (auto _ : state) {
    event(jvmti, jni, agent.worker, agent.locks[next]);
    next = (next + 1) % agent.locks.size();
  }
  CALLGRIND_STOP_INSTRUMENTATION;
  CALLGRIND_DUMP_STATS;
  state.counters["allocs/event"] = benchmark::Counter(
      static_cast<double>(allocationsSoFar() - before), benchmark::Counter::kAvgIterations);
}

void identityCalls(jvmtiEnv* jvmti, JNIEnv* jni, jobject lock) {
  jint hash = 0;
  jclass const cls = jni->GetObjectClass(lock);
  jvmti->GetObjectHashCode(lock, &hash);
  benchmark::DoNotOptimize(jni->IsSameObject(cls, cls));
  jni->DeleteLocalRef(cls);
}

void enterCalls(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
  jlong time = 0;
  jvmti->GetTime(&time);
  jvmti->SetThreadLocalStorage(thread, reinterpret_cast<void*>(time));
  identityCalls(jvmti, jni, lock);
}

void enteredCalls(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
  jlong time = 0;
  void* start = nullptr;
  jvmti->GetTime(&time);
  jvmti->GetThreadLocalStorage(thread, &start);
  identityCalls(jvmti, jni, lock);
}

void threadNameCalls(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread) {
  jvmtiThreadInfo info{};
  jvmti->GetThreadInfo(thread, &info);
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(info.name));
  if (info.thread_group != nullptr) jni->DeleteLocalRef(info.thread_group);
  if (info.context_class_loader != nullptr) jni->DeleteLocalRef(info.context_class_loader);
}

void stackCalls(jvmtiEnv* jvmti, jthread thread) {
  std::array<jvmtiFrameInfo, 100> frames;
  jint count = 0;
  jvmti->GetStackTrace(thread, 0, 100, frames.data(), &count);
  benchmark::DoNotOptimize(frames);
}

void usageCalls(jvmtiEnv* jvmti, JNIEnv* jni, jobject lock) {
  jvmtiMonitorUsage usage{};
  jni->PushLocalFrame(16);
  jvmti->GetObjectMonitorUsage(lock, &usage);
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(usage.waiters));
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(usage.notify_waiters));
  jni->PopLocalFrame(nullptr);
}

void summaryEnter(benchmark::State& state) {
  loaded().start(false, 0);
  runEvents(state, mutexLockProfiler::MonitorContendedEnter);
}
void summaryEnterCalls(benchmark::State& state) {
  runEvents(state, enterCalls);
}

void summaryEntered(benchmark::State& state) {
  loaded().start(false, 0);
  runEvents(state, mutexLockProfiler::MonitorContendedEntered);
}
void summaryEnteredCalls(benchmark::State& state) {
  runEvents(state, enteredCalls);
}

void summaryWait(benchmark::State& state) {
  loaded().start(false, 0);
  runEvents(state, [](jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
    mutexLockProfiler::MonitorWait(jvmti, jni, thread, lock, 0);
  });
}

void detailEnter(benchmark::State& state) {
  loaded().start(true, 0);
  runEvents(state, mutexLockProfiler::MonitorContendedEnter);
}
void detailEnterCalls(benchmark::State& state) {
  runEvents(state, [](jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
    enterCalls(jvmti, jni, thread, lock);
    threadNameCalls(jvmti, jni, thread);
    stackCalls(jvmti, thread);
  });
}

void detailEnterSelected(benchmark::State& state) {
  loaded().start(true, kLocks);
  runEvents(state, mutexLockProfiler::MonitorContendedEnter);
}
void detailEnterSelectedCalls(benchmark::State& state) {
  runEvents(state, [](jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
    enterCalls(jvmti, jni, thread, lock);
    threadNameCalls(jvmti, jni, thread);
    usageCalls(jvmti, jni, lock);
    threadNameCalls(jvmti, jni, thread);  // of the owner
    stackCalls(jvmti, thread);
  });
}

void detailEntered(benchmark::State& state) {
  loaded().start(true, kLocks);
  runEvents(state, mutexLockProfiler::MonitorContendedEntered);
}
void detailEnteredCalls(benchmark::State& state) {
  runEvents(state, [](jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
    enteredCalls(jvmti, jni, thread, lock);
    threadNameCalls(jvmti, jni, thread);
  });
}

// Instructions are the same in each run, so that under callgrind a fixed number of events will do.
void setEvents(benchmark::internal::Benchmark* registered) {
  constexpr int kCountedEvents = 1600;
  if (RUNNING_ON_VALGRIND != 0) registered->Iterations(kCountedEvents);
}

}  // namespace

#define EVENT_BENCHMARK(name) BENCHMARK(name)->Apply(setEvents)

EVENT_BENCHMARK(summaryEnter);
EVENT_BENCHMARK(summaryEnterCalls);
EVENT_BENCHMARK(summaryEntered);
EVENT_BENCHMARK(summaryEnteredCalls);
EVENT_BENCHMARK(summaryWait);
EVENT_BENCHMARK(detailEnter);
EVENT_BENCHMARK(detailEnterCalls);
EVENT_BENCHMARK(detailEnterSelected);
EVENT_BENCHMARK(detailEnterSelectedCalls);
EVENT_BENCHMARK(detailEntered);
EVENT_BENCHMARK(detailEnteredCalls);

BENCHMARK_MAIN();
