// Monitor events.
#include <utility>
#include <vector>

#include "handlerBench.h"
#include "locks/mutexlockprofiler.h"
#include "vmCalls.h"

namespace {

using agent::mutexLockProfiler;

constexpr int kLocks = 16;

// A thread that contends for locks.
struct contention {
  contention() {
    fake::javaThread* const owner = agent.vm.makeThread("inventory-loader");
    const jthread worker = agent.vm.ref(agent.makeThread("http-worker-12", 0));
    for (int i = 0; i < kLocks; ++i) {
      contenders.push_back({worker, agent.makeLock(owner)});
    }
  }
  // In a detail session no lock is selected, or all are.
  void start(bool detail, jint topLocks) {
    agent.startSummary(topLocks);
    each(mutexLockProfiler::MonitorContendedEnter);
    if (detail) {
      agent.startDetail();
    }
  }
  template <typename Event>
  void each(Event&& event) {
    for (const contender& one : contenders) {
      event(agent.vm.jvmti(), agent.vm.env(), one.thread, one.object);
    }
  }

  loadedAgent& agent = loaded();
  std::vector<contender> contenders;
};

contention& locks() {
  static contention& made = *new contention;
  return made;
}

template <typename Event>
void run(benchmark::State& state, Event&& event) {
  runEvents(state, locks().contenders, std::forward<Event>(event));
}

void summaryEnter(benchmark::State& state) {
  locks().start(false, 0);
  run(state, mutexLockProfiler::MonitorContendedEnter);
}
void summaryEnterCalls(benchmark::State& state) {
  run(state, enterCalls);
}

void summaryEntered(benchmark::State& state) {
  locks().start(false, 0);
  run(state, mutexLockProfiler::MonitorContendedEntered);
}
void summaryEnteredCalls(benchmark::State& state) {
  run(state, enteredCalls);
}

void summaryWait(benchmark::State& state) {
  locks().start(false, 0);
  run(state, [](jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
    mutexLockProfiler::MonitorWait(jvmti, jni, thread, lock, 0);
  });
}

void detailEnter(benchmark::State& state) {
  locks().start(true, 0);
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
  locks().start(true, kLocks);
  run(state, mutexLockProfiler::MonitorContendedEnter);
}
void detailEnterSelectedCalls(benchmark::State& state) {
  run(state, selectedEnterCalls);
}

// Of locks that the session has no record of.
void detailEnterUnknown(benchmark::State& state) {
  locks().agent.startSummary(kLocks);
  locks().agent.startDetail();
  run(state, mutexLockProfiler::MonitorContendedEnter);
}
void detailEnterUnknownCalls(benchmark::State& state) {
  run(state, [](jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
    enterCalls(jvmti, jni, thread, lock);
    stackCalls(jvmti, thread);
  });
}

void detailEntered(benchmark::State& state) {
  locks().start(true, kLocks);
  run(state, mutexLockProfiler::MonitorContendedEntered);
}
void detailEnteredCalls(benchmark::State& state) {
  run(state, selectedEnteredCalls);
}

void detailWaited(benchmark::State& state) {
  locks().start(true, 0);
  const auto waited = [](jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
    mutexLockProfiler::MonitorWaited(jvmti, jni, thread, lock, JNI_FALSE);
  };
  locks().each(waited);  // now the thread is known at each lock
  run(state, waited);
}
void detailWaitedCalls(benchmark::State& state) {
  run(state, selectedEnteredCalls);  // makes the same ones
}

}  // namespace

EVENT_BENCHMARK(summaryEnter);
EVENT_BENCHMARK(summaryEnterCalls);
EVENT_BENCHMARK(summaryEntered);
EVENT_BENCHMARK(summaryEnteredCalls);
EVENT_BENCHMARK(summaryWait);
EVENT_BENCHMARK(detailEnter);
EVENT_BENCHMARK(detailEnterCalls);
EVENT_BENCHMARK(detailEnterSelected);
EVENT_BENCHMARK(detailEnterSelectedCalls);
EVENT_BENCHMARK(detailEnterUnknown);
EVENT_BENCHMARK(detailEnterUnknownCalls);
EVENT_BENCHMARK(detailEntered);
EVENT_BENCHMARK(detailEnteredCalls);
EVENT_BENCHMARK(detailWaited);
EVENT_BENCHMARK(detailWaitedCalls);
