// Exception capture when calls fail, Java code throws, the VM ends, and classes go away.
#include <new>
#include <set>

#include "exceptionTest.h"
#include "fakevm/functions.h"

namespace {

using namespace test;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Gt;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

const captureSettings kAll{
    .classVariables = true, .methodArguments = true, .localVariables = true, .threadLocals = true};

// What gives back memory and references, or asks about exceptions, does not fail.
const std::set<std::string> kNeverFail{"Deallocate",
                                       "DeleteLocalRef",
                                       "DeleteGlobalRef",
                                       "DeleteWeakGlobalRef",
                                       "ReleaseStringUTFChars",
                                       "ExceptionCheck",
                                       "ExceptionClear",
                                       "ExceptionDescribe",
                                       "ExceptionOccurred",
                                       "Throw",
                                       "PopLocalFrame"};

bool isJvmti(const std::string& function) {
  return *fake::functionNamed(function) < fake::kFirstJniId;
}

bool anyFunction(const std::string&) {
  return true;
}

class exceptionFaults : public exceptionTest {
 protected:
  exceptionFaults() {
    mapOfThread_ = vm.makeField(vm.classNamed("java.lang.Thread"), "threadLocals",
                                "Ljava/lang/ThreadLocal$ThreadLocalMap;");
    tableOfMap_ = vm.makeField(vm.makeClass("java.lang.ThreadLocal$ThreadLocalMap"), "table",
                               "[Ljava/lang/ThreadLocal$ThreadLocalMap$Entry;");
    fake::object* const map = vm.makeObject("java.lang.ThreadLocal$ThreadLocalMap");
    vm.setField(map, tableOfMap_,
                vm.makeArray("[Ljava.lang.ThreadLocal$ThreadLocalMap$Entry;",
                             {objectWith("java.lang.ThreadLocal$ThreadLocalMap$Entry",
                                         {{"value", "Ljava/lang/Object;"}})}));
    vm.setField(thread(), mapOfThread_, map);
  }

  // Throws an exception of a class that the agent has not met, on a stack of such classes with a
  // value of every kind; the record. It is the same each time.
  std::string recordOfNewClasses() {
    fake::object* const inner = objectWith("com.example.Inner", {{"x", "I", jint{1}}});
    fake::object* const shop =
        objectWith("com.example.Shop", {{"n", "I", jint{2}},
                                        {"inner", "Lcom/example/Inner;", inner},
                                        {"rows", "[I", vm.makeArray("[I", {nullptr})},
                                        {"text", "Ljava/lang/String;", vm.makeString("t")},
                                        {"builder", "Ljava/lang/StringBuilder;", builder("b")}});
    vm.setStatic(vm.makeField(shop->type, "COUNT", "J", 0x0008), jlong{3});
    fake::method* const native =
        vm.makeMethod(vm.makeClass("com.example.Native"), "call", "()V", {.isNative = true});
    const std::vector<fake::frame> stack{
        frameOn(shop, "buy", {{"i", "I", jint{4}}, {"j", "J", jlong{5}}, {"f", "F", jfloat{6}}},
                {{"d", "D", jdouble{7}},
                 {"s", "Ljava/lang/String;", vm.makeString("s")},
                 {"b", "Ljava/lang/StringBuilder;", builder("c")},
                 {"o", "Lcom/example/Inner;", inner},
                 {"a", "[I", vm.makeArray("[I", {})}}),
        fake::frame{.code = native, .location = -1}, frameOn(inner, "run", {{"k", "I", jint{8}}})};
    const std::size_t before = deliveries().size();
    thread()->setFrames(stack);
    EXPECT_TRUE(vm.exception(thread(), stack[0].code, 10, vm.makeObject(vm.makeClass(kFailure))));
    const std::vector<delivered> all = deliveries();
    return all.size() == before ? kNothing : all.back().record;
  }

