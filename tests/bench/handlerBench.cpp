// What the monitor handlers cost on the fake VM, an event at a time: nanoseconds and heap
// allocations, and instructions when it runs under callgrind (see guard.py). Each "...Calls"
// benchmark makes the VM calls alone that the handler of the same name cannot do without; the
// difference between the two is what the agent adds.
#include <benchmark/benchmark.h>
#include <valgrind/valgrind.h>

#include <utility>
#include <vector>

#include "allocations.h"
#include "loadedAgent.h"
#include "mutexlockprofiler.h"
#include "vmCalls.h"

namespace {

using agent::mutexLockProfiler;

constexpr int kLocks = 16;

// One VM with the agent loaded, for all benchmarks: a thread that contends for locks.
struct contention : loadedAgent {
  contention() {
    fake::javaThread* const owner = vm.makeThread("inventory-loader");
    const jthread worker = vm.ref(makeThread("http-worker-12", 0));
    for (int i = 0; i < kLocks; ++i) contenders.push_back({worker, makeLock(owner)});
  }
  // In a detail session no lock is selected, or all are.
  void start(bool detail, jint topLocks) {
    startSummary(topLocks);
    for (const contender& each : contenders) {
      mutexLockProfiler::MonitorContendedEnter(vm.jvmti(), vm.env(), each.thread, each.lock);
    }
    if (detail) startDetail();
  }

  std::vector<contender> contenders;
};

contention& loaded() {
  static contention& agent = *new contention;
  return agent;
}

template <typename Event>
void run(benchmark::State& state, Event&& event) {
  const std::uint64_t before = allocationsSoFar();
  runEvents(state, loaded(), loaded().contenders, std::forward<Event>(event));
  state.counters["allocs/event"] = benchmark::Counter(
      static_cast<double>(allocationsSoFar() - before), benchmark::Counter::kAvgIterations);
}

void summaryEnter(benchmark::State& state) {
  loaded().start(false, 0);
  run(state, mutexLockProfiler::MonitorContendedEnter);
}
void summaryEnterCalls(benchmark::State& state) {
  run(state, enterCalls);
}

void summaryEntered(benchmark::State& state) {
  loaded().start(false, 0);
  run(state, mutexLockProfiler::MonitorContendedEntered);
}
void summaryEnteredCalls(benchmark::State& state) {
  run(state, enteredCalls);
}

void summaryWait(benchmark::State& state) {
  loaded().start(false, 0);
  run(state, [](jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
    mutexLockProfiler::MonitorWait(jvmti, jni, thread, lock, 0);
  });
}

void detailEnter(benchmark::State& state) {
  loaded().start(true, 0);
  run(state, mutexLockProfiler::MonitorContendedEnter);
}
void detailEnterCalls(benchmark::State& state) {
  run(state, [](jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
    enterCalls(jvmti, jni, thread, lock);
    threadNameCalls(jvmti, jni, thread);
    stackCalls(jvmti, thread);
  });
}

void detailEnterSelected(benchmark::State& state) {
  loaded().start(true, kLocks);
  run(state, mutexLockProfiler::MonitorContendedEnter);
}
void detailEnterSelectedCalls(benchmark::State& state) {
  run(state, selectedEnterCalls);
}

void detailEntered(benchmark::State& state) {
  loaded().start(true, kLocks);
  run(state, mutexLockProfiler::MonitorContendedEntered);
}
void detailEnteredCalls(benchmark::State& state) {
  run(state, selectedEnteredCalls);
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
