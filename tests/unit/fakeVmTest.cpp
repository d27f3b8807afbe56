// Tests of the fake VM itself: that it answers as a VM does, and that its checks catch what they
// are there for.
#include "fakevm/fakeVm.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using fake::delivery;
using fake::failure;

// What the installed callbacks do; set by each test. Callbacks are plain functions, so this is
// where they find it.
std::function<void(JNIEnv*, jthread, jobject)> onEvent;
std::function<void(jvmtiEnv*)> onCollection;

void JNICALL contendedEnter(jvmtiEnv*, JNIEnv* jni, jthread thread, jobject object) {
  onEvent(jni, thread, object);
}

void JNICALL collectionFinish(jvmtiEnv* jvmti) {
  onCollection(jvmti);
}

class fakeVmTest : public fake::vmTest {
 protected:
  void SetUp() override {
    jvmti = vm.jvmti();
    jni = vm.env();
  }

  void TearDown() override {
    onEvent = nullptr;
    onCollection = nullptr;
    vmTest::TearDown();
  }

  void install(jvmtiEvent event = JVMTI_EVENT_MONITOR_CONTENDED_ENTER) {
    jvmtiEventCallbacks callbacks{};
    callbacks.MonitorContendedEnter = contendedEnter;
    callbacks.GarbageCollectionFinish = collectionFinish;
    ASSERT_EQ(jvmti->SetEventCallbacks(&callbacks, sizeof callbacks), JVMTI_ERROR_NONE);
    ASSERT_EQ(jvmti->SetEventNotificationMode(JVMTI_ENABLE, event, nullptr), JVMTI_ERROR_NONE);
  }

  // Takes a text of the VM and frees it.
  std::string taken(char* text) {
    std::string copy = text == nullptr ? "null" : text;
    jvmti->Deallocate(reinterpret_cast<unsigned char*>(text));
    return copy;
  }

  std::string textOf(jobject string) {
    auto* reference = static_cast<jstring>(string);
    const char* characters = jni->GetStringUTFChars(reference, nullptr);
    std::string copy = characters;
    jni->ReleaseStringUTFChars(reference, characters);
    jni->DeleteLocalRef(string);
    return copy;
  }

  // The class name of an object as Java code would ask for it.
  std::string className(jobject object) {
    jclass type = jni->GetObjectClass(object);
    jobject mirror =
        jni->CallObjectMethod(object, jni->GetMethodID(type, "getClass", "()Ljava/lang/Class;"));
    jclass mirrorType = jni->GetObjectClass(mirror);
    jobject name = jni->CallObjectMethod(
        mirror, jni->GetMethodID(mirrorType, "getName", "()Ljava/lang/String;"));
    for (jobject reference : {jobject{type}, mirror, jobject{mirrorType}}) {
      jni->DeleteLocalRef(reference);
    }
    return textOf(name);
  }

  jvmtiEnv* jvmti = nullptr;
  JNIEnv* jni = nullptr;
};

// --- The tables.

TEST_F(fakeVmTest, everySlotOfTheTablesIsFilled) {
  const auto filled = [](const auto* table) {
    const auto* const* slots = reinterpret_cast<const void* const*>(table);
    return std::count(slots, slots + sizeof *table / sizeof(void*), nullptr) == 0;
  };
  EXPECT_TRUE(filled(jvmti->functions));
  EXPECT_TRUE(filled(jni->functions));
  EXPECT_TRUE(filled(vm.javaVm()->functions));
}

TEST_F(fakeVmTest, aSlotThatIsNotModelledFailsByName) {
  EXPECT_NONFATAL_FAILURE(jvmti->GetOwnedMonitorInfo(nullptr, nullptr, nullptr),
                          "JVMTI GetOwnedMonitorInfo (slot 9) is not modelled");
  EXPECT_NONFATAL_FAILURE(jni->AllocObject(nullptr), "JNI AllocObject (slot 27) is not modelled");
  EXPECT_NONFATAL_FAILURE(vm.javaVm()->DestroyJavaVM(), "DestroyJavaVM (slot 3) is not modelled");
}

TEST_F(fakeVmTest, theJavaVmGivesEnvironments) {
  void* found = nullptr;
  EXPECT_EQ(vm.javaVm()->GetEnv(&found, 0x30010000), JNI_OK);
  EXPECT_EQ(found, jvmti);
  EXPECT_EQ(vm.javaVm()->GetEnv(&found, JNI_VERSION_1_8), JNI_OK);
  EXPECT_EQ(found, jni);
  EXPECT_EQ(vm.javaVm()->GetEnv(&found, 0x7FFF), JNI_EVERSION);
  JavaVM* self = nullptr;
  EXPECT_EQ(jni->GetJavaVM(&self), JNI_OK);
  EXPECT_EQ(self, vm.javaVm());
}

// --- References.

TEST_F(fakeVmTest, staleReferencesFail) {
  auto* lock = vm.makeObject("com.example.Lock");
  jobject local = jni->NewLocalRef(vm.ref(lock));
  jni->DeleteLocalRef(local);
  EXPECT_NONFATAL_FAILURE(jni->DeleteLocalRef(local), "DeleteLocalRef: reference");
  jobject second = jni->NewLocalRef(vm.ref(lock));  // takes the slot over
  EXPECT_NE(second, local);
  EXPECT_NONFATAL_FAILURE(jni->GetObjectClass(local), "is stale");
  jint hash = 7;
  EXPECT_NONFATAL_FAILURE(jvmti->GetObjectHashCode(local, &hash), "GetObjectHashCode: reference");
  EXPECT_EQ(hash, 7);
  jni->DeleteLocalRef(second);

  jobject global = jni->NewGlobalRef(vm.ref(lock));
  jni->DeleteGlobalRef(global);
  EXPECT_NONFATAL_FAILURE(jni->DeleteGlobalRef(global), "is stale");
  EXPECT_NONFATAL_FAILURE(jni->IsSameObject(global, nullptr), "is stale");
}

TEST_F(fakeVmTest, referencesOfAnotherKindOrNoneFail) {
  auto* lock = vm.makeObject("com.example.Lock");
  jobject global = jni->NewGlobalRef(vm.ref(lock));
  jweak weak = jni->NewWeakGlobalRef(vm.ref(lock));
  EXPECT_NONFATAL_FAILURE(jni->DeleteLocalRef(global), "is not a local reference");
  EXPECT_NONFATAL_FAILURE(jni->DeleteGlobalRef(vm.ref(lock)), "is not a global reference");
  EXPECT_NONFATAL_FAILURE(jni->DeleteGlobalRef(weak), "is not a global reference");
  EXPECT_NONFATAL_FAILURE(jni->DeleteWeakGlobalRef(global), "is not a weak global reference");
  const auto tag = reinterpret_cast<jobject>(std::uintptr_t{41});
  EXPECT_NONFATAL_FAILURE(jni->DeleteGlobalRef(tag), "is not a global reference");
  EXPECT_NONFATAL_FAILURE(jni->GetObjectRefType(tag), "was never made by this VM");
  EXPECT_NONFATAL_FAILURE(jni->GetObjectClass(nullptr), "GetObjectClass: a null reference");
  EXPECT_EQ(jni->GetObjectRefType(nullptr), JNIInvalidRefType);
  EXPECT_EQ(jni->GetObjectRefType(vm.ref(lock)), JNILocalRefType);
  EXPECT_EQ(jni->GetObjectRefType(global), JNIGlobalRefType);
  EXPECT_EQ(jni->GetObjectRefType(weak), JNIWeakGlobalRefType);
  EXPECT_EQ(vm.globalReferencesTo(lock), 1U);
  jni->DeleteGlobalRef(global);
  jni->DeleteWeakGlobalRef(weak);
}

TEST_F(fakeVmTest, referencesOfAnotherVmFail) {
  fake::virtualMachine second;
  jobject foreign = second.env()->NewGlobalRef(second.ref(second.makeObject("com.example.Lock")));
  jobject own = jni->NewGlobalRef(vm.ref(vm.makeObject("com.example.Lock")));
  EXPECT_NONFATAL_FAILURE(jni->GetObjectClass(foreign), "is stale");
  jni->DeleteGlobalRef(own);
}