  // The calls that one recorded exception makes: how often each function is called.
  std::map<std::string, unsigned> callsOfOneRecord() {
    vm.resetCalls();
    EXPECT_EQ(recordOfNewClasses(), whole());
    std::map<std::string, unsigned> counts;
    for (const std::string& function : vm.callNames()) {
      if (kNeverFail.count(function) == 0) {
        counts[function] = static_cast<unsigned>(vm.calls(function));
      }
    }
    return counts;
  }

  static std::string whole() {
    return "com.example.Shop.buy(Shop.java:42)%40%41"
           "n%3A4%3A2%2C!%23inner%3A10%3Ax%3A4%3A1%2C!%23%2C!%23rows%3A10%3Alength%3A4%3A1%2C"
           "!%23%2Ctext%3A7%3At%2Cbuilder%3A8%3Ab%2CCOUNT%3A5%3A3%42"
           "i%3A4%3A4%2Cj%3A5%3A5%2Cf%3A9%3A6.000000%2C%43"
           "d%3A6%3A7.000000%2Cs%3A7%3As%2Cb%3A8%3Ac%2C!%23o%3A10%3Ax%3A4%3A1%2C!%23%2C"
           "!%23a%3A10%3Alength%3A4%3A0%2C!%23%2C%44"
           "!%23ThreadLocals0%3A10%3Avalue%3A10%3ANULL%2C!%23%7C"
           "com.example.Native.call(NA:-1)%40%41%42%43%44%7C"
           "com.example.Inner.run(Inner.java:42)%40%41%42k%3A4%3A8%2C%43%44";
  }

  // Runs `fault` for each call that a record makes to a wanted function, with the function and the
  // number of the call; after mending, everything must work again.
  void forEachCall(const std::function<bool(const std::string&)>& wanted,
                   const std::function<void(const std::string&, unsigned)>& fault,
                   const std::function<void(const std::string&)>& mend) {
    unsigned tried = 0;
    for (const auto& [function, count] : callsOfOneRecord()) {
      if (!wanted(function)) {
        continue;
      }
      tried += count;
      for (unsigned number = 1; number <= count; ++number) {
        SCOPED_TRACE(function + ", call " + std::to_string(number));
        fault(function, number);
        recordOfNewClasses();
        mend(function);
        EXPECT_EQ(recordOfNewClasses(), whole()) << "the next exception";
        EXPECT_EQ(vm.memoryHeld(), 0U);
        EXPECT_EQ(vm.charactersHeld(), 0U);
        EXPECT_EQ(vm.localReferences(), 0U);
        if (HasFailure()) {
          return;
        }
      }
    }
    EXPECT_GE(tried, 20U) << "of the calls that a record makes";
  }

