// Exceptions, those that are recorded and those that are not.
#include <cstdint>
#include <string>
#include <vector>

#include "exceptions/exceptionprofiler.h"
#include "handlerBench.h"
#include "vmCalls.h"

namespace {

using agent::exceptionProfiler;

constexpr int kFrames = 10;
constexpr jint kAnyRate = 0;
constexpr const char* kFailure = "com.example.shop.Failure";
constexpr const char* kOftenThrown = "com.example.shop.OftenThrown";
constexpr const char* kBlackListed = "com.example.shop.Expected";

// A thread in which exceptions are thrown.
struct thrower {
  thrower() {
    fake::virtualMachine& vm = agent.vm;
    fake::javaClass* const callback =
        vm.makeClass("com.korvane.twutils.nativeagent.TWNativeAgentProfiling");
    vm.makeMethod(callback, "getobjectValue", "(Ljava/lang/Object;)Ljava/lang/String;",
                  {.isStatic = true});
    const auto count = [this](fake::invocation&) -> fake::value {
      ++records;
      return {};
    };
    vm.makeMethod(callback, "onExceptionOccured", "(Ljava/lang/String;Ljava/lang/Object;)V",
                  {.isStatic = true, .body = count});
    std::vector<fake::frame> frames;
    for (int i = 0; i < kFrames; ++i) {
      const std::string number = std::to_string(i);
      const std::string type = "com.example.shop.Item" + number;
      const std::vector<fake::namedValue> item = {{"quantity", "I", jint{12}}};
      frames.push_back(fake::makeFrame(
          vm, nullptr, "com.example.shop.Checkout" + number, "buy",
          {{"amount", "I", jint{12}}, {"time", "J", jlong{1234567890123}}},
          {{"customer", "Ljava/lang/String;", vm.makeString("a customer's name")},
           {"item", fake::signatureOf(type), fake::makeObjectWith(vm, type, item)}}));
    }
    method = frames.front().code->id;
    filteredMethod = vm.makeMethod("sun.nio.ch.FileDispatcher", "read")->id;
    fake::javaThread* const made = vm.makeThread("http-worker-12");
    made->setFrames(std::move(frames));
    thread = vm.ref(made);
  }

  // Has at most `rate` exceptions of a class recorded in a minute, or any number of them.
  void enable(jint rate) {
    fake::virtualMachine& vm = agent.vm;
    TW_NATIVE(enableCaptureVariableinException)
    (vm.env(), nullptr, JNI_TRUE, JNI_FALSE, JNI_TRUE, JNI_TRUE, JNI_FALSE, rate, 100,
     vm.ref(vm.makeString("[com.example.shop.expected]")));
  }

  loadedAgent& agent = loaded();
  jthread thread = nullptr;
  jmethodID method = nullptr;          // of the top frame
  jmethodID filteredMethod = nullptr;  // of a package whose exceptions are never recorded
  std::uint64_t records = 0;           // so far
};

thrower& worker() {
  static thrower& made = *new thrower;
  return made;
}

// An exception in that thread. Those of one class share its rate.
contender thrown(const char* className) {
  fake::virtualMachine& vm = worker().agent.vm;
  return {worker().thread, vm.ref(vm.makeObject(className))};
}

// Times the handler for an exception that `method` throws; each is recorded, or none. The one
// before them settles what is known of the classes.
void run(benchmark::State& state, const contender& each, jmethodID method, bool recorded) {
  const auto event = [method](jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject exception) {
    exceptionProfiler::ExceptionCallback(jvmti, jni, thread, method, 0, exception, nullptr, 0);
  };
  event(worker().agent.vm.jvmti(), worker().agent.vm.env(), each.thread, each.object);
  const std::uint64_t before = worker().records;
  runEvents(state, {&each, 1}, event);
  const std::uint64_t expected = recorded ? static_cast<std::uint64_t>(state.iterations()) : 0;
  if (worker().records - before != expected) {
    state.SkipWithError("other records than expected");
  }
}
void runCalls(benchmark::State& state, const contender& each, jmethodID method) {
  runEvents(state, {&each, 1}, [method](jvmtiEnv* jvmti, JNIEnv* jni, jthread, jobject exception) {
    thrownCalls(jvmti, jni, method, exception);
  });
}

void exceptionFiltered(benchmark::State& state) {
  worker().enable(kAnyRate);
  run(state, thrown(kFailure), worker().filteredMethod, false);
}
void exceptionFilteredCalls(benchmark::State& state) {
  runCalls(state, thrown(kFailure), worker().filteredMethod);
}

void exceptionBlackListed(benchmark::State& state) {
  worker().enable(kAnyRate);
  run(state, thrown(kBlackListed), worker().method, false);
}
void exceptionBlackListedCalls(benchmark::State& state) {
  runCalls(state, thrown(kBlackListed), worker().method);
}

void exceptionRateSpent(benchmark::State& state) {
  worker().enable(1);
  run(state, thrown(kOftenThrown), worker().method, false);
}
void exceptionRateSpentCalls(benchmark::State& state) {
  runCalls(state, thrown(kOftenThrown), worker().method);
}

void exceptionRecorded(benchmark::State& state) {
  worker().enable(kAnyRate);
  run(state, thrown(kFailure), worker().method, true);
}

}  // namespace

EVENT_BENCHMARK(exceptionFiltered);
EVENT_BENCHMARK(exceptionFilteredCalls);
EVENT_BENCHMARK(exceptionBlackListed);
EVENT_BENCHMARK(exceptionBlackListedCalls);
EVENT_BENCHMARK(exceptionRateSpent);
EVENT_BENCHMARK(exceptionRateSpentCalls);
BENCHMARK(exceptionRecorded)->Apply(setEvents<400>);