TEST_F(fakeVmTest, isSameObjectKnowsAllKinds) {
  auto* lock = vm.makeObject("com.example.Lock");
  jobject local = vm.ref(lock);
  jobject global = jni->NewGlobalRef(local);
  jweak weak = jni->NewWeakGlobalRef(global);
  EXPECT_TRUE(jni->IsSameObject(local, global));
  EXPECT_TRUE(jni->IsSameObject(weak, local));
  EXPECT_TRUE(jni->IsSameObject(nullptr, nullptr));
  EXPECT_FALSE(jni->IsSameObject(weak, nullptr));
  EXPECT_FALSE(jni->IsSameObject(local, vm.ref(vm.makeObject("com.example.Lock"))));
  jni->DeleteGlobalRef(global);
  jni->DeleteWeakGlobalRef(weak);
}

TEST_F(fakeVmTest, collectingClearsWeakReferences) {
  auto* lock = vm.makeObject("com.example.Lock");
  jweak weak = nullptr;
  vm.native([&](JNIEnv* env) { weak = env->NewWeakGlobalRef(vm.ref(lock)); });
  vm.collect(lock);
  EXPECT_TRUE(jni->IsSameObject(weak, nullptr));
  EXPECT_EQ(jni->NewLocalRef(weak), nullptr);
  EXPECT_EQ(jni->GetObjectRefType(weak), JNIWeakGlobalRefType);
  EXPECT_NONFATAL_FAILURE(jni->GetObjectClass(weak), "a cleared weak reference");
  jni->DeleteWeakGlobalRef(weak);
}

TEST_F(fakeVmTest, whatIsHeldIsNotCollected) {
  auto* lock = vm.makeObject("com.example.Lock");
  jobject global = vm.native([&](JNIEnv* env) { return env->NewGlobalRef(vm.ref(lock)); });
  EXPECT_NONFATAL_FAILURE(vm.collect(lock), "references hold the object: 1 of NewGlobalRef");
  jni->DeleteGlobalRef(global);
}

TEST_F(fakeVmTest, anUnloadedClassTakesItsIdsAlong) {
  auto* type = vm.makeClass("com.example.Plugin");
  auto* newer = vm.makeClass("com.example.Plugin");
  EXPECT_EQ(vm.classNamed("com.example.Plugin"), type);
  auto* run = vm.makeMethod(type, "run", "()V");
  vm.makeObject(type);
  jweak weak = nullptr;
  vm.native([&](JNIEnv* env) {
    weak = env->NewWeakGlobalRef(vm.ref(type));
    EXPECT_FALSE(env->IsSameObject(weak, vm.ref(newer)));
  });
  vm.unload(type);
  EXPECT_TRUE(jni->IsSameObject(weak, nullptr));
  EXPECT_EQ(vm.classNamed("com.example.Plugin"), newer);
  char* name = nullptr;
  EXPECT_NONFATAL_FAILURE(jvmti->GetMethodName(run->id, &name, nullptr, nullptr),
                          "is none, or went with its class");
  jni->DeleteWeakGlobalRef(weak);
}

TEST_F(fakeVmTest, framesFreeTheirReferences) {
  jobject lock = vm.ref(vm.makeObject("com.example.Lock"));
  ASSERT_EQ(jni->PushLocalFrame(8), JNI_OK);
  jobject dropped = jni->NewLocalRef(lock);
  jobject outer = jni->PopLocalFrame(dropped);
  EXPECT_TRUE(jni->IsSameObject(outer, lock));
  EXPECT_NONFATAL_FAILURE(jni->GetObjectClass(dropped), "is stale");
  jni->DeleteLocalRef(outer);
  EXPECT_NONFATAL_FAILURE(jni->PopLocalFrame(nullptr), "PopLocalFrame: no frame was pushed");
}

TEST_F(fakeVmTest, referencesAreDeletedInAnyOrder) {
  jobject lock = vm.ref(vm.makeObject("com.example.Lock"));
  vm.native([&](JNIEnv* env) {
    std::vector<jobject> made(200);
    for (jobject& reference : made) {
      reference = env->NewLocalRef(lock);
    }
    EXPECT_EQ(vm.localReferences(), 200U);
    for (std::size_t at = 0; at < made.size(); at += 2) {
      env->DeleteLocalRef(made[at]);
    }
    for (std::size_t at = made.size(); at > 0; at -= 2) {
      env->DeleteLocalRef(made[at - 1]);
    }
  });
  EXPECT_EQ(vm.localReferences(), 0U);
  EXPECT_EQ(vm.peakLocalReferences(), 201U);  // with the test's own
}

// --- What is left behind.

TEST_F(fakeVmTest, whatIsHeldAtTheEndIsReported) {
  const auto leftBy = [](const auto& body) {
    fake::virtualMachine left;
    body(left, left.env());
    left.checkNothingHeld();
  };
  EXPECT_NONFATAL_FAILURE(leftBy([](auto& left, JNIEnv*) {
                            jvmtiThreadInfo info{};
                            left.jvmti()->GetThreadInfo(nullptr, &info);
                            left.env()->DeleteLocalRef(info.thread_group);
                            left.env()->DeleteLocalRef(info.context_class_loader);
                          }),
                          "VM memory: 1 of GetThreadInfo");
  EXPECT_NONFATAL_FAILURE(leftBy([](auto& left, JNIEnv* env) {
                            env->GetStringUTFChars(left.ref(left.makeString("text")), nullptr);
                          }),
                          "UTF characters: 1 of GetStringUTFChars");
  EXPECT_NONFATAL_FAILURE(leftBy([](auto& left, JNIEnv* env) {
                            env->NewGlobalRef(left.ref(left.makeObject("com.example.Lock")));
                          }),
                          "global references: 1 of NewGlobalRef");
  EXPECT_NONFATAL_FAILURE(leftBy([](auto& left, JNIEnv* env) {
                            env->NewWeakGlobalRef(left.ref(left.makeObject("com.example.Lock")));
                          }),
                          "weak global references: 1 of NewWeakGlobalRef");
  EXPECT_NONFATAL_FAILURE(leftBy([](auto&, JNIEnv* env) { env->FindClass("java/lang/String"); }),
                          "local references: 1 of FindClass");
  EXPECT_NONFATAL_FAILURE(leftBy([](auto& left, JNIEnv*) { left.throwInJava(nullptr); }),
                          "a pending exception: java.lang.RuntimeException");
}

TEST_F(fakeVmTest, whatAnEventLeavesBehindIsReported) {
  install();
  auto* worker = vm.makeThread("worker-1");
  auto* lock = vm.makeObject("com.example.Lock");
  const auto fire = [&](auto body) {
    onEvent = [body](JNIEnv* env, jthread, jobject object) { body(env, object); };
    vm.contendedEnter(worker, lock);
  };
  EXPECT_NONFATAL_FAILURE(fire([](JNIEnv* env, jobject object) { env->GetObjectClass(object); }),
                          "MonitorContendedEnter: local references not deleted: 1 of GetObjectC");
  EXPECT_NONFATAL_FAILURE(fire([this](JNIEnv*, jobject) { vm.throwInJava(nullptr); }),
                          "a Java exception is left pending: java.lang.RuntimeException");
  EXPECT_NONFATAL_FAILURE(fire([](JNIEnv* env, jobject) { env->PushLocalFrame(4); }),
                          "PushLocalFrame without PopLocalFrame");
  EXPECT_NONFATAL_FAILURE(fire([](JNIEnv*, jobject) { throw std::runtime_error("oops"); }),
                          "a C++ exception came out: oops");
  unsigned char* block = nullptr;
  EXPECT_NONFATAL_FAILURE(fire([&](JNIEnv*, jobject) { jvmti->Allocate(8, &block); }),
                          "VM memory not given back: 1 blocks (held: 1 of Allocate)");
  jvmti->Deallocate(block);
  jstring text = vm.ref(vm.makeString("text"));
  const char* characters = nullptr;
  EXPECT_NONFATAL_FAILURE(
      fire([&](JNIEnv* env, jobject) { characters = env->GetStringUTFChars(text, nullptr); }),
      "UTF characters not released: 1");
  jni->ReleaseStringUTFChars(text, characters);
  EXPECT_EQ(vm.pendingException(), nullptr);
  EXPECT_EQ(vm.localReferences(), 0U);
}