 private:
  fake::field* mapOfThread_ = nullptr;
  fake::field* tableOfMap_ = nullptr;
};

// --- Each call in turn.

TEST_F(exceptionFaults, eachCallFails) {
  begin(kAll);
  forEachCall(
      anyFunction,
      [&](const std::string& function, unsigned number) {
        vm.fail(function, {.from = number, .times = 1});
      },
      [&](const std::string& function) { vm.succeed(function); });
}

TEST_F(exceptionFaults, eachCallIntoJavaThrows) {
  begin(kAll);
  const std::set<std::string> throwing{
      "GetFieldID",           "GetStaticFieldID",  "GetMethodID",      "CallObjectMethod",
      "CallIntMethod",        "NewStringUTF",      "NewWeakGlobalRef", "GetObjectArrayElement",
      "CallStaticVoidMethod", "GetStringUTFRegion"};
  std::set<std::string> thrown;
  forEachCall([&](const std::string& function) { return throwing.count(function) > 0; },
              [&](const std::string& function, unsigned number) {
                thrown.insert(function);
                vm.fail(function, {.from = number, .times = 1, .throwing = true});
              },
              [&](const std::string& function) { vm.succeed(function); });
  EXPECT_EQ(thrown, throwing) << "a record makes each of these calls";
}

TEST_F(exceptionFaults, theVmEndsAtEachCall) {
  begin(kAll);
  forEachCall(
      isJvmti,
      [&](const std::string& function, unsigned number) {
        vm.on(function, [this, calls = 0U, number]() mutable {
          if (++calls == number) {
            vm.setPhase(JVMTI_PHASE_DEAD);
          }
        });
      },
      [&](const std::string& function) {
        vm.off(function);
        vm.setPhase(JVMTI_PHASE_LIVE);
      });
}

TEST_F(exceptionFaults, somethingIsThrownAtEachCall) {
  begin(kAll);
  forEachCall(
      anyFunction,
      [&](const std::string& function, unsigned number) {
        vm.on(function, [calls = 0U, number]() mutable {
          if (++calls == number) {
            throw std::bad_alloc();
          }
        });
      },
      [&](const std::string& function) { vm.off(function); });
}

TEST_F(exceptionFaults, eachCallOfTheSwitchingFails) {
  makeCallbackClass();
  load();
  vm.resetCalls();
  ASSERT_EQ(enable(kAll), 1);
  for (const std::string& function : vm.callNames()) {
    if (kNeverFail.count(function) > 0) {
      continue;
    }
    for (const bool throwing : {false, true}) {
      if (throwing && (isJvmti(function) || function == "GetJavaVM")) {
        continue;
      }
      SCOPED_TRACE(function + (throwing ? " throws" : " fails"));
      vm.fail(function, {.throwing = throwing});
      enable(kAll);
      vm.succeed(function);
      ASSERT_EQ(enable(kAll), 1);
      EXPECT_EQ(vm.globalReferences(), 1U);
      EXPECT_EQ(recordOfNewClasses(), whole());
    }
  }
}

// --- Which JVMTI errors end a record.

TEST_F(exceptionFaults, errorsWithoutAnAnswerOfTheirOwnEndTheRecord) {
  begin(kAll, "logLevel=4");
  for (const char* function :
       {"GetMethodName", "GetMethodDeclaringClass", "GetClassSignature", "GetStackTrace",
        "GetLocalVariableTable", "GetMethodModifiers", "GetLocalInt", "GetLocalLong",
        "GetLocalFloat", "GetLocalDouble", "GetLocalObject"}) {
    const std::size_t before =
        errorsSaying("Error name is JVMTI_ERROR_INTERNAL and error code is 113");
    vm.fail(function);
    EXPECT_EQ(recordOfNewClasses(), kNothing) << function;
    vm.succeed(function);
    EXPECT_EQ(errorsSaying("Error name is JVMTI_ERROR_INTERNAL and error code is 113"), before + 1)
        << function;
    EXPECT_EQ(recordOfNewClasses(), whole()) << "after a failing " << function;
  }
}

TEST_F(exceptionFaults, otherErrorsDoNotEndTheRecord) {
  begin({.methodArguments = true, .localVariables = true});
  for (const char* function : {"GetSourceFileName", "GetLineNumberTable", "GetArgumentsSize",
                               "GetMaxLocals", "GetObjectHashCode", "GetClassStatus",
                               "GetClassFields", "GetFieldName", "GetFieldModifiers"}) {
    vm.fail(function);
    EXPECT_NE(recordOfNewClasses(), kNothing) << function;
    vm.succeed(function);
  }
}

TEST_F(exceptionFaults, aDeepFramesErrorEndsTheWholeRecord) {
  begin(kAll);
  vm.fail("GetMethodName", {.name = "run"});
  EXPECT_EQ(recordOfNewClasses(), kNothing);
}

TEST_F(exceptionFaults, aVariableThatCannotBeReadEndsTheRecord) {
  begin(kAll, "logLevel=4");
  vm.fail("GetLocalInt", {.error = JVMTI_ERROR_THREAD_NOT_ALIVE, .from = 2});
  EXPECT_EQ(recordOfNewClasses(), kNothing);
  EXPECT_THAT(errors(),
              Contains("Error name is JVMTI_ERROR_THREAD_NOT_ALIVE and error code is 15"));
}

// --- What is thrown inside.

constexpr const char* kThrownInside = "Exception occured in exceptionprofiler : ExceptionCallback";

TEST_F(exceptionFaults, whatIsThrownInsideIsLoggedAtLevel4) {
  begin(kAll);
  vm.on("GetStackTrace", [] { throw std::bad_alloc(); });
  EXPECT_THAT(loggedFrom(4, [&] { EXPECT_EQ(recordOfNewClasses(), kNothing); }),
              ElementsAre(kThrownInside));
  EXPECT_EQ(log().back().function, "exceptionProfiler::ExceptionCallback");
}

TEST_F(exceptionFaults, afterSomethingWasThrownTheNextIsRecorded) {
  begin(kAll);
  vm.on("GetStackTrace", [] { throw 1; });
  EXPECT_EQ(recordOfNewClasses(), kNothing);
  vm.off("GetStackTrace");
  EXPECT_EQ(recordOfNewClasses(), whole());
}

// --- Java code that throws.

TEST_F(exceptionFaults, aBuilderThatThrowsGivesTheNullForm) {
  begin(kAll);
  fake::object* const bad = builderWith(4, [](fake::invocation& call) -> fake::value {
    call.vm.throwInJava(nullptr);
    return static_cast<fake::object*>(nullptr);
  });
  fake::object* const holder =
      objectWith("a.A", {{"f", "Ljava/lang/StringBuilder;", bad}, {"n", "I", jint{1}}});
  const frameSections sections = topOf(
      {frameOn(holder, "m", {}, {{"l", "Ljava/lang/StringBuilder;", bad}, {"i", "I", jint{2}}})});
  EXPECT_EQ(sections.classVariables + "%2C", nullField("f") + entry("n", 4, "1"));
  EXPECT_EQ(sections.locals, nullObject("l") + entry("i", 4, "2"));
}

TEST_F(exceptionFaults, exceptionsThrownInsideABuilderAreNotRecorded) {
  begin(kAll);
  bool handlerCalled = false;
  fake::object* const busy = builderWith(4, [&](fake::invocation& call) -> fake::value {
    handlerCalled = call.vm.exception(thread(), nullptr, 0, call.vm.makeObject(kFailure));
    return call.vm.makeString("done");
  });
  EXPECT_EQ(topOf({frameOf("a.A.m", {}, {{"l", "Ljava/lang/StringBuilder;", busy}})}).locals,
            entry("l", 8, "done"));
  EXPECT_TRUE(handlerCalled);
  EXPECT_EQ(deliveries().size(), 1U);
}

TEST_F(exceptionFaults, exceptionsThrownInsideTheCallbackAreNotRecorded) {
  begin(kAll);
  inCallback = [&](fake::invocation& call) {
    EXPECT_TRUE(call.vm.exception(thread(), nullptr, 0, call.vm.makeObject(kFailure)));
  };
  EXPECT_EQ(recordOfNewClasses(), whole());
  EXPECT_EQ(deliveries().size(), 1U);
  inCallback = nullptr;
  EXPECT_EQ(recordOfNewClasses(), whole()) << "the thread is watched again";
}

TEST_F(exceptionFaults, exceptionsThrownInsideTheCallbackAreNotCounted) {
  begin({.rate = 2});
  inCallback = [&](fake::invocation& call) {
    call.vm.exception(thread(), nullptr, 0, call.vm.makeObject(kFailure));
  };
  EXPECT_NE(recordOf({frameOf("a.A.m")}), kNothing);
  EXPECT_NE(recordOf({frameOf("a.A.m")}), kNothing);
  EXPECT_EQ(recordOf({frameOf("a.A.m")}), kNothing);
}

TEST_F(exceptionFaults, aCallbackThatThrowsLeavesNothingPending) {
  begin(kAll);
  inCallback = [](fake::invocation& call) { call.vm.throwInJava(nullptr); };
  EXPECT_EQ(recordOfNewClasses(), whole());
  EXPECT_EQ(vm.pendingException(), nullptr);
  EXPECT_EQ(recordOfNewClasses(), whole());
}

TEST_F(exceptionFaults, aCallbackMaySwitchCaptureOff) {
  begin(kAll);
  inCallback = [&](fake::invocation&) { EXPECT_EQ(enable({.enable = false}), 1); };
  EXPECT_EQ(recordOfNewClasses(), whole());
  EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_EXCEPTION));
  EXPECT_EQ(vm.globalReferences(), 1U);
}

