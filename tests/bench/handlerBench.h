// What an event or a native method costs on the fake VM: nanoseconds and heap allocations, and
// instructions when it runs under callgrind (see guard.py). Each "...Calls" benchmark makes the VM
// calls alone that the handler of the same name cannot do without; the difference between the two
// is what the agent adds.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <span>
#include <utility>

#include "allocations.h"
#include "loadedAgent.h"

// One VM with the agent and all its profilers loaded, for all benchmarks.
loadedAgent& loaded();

// Runs a benchmark, and tells the allocations of each of its iterations.
template <typename Run>
void countAllocations(benchmark::State& state, Run&& run) {
  const std::uint64_t before = allocationsSoFar();
  std::forward<Run>(run)();
  state.counters["allocs/event"] = benchmark::Counter(
      static_cast<double>(allocationsSoFar() - before), benchmark::Counter::kAvgIterations);
}

// Times `event(jvmti, jni, thread, object)` over the contenders in turn.
template <typename Event>
void runEvents(benchmark::State& state, std::span<const contender> contenders, Event&& event) {
  countAllocations(state,
                   [&] { runEvents(state, loaded(), contenders, std::forward<Event>(event)); });
}

// Instructions are the same in each run, so that under callgrind a fixed number of events will do.
template <benchmark::IterationCount Count>
void setEvents(benchmark::internal::Benchmark* registered) {
  if (RUNNING_ON_VALGRIND != 0) {
    registered->Iterations(Count);
  }
}

#define EVENT_BENCHMARK(name) BENCHMARK(name)->Apply(setEvents<1600>)