TEST_F(fakeVmTest, aNativeMethodIsCheckedLikeAnEvent) {
  EXPECT_EQ(vm.native([](JNIEnv* env) { return env->GetVersion(); }), JNI_VERSION_10);
  EXPECT_NONFATAL_FAILURE(vm.native([](JNIEnv* env) { env->FindClass("java/lang/String"); }),
                          "native method: local references not deleted: 1 of FindClass");
  EXPECT_NONFATAL_FAILURE(vm.native([&](JNIEnv* env) { env->FindClass("com/example/None"); }),
                          "left pending: java.lang.NoClassDefFoundError");
}

// --- VM memory and characters.

TEST_F(fakeVmTest, memoryIsFreedOnce) {
  unsigned char* block = nullptr;
  ASSERT_EQ(jvmti->Allocate(16, &block), JVMTI_ERROR_NONE);
  EXPECT_EQ(vm.memoryHeld(), 1U);
  EXPECT_EQ(jvmti->Deallocate(block), JVMTI_ERROR_NONE);
  EXPECT_NONFATAL_FAILURE(jvmti->Deallocate(block), "Deallocate: not VM memory");
  unsigned char local = 0;
  EXPECT_NONFATAL_FAILURE(jvmti->Deallocate(&local), "Deallocate: not VM memory");
  EXPECT_EQ(jvmti->Deallocate(nullptr), JVMTI_ERROR_NONE);
  EXPECT_EQ(jvmti->Allocate(0, &block), JVMTI_ERROR_NONE);
  EXPECT_EQ(block, nullptr);
}

TEST_F(fakeVmTest, charactersGoWithTheirString) {
  jstring one = vm.ref(vm.makeString("one"));
  jstring other = vm.ref(vm.makeString("other"));
  const char* text = jni->GetStringUTFChars(one, nullptr);
  EXPECT_STREQ(text, "one");
  EXPECT_NONFATAL_FAILURE(jni->ReleaseStringUTFChars(other, text), "of another string");
  EXPECT_NONFATAL_FAILURE(jni->ReleaseStringUTFChars(one, text), "not characters that are held");
  EXPECT_EQ(vm.charactersHeld(), 0U);
}

// --- Failures that are asked for, hooks and counts.

TEST_F(fakeVmTest, failedJvmtiCallsLeaveTheirOutputs) {
  jlong time = -7;
  vm.fail("GetTime", {.error = JVMTI_ERROR_OUT_OF_MEMORY});
  EXPECT_EQ(jvmti->GetTime(&time), JVMTI_ERROR_OUT_OF_MEMORY);
  EXPECT_EQ(time, -7);
  vm.succeed("GetTime");
  EXPECT_EQ(jvmti->GetTime(&time), JVMTI_ERROR_NONE);
  EXPECT_EQ(time, vm.time());
  EXPECT_EQ(vm.calls("GetTime"), 2U);
}

TEST_F(fakeVmTest, failuresAreCounted) {
  const auto outcomes = [&](failure how) {
    std::string seen;
    vm.fail("GetTime", std::move(how));
    for (int call = 0; call < 5; ++call) {
      jlong time = 0;
      seen += jvmti->GetTime(&time) == JVMTI_ERROR_NONE ? '.' : 'x';
    }
    vm.succeed("GetTime");
    return seen;
  };
  EXPECT_EQ(outcomes({}), "xxxxx");
  EXPECT_EQ(outcomes({.from = 3}), "..xxx");
  EXPECT_EQ(outcomes({.from = 2, .times = 1}), ".x...");
  EXPECT_EQ(outcomes({.times = 3}), "xxx..");
  int asked = 0;
  EXPECT_EQ(outcomes({.when = [&](const fake::call&) { return ++asked % 2 == 0; }}), ".x.x.");
}

TEST_F(fakeVmTest, failedJniCallsGiveNothing) {
  jobject lock = vm.ref(vm.makeObject("com.example.Lock"));
  jclass type = jni->GetObjectClass(lock);
  vm.fail("GetMethodID", {.name = "getClass"});
  EXPECT_EQ(jni->GetMethodID(type, "getClass", "()Ljava/lang/Class;"), nullptr);
  EXPECT_FALSE(jni->ExceptionCheck());
  EXPECT_NE(jni->GetMethodID(type, "toString", "()Ljava/lang/String;"), nullptr);
  vm.succeed("GetMethodID");
  vm.fail("CallObjectMethod", {.name = "getClass", .throwing = true});
  jmethodID getClass = jni->GetMethodID(type, "getClass", "()Ljava/lang/Class;");
  EXPECT_EQ(jni->CallObjectMethod(lock, getClass), nullptr);
  EXPECT_TRUE(jni->ExceptionCheck());
  jni->ExceptionClear();
  vm.fail("PushLocalFrame");
  EXPECT_LT(jni->PushLocalFrame(4), 0);
  jni->DeleteLocalRef(type);
}

TEST_F(fakeVmTest, aWrongFunctionNameIsRefused) {
  EXPECT_THROW(vm.fail("GetTme"), std::invalid_argument);
  EXPECT_THROW(vm.calls("GetTme"), std::invalid_argument);
}

TEST_F(fakeVmTest, hooksSeeTheCallAndRunFirst) {
  auto* lock = vm.makeObject("com.example.Lock");
  jlong time = 0;
  vm.on("GetTime", [&] { vm.setTime(77); });
  EXPECT_EQ(jvmti->GetTime(&time), JVMTI_ERROR_NONE);
  EXPECT_EQ(time, 77);
  fake::object* seen = nullptr;
  vm.on("GetObjectHashCode", [&](const fake::call& made) { seen = made.target; });
  jint hash = 0;
  jvmti->GetObjectHashCode(vm.ref(lock), &hash);
  EXPECT_EQ(seen, lock);
  vm.off("GetObjectHashCode");
  seen = nullptr;
  jvmti->GetObjectHashCode(vm.ref(lock), &hash);
  EXPECT_EQ(seen, nullptr);
}

TEST_F(fakeVmTest, callsAreCountedAndLogged) {
  jlong time = 0;
  vm.resetCalls();
  vm.setLogging(true);
  jvmti->GetTime(&time);
  jni->ExceptionCheck();
  jvmti->GetTime(&time);
  EXPECT_EQ(vm.callLog(), (std::vector<std::string>{"GetTime", "ExceptionCheck", "GetTime"}));
  EXPECT_EQ(vm.callNames(), (std::set<std::string>{"GetTime", "ExceptionCheck"}));
  vm.setRecording(false);
  jvmti->GetTime(&time);
  EXPECT_EQ(vm.calls("GetTime"), 2U);
  vm.resetCalls();
  EXPECT_TRUE(vm.callNames().empty());
}

// --- Exceptions.

TEST_F(fakeVmTest, fewCallsAreAllowedWithAPendingException) {
  jobject lock = vm.ref(vm.makeObject("com.example.Lock"));
  jobject extra = jni->NewLocalRef(lock);
  vm.throwInJava(nullptr);
  EXPECT_NONFATAL_FAILURE(jni->GetObjectClass(lock),
                          "GetObjectClass: not allowed with a pending exception");
  jni->DeleteLocalRef(extra);
  EXPECT_TRUE(jni->ExceptionCheck());
  jthrowable thrown = jni->ExceptionOccurred();
  ASSERT_NE(thrown, nullptr);
  jni->ExceptionClear();
  EXPECT_FALSE(jni->ExceptionCheck());
  EXPECT_EQ(jni->Throw(thrown), JNI_OK);
  EXPECT_EQ(vm.pendingException(), vm.target(thrown));
  jni->DeleteLocalRef(thrown);
  jni->ExceptionDescribe();
  EXPECT_EQ(vm.pendingException(), nullptr);
}

TEST_F(fakeVmTest, anEventKeepsTheExceptionThatWasPending) {
  install();
  auto* thrown = vm.makeObject("java.lang.IllegalStateException");
  vm.throwInJava(thrown);
  onEvent = [](JNIEnv*, jthread, jobject) {};
  vm.contendedEnter(nullptr, nullptr);
  EXPECT_EQ(vm.pendingException(), thrown);
  onEvent = [](JNIEnv* env, jthread, jobject) { env->ExceptionClear(); };
  EXPECT_NONFATAL_FAILURE(vm.contendedEnter(nullptr, nullptr), "that was pending is gone");
  EXPECT_EQ(vm.pendingException(), thrown);
  vm.clearException();
}

