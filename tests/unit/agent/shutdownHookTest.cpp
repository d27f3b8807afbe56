// The action before the program's shutdown hooks, on a VM that refuses one call after the other.
#include "agent/shutdownHook.h"

#include <com_korvane_twutils_nativeagent_AgentAllocations.h>
#include <com_korvane_twutils_nativeagent_AgentShutdown.h>

#include <nlohmann/json.hpp>

#include "agentTest.h"
#include "allocations/allocationProfile.h"
#include "classFileBuilder.h"
#include "eachCall.h"

namespace {

using namespace test;
using ::testing::HasSubstr;

constexpr const char* kHooks = "java.lang.ApplicationShutdownHooks";

class shutdownHookTest : public agentTest {
 protected:
  shutdownHookTest() { load("logLevel=4"); }

  void TearDown() override {
    begins();
    unload();
    EXPECT_EQ(vm.globalReferences(), 0U);
    agentTest::TearDown();
  }

  // The class of the JDK that starts the program's hooks.
  fake::javaClass* loadHooks(const char* method = "runHooks") {
    classFileBuilder builder;
    builder.method(method, "()V", {});
    fake::javaClass* const made = vm.makeClass(kHooks);
    made->originalBytes = builder.build();
    made->bytes = made->originalBytes;
    return made;
  }
  fake::object* makeAction(std::function<void()> body) {
    fake::javaClass* const cls = vm.makeClass("com.example.Action");
    vm.makeMethod(cls, "run", "()V", {.body = [body = std::move(body)](fake::invocation&) {
                    body();
                    return fake::value{};
                  }});
    return vm.makeObject(cls);
  }
  // An action that counts its runs.
  fake::object* makeAction() {
    return makeAction([&] { ++runs; });
  }
  std::string beforeHooks(fake::object* action) {
    return vm.native([&](JNIEnv* jni) {
      jstring const text = Java_com_korvane_twutils_nativeagent_AgentShutdown_beforeHooks(
          jni, nullptr, vm.ref(action));
      if (text == nullptr) {
        return std::string();
      }
      std::string taken = static_cast<fake::javaString*>(vm.target(text))->text;
      jni->DeleteLocalRef(text);
      return taken;
    });
  }
  // What the inserted call does, once the class is there that it calls.
  void begins() {
    vm.native([&](JNIEnv* jni) {
      jclass const hook = jni->FindClass("com/korvane/twutils/nativeagent/hook/ShutdownHook");
      jni->ExceptionClear();
      if (hook == nullptr) {
        return;
      }
      const auto& natives = static_cast<fake::javaClass*>(vm.target(hook))->natives;
      jni->DeleteLocalRef(hook);
      if (const auto native = natives.find("begins"); native != natives.end()) {
        reinterpret_cast<void(JNICALL*)(JNIEnv*, jclass)>(native->second)(jni, nullptr);
      }
    });
  }

