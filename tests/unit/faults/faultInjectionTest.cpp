// Every fault that the VM or the C++ library can hand to a handler or a native method, generated:
// each call that it makes is refused with each error code, once and from then on; each allocation
// that it makes fails, once and from then on. Nothing comes out, nothing is left behind (the fake
// VM reports both), and the next session gives what it gives without a fault.
#include <com_korvane_twutils_nativeagent_AgentAllocations.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <map>
#include <new>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "agent/classFileBuilder.h"
#include "agent/exceptionTest.h"
#include "exceptions/captureMode.h"
#include "fakevm/agentCode.h"
#include "fakevm/functions.h"
#include "memory/memoryprofiler.h"

#define TW_NATIVE(method) Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_##method
#define TW_ALLOCATIONS(method) Java_com_korvane_twutils_nativeagent_AgentAllocations_##method

// --- Allocations of the agent's code ---------------------------------------------------------

namespace {

struct allocationFault {
  bool counting = false;
  unsigned made = 0;
  unsigned firstToFail = 0;  // 0: none
  bool ever = false;         // those after it fail too
};
thread_local allocationFault allocations;

bool allocationFails() {
  if (!allocations.counting || !fake::agentCode::runs()) {
    return false;
  }
  ++allocations.made;
  if (allocations.firstToFail == 0) {
    return false;
  }
  return allocations.ever ? allocations.made >= allocations.firstToFail
                          : allocations.made == allocations.firstToFail;
}

void* allocate(std::size_t size) {
  if (!allocationFails()) {
    if (void* const memory = std::malloc(size == 0 ? 1 : size)) {
      return memory;
    }
  }
  throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocationFails() ? nullptr : std::malloc(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}

namespace {

using namespace test;

constexpr std::array kErrors = {JVMTI_ERROR_INVALID_THREAD,     JVMTI_ERROR_THREAD_NOT_ALIVE,
                                JVMTI_ERROR_INVALID_OBJECT,     JVMTI_ERROR_INVALID_CLASS,
                                JVMTI_ERROR_CLASS_NOT_PREPARED, JVMTI_ERROR_INVALID_METHODID,
                                JVMTI_ERROR_INVALID_LOCATION,   JVMTI_ERROR_INVALID_FIELDID,
                                JVMTI_ERROR_NO_MORE_FRAMES,     JVMTI_ERROR_OPAQUE_FRAME,
                                JVMTI_ERROR_TYPE_MISMATCH,      JVMTI_ERROR_INVALID_SLOT,
                                JVMTI_ERROR_NULL_POINTER,       JVMTI_ERROR_ABSENT_INFORMATION,
                                JVMTI_ERROR_NATIVE_METHOD,      JVMTI_ERROR_OUT_OF_MEMORY,
                                JVMTI_ERROR_NOT_AVAILABLE,      JVMTI_ERROR_MUST_POSSESS_CAPABILITY,
                                JVMTI_ERROR_WRONG_PHASE,        JVMTI_ERROR_INTERNAL,
                                JVMTI_ERROR_UNATTACHED_THREAD,  JVMTI_ERROR_INVALID_ENVIRONMENT};

// What gives back memory and references, asks about exceptions or for the environment of an
// attached thread does not fail in a VM.
const std::set<std::string> kNeverFail = {
    "Deallocate",     "DeleteLocalRef", "DeleteGlobalRef",   "DeleteWeakGlobalRef",
    "ExceptionCheck", "ExceptionClear", "ExceptionDescribe", "ExceptionOccurred",
    "GetEnv",         "IsSameObject",   "PopLocalFrame",     "ReleaseStringUTFChars",
    "Throw"};

// JNI calls that leave a Java exception behind when they fail.
const std::set<std::string> kThrow = {
    "CallIntMethod",    "CallObjectMethod",  "CallStaticVoidMethod", "EnsureLocalCapacity",
    "FindClass",        "GetFieldID",        "GetMethodID",          "GetObjectArrayElement",
    "GetStaticFieldID", "GetStaticMethodID", "GetStringUTFChars",    "GetStringUTFRegion",
    "NewGlobalRef",     "NewStringUTF",      "NewWeakGlobalRef",     "PushLocalFrame"};

bool isJvmti(const std::string& function) {
  return *fake::functionNamed(function) < fake::kFirstJniId;
}

constexpr const char* kOptions = "logLevel=4,captureObjType=7";

// One handler or native method under test: what comes before it, itself, and what comes after, with
// the result by which a whole session is known.
struct scenario {
  std::function<void()> prepare;
  std::function<void()> act;
  std::function<std::string()> finish;
};

class faultInjection : public exceptionTest, public ::testing::WithParamInterface<const char*> {
 protected:
  faultInjection() {
    makeCallbackClass();
    vm.setField(vm.makeObject("com.example.Lock"),
                vm.makeField(vm.classNamed("com.example.Lock"), "permits", "I"), jint{1});
    lock_ = vm.makeObject("com.example.Lock");
    worker_ = vm.makeThread("http-worker-1");
    owner_ = vm.makeThread("http-worker-2");
    vm.setOwner(lock_, owner_);
    vm.setWaiters(lock_, {worker_});
    worker_->setFrames({{vm.makeMethod("com.example.Shop", "reserve")},
                        {vm.makeMethod("com.example.Server", "serve")}});
    shop_ = objectWith("com.example.Cart", {{"pieces", "I", jint{2}},
                                            {"name", "Ljava/lang/String;", vm.makeString("pen")},
                                            {"lock", "Lcom/example/Lock;", lock_}});
    throwing_ = {frameOn(shop_, "buy",
                         {{"i", "I", jint{4}}, {"s", "Ljava/lang/String;", vm.makeString("t")}},
                         {{"d", "D", jdouble{7}},
                          {"b", "Ljava/lang/StringBuilder;", builder("c")},
                          {"o", "Lcom/example/Lock;", lock_}}),
                 frameOf("com.example.Main.main", {{"args", "[I", vm.makeArray("[I", {nullptr})}})};
    throwable_ = vm.classNamed("java.lang.Throwable");
    throwable_->originalBytes = throwableWith(kThrowableConstructors);
    throwable_->bytes = throwable_->originalBytes;
    hook_ = frameOf("com.example.Hook.made");
    inThrowable_ = {.code = vm.makeMethod(throwable_, "<init>", "()V")};
    for (int i = 0; i < 3; ++i) {
      followed_.push_back(vm.makeObject("com.example.Session"));
    }
  }

  // --- Native methods: the arguments are made first, then the agent's code runs.

  template <typename... Parameters>
  jint call(jint(JNICALL* method)(JNIEnv*, jclass, Parameters...),
            std::type_identity_t<Parameters>... arguments) {
    return vm.native([&](JNIEnv* jni) {
      const fake::agentCode scope(true);
      return method(jni, nullptr, arguments...);
    });
  }
  jstring text(const std::string& value) { return vm.ref(vm.makeString(value)); }

  jint beginProfiling() {
    return call(TW_NATIVE(startMutexLockProfilingSession), 1, text("checkout"), 0, 10, 100, 100,
                100, 100, 10, text(stackPath()));
  }
  jint endProfiling() {
    return call(TW_NATIVE(stopMutexLockProfilingSession), 1, text(reportPath()));
  }
  jint beginMemory() {
    return call(TW_NATIVE(startMemoryLeaksProfileSession), JNI_TRUE, 60, 7, text("leaks"), -1,
                text("a"), text("b"), text("c"), text("d"));
  }
  jint endMemory() { return call(TW_NATIVE(stopMemoryLeaksProfileSession), 7, text(reportPath())); }
  void follow() {
    for (fake::object* const each : followed_) {
      vm.native([&](JNIEnv* jni) {
        const jobject object = vm.ref(each);
        const fake::agentCode scope(true);
        TW_NATIVE(setObjectTag)(jni, nullptr, object);
      });
    }
  }
  jint switchCapture(bool on) {
    return call(TW_NATIVE(enableCaptureVariableinException), on ? JNI_TRUE : JNI_FALSE, JNI_TRUE,
                JNI_TRUE, JNI_TRUE, JNI_TRUE, 0, 10, text("[a.b,c.d]"));
  }

  void contendOnce() {
    vm.contendedEnter(worker_, lock_, fake::delivery::always);
    vm.advance(1'000'000'000);
    vm.contendedEntered(worker_, lock_, fake::delivery::always);
  }
  void waitOnce() {
    vm.monitorWait(worker_, lock_, 0, fake::delivery::always);
    vm.advance(1'000'000'000);
    vm.monitorWaited(worker_, lock_, false, fake::delivery::always);
  }
  void throwOnce() {
    thread()->setFrames(throwing_);
    vm.exception(thread(), throwing_[0].code, 10, vm.makeObject(kFailure), nullptr, 0,
                 fake::delivery::always);
  }

  // Has exceptions captured where they are made from now on.
  jint switchMade(bool on) {
    agent::captureExceptionsWhereMade(true);
    return switchCapture(on);
  }
  // Of a class that the agent does not know yet.
  void makeOnce() {
    fake::javaClass* const type = vm.makeClass("com.example.MadeFailure", throwable_);
    const fake::frame maker{.code = vm.makeMethod(type, "<init>", "()V")};
    std::vector<fake::frame> stack{hook_, inThrowable_, maker};
    stack.insert(stack.end(), throwing_.begin(), throwing_.end());
    vm.currentThread()->setFrames(stack);
    fake::object* const made = vm.makeObject(type);
    vm.native([&](JNIEnv* jni) {
      const jobject reference = vm.ref(made);
      const fake::agentCode scope(true);
      agent::exceptionProfiler::exceptionMade(jni, reference);
    });
  }

  void summary() {
    beginProfiling();
    call(TW_NATIVE(startMutexLockSummarySession), 1);
  }
  void detail() {
    summary();
    contendOnce();
    call(TW_NATIVE(startMutexLockDetailSession), 1);
  }
  std::string endLocks() {
    call(TW_NATIVE(stopMutexLockDetailSession), 1);
    std::filesystem::remove(reportPath());
    std::filesystem::remove(stackPath());
    endProfiling();
    return readFile(reportPath()) + readFile(stackPath());
  }
  std::string endOfMemory() {
    std::filesystem::remove(reportPath());
    endMemory();
    return readFile(reportPath());
  }
  void memorySession() {
    beginMemory();
    agent::getMemoryProfiler()->setGcCounter(1);
    follow();
    vm.garbageCollectionFinish(fake::delivery::always);
  }
  std::string lastRecord() {
    const std::vector<delivered> all = deliveries();
    return all.empty() ? kNothing : all.back().record;
  }

  // --- The allocation profile.

  // Without memory for the text Java has an exception instead.
  void drop(JNIEnv* jni, jstring text) {
    if (text != nullptr) {
      jni->DeleteLocalRef(text);
    }
    jni->ExceptionClear();
  }
  void startAllocations() {
    vm.native([&](JNIEnv* jni) {
      const fake::agentCode scope(true);
      drop(jni, TW_ALLOCATIONS(start)(jni, nullptr, 1024, 1000));
    });
  }
  // One object that stays and one that does not. Classes of frames would be held for longer.
  void sampleOnce() {
    for (const bool isKept : {true, false}) {
      fake::object* const made = vm.makeObject("com.example.Session");
      made->reachable = isKept;
      vm.sampledAllocation(allocator_, made, 1024, fake::delivery::always);
    }
  }
  void snapshotAllocations() {
    vm.native([&](JNIEnv* jni) {
      const jstring path = text(reportPath());
      const fake::agentCode scope(true);
      drop(jni, TW_ALLOCATIONS(snapshot)(jni, nullptr, path, JNI_TRUE));
    });
  }
  void beforeShutdown() {
    vm.native([&](JNIEnv* jni) {
      const fake::agentCode scope(true);
      TW_ALLOCATIONS(shutdownBegins)(jni, nullptr, JNI_TRUE);
    });
  }
  void stopAllocations() {
    vm.native([&](JNIEnv* jni) {
      const fake::agentCode scope(true);
      TW_ALLOCATIONS(stop)(jni, nullptr, JNI_TRUE);
    });
  }
  // The end of the session, and what its report says of its sites.
  std::string endOfAllocations() {
    stopAllocations();
    vm.runAgentThreads();
    snapshotAllocations();
    if (!std::filesystem::exists(reportPath())) {
      return "no report";
    }
    const auto report = nlohmann::json::parse(readFile(reportPath()));
    std::filesystem::remove(reportPath());
    std::string told;
    for (const nlohmann::json& each : report.at("sites")) {
      told += each.at("class").dump() + each.at("allocated").dump() + each.at("alive").dump();
    }
    return told;
  }
  scenario scenarioNamed(const std::string& name) {
    const auto nothing = [] {};
    const auto contend = [this] { contendOnce(); };
    const auto wait = [this] { waitOnce(); };
    const auto locks = [this] { return endLocks(); };
    const std::map<std::string, scenario> all = {
        {"load",
         {[this] { unload(); },
          [this] {
            std::string options = kOptions + (",twHome=" + folder().string());
            vm.native([&](JNIEnv*) {
              const fake::agentCode scope(true);
              Agent_OnLoad(vm.javaVm(), options.data(), nullptr);
            });
          },
          [this] {
            Agent_OnUnload(vm.javaVm());
            EXPECT_EQ(load(kOptions), JNI_OK);
            summary();
            contendOnce();
            return endLocks();
          }}},
        {"startProfiling", {nothing, [this] { beginProfiling(); }, locks}},
        {"startSummary",
         {[this] { beginProfiling(); },
          [this] { call(TW_NATIVE(startMutexLockSummarySession), 1); }, locks}},
        {"contendInSummary", {[this] { summary(); }, contend, locks}},
        {"waitInSummary", {[this] { summary(); }, wait, locks}},
        {"stopSummary",
         {[this] { summary(); }, [this] { call(TW_NATIVE(stopMutexLockSummarySession), 1); },
          locks}},
        {"startDetail",
         {[this] {
            summary();
            contendOnce();
          },
          [this] { call(TW_NATIVE(startMutexLockDetailSession), 1); }, locks}},
        {"contendInDetail", {[this] { detail(); }, contend, locks}},
        {"waitInDetail", {[this] { detail(); }, wait, locks}},
        {"stopDetail",
         {[this] { detail(); }, [this] { call(TW_NATIVE(stopMutexLockDetailSession), 1); }, locks}},
        {"stopProfiling",
         {[this] {
            detail();
            contendOnce();
          },
          [this] { endProfiling(); },
          [this] {
            const std::string report = readFile(reportPath()) + readFile(stackPath());
            std::filesystem::remove(stackPath());
            return report;
          }}},
        {"enableCapture",
         {nothing, [this] { switchCapture(true); },
          [this] {
            throwOnce();
            return lastRecord();
          }}},
        {"exception",
         {[this] { switchCapture(true); }, [this] { throwOnce(); },
          [this] {
            switchCapture(false);
            return lastRecord();
          }}},
        {"enableMade",
         {nothing, [this] { switchMade(true); },
          [this] {
            switchMade(true);
            makeOnce();
            switchMade(false);
            return lastRecord();
          }}},
        {"made",
         {[this] { switchMade(true); }, [this] { makeOnce(); },
          [this] {
            switchMade(false);
            return lastRecord();
          }}},
        {"startMemory",
         {nothing, [this] { beginMemory(); },
          [this] {
            memorySession();
            return endOfMemory();
          }}},
        {"setObjectTag",
         {[this] { memorySession(); },
          [this] {
            agent::getMemoryProfiler()->setGcCounter(1);
            follow();
          },
          [this] {
            vm.garbageCollectionFinish(fake::delivery::always);
            return endOfMemory();
          }}},
        {"tagInstances",
         {[this] { memorySession(); },
          [this] {
            agent::getMemoryProfiler()->setGcCounter(1);
            std::vector<fake::object*> classes;
            for (fake::object* const each : followed_) {
              each->tag = 0;
              classes.push_back(each->type);
            }
            auto* const array = vm.makeArray("[Ljava.lang.Class;", classes);
            call(TW_NATIVE(tagInstances), static_cast<jobjectArray>(vm.ref(array)));
          },
          [this] {
            vm.garbageCollectionFinish(fake::delivery::always);
            return endOfMemory();
          }}},
        {"collection",
         {[this] { memorySession(); },
          [this] { vm.garbageCollectionFinish(fake::delivery::always); },
          [this] { return endOfMemory(); }}},
        {"forceCollection",
         {[this] { memorySession(); },
          [this] {
            vm.native([&](JNIEnv* jni) {
              const fake::agentCode scope(true);
              TW_NATIVE(forceGarbageCollection)(jni, nullptr);
            });
          },
          [this] { return endOfMemory(); }}},
        {"stopMemory",
         {[this] { memorySession(); }, [this] { endMemory(); },
          [this] { return readFile(reportPath()); }}},
        {"startAllocations",
         {nothing, [this] { startAllocations(); },
          [this] {
            sampleOnce();
            return endOfAllocations();
          }}},
        {"sampledAllocation",
         {[this] { startAllocations(); }, [this] { sampleOnce(); },
          [this] { return endOfAllocations(); }}},
        {"snapshotAllocations",
         {[this] {
            startAllocations();
            sampleOnce();
          },
          [this] { snapshotAllocations(); }, [this] { return endOfAllocations(); }}},
        {"beforeShutdown",
         {[this] {
            startAllocations();
            sampleOnce();
          },
          [this] { beforeShutdown(); }, [this] { return endOfAllocations(); }}},
        {"stopAllocations",
         {[this] {
            startAllocations();
            sampleOnce();
          },
          [this] { stopAllocations(); }, [this] { return endOfAllocations(); }}},
        {"extendedText",
         {nothing, [this] { call(TW_NATIVE(getExtendedMatricesFromNative), text("text")); },
          [] { return std::string("nothing is known by it"); }}},
    };
    return all.at(name);
  }

  std::string wholeSession(const scenario& each) {
    each.prepare();
    each.act();
    return each.finish();
  }

  // Has `act` meet a fault, then mends it; the rest of that session and a whole one must work.
  void tryFault(const scenario& each, const std::string& expected, const std::string& what,
                const std::function<void()>& fault, const std::function<void()>& mend) {
    SCOPED_TRACE(what);
    ++tried_;
    each.prepare();
    fault();
    each.act();
    mend();
    EXPECT_EQ(vm.memoryHeld(), 0U);
    EXPECT_EQ(vm.localReferences(), 0U);
    EXPECT_EQ(vm.charactersHeld(), 0U);
    each.finish();
    EXPECT_EQ(wholeSession(each), expected) << "the next session";
  }

  unsigned tried_ = 0;

 private:
  fake::object* lock_ = nullptr;
  fake::object* shop_ = nullptr;
  fake::javaThread* worker_ = nullptr;
  fake::javaThread* owner_ = nullptr;
  fake::javaThread* allocator_ = vm.makeThread("allocator");
  std::vector<fake::frame> throwing_;
  fake::javaClass* throwable_ = nullptr;
  fake::frame hook_;
  fake::frame inThrowable_;
  std::vector<fake::object*> followed_;
};

TEST_P(faultInjection, eachCallIsRefusedWithEachError) {
  ASSERT_EQ(load(kOptions), JNI_OK);
  const scenario each = scenarioNamed(GetParam());
  wholeSession(each);
  const std::string expected = wholeSession(each);

  each.prepare();
  vm.resetCalls();
  each.act();
  std::map<std::string, unsigned> calls;
  for (const std::string& function : vm.callNames()) {
    if (kNeverFail.contains(function)) {
      continue;
    }
    calls[function] = static_cast<unsigned>(vm.calls(function));
  }
  each.finish();

  for (const auto& [function, count] : calls) {
    std::vector<fake::failure> ways;
    if (isJvmti(function)) {
      for (const jvmtiError error : kErrors) {
        ways.push_back({.error = error});
      }
    } else {
      ways.push_back({});
      if (kThrow.contains(function)) {
        ways.push_back({.throwing = true});
      }
    }
    for (fake::failure way : ways) {
      for (way.from = 1; way.from <= count; ++way.from) {
        for (way.times = 1;; way.times = fake::failure::kAlways) {
          tryFault(
              each, expected,
              function + ", call " + std::to_string(way.from) +
                  (way.times == 1 ? "" : " and all after it") + ", error " +
                  std::to_string(way.error) + (way.throwing ? ", throwing" : ""),
              [&] { vm.fail(function, way); }, [&] { vm.succeed(function); });
          if (HasFailure()) {
            return;
          }
          if (way.times != 1) {
            break;
          }
        }
      }
    }
  }
  RecordProperty("faults", static_cast<int>(tried_));
  std::printf("%u faults injected into the calls of %s\n", tried_, GetParam());
}

TEST_P(faultInjection, eachAllocationFails) {
  ASSERT_EQ(load(kOptions), JNI_OK);
  const scenario each = scenarioNamed(GetParam());
  wholeSession(each);
  const std::string expected = wholeSession(each);

  for (const bool ever : {false, true}) {
    unsigned number = 0;
    do {
      ++number;
      tryFault(
          each, expected,
          "allocation " + std::to_string(number) + (ever ? " and all after it" : ""),
          [&] { allocations = {.counting = true, .firstToFail = number, .ever = ever}; },
          [&] { allocations.counting = false; });
      if (HasFailure()) {
        return;
      }
    } while (allocations.made >= number);
  }
  const std::map<std::string, std::string> said = {
      {"enableCapture", "Exception occured in  exceptionprofiler : setProfileData"},
      {"exception", "Exception occured in exceptionprofiler : ExceptionCallback"},
      {"made", "Exception occured in exceptionprofiler : exceptionMade"},
      {"startMemory", "Exception occured in  memoryprofiler : setProfileData"},
      {"stopMemory", "Exception occured in memoryprofiler : scanJavaHeap"}};
  if (const auto text = said.find(GetParam()); text != said.end()) {
    EXPECT_THAT(messages("Error"), ::testing::Contains(text->second));
  }
  RecordProperty("faults", static_cast<int>(tried_));
  std::printf("%u faults injected into the allocations of %s\n", tried_, GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    agent, faultInjection,
    ::testing::Values("load", "startProfiling", "startSummary", "contendInSummary", "waitInSummary",
                      "stopSummary", "startDetail", "contendInDetail", "waitInDetail", "stopDetail",
                      "stopProfiling", "enableCapture", "exception", "enableMade", "made",
                      "startMemory", "setObjectTag", "tagInstances", "collection",
                      "forceCollection", "stopMemory", "startAllocations", "sampledAllocation",
                      "snapshotAllocations", "beforeShutdown", "stopAllocations", "extendedText"),
    [](const auto& tested) { return std::string(tested.param); });

}  // namespace