// --- Events.

TEST_F(fakeVmTest, eventsComeWhenInstalledAndEnabled) {
  auto* worker = vm.makeThread("worker-1");
  auto* lock = vm.makeObject("com.example.Lock");
  int events = 0;
  onEvent = [&](JNIEnv* env, jthread thread, jobject object) {
    ++events;
    EXPECT_EQ(vm.target(thread), worker);
    EXPECT_EQ(vm.target(object), lock);
    EXPECT_EQ(vm.currentThread(), worker);
    EXPECT_EQ(env, jni);
  };
  EXPECT_FALSE(vm.contendedEnter(worker, lock));
  install();
  EXPECT_TRUE(vm.isEnabled(JVMTI_EVENT_MONITOR_CONTENDED_ENTER));
  EXPECT_EQ(vm.callbacks().MonitorContendedEnter, contendedEnter);
  EXPECT_TRUE(vm.contendedEnter(worker, lock));
  EXPECT_FALSE(vm.contendedEntered(worker, lock));
  jvmti->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_MONITOR_CONTENDED_ENTER, nullptr);
  EXPECT_FALSE(vm.contendedEnter(worker, lock));
  EXPECT_TRUE(vm.contendedEnter(worker, lock, delivery::always));
  EXPECT_EQ(events, 2);
  const std::vector<fake::eventMode> modes = {{JVMTI_ENABLE, JVMTI_EVENT_MONITOR_CONTENDED_ENTER},
                                              {JVMTI_DISABLE, JVMTI_EVENT_MONITOR_CONTENDED_ENTER}};
  EXPECT_EQ(vm.eventModes(), modes);
  EXPECT_NE(vm.currentThread(), worker);
}

TEST_F(fakeVmTest, eventsMayLackTheirArguments) {
  install();
  bool bothNull = false;
  onEvent = [&](JNIEnv*, jthread thread, jobject object) {
    bothNull = thread == nullptr && object == nullptr;
  };
  EXPECT_TRUE(vm.contendedEnter(nullptr, nullptr));
  EXPECT_TRUE(bothNull);
}

TEST_F(fakeVmTest, aCollectionCallbackMayHardlyCallTheVm) {
  install(JVMTI_EVENT_GARBAGE_COLLECTION_FINISH);
  int collections = 0;
  onCollection = [&](jvmtiEnv* env) {
    ++collections;
    unsigned char* block = nullptr;
    EXPECT_EQ(env->Allocate(4, &block), JVMTI_ERROR_NONE);
    EXPECT_EQ(env->Deallocate(block), JVMTI_ERROR_NONE);
    jint hash = 0;
    EXPECT_NONFATAL_FAILURE(env->GetObjectHashCode(nullptr, &hash),
                            "not allowed in GarbageCollectionFinish");
    EXPECT_NONFATAL_FAILURE(jni->FindClass("java/lang/String"),
                            "not allowed in GarbageCollectionFinish");
  };
  EXPECT_TRUE(vm.garbageCollectionFinish());
  vm.setEventsPerCollection(3);
  EXPECT_EQ(jvmti->ForceGarbageCollection(), JVMTI_ERROR_NONE);
  EXPECT_EQ(collections, 4);
  EXPECT_EQ(vm.calls("ForceGarbageCollection"), 1U);
}

TEST_F(fakeVmTest, theCallbackTableMustHaveItsSize) {
  jvmtiEventCallbacks callbacks{};
  EXPECT_NONFATAL_FAILURE(jvmti->SetEventCallbacks(&callbacks, 8), "SetEventCallbacks: the size");
  EXPECT_EQ(jvmti->SetEventCallbacks(nullptr, 0), JVMTI_ERROR_NONE);
  EXPECT_EQ(jvmti->SetEventNotificationMode(JVMTI_ENABLE, static_cast<jvmtiEvent>(49), nullptr),
            JVMTI_ERROR_INVALID_EVENT_TYPE);
}

// --- JVMTI.