TEST_F(exceptionFaults, aCallbackMayChangeTheSettings) {
  begin(kAll);
  inCallback = [&](fake::invocation&) { EXPECT_EQ(enable(), 1); };
  EXPECT_EQ(recordOfNewClasses(), whole());
  EXPECT_EQ(recordOf({frameOf("a.A.m", {{"x", "I", jint{1}}})}), "a.A.m(A.java:42)%40%41%42%43%44");
}

TEST_F(exceptionFaults, settingsReplacedUnderWayHoldToTheEndOfTheRecord) {
  begin(kAll);
  vm.on("GetStackTrace", [&] { EXPECT_EQ(enable(), 1); });
  EXPECT_EQ(recordOfNewClasses(), whole());
  EXPECT_EQ(vm.globalReferences(), 1U) << "the old ones went with their last reader";
}

TEST_F(exceptionFaults, aRecordWithoutMemoryForItIsDropped) {
  begin(kAll, "logLevel=4");
  vm.fail("NewStringUTF", {.times = 1, .throwing = true});
  EXPECT_EQ(recordOfNewClasses(), kNothing);
  EXPECT_THAT(messages("Debug"), IsEmpty());
  EXPECT_EQ(recordOfNewClasses(), whole());
}

// --- The end of the VM.

TEST_F(exceptionFaults, atTheEndOfTheVmNothingIsDelivered) {
  begin(kAll, "logLevel=4");
  vm.setPhase(JVMTI_PHASE_DEAD);
  EXPECT_EQ(recordOfNewClasses(), kNothing);
  EXPECT_THAT(errors(), ElementsAre("Error name is JVMTI_ERROR_WRONG_PHASE and error code is 112"));
  vm.setPhase(JVMTI_PHASE_LIVE);
}

