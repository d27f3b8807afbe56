// Exceptions, those that are recorded and those that are not.
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/classFileBuilder.h"
#include "exceptions/captureMode.h"
#include "exceptions/exceptionCounts.h"
#include "exceptions/exceptionprofiler.h"
#include "exceptions/redaction.h"
#include "handlerBench.h"
#include "vmCalls.h"

namespace {

using agent::exceptionProfiler;

constexpr int kFrames = 10;
constexpr jint kAnyRate = 0;
constexpr const char* kFailure = "com.example.shop.Failure";
constexpr const char* kOftenThrown = "com.example.shop.OftenThrown";
constexpr const char* kBlackListed = "com.example.shop.Expected";
constexpr const char* kHook = "com.korvane.twutils.nativeagent.hook.MadeHook";

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

// The same with its names, types and values searched for secrets.
void exceptionRedacted(benchmark::State& state) {
  worker().enable(kAnyRate);
  agent::redaction::configure({.mode = agent::redactionMode::standard});
  run(state, thrown(kFailure), worker().method, true);
  agent::redaction::configure({});
}

// An exception that is made by the top frame of a stack, in constructors of two classes.
struct maker {
  maker() {
    fake::virtualMachine& vm = loaded().vm;
    fake::javaClass* const throwable = vm.classNamed("java.lang.Throwable");
    throwable->originalBytes = test::throwableWith(test::kThrowableConstructors);
    throwable->bytes = throwable->originalBytes;
    fake::javaClass* const type = vm.makeClass("com.example.shop.OftenMade", throwable);
    std::vector<fake::frame> frames{{vm.makeMethod("com.example.Hook", "made")},
                                    {vm.makeMethod(throwable, "<init>", "()V")},
                                    {vm.makeMethod(type, "<init>", "()V")},
                                    {vm.makeMethod("com.example.shop.Checkout", "buy")}};
    method = frames.back().code->id;
    fake::javaThread* const current = vm.currentThread();
    current->setFrames(std::move(frames));
    exception = {vm.ref(current), vm.ref(vm.makeObject(type))};
  }

  jmethodID method = nullptr;
  contender exception{};
};

maker& constructors() {
  static maker& made = *new maker;
  return made;
}

std::uint64_t overRate() {
  return agent::exceptionCounts::ofProcess().get(agent::exceptionCount::overRate);
}

void exceptionMadeRateSpent(benchmark::State& state) {
  const contender exception = constructors().exception;
  fake::virtualMachine& vm = loaded().vm;
  agent::captureExceptionsWhereMade(true);
  worker().enable(1);
  using native = void(JNICALL*)(JNIEnv*, jclass, jobject);
  const auto made = reinterpret_cast<native>(vm.classNamed(kHook)->natives.at("made"));
  made(vm.env(), nullptr, exception.object);
  const std::uint64_t before = overRate();
  runEvents(state, {&exception, 1}, [made](jvmtiEnv*, JNIEnv* jni, jthread, jobject object) {
    made(jni, nullptr, object);
  });
  if (overRate() - before != static_cast<std::uint64_t>(state.iterations())) {
    state.SkipWithError("not all were over the rate");
  }
  agent::captureExceptionsWhereMade(false);
}
void exceptionMadeRateSpentCalls(benchmark::State& state) {
  runEvents(state, {&constructors().exception, 1},
            [](jvmtiEnv* jvmti, JNIEnv* jni, jthread, jobject exception) {
              std::array<jvmtiFrameInfo, 4> frames;
              jint count = 0;
              jvmti->GetStackTrace(nullptr, 2, 3, frames.data(), &count);
              thrownCalls(jvmti, jni, constructors().method, exception);
            });
}

}  // namespace

EVENT_BENCHMARK(exceptionFiltered);
EVENT_BENCHMARK(exceptionFilteredCalls);
EVENT_BENCHMARK(exceptionBlackListed);
EVENT_BENCHMARK(exceptionBlackListedCalls);
EVENT_BENCHMARK(exceptionRateSpent);
EVENT_BENCHMARK(exceptionRateSpentCalls);
BENCHMARK(exceptionRecorded)->Apply(setEvents<400>);
BENCHMARK(exceptionRedacted)->Apply(setEvents<400>);
// So many at once are looked up in the stack, whatever the time.
BENCHMARK(exceptionMadeRateSpent)->Apply(setEvents<150>);
BENCHMARK(exceptionMadeRateSpentCalls)->Apply(setEvents<150>);