TEST_F(fakeVmTest, timeIsTheTests) {
  jlong time = 0;
  vm.setTime(1'000);
  vm.setTimeStep(10);
  jvmti->GetTime(&time);
  EXPECT_EQ(time, 1'000);
  vm.advance(5);
  jvmti->GetTime(&time);
  EXPECT_EQ(time, 1'015);
}

TEST_F(fakeVmTest, mostCallsNeedALivePhase) {
  void* data = this;
  jlong time = 0;
  vm.setPhase(JVMTI_PHASE_DEAD);
  EXPECT_EQ(jvmti->GetThreadLocalStorage(nullptr, &data), JVMTI_ERROR_WRONG_PHASE);
  EXPECT_EQ(data, this);
  EXPECT_EQ(jvmti->GetTime(&time), JVMTI_ERROR_NONE);
  vm.setPhase(JVMTI_PHASE_ONLOAD);
  jvmtiCapabilities capabilities{};
  EXPECT_EQ(jvmti->AddCapabilities(&capabilities), JVMTI_ERROR_NONE);
  jvmtiThreadInfo info{};
  EXPECT_EQ(jvmti->GetThreadInfo(nullptr, &info), JVMTI_ERROR_WRONG_PHASE);
  jvmtiPhase phase{};
  EXPECT_EQ(jvmti->GetPhase(&phase), JVMTI_ERROR_NONE);
  EXPECT_EQ(phase, JVMTI_PHASE_ONLOAD);
}

TEST_F(fakeVmTest, nothingIsCalledAfterDisposal) {
  jlong time = 0;
  EXPECT_EQ(jvmti->DisposeEnvironment(), JVMTI_ERROR_NONE);
  EXPECT_TRUE(vm.disposed());
  EXPECT_NONFATAL_FAILURE(jvmti->GetTime(&time), "GetTime: the environment was disposed of");
}

TEST_F(fakeVmTest, capabilitiesAddUp) {
  jvmtiCapabilities potential{};
  potential.can_tag_objects = 1;
  potential.can_get_monitor_info = 1;
  vm.setPotentialCapabilities(potential);
  jvmtiCapabilities asked{};
  asked.can_tag_objects = 1;
  EXPECT_EQ(jvmti->AddCapabilities(&asked), JVMTI_ERROR_NONE);
  asked = {};
  asked.can_get_monitor_info = 1;
  EXPECT_EQ(jvmti->AddCapabilities(&asked), JVMTI_ERROR_NONE);
  asked.can_generate_monitor_events = 1;
  EXPECT_EQ(jvmti->AddCapabilities(&asked), JVMTI_ERROR_NOT_AVAILABLE);
  EXPECT_EQ(vm.capabilities().can_tag_objects, 1U);
  EXPECT_EQ(vm.capabilities().can_get_monitor_info, 1U);
  EXPECT_EQ(vm.capabilities().can_generate_monitor_events, 0U);
  jvmtiCapabilities told{};
  EXPECT_EQ(jvmti->GetPotentialCapabilities(&told), JVMTI_ERROR_NONE);
  EXPECT_EQ(std::memcmp(&told, &potential, sizeof told), 0);
}

TEST_F(fakeVmTest, errorsHaveNames) {
  char* name = nullptr;
  EXPECT_EQ(jvmti->GetErrorName(JVMTI_ERROR_WRONG_PHASE, &name), JVMTI_ERROR_NONE);
  EXPECT_EQ(taken(name), "JVMTI_ERROR_WRONG_PHASE");
  EXPECT_EQ(jvmti->GetErrorName(static_cast<jvmtiError>(1), &name), JVMTI_ERROR_ILLEGAL_ARGUMENT);
}

TEST_F(fakeVmTest, threadsHaveNamesAndStorage) {
  auto* worker = vm.makeThread("worker-1");
  jvmtiThreadInfo info{};
  EXPECT_EQ(jvmti->GetThreadInfo(vm.ref(worker), &info), JVMTI_ERROR_NONE);
  EXPECT_EQ(taken(info.name), "worker-1");
  EXPECT_EQ(vm.localReferences(), 2U);
  jni->DeleteLocalRef(info.thread_group);
  jni->DeleteLocalRef(info.context_class_loader);

  worker->group = nullptr;
  worker->loader = nullptr;
  vm.rename(worker, std::nullopt);
  EXPECT_EQ(jvmti->GetThreadInfo(vm.ref(worker), &info), JVMTI_ERROR_NONE);
  EXPECT_EQ(info.name, nullptr);
  EXPECT_EQ(info.thread_group, nullptr);
  jobject noThread = vm.ref(vm.makeObject("com.example.Lock"));
  EXPECT_EQ(jvmti->GetThreadInfo(noThread, &info), JVMTI_ERROR_INVALID_THREAD);

  void* data = nullptr;
  EXPECT_EQ(jvmti->SetThreadLocalStorage(vm.ref(worker), this), JVMTI_ERROR_NONE);
  EXPECT_EQ(jvmti->GetThreadLocalStorage(nullptr, &data), JVMTI_ERROR_NONE);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(jvmti->GetThreadLocalStorage(vm.ref(worker), &data), JVMTI_ERROR_NONE);
  EXPECT_EQ(data, this);
}

TEST_F(fakeVmTest, monitorsHaveOwnersAndWaiters) {
  auto* lock = vm.makeObject("com.example.Lock");
  auto* owner = vm.makeThread("owner");
  auto* waiter = vm.makeThread("waiter");
  vm.setOwner(lock, owner, 2);
  vm.setWaiters(lock, {waiter});
  vm.setNotifyWaiters(lock, {waiter, owner});
  jvmtiMonitorUsage usage{};
  ASSERT_EQ(jvmti->GetObjectMonitorUsage(vm.ref(lock), &usage), JVMTI_ERROR_NONE);
  EXPECT_EQ(vm.target(usage.owner), owner);
  EXPECT_EQ(usage.entry_count, 2);
  ASSERT_EQ(usage.waiter_count, 1);
  EXPECT_EQ(vm.target(usage.waiters[0]), waiter);
  ASSERT_EQ(usage.notify_waiter_count, 2);
  EXPECT_EQ(vm.target(usage.notify_waiters[1]), owner);
  EXPECT_EQ(vm.localReferences(), 4U);
  for (jobject reference : {jobject{usage.owner}, jobject{usage.waiters[0]},
                            jobject{usage.notify_waiters[0]}, jobject{usage.notify_waiters[1]}}) {
    jni->DeleteLocalRef(reference);
  }
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(usage.waiters));
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(usage.notify_waiters));

  auto* bare = vm.makeObject("com.example.Lock");
  vm.setOwner(bare, vm.makeVirtualThread(""));
  ASSERT_EQ(jvmti->GetObjectMonitorUsage(vm.ref(bare), &usage), JVMTI_ERROR_NONE);
  EXPECT_EQ(usage.owner, nullptr);
  EXPECT_EQ(usage.waiters, nullptr);
  EXPECT_EQ(jvmti->GetObjectMonitorUsage(nullptr, &usage), JVMTI_ERROR_INVALID_OBJECT);
}

TEST_F(fakeVmTest, stacksAreWalked) {
  auto* worker = vm.makeThread("worker-1");
  auto* buy = vm.makeMethod("com.example.Shop", "buy", "(IJ)V");
  auto* run = vm.makeMethod("com.example.Shop", "run");
  worker->setFrames({{buy, 12}, {run, 3}, {run, 4}});
  std::array<jvmtiFrameInfo, 4> frames{};
  jint count = 0;
  ASSERT_EQ(jvmti->GetStackTrace(vm.ref(worker), 0, 4, frames.data(), &count), JVMTI_ERROR_NONE);
  ASSERT_EQ(count, 3);
  EXPECT_EQ(frames[0].method, buy->id);
  EXPECT_EQ(frames[0].location, 12);
  ASSERT_EQ(jvmti->GetStackTrace(vm.ref(worker), -1, 4, frames.data(), &count), JVMTI_ERROR_NONE);
  ASSERT_EQ(count, 1);
  EXPECT_EQ(frames[0].location, 4);
  EXPECT_EQ(jvmti->GetStackTrace(vm.ref(worker), 3, 4, frames.data(), &count),
            JVMTI_ERROR_ILLEGAL_ARGUMENT);

  char* name = nullptr;
  char* signature = nullptr;
  ASSERT_EQ(jvmti->GetMethodName(buy->id, &name, &signature, nullptr), JVMTI_ERROR_NONE);
  EXPECT_EQ(taken(name), "buy");
  EXPECT_EQ(taken(signature), "(IJ)V");
  jclass type = nullptr;
  ASSERT_EQ(jvmti->GetMethodDeclaringClass(buy->id, &type), JVMTI_ERROR_NONE);
  ASSERT_EQ(jvmti->GetClassSignature(type, &signature, nullptr), JVMTI_ERROR_NONE);
  EXPECT_EQ(taken(signature), "Lcom/example/Shop;");
  jni->DeleteLocalRef(type);
}

TEST_F(fakeVmTest, localVariablesAreRead) {
  auto* buy = vm.makeMethod("com.example.Shop", "buy", "(IJLjava/lang/String;)V");
  auto* name = vm.makeString("pen");
  buy->maxLocals = 8;
  auto* worker = vm.makeThread("worker-1");
  worker->setFrames(
      {{buy, 0, {{1, jint{3}}, {2, jlong{4}}, {4, name}, {5, jfloat{1.5F}}, {6, jdouble{2.5}}}}});
  jthread thread = vm.ref(worker);
  jint number = 0;
  jlong wide = 0;
  jfloat single = 0;
  jdouble twice = 0;
  jobject object = nullptr;
  EXPECT_EQ(jvmti->GetLocalInt(thread, 0, 1, &number), JVMTI_ERROR_NONE);
  EXPECT_EQ(number, 3);
  EXPECT_EQ(jvmti->GetLocalLong(thread, 0, 2, &wide), JVMTI_ERROR_NONE);
  EXPECT_EQ(wide, 4);
  EXPECT_EQ(jvmti->GetLocalFloat(thread, 0, 5, &single), JVMTI_ERROR_NONE);
  EXPECT_EQ(single, 1.5F);
  EXPECT_EQ(jvmti->GetLocalDouble(thread, 0, 6, &twice), JVMTI_ERROR_NONE);
  EXPECT_EQ(twice, 2.5);
  EXPECT_EQ(jvmti->GetLocalObject(thread, 0, 4, &object), JVMTI_ERROR_NONE);
  EXPECT_EQ(textOf(object), "pen");
  EXPECT_EQ(jvmti->GetLocalObject(thread, 0, 1, &object), JVMTI_ERROR_TYPE_MISMATCH);
  EXPECT_EQ(jvmti->GetLocalInt(thread, 0, 7, &number), JVMTI_ERROR_INVALID_SLOT);
  EXPECT_EQ(jvmti->GetLocalInt(thread, 1, 1, &number), JVMTI_ERROR_NO_MORE_FRAMES);
  EXPECT_EQ(jvmti->GetLocalInt(thread, -1, 1, &number), JVMTI_ERROR_ILLEGAL_ARGUMENT);
}

TEST_F(fakeVmTest, methodsHaveTables) {
  auto* buy = vm.makeMethod("com.example.Shop", "buy", "(IJ)V");
  jint count = 0;
  jvmtiLineNumberEntry* lines = nullptr;
  jvmtiLocalVariableEntry* variables = nullptr;
  EXPECT_EQ(jvmti->GetLineNumberTable(buy->id, &count, &lines), JVMTI_ERROR_ABSENT_INFORMATION);
  EXPECT_EQ(jvmti->GetArgumentsSize(buy->id, &count), JVMTI_ERROR_NONE);
  EXPECT_EQ(count, 4);
  buy->lines = {{0, 40}, {8, 42}};
  buy->variables = {{"this", "Lcom/example/Shop;", 0}, {"quantity", "I", 1}};
  ASSERT_EQ(jvmti->GetLineNumberTable(buy->id, &count, &lines), JVMTI_ERROR_NONE);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(lines[1].line_number, 42);
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(lines));
  ASSERT_EQ(jvmti->GetLocalVariableTable(buy->id, &count, &variables), JVMTI_ERROR_NONE);
  ASSERT_EQ(count, 2);
  for (jint at = 0; at < count; ++at) {
    EXPECT_EQ(variables[at].slot, at);
    taken(variables[at].name);
    taken(variables[at].signature);
    taken(variables[at].generic_signature);
  }
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(variables));
  auto* park = vm.makeMethod("com.example.Shop", "park", "()V", {.isNative = true});
  EXPECT_EQ(jvmti->GetMaxLocals(park->id, &count), JVMTI_ERROR_NATIVE_METHOD);
}

