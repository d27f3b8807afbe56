// The hook that parks are seen by, on a VM that refuses one call after the other.
#include "contention/parkHook.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "agentTest.h"
#include "classFileBuilder.h"

namespace {

using agent::parkHook;
using agent::parkHookLevel;
using agent::parkHookResult;
using test::bytes;
using test::classFileBuilder;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kHookName = "com.korvane.twutils.nativeagent.hook.ParkHook";
const std::string kPackage = "java.util.concurrent.locks.";
constexpr const char* kSynchronizer = "AbstractQueuedSynchronizer";
constexpr const char* kLongSynchronizer = "AbstractQueuedLongSynchronizer";

std::vector<std::string> called;
std::function<void(JNIEnv*)> inCallback;

const agent::parkCallbacks kCallbacks{
    [](JNIEnv* jni) {
      called.emplace_back("begins");
      inCallback(jni);
    },
    [](JNIEnv* jni, jthread thread, jobject blocker) {
      called.emplace_back(std::string(thread == nullptr ? "no thread " : "parks ") +
                          (blocker == nullptr ? "over" : "because"));
      inCallback(jni);
    },
};

class parkHookTest : public test::agentTest {
 protected:
  void SetUp() override {
    called.clear();
    inCallback = [](JNIEnv*) {};
    jvmtiCapabilities wanted{};
    wanted.can_retransform_classes = 1;
    ASSERT_EQ(vm.jvmti()->AddCapabilities(&wanted), JVMTI_ERROR_NONE);
    jvmtiEventCallbacks callbacks{};
    callbacks.ClassFileLoadHook = &parkHook::ClassFileLoadHook;
    ASSERT_EQ(vm.jvmti()->SetEventCallbacks(&callbacks, sizeof callbacks), JVMTI_ERROR_NONE);
  }

  // Loads the four classes with the methods that they have since JDK 17.
  void loadClasses() {
    load("LockSupport", {{"setBlocker", "(Ljava/lang/Thread;Ljava/lang/Object;)V"},
                         {"setCurrentBlocker", "(Ljava/lang/Object;)V"}});
    load(kSynchronizer,
         {{"acquire", "(Ljava/util/concurrent/locks/AbstractQueuedSynchronizer$Node;IZZZJ)I"}});
    load(kLongSynchronizer,
         {{"acquire", "(Ljava/util/concurrent/locks/AbstractQueuedLongSynchronizer$Node;JZZZJ)I"}});
    load("StampedLock", {{"acquireWrite", "(ZZJ)J"}, {"acquireRead", "(ZZJ)J"}});
  }
  void load(const std::string& name,
            const std::vector<std::pair<const char*, const char*>>& methods) {
    classFileBuilder builder;
    for (const auto& [method, descriptor] : methods) {
      builder.method(method, descriptor, {});
    }
    fake::javaClass* const made = vm.makeClass(kPackage + name);
    made->originalBytes = builder.build();
    made->bytes = made->originalBytes;
    classes_[name] = made;
  }

  parkHookResult install() {
    return vm.native([&](JNIEnv* jni) { return parkHook::install(vm.jvmti(), jni, kCallbacks); });
  }
  std::string remove() {
    return vm.native([&](JNIEnv* jni) { return parkHook::remove(vm.jvmti(), jni); });
  }
  bool isEnabled() const { return vm.isEnabled(JVMTI_EVENT_CLASS_FILE_LOAD_HOOK); }

  fake::javaClass* cls(const std::string& name) { return classes_.at(name); }
  // How many methods of the class call the method of the hook.
  bool hasCalls(const std::string& name) {
    return cls(name)->bytes.size() > cls(name)->originalBytes.size();
  }
  bool anyHasCalls() {
    return std::any_of(classes_.begin(), classes_.end(),
                       [&](const auto& each) { return hasCalls(each.first); });
  }

  // As the class of the hook calls them.
  void acquisitionBegins() { callNative<void(JNICALL*)(JNIEnv*, jclass)>("acquisitionBegins"); }
  void blockerSet(fake::object* blocker) {
    fake::javaThread* const thread = vm.currentThread();
    callNative<void(JNICALL*)(JNIEnv*, jclass, jthread, jobject)>("blockerSet", vm.ref(thread),
                                                                  vm.ref(blocker));
  }

 private:
  template <typename Native, typename... Arguments>
  void callNative(const char* name, Arguments... arguments) {
    const auto& natives = vm.classNamed(kHookName)->natives;
    ASSERT_TRUE(natives.contains(name));
    auto* const native = reinterpret_cast<Native>(natives.find(name)->second);
    vm.native([&](JNIEnv* jni) { native(jni, nullptr, arguments...); });
  }

