// A fake VM with the agent loaded, and lock sessions in it, for benchmarks. One for each process.
#pragma once

#include <benchmark/benchmark.h>
#include <com_korvane_twutils_nativeagent_TWNativeAgentProfiling.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <cstddef>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "agent/profilerRegistry.h"
#include "fakevm/fakeVm.h"

#define TW_NATIVE(method) Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_##method

// A thread and the object that its events are about: a lock, where it contends.
struct contender {
  jthread thread;
  jobject object;
};

class loadedAgent {
 public:
  // With these profilers, as the option `features` names them.
  explicit loadedAgent(const std::string& features = "mutexprofiling")
      : folder_(makeFolder()), lockClass_(vm.makeClass("com.example.shop.Inventory")) {
    std::string options = "features=" + features + ",logLevel=1,twHome=" + folder_;
    Agent_OnLoad(vm.javaVm(), options.data(), nullptr);
    vm.setTime(1000000000);
    vm.setTimeStep(10);
    vm.setRecording(false);
  }
  loadedAgent(const loadedAgent&) = delete;
  loadedAgent& operator=(const loadedAgent&) = delete;

  jobject makeLock(fake::javaThread* owner) {
    fake::object* const lock = vm.makeObject(lockClass_);
    vm.setOwner(lock, owner);
    return vm.ref(lock);
  }
  // A thread with the n-th of the distinct stacks.
  fake::javaThread* makeThread(const std::string& name, std::size_t stack) {
    fake::javaThread* const thread = vm.makeThread(name);
    std::vector<fake::frame> frames;
    for (std::size_t layer = 0; layer < kFrames; ++layer, stack /= kMethods) {
      frames.push_back({methodOf(layer, stack % kMethods)});
    }
    thread->setFrames(std::move(frames));
    return thread;
  }

  // Starts a session anew, with the first `topLocks` of its ranking to be selected.
  void startSummary(jint topLocks) {
    TW_NATIVE(startMutexLockProfilingSession)
    (vm.env(), nullptr, 1, vm.ref(vm.makeString("bench")), 60, topLocks, kNoLimit, kNoLimit,
     kNoLimit, 0, 0, vm.ref(vm.makeString(stackPath())));
    TW_NATIVE(startMutexLockSummarySession)(vm.env(), nullptr, 1);
  }
  void startDetail() { TW_NATIVE(startMutexLockDetailSession)(vm.env(), nullptr, 1); }
  // Ends the session with its report.
  void finish() {
    TW_NATIVE(stopMutexLockProfilingSession)
    (vm.env(), nullptr, 1, vm.ref(vm.makeString(reportPath())));
  }
  std::string stackPath() const { return folder_ + "/stacks.txt"; }
  std::string reportPath() const { return folder_ + "/report.json"; }

  fake::virtualMachine vm;

 private:
  static constexpr jint kNoLimit = 1000000;
  static constexpr std::size_t kFrames = 20;
  static constexpr std::size_t kMethods = 10;  // of each layer

  static std::string makeFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "agentBenchXXXXXX").string();
    std::filesystem::create_directories(std::string(::mkdtemp(name.data())) + "/logs");
    std::filesystem::current_path(name);
    return name;
  }
  fake::method* methodOf(std::size_t layer, std::size_t number) {
    while (methods_.size() <= layer * kMethods + number) {
      fake::method* const made =
          vm.makeMethod("com.example.shop.Layer" + std::to_string(methods_.size() / kMethods),
                        "reserve" + std::to_string(methods_.size() % kMethods));
      made->declaringClass->loader = appLoader_;
      methods_.push_back(made);
    }
    return methods_[layer * kMethods + number];
  }

  const std::string folder_;
  fake::javaClass* const lockClass_;
  fake::object* const appLoader_ =
      vm.makeObject(vm.makeClass("jdk.internal.loader.ClassLoaders$AppClassLoader"));
  std::vector<fake::method*> methods_;
};

// Times `event(jvmti, jni, thread, object)` over the contenders in turn. Under callgrind its dump
// has the instructions of the loop alone.
template <typename Event>
void runEvents(benchmark::State& state, loadedAgent& agent, std::span<const contender> contenders,
               Event&& event) {
  jvmtiEnv* const jvmti = agent.vm.jvmti();
  JNIEnv* const jni = agent.vm.env();
  std::size_t next = 0;
  CALLGRIND_START_INSTRUMENTATION;
  for (auto _ : state) {
    event(jvmti, jni, contenders[next].thread, contenders[next].object);
    if (++next == contenders.size()) {
      next = 0;
    }
  }
  CALLGRIND_STOP_INSTRUMENTATION;
  CALLGRIND_DUMP_STATS;
}
