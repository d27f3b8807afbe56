// How the cost of lock events and of the lock report grows, on the fake VM: with the number of
// locks, of threads on a lock, of distinct stacks, and of (lock, thread) pairs in the report.
//
// Events come in no order that a cache could foresee. "...Calls" benchmarks make the VM calls
// alone, which here grow a little as well: the fake VM has to reach its objects. Under callgrind
// fewer and smaller cases run, as their instructions do not depend on the machine's speed
// (growth.py).
#include <benchmark/benchmark.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "heapUse.h"
#include "loadedAgent.h"
#include "locks/mutexlockprofiler.h"
#include "vmCalls.h"

namespace {

using agent::mutexLockProfiler;

constexpr jint kSelectAll = 1000000;
constexpr std::size_t kOwners = 10000;  // at most; the locks have them in turn

// One VM with the agent loaded, for all benchmarks; it makes what it is asked for and keeps it.
class largeProgram : public loadedAgent {
 public:
  jobject lock(std::size_t number) {
    while (locks_.size() <= number) {
      locks_.push_back(makeLock(owner(locks_.size() % kOwners)));
    }
    return locks_[number];
  }
  jthread thread(std::size_t number) {
    while (threads_.size() <= number) {
      threads_.push_back(vm.ref(makeThread("http-worker-" + std::to_string(threads_.size()), 0)));
    }
    return threads_[number];
  }
  // The thread "batch" with the stack of that number.
  jthread stack(std::size_t number) {
    while (stacks_.size() <= number) {
      stacks_.push_back(vm.ref(makeThread("batch", stacks_.size())));
    }
    return stacks_[number];
  }

  std::vector<contender> onLocks(std::size_t count) {
    std::vector<contender> all;
    for (std::size_t i = 0; i < count; ++i) {
      all.push_back({thread(0), lock(i)});
    }
    return all;
  }
  std::vector<contender> onThreads(std::size_t count) {
    std::vector<contender> all;
    for (std::size_t i = 0; i < count; ++i) {
      all.push_back({thread(i), lock(0)});
    }
    return all;
  }
  std::vector<contender> onStacks(std::size_t count) {
    std::vector<contender> all;
    for (std::size_t i = 0; i < count; ++i) {
      all.push_back({stack(i), lock(0)});
    }
    return all;
  }

  void enter(const contender& each) {
    mutexLockProfiler::MonitorContendedEnter(vm.jvmti(), vm.env(), each.thread, each.object);
  }
  void entered(const contender& each) {
    mutexLockProfiler::MonitorContendedEntered(vm.jvmti(), vm.env(), each.thread, each.object);
  }
  void enterAll(const std::vector<contender>& all) {
    for (const contender& each : all) {
      enter(each);
    }
  }
  // A detail session that knows the locks of all contenders and selects the first of the ranking.
  void startDetailOn(const std::vector<contender>& all, jint topLocks) {
    startSummary(topLocks);
    enterAll(all);
    startDetail();
  }

 private:
  fake::javaThread* owner(std::size_t number) {
    while (owners_.size() <= number) {
      owners_.push_back(vm.makeThread("order-packer-" + std::to_string(owners_.size())));
    }
    return owners_[number];
  }