  int runs = 0;
};

TEST_F(shutdownHookTest, runsTheActionOnce) {
  fake::javaClass* const hooks = loadHooks();
  EXPECT_EQ(beforeHooks(makeAction()), "");
  EXPECT_GT(hooks->bytes.size(), hooks->originalBytes.size()) << "it has the call";
  EXPECT_EQ(runs, 0);
  begins();
  EXPECT_EQ(runs, 1);
  begins();
  EXPECT_EQ(runs, 1);
}

TEST_F(shutdownHookTest, aLaterActionReplacesAnEarlierOne) {
  loadHooks();
  int others = 0;
  EXPECT_EQ(beforeHooks(makeAction([&] { ++others; })), "");
  EXPECT_EQ(beforeHooks(makeAction()), "");
  EXPECT_EQ(vm.globalReferences(), 1U);
  EXPECT_EQ(vm.calls("RetransformClasses"), 1U);
  begins();
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(others, 0);
}

TEST_F(shutdownHookTest, whatTheActionThrowsIsDropped) {
  loadHooks();
  EXPECT_EQ(beforeHooks(makeAction([&] { vm.throwInJava(nullptr); })), "");
  begins();
  EXPECT_EQ(vm.pendingException(), nullptr);
  EXPECT_EQ(vm.globalReferences(), 0U);
}

TEST_F(shutdownHookTest, anActionMaySetTheNextOne) {
  loadHooks();
  EXPECT_EQ(beforeHooks(makeAction([&] { beforeHooks(makeAction()); })), "");
  begins();
  EXPECT_EQ(runs, 0);
  begins();
  EXPECT_EQ(runs, 1);
}

// The report has a moment before the hooks only when what is alive was seen by then.
TEST_F(shutdownHookTest, whatIsAliveWhileHooksRunIsNotWhatWasBefore) {
  loadHooks();
  agent::allocationProfile& profile = agent::allocationProfile::ofProcess();
  const std::string path = folder() / "allocations.json";
  EXPECT_EQ(beforeHooks(makeAction()), "");
  vm.native([&](JNIEnv* jni) {
    EXPECT_EQ(profile.start(vm.javaVm(), jni, {1024, 1000}), "");
    vm.on("ForceGarbageCollection", [&] { begins(); });
    Java_com_korvane_twutils_nativeagent_AgentAllocations_shutdownBegins(jni, nullptr, JNI_TRUE);
    EXPECT_EQ(profile.snapshot(jni, path, false), "");
    profile.stop(jni, false);
  });
  vm.runAgentThreads();
  EXPECT_EQ(runs, 1);
  EXPECT_TRUE(nlohmann::json::parse(readFile(path)).at("shutdownAt").is_null());
}

TEST_F(shutdownHookTest, givesTheReasonWhenItWillNotRun) {
  EXPECT_EQ(beforeHooks(nullptr), "no action");
  loadHooks("startHooks");
  EXPECT_THAT(beforeHooks(makeAction()), HasSubstr("not hooked: "));
  begins();
  EXPECT_EQ(runs, 0);
}

TEST_F(shutdownHookTest, needsAVmThatChangesClasses) {
  loadHooks();
  vm.setPotentialCapabilities({});
  EXPECT_EQ(beforeHooks(makeAction()), "the VM does not let classes be retransformed");
}

// Each refusal gives a reason, or the action runs; and the next attempt succeeds.
TEST_F(shutdownHookTest, refusedCallsLeaveNothing) {
  loadHooks();
  fake::object* const action = makeAction();
  std::string problem;
  refuseEachCallOf(
      vm, [&] { problem = beforeHooks(action); },
      [&] {
        runs = 0;
        begins();
        EXPECT_EQ(runs, problem.empty() ? 1 : 0) << problem;
        EXPECT_EQ(vm.globalReferences(), 0U);
        EXPECT_EQ(beforeHooks(action), "");
        begins();
        EXPECT_EQ(runs, problem.empty() ? 2 : 1);
      });
}

// A first installation, which later ones do not repeat, in a process of its own for each call.
class shutdownHookRefused : public shutdownHookTest,
                            public ::testing::WithParamInterface<const char*> {};

TEST_P(shutdownHookRefused, theFirstAttemptFailsAndTheSecondSucceeds) {
  loadHooks();
  vm.fail(GetParam(), {.error = JVMTI_ERROR_OUT_OF_MEMORY});
  EXPECT_NE(beforeHooks(makeAction()), "");
  vm.succeed(GetParam());
  begins();
  EXPECT_EQ(runs, 0);
  EXPECT_EQ(beforeHooks(makeAction()), "");
  begins();
  EXPECT_EQ(runs, 1);
}

INSTANTIATE_TEST_SUITE_P(calls, shutdownHookRefused,
                         ::testing::Values("GetJavaVM", "GetEnv", "GetPotentialCapabilities",
                                           "AddCapabilities", "SetEventCallbacks", "DefineClass",
                                           "RegisterNatives", "SetEventNotificationMode",
                                           "FindClass", "RetransformClasses", "Allocate",
                                           "NewGlobalRef"));

TEST_F(shutdownHookTest, refusedCallsOfTheActionAreNoMatter) {
  loadHooks();
  for (const char* const call : {"GetObjectClass", "GetMethodID"}) {
    EXPECT_EQ(beforeHooks(makeAction()), "");
    vm.fail(call, {.throwing = std::string(call) == "GetMethodID"});
    begins();
    vm.succeed(call);
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(vm.globalReferences(), 0U);
  }
}

}  // namespace