TEST_F(fakeVmTest, methodsTellOfTheirModifiers) {
  const auto modifiersOf = [&](fake::methodOptions options) {
    jint modifiers = 0;
    const fake::method* code = vm.makeMethod("com.example.Shop", "buy", "()V", std::move(options));
    EXPECT_EQ(jvmti->GetMethodModifiers(code->id, &modifiers), JVMTI_ERROR_NONE);
    return modifiers;
  };
  EXPECT_EQ(modifiersOf({}), 0x0001);
  EXPECT_EQ(modifiersOf({.isStatic = true}), 0x0009);
  EXPECT_EQ(modifiersOf({.isNative = true}), 0x0101);
}

TEST_F(fakeVmTest, classesTellOfTheirStatus) {
  const auto statusOf = [&](fake::javaClass* type) {
    jint status = 0;
    EXPECT_EQ(jvmti->GetClassStatus(vm.ref(type), &status), JVMTI_ERROR_NONE);
    return status;
  };
  auto* shop = vm.makeClass("com.example.Shop");
  EXPECT_NE(statusOf(shop) & JVMTI_CLASS_STATUS_INITIALIZED, 0);
  shop->initialized = false;
  EXPECT_EQ(statusOf(shop), JVMTI_CLASS_STATUS_VERIFIED | JVMTI_CLASS_STATUS_PREPARED);
  EXPECT_EQ(statusOf(vm.makeClass("[I")), JVMTI_CLASS_STATUS_ARRAY);
  jint status = 0;
  EXPECT_EQ(jvmti->GetClassStatus(static_cast<jclass>(vm.ref(vm.makeObject(shop))), &status),
            JVMTI_ERROR_INVALID_CLASS);
}

TEST_F(fakeVmTest, classesTellOfTheirFields) {
  auto* shop = vm.makeClass("com.example.Shop");
  shop->sourceFile = "Shop.java";
  auto* stock = vm.makeField(shop, "stock", "I");
  vm.makeField(shop, "OPEN", "Z", 0x0008);
  char* text = nullptr;
  EXPECT_EQ(jvmti->GetSourceFileName(vm.ref(shop), &text), JVMTI_ERROR_NONE);
  EXPECT_EQ(taken(text), "Shop.java");
  jint count = 0;
  jfieldID* fields = nullptr;
  ASSERT_EQ(jvmti->GetClassFields(vm.ref(shop), &count, &fields), JVMTI_ERROR_NONE);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(fields[0], stock->id);
  jint modifiers = 0;
  EXPECT_EQ(jvmti->GetFieldModifiers(vm.ref(shop), fields[1], &modifiers), JVMTI_ERROR_NONE);
  EXPECT_EQ(modifiers, 0x0008);
  EXPECT_EQ(jvmti->GetFieldName(vm.ref(shop), fields[1], &text, nullptr, nullptr),
            JVMTI_ERROR_NONE);
  EXPECT_EQ(taken(text), "OPEN");
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(fields));
}

jint JNICALL countObject(jlong, jlong size, jlong* tag, jint, void* data) {
  auto* sums = static_cast<std::pair<jlong, jlong>*>(data);
  sums->first += size;
  sums->second += *tag;
  return 0;
}

TEST_F(fakeVmTest, taggedObjectsAreFound) {
  auto* cart = vm.makeObject("com.example.Cart");
  auto* gone = vm.makeObject("com.example.Cart");
  cart->size = 48;
  EXPECT_EQ(jvmti->SetTag(vm.ref(cart), 9), JVMTI_ERROR_NONE);
  vm.native([&](JNIEnv*) { EXPECT_EQ(jvmti->SetTag(vm.ref(gone), 9), JVMTI_ERROR_NONE); });
  jlong tag = 0;
  EXPECT_EQ(jvmti->GetTag(vm.ref(cart), &tag), JVMTI_ERROR_NONE);
  EXPECT_EQ(tag, 9);
  vm.collect(gone);

  jint count = 0;
  jobject* objects = nullptr;
  jlong* tags = nullptr;
  ASSERT_EQ(jvmti->GetObjectsWithTags(1, &tag, &count, &objects, &tags), JVMTI_ERROR_NONE);
  ASSERT_EQ(count, 1);
  EXPECT_EQ(vm.target(objects[0]), cart);
  EXPECT_EQ(tags[0], 9);
  jni->DeleteLocalRef(objects[0]);
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(objects));
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(tags));

  std::pair<jlong, jlong> sums{0, 0};
  jvmtiHeapCallbacks callbacks{};
  callbacks.heap_iteration_callback = countObject;
  ASSERT_EQ(jvmti->IterateThroughHeap(JVMTI_HEAP_FILTER_UNTAGGED, nullptr, &callbacks, &sums),
            JVMTI_ERROR_NONE);
  EXPECT_EQ(sums, (std::pair<jlong, jlong>{48, 9}));
  jlong size = 0;
  EXPECT_EQ(jvmti->GetObjectSize(vm.ref(cart), &size), JVMTI_ERROR_NONE);
  EXPECT_EQ(size, 48);
}

jint JNICALL tagReferred(jvmtiHeapReferenceKind, const jvmtiHeapReferenceInfo*, jlong, jlong, jlong,
                         jlong* tag, jlong*, jint, void* data) {
  ++*tag;
  ++*static_cast<int*>(data);
  return JVMTI_VISIT_OBJECTS;
}

TEST_F(fakeVmTest, referencesLeadToWhatCanBeReached) {
  auto* type = vm.makeClass("com.example.Cart");
  type->tag = 5;
  auto* cart = vm.makeObject(type);
  auto* lost = vm.makeObject(type);
  lost->reachable = false;
  auto* gone = vm.makeObject(type);
  vm.collect(gone);
  jvmtiHeapCallbacks callbacks{};
  callbacks.heap_reference_callback = tagReferred;
  int references = 0;
  ASSERT_EQ(jvmti->FollowReferences(JVMTI_HEAP_FILTER_CLASS_UNTAGGED, nullptr, nullptr, &callbacks,
                                    &references),
            JVMTI_ERROR_NONE);
  EXPECT_EQ(references, 2);
  EXPECT_EQ(cart->tag, 2);
  EXPECT_EQ(lost->tag, 0);
}

TEST_F(fakeVmTest, numbersOfArraysAreCopied) {
  jintArray const array = vm.ref(vm.makeIntArray({1, 2, 3}));
  std::array<jint, 3> numbers{};
  jni->GetIntArrayRegion(array, 1, 2, numbers.data());
  EXPECT_EQ(numbers, (std::array<jint, 3>{2, 3, 0}));
  numbers[0] = 7;
  jni->SetIntArrayRegion(array, 0, 1, numbers.data());
  jni->GetIntArrayRegion(array, 0, 3, numbers.data());
  EXPECT_EQ(numbers, (std::array<jint, 3>{7, 2, 3}));
  jni->GetIntArrayRegion(array, 1, 3, numbers.data());
  EXPECT_TRUE(jni->ExceptionCheck());
  jni->ExceptionClear();
}

// --- JNI.

TEST_F(fakeVmTest, classNamesAreAskedOfJava) {
  EXPECT_EQ(className(vm.ref(vm.makeObject("com.example.Lock"))), "com.example.Lock");
  EXPECT_EQ(className(vm.ref(vm.classNamed("com.example.Lock"))), "java.lang.Class");
  EXPECT_EQ(className(vm.ref(vm.makeArray("[Ljava.lang.Object;", {}))), "[Ljava.lang.Object;");
  EXPECT_EQ(vm.calls("CallObjectMethod"), 6U);
}