  std::vector<jobject> locks_;
  std::vector<jthread> threads_;
  std::vector<jthread> stacks_;
  std::vector<fake::javaThread*> owners_;
};

largeProgram& program() {
  static largeProgram& large = *new largeProgram;
  return large;
}

void shuffle(std::vector<contender>& all) {
  std::shuffle(all.begin(), all.end(), std::minstd_rand(1));
}

std::size_t sizeOf(const benchmark::State& state) {
  return static_cast<std::size_t>(state.range(0));
}

// --- Events of what is known -----------------------------------------------------------------

// Each starts a session that knows so many locks, threads or stacks; gives them as contenders.
using starter = std::vector<contender> (*)(std::size_t size);

std::vector<contender> summaryOfLocks(std::size_t size) {
  auto all = program().onLocks(size);
  program().startSummary(0);
  program().enterAll(all);
  return all;
}
std::vector<contender> detailOfLocks(std::size_t size) {
  auto all = program().onLocks(size);
  program().startDetailOn(all, kSelectAll);
  return all;
}
// All threads are known as owners of their one lock too.
std::vector<contender> detailOfThreads(std::size_t size) {
  auto all = program().onThreads(size);
  program().startDetailOn({all.front()}, kSelectAll);
  fake::object* const lock = program().vm.target(all.front().object);
  for (const contender& each : all) {
    program().vm.setOwner(lock, static_cast<fake::javaThread*>(program().vm.target(each.thread)));
    program().enter(all.front());
  }
  program().enterAll(all);
  return all;
}
std::vector<contender> detailOfStacks(std::size_t size) {
  auto all = program().onStacks(size);
  program().startDetailOn({all.front()}, kSelectAll);
  program().enterAll(all);
  return all;
}

// Times events of contenders that have had the same events before.
template <typename Event>
void runKnown(benchmark::State& state, std::vector<contender> all, Event&& event) {
  shuffle(all);
  const auto timed = std::min(all.size(), static_cast<std::size_t>(state.max_iterations));
  for (const contender& each : std::span(all).first(timed)) {
    program().enter(each);
    program().entered(each);
  }
  runEvents(state, program(), all, event);
}

// --- Events that meet something for the first time -------------------------------------------

// Each event is the first of its lock.
void locksMeet(benchmark::State& state) {
  const auto all = program().onLocks(sizeOf(state));
  program().startSummary(0);
  program().enter({program().thread(0), program().lock(sizeOf(state))});  // its class is known now
  runEvents(state, program(), all, mutexLockProfiler::MonitorContendedEnter);
}

void threadsMeet(benchmark::State& state) {
  const auto all = program().onThreads(sizeOf(state));
  const contender other{program().thread(sizeOf(state)), program().lock(0)};
  program().startDetailOn({other}, kSelectAll);
  program().enter(other);  // its stack is known now
  runEvents(state, program(), all, mutexLockProfiler::MonitorContendedEnter);
}

void stacksMeet(benchmark::State& state) {
  const auto all = program().onStacks(sizeOf(state));
  const contender other{program().stack(sizeOf(state)), program().lock(0)};
  program().startDetailOn({other}, kSelectAll);
  program().enter(other);  // its thread and the classes are known now
  runEvents(state, program(), all, mutexLockProfiler::MonitorContendedEnter);
}

// --- The ranking at the start of a detail session --------------------------------------------

void ranking(benchmark::State& state) {
  const auto all = program().onLocks(sizeOf(state));
  program().finish();  // what sessions of other benchmarks left to be ranked
  program().startSummary(kSelectAll);
  program().enterAll(all);
  CALLGRIND_START_INSTRUMENTATION;
  for (auto _ : state) {
    program().startDetail();
  }
  CALLGRIND_STOP_INSTRUMENTATION;
  CALLGRIND_DUMP_STATS;
}

// --- The report ------------------------------------------------------------------------------

void removeReport() {
  std::filesystem::remove(program().reportPath());
  std::filesystem::remove(program().stackPath());
}

// Times the end of a detail session, whose contenders give the report its pairs.
void runReport(benchmark::State& state, std::vector<contender> all) {
  largeProgram& large = program();
  shuffle(all);
  large.finish();  // what sessions of other benchmarks left for a report
  removeReport();
  double bytes = 0;
  double held = 0;
  double taken = 0;
  for (auto _ : state) {
    state.PauseTiming();
    large.startSummary(kSelectAll);
    const std::size_t before = heapInUse();
    large.enterAll(all);
    large.startDetail();
    large.enterAll(all);
    const std::size_t atEnd = heapInUse();
    takeHeapPeak();
    CALLGRIND_START_INSTRUMENTATION;
    state.ResumeTiming();
    large.finish();
    state.PauseTiming();
    CALLGRIND_STOP_INSTRUMENTATION;
    taken = static_cast<double>(takeHeapPeak() - atEnd);
    held = static_cast<double>(atEnd - before);
    bytes = static_cast<double>(std::filesystem::file_size(large.reportPath()) +
                                std::filesystem::file_size(large.stackPath()));
    removeReport();
    state.ResumeTiming();
  }
  CALLGRIND_DUMP_STATS;
  state.counters["time/pair"] = benchmark::Counter(
      static_cast<double>(state.range(0)),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["bytes"] = bytes;
  state.counters["session/bytes"] = held / bytes;
  state.counters["writing/bytes"] = taken / bytes;
}

std::vector<contender> pairsOf(std::size_t locks, std::size_t threads) {
  std::vector<contender> all;
  for (std::size_t i = 0; i < locks; ++i) {
    for (std::size_t k = 0; k < threads; ++k) {
      all.push_back({program().thread(k), program().lock(i)});
    }
  }
  return all;
}

void reportOfManyLocks(benchmark::State& state) {
  runReport(state, pairsOf(sizeOf(state) / 2, 2));
}
void reportOfManyThreads(benchmark::State& state) {
  runReport(state, pairsOf(10, sizeOf(state) / 10));
}
void reportOfManyStacks(benchmark::State& state) {
  runReport(state, program().onStacks(sizeOf(state)));
}

// --- Sizes -----------------------------------------------------------------------------------

using sizes = std::initializer_list<long>;

// Registers an event and the VM's calls in it.
template <typename Event, typename Calls>
void known(const std::string& name, starter start, Event* event, Calls* calls, sizes all) {
  const int events = RUNNING_ON_VALGRIND != 0 ? 2000 : 200000;
  for (const long size : all) {
    benchmark::RegisterBenchmark(
        name.c_str(),
        [=](benchmark::State& state) { runKnown(state, start(sizeOf(state)), *event); })
        ->Arg(size)
        ->Iterations(events);
    benchmark::RegisterBenchmark(
        (name + "Calls").c_str(),
        [=](benchmark::State& state) { runKnown(state, start(sizeOf(state)), *calls); })
        ->Arg(size)
        ->Iterations(events);
  }
}
// One event for each of the size.
void first(const char* name, void (*run)(benchmark::State&), sizes all) {
  for (const long size : all) {
    benchmark::RegisterBenchmark(name, run)->Arg(size)->Iterations(size);
  }
}
void once(const char* name, void (*run)(benchmark::State&)) {
  for (const long size : {1000, 10000, 100000}) {
    benchmark::RegisterBenchmark(name, run)->Arg(size)->Iterations(1)->Unit(
        benchmark::kMillisecond);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const auto enter = mutexLockProfiler::MonitorContendedEnter;
  const auto entered = mutexLockProfiler::MonitorContendedEntered;
  known("locksSummaryEnter", summaryOfLocks, enter, enterCalls, {10, 1000, 100000});
  known("locksSummaryEntered", summaryOfLocks, entered, enteredCalls, {10, 1000, 100000});
  known("locksDetailEnter", detailOfLocks, enter, selectedEnterCalls, {10, 1000, 100000});
  known("locksDetailEntered", detailOfLocks, entered, selectedEnteredCalls,
        {10, 1000, 10000, 100000});
  known("threadsDetailEnter", detailOfThreads, enter, selectedEnterCalls, {1, 100, 10000});
  known("threadsDetailEntered", detailOfThreads, entered, selectedEnteredCalls, {1, 100, 10000});
  known("stacksDetailEnter", detailOfStacks, enter, selectedEnterCalls, {1, 1000, 10000, 100000});
  first("locksMeet", locksMeet, {1000, 10000, 100000});
  first("threadsMeet", threadsMeet, {100, 1000, 10000});
  first("stacksMeet", stacksMeet, {100, 1000, 10000, 100000});
  once("ranking", ranking);
  once("reportOfManyLocks", reportOfManyLocks);
  once("reportOfManyThreads", reportOfManyThreads);
  once("reportOfManyStacks", reportOfManyStacks);

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
}