  std::map<std::string, fake::javaClass*> classes_;
};

TEST_F(parkHookTest, putsItsCallsIntoAllFourClasses) {
  loadClasses();
  const parkHookResult result = install();
  EXPECT_EQ(result.missing, "");
  EXPECT_EQ(result.level, parkHookLevel::exact);
  for (const char* const each : {"LockSupport", kSynchronizer, kLongSynchronizer, "StampedLock"}) {
    EXPECT_TRUE(hasCalls(each)) << each;
  }
  EXPECT_TRUE(isEnabled());
  EXPECT_EQ(vm.calls("RetransformClasses"), 1U);
}

TEST_F(parkHookTest, makesTheClassesAsBefore) {
  loadClasses();
  install();
  EXPECT_EQ(remove(), "");
  EXPECT_FALSE(anyHasCalls());
  EXPECT_FALSE(isEnabled());
}

TEST_F(parkHookTest, canBeInstalledAgain) {
  loadClasses();
  install();
  remove();
  EXPECT_EQ(install().level, parkHookLevel::exact);
  EXPECT_TRUE(hasCalls("LockSupport"));
  EXPECT_EQ(vm.calls("DefineClass"), 1U);
}

TEST_F(parkHookTest, keepsItsCallsWhenSomebodyElseRetransforms) {
  loadClasses();
  install();
  cls("LockSupport")->bytes.clear();
  vm.native([&](JNIEnv*) {
    const auto type = static_cast<jclass>(vm.ref(cls("LockSupport")));
    EXPECT_EQ(vm.jvmti()->RetransformClasses(1, &type), JVMTI_ERROR_NONE);
  });
  EXPECT_TRUE(hasCalls("LockSupport"));
}

// --- What the natives pass on.

TEST_F(parkHookTest, callsWhoIsToBeCalled) {
  loadClasses();
  install();
  acquisitionBegins();
  blockerSet(vm.makeObject("a.Lock"));
  blockerSet(nullptr);
  EXPECT_THAT(called, ElementsAre("begins", "parks because", "parks over"));
}

TEST_F(parkHookTest, callsNobodyWhilePausedAndOnceRemoved) {
  loadClasses();
  install();
  parkHook::deliverTo(nullptr);
  acquisitionBegins();
  blockerSet(nullptr);
  EXPECT_THAT(called, IsEmpty());
  parkHook::deliverTo(&kCallbacks);
  acquisitionBegins();
  EXPECT_THAT(called, ElementsAre("begins"));
  remove();
  acquisitionBegins();
  EXPECT_THAT(called, ElementsAre("begins"));
}

TEST_F(parkHookTest, leavesNothingThatACallbackThrows) {
  loadClasses();
  install();
  inCallback = [](JNIEnv*) { throw std::bad_alloc(); };
  acquisitionBegins();
  inCallback = [&](JNIEnv*) { vm.throwInJava(nullptr); };
  acquisitionBegins();
  blockerSet(nullptr);
  EXPECT_EQ(called.size(), 3U);
}

// --- Other JDKs.

TEST_F(parkHookTest, namesWhatThisJdkDoesNotHave) {
  load("LockSupport", {{"setBlocker", "(Ljava/lang/Thread;Ljava/lang/Object;)V"}});
  load(kSynchronizer, {{"acquireQueued", "()Z"}});
  load("StampedLock", {{"acquireWrite", "(ZZJ)J"}, {"acquireRead", "(ZJ)J"}});
  const parkHookResult result = install();
  EXPECT_EQ(result.level, parkHookLevel::parks);
  EXPECT_EQ(result.missing,
            "not hooked: LockSupport.setCurrentBlocker, AbstractQueuedSynchronizer.acquire, "
            "AbstractQueuedLongSynchronizer.acquire, StampedLock.acquireRead");
  EXPECT_TRUE(isEnabled());
}

TEST_F(parkHookTest, seesNothingWhereThereIsNoSetBlocker) {
  loadClasses();
  cls("LockSupport")->originalBytes = classFileBuilder().build();
  const parkHookResult result = install();
  EXPECT_EQ(result.level, parkHookLevel::none);
  EXPECT_EQ(result.missing, "not hooked: LockSupport.setBlocker, LockSupport.setCurrentBlocker");
  EXPECT_FALSE(isEnabled());
  EXPECT_FALSE(anyHasCalls());
}

TEST_F(parkHookTest, leavesAClassThatItCannotReadAsItIs) {
  loadClasses();
  cls("StampedLock")->originalBytes.pop_back();
  const parkHookResult result = install();
  EXPECT_EQ(result.missing, "not hooked: StampedLock.acquireWrite, StampedLock.acquireRead");
  EXPECT_EQ(cls("StampedLock")->bytes, cls("StampedLock")->originalBytes);
}

TEST_F(parkHookTest, leavesOtherClassesAndLoadersAlone) {
  loadClasses();
  install();
  const bytes original = cls("LockSupport")->originalBytes;
  EXPECT_EQ(vm.classFileLoad("java/util/concurrent/locks/LockSupport2", original), original);
  EXPECT_EQ(vm.classFileLoad(nullptr, original), original);
  EXPECT_EQ(vm.classFileLoad("java/util/concurrent/locks/LockSupport", original,
                             vm.makeObject("a.Loader")),
            original);
  EXPECT_NE(vm.classFileLoad("java/util/concurrent/locks/LockSupport", original), original);
}

// --- A VM that refuses.

struct refusedCall {
  const char* function;
  bool throwing = false;
  parkHookLevel level = parkHookLevel::none;
  const char* text = "";
};

void PrintTo(const refusedCall& row, std::ostream* out) {
  *out << row.function << (row.throwing ? ", throwing" : "");
}

class parkHookRefused : public parkHookTest, public testing::WithParamInterface<refusedCall> {};

constexpr const char* kEverything =
    "not hooked: LockSupport.setBlocker, LockSupport.setCurrentBlocker, "
    "AbstractQueuedSynchronizer.acquire, AbstractQueuedLongSynchronizer.acquire, "
    "StampedLock.acquireWrite, StampedLock.acquireRead";

TEST_P(parkHookRefused, isReportedAndLeavesTheClassesAsTheyWere) {
  const refusedCall& row = GetParam();
  loadClasses();
  vm.fail(row.function, {.error = JVMTI_ERROR_OUT_OF_MEMORY, .throwing = row.throwing});
  const parkHookResult result = install();
  EXPECT_EQ(result.level, row.level);
  EXPECT_EQ(result.missing, row.text);
  EXPECT_FALSE(anyHasCalls());
  vm.succeed(row.function);
  // And once the VM does not refuse any more, all is as usual.
  EXPECT_EQ(install().level, parkHookLevel::exact);
  EXPECT_EQ(remove(), "");
}

INSTANTIATE_TEST_SUITE_P(
    each, parkHookRefused,
    testing::Values(refusedCall{"DefineClass", false, parkHookLevel::none,
                                "the class of the hook cannot be defined"},
                    refusedCall{"DefineClass", true, parkHookLevel::none,
                                "the class of the hook cannot be defined"},
                    refusedCall{"RegisterNatives", false, parkHookLevel::none,
                                "the natives of the hook cannot be bound"},
                    refusedCall{"RegisterNatives", true, parkHookLevel::none,
                                "the natives of the hook cannot be bound"},
                    refusedCall{"SetEventNotificationMode", false, parkHookLevel::none,
                                "SetEventNotificationMode answered JVMTI_ERROR_OUT_OF_MEMORY"},
                    refusedCall{"FindClass", false, parkHookLevel::none, kEverything},
                    refusedCall{"FindClass", true, parkHookLevel::none, kEverything},
                    refusedCall{"Allocate", false, parkHookLevel::none, kEverything}));

TEST_F(parkHookTest, reportsThatNoClassMayBeChanged) {
  loadClasses();
  vm.fail("RetransformClasses", {.error = JVMTI_ERROR_FAILS_VERIFICATION});
  const parkHookResult result = install();
  EXPECT_EQ(result.level, parkHookLevel::none);
  EXPECT_EQ(result.missing, std::string("RetransformClasses answered "
                                        "JVMTI_ERROR_FAILS_VERIFICATION; ") +
                                kEverything);
  EXPECT_FALSE(isEnabled());
}

TEST_F(parkHookTest, hooksTheClassesThatMayBeChanged) {
  loadClasses();
  vm.fail("RetransformClasses",
          {.error = JVMTI_ERROR_FAILS_VERIFICATION, .when = [&](const fake::call& call) {
             return call.number > 1 || call.target == cls("StampedLock");
           }});
  const parkHookResult result = install();
  EXPECT_EQ(result.level, parkHookLevel::parks);
  EXPECT_EQ(result.missing,
            "RetransformClasses answered JVMTI_ERROR_FAILS_VERIFICATION; "
            "not hooked: StampedLock.acquireWrite, StampedLock.acquireRead");
  EXPECT_TRUE(hasCalls("LockSupport"));
}

TEST_F(parkHookTest, reportsWhenTheCallsStay) {
  loadClasses();
  install();
  vm.fail("RetransformClasses", {.error = JVMTI_ERROR_OUT_OF_MEMORY});
  EXPECT_EQ(remove(), "RetransformClasses answered JVMTI_ERROR_OUT_OF_MEMORY");
  vm.fail("SetEventNotificationMode", {.error = JVMTI_ERROR_INTERNAL});
  EXPECT_EQ(remove(), "SetEventNotificationMode answered JVMTI_ERROR_INTERNAL");
  acquisitionBegins();
  EXPECT_THAT(called, IsEmpty());
}

// What was pending before stays so, and nothing is called with it.
TEST_F(parkHookTest, leavesAPendingExceptionAsItIs) {
  loadClasses();
  fake::object* const exception = vm.makeObject("java.lang.RuntimeException");
  vm.throwInJava(exception);
  EXPECT_EQ(install().level, parkHookLevel::exact);
  EXPECT_EQ(vm.pendingException(), exception);
  EXPECT_EQ(remove(), "");
  EXPECT_EQ(vm.pendingException(), exception);
  vm.clearException();
}

}  // namespace