TEST_F(fakeVmTest, methodsRunTheBodiesOfTheTest) {
  auto* type = vm.makeClass("com.example.Callbacks");
  std::vector<fake::value> seen;
  vm.makeMethod(type, "told", "(IJZDLjava/lang/String;)V",
                {.isStatic = true, .body = [&](fake::invocation& call) -> fake::value {
                   seen = call.arguments;
                   return {};
                 }});
  auto* text = vm.makeString("text");
  jmethodID told = jni->GetStaticMethodID(vm.ref(type), "told", "(IJZDLjava/lang/String;)V");
  const std::vector<fake::value> expected = {jint{1}, jlong{1} << 40, jboolean{1}, jdouble{0.5},
                                             static_cast<fake::object*>(text)};
  jni->CallStaticVoidMethod(vm.ref(type), told, 1, jlong{1} << 40, jboolean{1}, 0.5, vm.ref(text));
  EXPECT_EQ(seen, expected);
  seen.clear();
  std::array<jvalue, 5> values{};
  values[0].i = 1;
  values[1].j = jlong{1} << 40;
  values[2].z = 1;
  values[3].d = 0.5;
  values[4].l = vm.ref(text);
  jni->CallStaticVoidMethodA(vm.ref(type), told, values.data());
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(vm.calls("CallStaticVoidMethod"), 2U);
}

TEST_F(fakeVmTest, methodsAreOverriddenAndMayThrow) {
  auto* base = vm.makeClass("com.example.Base");
  auto* derived = vm.makeClass("com.example.Derived", base);
  vm.makeMethod(
      base, "text", "()Ljava/lang/String;",
      {.body = [](fake::invocation& call) -> fake::value { return call.vm.makeString("base"); }});
  jobject object = vm.ref(vm.makeObject(derived));
  jmethodID text = jni->GetMethodID(vm.ref(base), "text", "()Ljava/lang/String;");
  EXPECT_EQ(textOf(jni->CallObjectMethod(object, text)), "base");
  vm.makeMethod(derived, "text", "()Ljava/lang/String;",
                {.body = [](fake::invocation& call) -> fake::value {
                  call.vm.throwInJava(nullptr);
                  return call.self;
                }});
  EXPECT_EQ(jni->CallObjectMethod(object, text), nullptr);
  EXPECT_TRUE(jni->ExceptionCheck());
  jni->ExceptionClear();
  jobject stranger = vm.ref(vm.makeObject("com.example.Lock"));
  EXPECT_NONFATAL_FAILURE(jni->CallObjectMethod(stranger, text), "the object has no method text");
}

TEST_F(fakeVmTest, absentMembersThrow) {
  EXPECT_EQ(jni->GetMethodID(vm.ref(vm.classNamed("java.lang.Object")), "gone", "()V"), nullptr);
  EXPECT_EQ(vm.pendingException()->type->name, "java.lang.NoSuchMethodError");
  vm.clearException();
  EXPECT_EQ(jni->GetFieldID(vm.ref(vm.classNamed("java.lang.Object")), "gone", "I"), nullptr);
  EXPECT_EQ(vm.pendingException()->type->name, "java.lang.NoSuchFieldError");
  vm.clearException();
  EXPECT_EQ(jni->FindClass("com/example/Gone"), nullptr);
  EXPECT_EQ(vm.pendingException()->type->name, "java.lang.NoClassDefFoundError");
  vm.clearException();
}

TEST_F(fakeVmTest, classesHaveSuperclasses) {
  auto* base = vm.makeClass("com.example.Base");
  auto* derived = vm.makeClass("com.example.Derived", base);
  jclass found = jni->FindClass("com/example/Derived");
  EXPECT_TRUE(jni->IsSameObject(found, vm.ref(derived)));
  jclass super = jni->GetSuperclass(found);
  EXPECT_EQ(vm.target(super), base);
  EXPECT_TRUE(jni->IsInstanceOf(vm.ref(vm.makeObject(derived)), super));
  EXPECT_FALSE(jni->IsInstanceOf(vm.ref(vm.makeObject(base)), found));
  jni->DeleteLocalRef(found);
  jni->DeleteLocalRef(super);
}

TEST_F(fakeVmTest, fieldsAreRead) {
  auto* shop = vm.makeClass("com.example.Shop");
  auto* cart = vm.makeObject(shop);
  auto* stock = vm.makeField(shop, "stock", "I");
  auto* owner = vm.makeField(shop, "owner", "Ljava/lang/String;");
  auto* total = vm.makeField(shop, "total", "J", 0x0008);
  vm.setField(cart, stock, jint{3});
  vm.setField(cart, owner, vm.makeString("Ann"));
  vm.setStatic(total, jlong{1} << 33);
  jobject object = vm.ref(cart);
  EXPECT_EQ(jni->GetIntField(object, jni->GetFieldID(vm.ref(shop), "stock", "I")), 3);
  EXPECT_EQ(
      jni->GetStaticLongField(vm.ref(shop), jni->GetStaticFieldID(vm.ref(shop), "total", "J")),
      jlong{1} << 33);
  EXPECT_EQ(textOf(jni->GetObjectField(object, owner->id)), "Ann");
  EXPECT_EQ(jni->GetObjectField(vm.ref(vm.makeObject(shop)), owner->id), nullptr);
  EXPECT_NONFATAL_FAILURE(jni->GetLongField(object, stock->id), "the field stock has the type I");
  EXPECT_NONFATAL_FAILURE(jni->GetLongField(object, total->id), "the field total is static");
  EXPECT_THROW(vm.setField(cart, stock, jlong{3}), std::invalid_argument);
}

TEST_F(fakeVmTest, stringsAreModifiedUtf8) {
  jstring text = jni->NewStringUTF("a\xC3\xA9\xE2\x82\xAC\xC0\x80");
  EXPECT_EQ(jni->GetStringUTFLength(text), 8);
  EXPECT_EQ(jni->GetStringLength(text), 4);
  jni->DeleteLocalRef(text);
  for (const char* wrong : {"\xF0\x9F\x98\x80", "\xC3", "\x80", "a\xE2\x82"}) {
    EXPECT_NONFATAL_FAILURE(text = jni->NewStringUTF(wrong), "is not modified UTF-8");
    jni->DeleteLocalRef(text);
  }
  EXPECT_EQ(jni->NewStringUTF(nullptr), nullptr);
}

TEST_F(fakeVmTest, partsOfStringsAreCopied) {
  jstring text = vm.ref(vm.makeString("a\xC3\xA9\xE2\x82\xAC\xC0\x80z"));
  std::array<char, 16> part{};
  jni->GetStringUTFRegion(text, 1, 3, part.data());
  EXPECT_STREQ(part.data(), "\xC3\xA9\xE2\x82\xAC\xC0\x80");
  jni->GetStringUTFRegion(text, 5, 0, part.data());
  EXPECT_STREQ(part.data(), "");
  for (const auto& [start, length] : {std::pair{-1, 1}, {0, -1}, {3, 3}, {6, 0}}) {
    jni->GetStringUTFRegion(text, start, length, part.data());
    ASSERT_NE(vm.pendingException(), nullptr) << start << ", " << length;
    EXPECT_EQ(vm.pendingException()->type->name, "java.lang.StringIndexOutOfBoundsException");
    vm.clearException();
  }
}

TEST_F(fakeVmTest, arraysHaveElements) {
  auto* one = vm.makeString("one");
  auto array =
      static_cast<jobjectArray>(vm.ref(vm.makeArray("[Ljava.lang.String;", {one, nullptr})));
  EXPECT_EQ(jni->GetArrayLength(array), 2);
  EXPECT_EQ(textOf(jni->GetObjectArrayElement(array, 0)), "one");
  EXPECT_EQ(jni->GetObjectArrayElement(array, 1), nullptr);
  EXPECT_EQ(jni->GetObjectArrayElement(array, 2), nullptr);
  EXPECT_EQ(vm.pendingException()->type->name, "java.lang.ArrayIndexOutOfBoundsException");
  vm.clearException();
}

// --- Changing classes.

unsigned char foreignBytes = 7;

// Gives other bytes: of VM memory for small classes, of its own for larger ones.
void JNICALL changeBytes(jvmtiEnv* jvmti, JNIEnv*, jclass, jobject, const char*, jobject, jint size,
                         const unsigned char*, jint* newSize, unsigned char** newBytes) {
  *newSize = 1;
  if (size > 4) {
    *newBytes = &foreignBytes;
  } else {
    jvmti->Allocate(1, newBytes);
    **newBytes = 9;
  }
}