// --- Unloaded classes.

TEST_F(exceptionFaults, aClassThatTakesAnothersPlaceIsNotTakenForIt) {
  begin();
  const fake::frame old = frameOf("a.Old.m");
  EXPECT_NE(recordOf({old}), kNothing);
  fake::javaClass* const gone = old.code->declaringClass;
  const jint hash = gone->hash;
  thread()->setFrames({});
  vm.unload(gone);
  const fake::frame young = frameOf("b.Young.m");
  young.code->declaringClass->hash = hash;
  EXPECT_EQ(recordOf({young}), "b.Young.m(Young.java:42)%40%41%42%43%44");
}

TEST_F(exceptionFaults, classesOfOneHashAreToldApart) {
  begin({.rate = 1});
  fake::javaClass* const one = vm.makeClass("x.One");
  fake::javaClass* const two = vm.makeClass("x.Two");
  two->hash = one->hash.load();
  EXPECT_NE(recordOf({frameOf("a.A.m")}, "x.One"), kNothing);
  EXPECT_NE(recordOf({frameOf("a.A.m")}, "x.Two"), kNothing);
  EXPECT_EQ(recordOf({frameOf("a.A.m")}, "x.One"), kNothing) << "its rate is spent";
}

TEST_F(exceptionFaults, nothingIsKeptOfUnloadedClassesForGood) {
  begin();
  for (int i = 0; i < 300; ++i) {
    const fake::frame frame = frameOf("gone.C" + std::to_string(i) + ".m");
    ASSERT_NE(recordOf({frame}), kNothing);
    thread()->setFrames({});
    vm.unload(frame.code->declaringClass);
  }
  EXPECT_LT(vm.weakReferences(), 150U);
}

}  // namespace