class changedClasses : public fakeVmTest {
 protected:
  jvmtiError retransform(fake::javaClass* type) {
    jclass reference = vm.ref(type);
    return jvmti->RetransformClasses(1, &reference);
  }
  fake::javaClass* classOf(std::vector<unsigned char> bytes) {
    fake::javaClass* const made = vm.makeClass("a.A");
    made->originalBytes = std::move(bytes);
    return made;
  }
  void begin() {
    jvmtiCapabilities wanted{};
    wanted.can_retransform_classes = 1;
    jvmti->AddCapabilities(&wanted);
    jvmtiEventCallbacks callbacks{};
    callbacks.ClassFileLoadHook = changeBytes;
    jvmti->SetEventCallbacks(&callbacks, sizeof callbacks);
    jvmti->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_CLASS_FILE_LOAD_HOOK, nullptr);
  }
};

TEST_F(changedClasses, areWhatTheHookMakesOfTheOriginal) {
  fake::javaClass* const type = classOf({1, 2, 3});
  EXPECT_EQ(retransform(type), JVMTI_ERROR_MUST_POSSESS_CAPABILITY);
  begin();
  EXPECT_EQ(retransform(vm.makeClass("a.WithoutBytes")), JVMTI_ERROR_UNMODIFIABLE_CLASS);
  EXPECT_EQ(retransform(type), JVMTI_ERROR_NONE);
  EXPECT_EQ(type->bytes, std::vector<unsigned char>{9});
  jvmti->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_CLASS_FILE_LOAD_HOOK, nullptr);
  EXPECT_EQ(retransform(type), JVMTI_ERROR_NONE);
  EXPECT_EQ(type->bytes, type->originalBytes);
}

TEST_F(changedClasses, areMadeOfVmMemory) {
  begin();
  fake::javaClass* const type = classOf({1, 2, 3, 4, 5});
  EXPECT_NONFATAL_FAILURE(retransform(type), "not VM memory");
}

TEST_F(changedClasses, areDefinedOnce) {
  const std::array<jbyte, 4> magic{-54, -2, -70, -66};
  jclass made = jni->DefineClass("a/A", nullptr, magic.data(), 4);
  EXPECT_EQ(vm.target(made)->type->name, "java.lang.Class");
  jni->DeleteLocalRef(made);
  EXPECT_EQ(jni->DefineClass("a/A", nullptr, magic.data(), 4), nullptr);
  EXPECT_EQ(vm.pendingException()->type->name, "java.lang.LinkageError");
  vm.clearException();
  EXPECT_EQ(jni->DefineClass("a/B", nullptr, magic.data(), 3), nullptr);
  EXPECT_EQ(vm.pendingException()->type->name, "java.lang.ClassFormatError");
  vm.clearException();
}

// --- Further environments, and threads of agents.

class otherEnvironment : public fakeVmTest {
 protected:
  void SetUp() override {
    fakeVmTest::SetUp();
    void* made = nullptr;
    ASSERT_EQ(vm.javaVm()->GetEnv(&made, JVMTI_VERSION_1_2), JNI_OK);
    other = static_cast<jvmtiEnv*>(made);
  }

  jvmtiEnv* other = nullptr;
  fake::javaThread* worker = vm.makeThread("worker");
};

TEST_F(otherEnvironment, hasEventsCapabilitiesAndStorageOfItsOwn) {
  static int events;
  events = 0;
  jvmtiEventCallbacks callbacks{};
  callbacks.MonitorContendedEnter = [](jvmtiEnv* in, JNIEnv*, jthread, jobject) {
    const char one = 1;
    ++events;
    in->SetThreadLocalStorage(nullptr, &one);
  };
  other->SetEventCallbacks(&callbacks, sizeof callbacks);
  EXPECT_FALSE(vm.contendedEnter(worker, vm.makeObject("a.Lock")));
  other->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_MONITOR_CONTENDED_ENTER, nullptr);
  EXPECT_TRUE(vm.contendedEnter(worker, vm.makeObject("a.Lock")));
  EXPECT_EQ(events, 1);
  EXPECT_EQ(worker->storage, nullptr);
  void* stored = nullptr;
  EXPECT_EQ(other->GetThreadLocalStorage(vm.ref(worker), &stored), JVMTI_ERROR_NONE);
  EXPECT_NE(stored, nullptr);

  jvmtiCapabilities wanted{};
  wanted.can_get_monitor_info = 1;
  EXPECT_EQ(other->AddCapabilities(&wanted), JVMTI_ERROR_NONE);
  EXPECT_EQ(vm.capabilities().can_get_monitor_info, 0U);
  jvmtiCapabilities added{};
  EXPECT_EQ(other->GetCapabilities(&added), JVMTI_ERROR_NONE);
  EXPECT_EQ(added.can_get_monitor_info, 1U);
}

TEST_F(otherEnvironment, runsItsThreadsWhenTheTestWants) {
  static std::string ranAs;
  const auto body = [](jvmtiEnv* in, JNIEnv*, void* argument) {
    jvmtiThreadInfo info{};
    in->GetThreadInfo(nullptr, &info);
    ranAs = info.name;
    in->Deallocate(reinterpret_cast<unsigned char*>(info.name));
    static_cast<JNIEnv*>(argument)->DeleteLocalRef(info.thread_group);
    static_cast<JNIEnv*>(argument)->DeleteLocalRef(info.context_class_loader);
  };
  EXPECT_EQ(other->RunAgentThread(vm.ref(worker), body, jni, JVMTI_THREAD_NORM_PRIORITY),
            JVMTI_ERROR_NONE);
  EXPECT_EQ(ranAs, "");
  vm.runAgentThreads();
  EXPECT_EQ(ranAs, "worker");
  ranAs.clear();
  vm.runAgentThreads();
  EXPECT_EQ(ranAs, "") << "once";
}

TEST_F(otherEnvironment, threadsAreMadeByTheirConstructor) {
  jclass const cls = jni->FindClass("java/lang/Thread");
  jmethodID const made =
      jni->GetMethodID(cls, "<init>", "(Ljava/lang/ThreadGroup;Ljava/lang/String;)V");
  jstring const name = jni->NewStringUTF("named");
  jobject const thread = jni->NewObject(cls, made, nullptr, name);
  EXPECT_EQ(*static_cast<fake::javaThread*>(vm.target(thread))->name.load(), "named");
  for (jobject const each : {static_cast<jobject>(cls), static_cast<jobject>(name), thread}) {
    jni->DeleteLocalRef(each);
  }
}

TEST_F(otherEnvironment, threadsHaveStatesAndMonitors) {
  vm.makeVirtualThread("virtual");
  jint count = 0;
  jthread* threads = nullptr;
  EXPECT_EQ(jvmti->GetAllThreads(&count, &threads), JVMTI_ERROR_NONE);
  EXPECT_EQ(count, 2) << "main and worker";
  for (jint i = 0; i < count; ++i) {
    jni->DeleteLocalRef(threads[i]);
  }
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(threads));

  jint state = 0;
  EXPECT_EQ(jvmti->GetThreadState(vm.ref(worker), &state), JVMTI_ERROR_NONE);
  EXPECT_EQ(state, JVMTI_THREAD_STATE_ALIVE);
  worker->isAlive = false;
  EXPECT_EQ(jvmti->GetThreadState(vm.ref(worker), &state), JVMTI_ERROR_NONE);
  EXPECT_EQ(state, JVMTI_THREAD_STATE_TERMINATED);

  fake::object* const lock = vm.makeObject("a.Lock");
  vm.setOwner(lock, worker, 1, 3);
  jvmtiMonitorStackDepthInfo* held = nullptr;
  EXPECT_EQ(jvmti->GetOwnedMonitorStackDepthInfo(vm.ref(worker), &count, &held), JVMTI_ERROR_NONE);
  ASSERT_EQ(count, 1);
  EXPECT_EQ(vm.target(held->monitor), lock);
  EXPECT_EQ(held->stack_depth, 3);
  jni->DeleteLocalRef(held->monitor);
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(held));
}

}  // namespace
