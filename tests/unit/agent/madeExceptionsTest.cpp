// Exceptions that are captured where they are made: the hook, who has made them, what is recorded.
#include "exceptions/madeExceptions.h"

#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "classFileBuilder.h"
#include "exceptionTest.h"
#include "exceptions/captureMode.h"
#include "exceptions/madeHook.h"
#include "exceptions/siteCounts.h"

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

constexpr const char* kOptions = "exceptionCapture=made,logLevel=4,";
constexpr const char* kHookName = "com.korvane.twutils.nativeagent.hook.MadeHook";
constexpr const char* kFailureClass = "com.example.MadeFailure";

class madeExceptions : public exceptionTest {
 protected:
  // Loads Throwable with the constructors that it has since JDK 7, or with some of them.
  void loadThrowable(const std::vector<std::string>& constructors = kThrowableConstructors) {
    throwable = vm.classNamed("java.lang.Throwable");
    failure = vm.makeClass(kFailureClass, throwable);
    throwable->originalBytes = throwableWith(constructors);
    throwable->bytes = throwable->originalBytes;
  }
  bool isHooked() const { return throwable->bytes.size() > throwable->originalBytes.size(); }

  void beginMade(const captureSettings& settings = {}) {
    loadThrowable();
    begin(settings, kOptions);
    makeConstructors();
  }
  // Frames of the constructors that make a failure, under that of the hook.
  void makeConstructors() {
    hookFrame = frameOf(std::string(kHookName) + ".made");
    inThrowable = constructorOf(throwable);
    inFailure = constructorOf(failure);
  }
  fake::frame constructorOf(fake::javaClass* type) {
    fake::method* const code = vm.makeMethod(type, "<init>", "()V");
    return {.code = code, .location = 0};
  }

  // What a VM does when a failure is made by the first of these frames.
  void make(const std::vector<fake::frame>& makers, fake::object* exception = nullptr) {
    std::vector<fake::frame> stack{hookFrame, inThrowable, inFailure};
    stack.insert(stack.end(), makers.begin(), makers.end());
    makeWith(stack, exception);
  }
  void makeWith(const std::vector<fake::frame>& stack, fake::object* exception = nullptr) {
    vm.currentThread()->setFrames(stack);
    fake::object* const made = exception == nullptr ? vm.makeObject(failure) : exception;
    vm.native([&](JNIEnv* jni) {
      const auto& natives = vm.classNamed(kHookName)->natives;
      ASSERT_TRUE(natives.contains("made"));
      using native = void(JNICALL*)(JNIEnv*, jclass, jobject);
      reinterpret_cast<native>(natives.find("made")->second)(jni, nullptr, vm.ref(made));
    });
  }
  std::string recordOfMaking(const std::vector<fake::frame>& makers) {
    const std::size_t before = deliveries().size();
    make(makers);
    return deliveries().size() == before ? kNothing : deliveries().back().record;
  }
  std::string topMethodOfMaking(const std::vector<fake::frame>& makers) {
    const std::string record = recordOfMaking(makers);
    return record.substr(0, record.find('('));
  }

  fake::javaClass* throwable = nullptr;
  fake::javaClass* failure = nullptr;
  fake::frame hookFrame;
  fake::frame inThrowable;
  fake::frame inFailure;
};

// --- The hook.

TEST_F(madeExceptions, needNoExceptionEvents) {
  beginMade();
  EXPECT_EQ(vm.capabilities().can_generate_exception_events, 0U);
  EXPECT_EQ(vm.capabilities().can_access_local_variables, 1U);
  EXPECT_EQ(vm.capabilities().can_get_line_numbers, 1U);
  EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_EXCEPTION));
  EXPECT_TRUE(isHooked());
  EXPECT_STREQ(agent::exceptionMode(), "made");
}

TEST_F(madeExceptions, areNotHookedBeforeCaptureBegins) {
  loadThrowable();
  makeCallbackClass();
  load(kOptions);
  EXPECT_FALSE(isHooked());
  EXPECT_EQ(enable({.enable = false}), 1);
  EXPECT_FALSE(isHooked());
}

TEST_F(madeExceptions, areHookedOnceAndLeftAloneWhileCaptureIsOff) {
  beginMade();
  EXPECT_EQ(enable({.enable = false}), 1);
  EXPECT_TRUE(isHooked());
  EXPECT_EQ(recordOfMaking({frameOf("com.example.Shop.buy")}), kNothing);
  EXPECT_EQ(enable(), 1);
  EXPECT_EQ(vm.calls("RetransformClasses"), 1U);
  EXPECT_NE(recordOfMaking({frameOf("com.example.Shop.buy")}), kNothing);
}

TEST_F(madeExceptions, aMissingConstructorIsNamedAndTheOthersAreSeen) {
  loadThrowable({kThrowableConstructors.front()});
  begin({}, kOptions);
  EXPECT_THAT(agent::exceptionProfiler::madeProblem(),
              StartsWith("not hooked: Throwable.<init>()V, "));
  EXPECT_TRUE(isHooked());
}

struct refusedCall {
  const char* function;
  const char* text;
};

void PrintTo(const refusedCall& row, std::ostream* out) {
  *out << row.function;
}

class madeHookRefused : public madeExceptions, public testing::WithParamInterface<refusedCall> {};

constexpr const char* kNothingHooked =
    "not hooked: Throwable.<init>(Ljava/lang/String;)V, Throwable.<init>()V, "
    "Throwable.<init>(Ljava/lang/String;Ljava/lang/Throwable;)V, "
    "Throwable.<init>(Ljava/lang/Throwable;)V, "
    "Throwable.<init>(Ljava/lang/String;Ljava/lang/Throwable;ZZ)V";

TEST_P(madeHookRefused, isReportedAndCaptureCanBeginLater) {
  loadThrowable();
  makeCallbackClass();
  ASSERT_EQ(load(kOptions), 0);
  vm.fail(GetParam().function, {.error = JVMTI_ERROR_OUT_OF_MEMORY});
  EXPECT_EQ(enable(), 0);
  EXPECT_THAT(agent::exceptionProfiler::madeProblem(), HasSubstr(GetParam().text));
  EXPECT_THAT(errors(), Contains(HasSubstr(GetParam().text)));
  EXPECT_FALSE(isHooked());
  vm.succeed(GetParam().function);
  EXPECT_EQ(enable(), 1);
  EXPECT_EQ(agent::exceptionProfiler::madeProblem(), "");
  EXPECT_TRUE(isHooked());
}

INSTANTIATE_TEST_SUITE_P(
    each, madeHookRefused,
    testing::Values(refusedCall{"GetPotentialCapabilities", "does not name its capabilities"},
                    refusedCall{"AddCapabilities", "the VM refuses the capabilities"},
                    refusedCall{"SetEventCallbacks", "the VM refuses the handlers"},
                    refusedCall{"DefineClass", "the class of the hook cannot be defined"},
                    refusedCall{"RegisterNatives", "the natives of the hook cannot be bound"},
                    refusedCall{"SetEventNotificationMode", "SetEventNotificationMode answered"},
                    refusedCall{"RetransformClasses", "RetransformClasses answered"},
                    refusedCall{"Allocate", kNothingHooked}));

// --- Who has made it.

TEST_F(madeExceptions, aRecordBeginsWithTheFrameBelowTheConstructors) {
  beginMade({.methodArguments = true, .localVariables = true});
  const std::string record = recordOfMaking(
      {frameOf("com.example.Shop.buy", {{"item", "I", jint{7}}}, {{"sum", "I", jint{8}}}),
       frameOf("com.example.Shop.main", {}, {{"day", "I", jint{9}}})});
  const std::vector<frameSections> frames = framesIn(record);
  ASSERT_EQ(frames.size(), 2U);
  EXPECT_THAT(frames[0].header, StartsWith("com.example.Shop.buy(Shop.java:"));
  EXPECT_THAT(frames[0].arguments, HasSubstr(entry("item", 4, "7")));
  EXPECT_THAT(frames[0].locals, HasSubstr(entry("sum", 4, "8")));
  EXPECT_THAT(frames[1].locals, HasSubstr(entry("day", 4, "9")));
}

TEST_F(madeExceptions, theExceptionItselfIsHandedOver) {
  beginMade();
  fake::object* const exception = vm.makeObject(failure);
  make({frameOf("com.example.Shop.buy")}, exception);
  ASSERT_EQ(deliveries().size(), 1U);
  EXPECT_EQ(deliveries()[0].exception, exception);
}

TEST_F(madeExceptions, manyConstructorsAreSkipped) {
  beginMade();
  std::vector<fake::frame> makers(40, inFailure);
  makers.push_back(frameOf("com.example.Shop.buy"));
  EXPECT_EQ(topMethodOfMaking(makers), "com.example.Shop.buy");
}

TEST_F(madeExceptions, aConstructorOfAnotherObjectIsTheMaker) {
  beginMade();
  fake::javaClass* const other = vm.makeClass("com.example.OtherFailure", throwable);
  EXPECT_EQ(topMethodOfMaking({constructorOf(other), frameOf("com.example.Shop.buy")}),
            "com.example.OtherFailure.<init>");
}

// A constructor of a class above the exception's, after the exception's own: it makes another one.
TEST_F(madeExceptions, aConstructorFurtherUpMakesAnotherObject) {
  beginMade();
  EXPECT_EQ(topMethodOfMaking({inThrowable, frameOf("com.example.Shop.buy")}),
            "java.lang.Throwable.<init>");
}

TEST_F(madeExceptions, withoutAFrameBelowTheConstructorsThereIsNoRecord) {
  beginMade();
  EXPECT_EQ(recordOfMaking({}), kNothing);
  EXPECT_THAT(messages("warn"), ElementsAre(HasSubstr("is lost: no frame made it")));
  makeWith({hookFrame});
  EXPECT_THAT(deliveries(), IsEmpty());
}

// --- Filters.

TEST_F(madeExceptions, theMakersClassIsFiltered) {
  beginMade();
  EXPECT_EQ(recordOfMaking({frameOf("sun.misc.Shop.buy")}), kNothing);
}

TEST_F(madeExceptions, theRateHolds) {
  beginMade({.rate = 3});
  for (int i = 0; i < 10'000; ++i) {
    make({frameOf("com.example.Shop.buy")});
  }
  EXPECT_EQ(deliveries().size(), 3U);
  const auto count = [](agent::exceptionCount which) {
    return agent::exceptionCounts::ofProcess().get(which);
  };
  EXPECT_EQ(count(agent::exceptionCount::seen), 10'000U);
  EXPECT_EQ(count(agent::exceptionCount::overRate), 9'997U);
}

TEST_F(madeExceptions, theMakerIsLookedForNoMoreThanSoOften) {
  beginMade({.rate = 1});
  for (int i = 0; i < 10'000; ++i) {
    make({frameOf("com.example.Shop.buy")});
  }
  EXPECT_LT(vm.calls("GetStackTrace"), 5'000U);
  const agent::siteCounts& counts = agent::siteCounts::ofProcess();
  const agent::siteCounts::rows rows = counts.all();
  ASSERT_THAT(rows.sites, SizeIs(1));
  ASSERT_THAT(rows.classes, SizeIs(1)) << "the others count by class";
  const auto madeIn = [](const agent::siteRow& row) {
    return row.read()[static_cast<std::size_t>(agent::siteCount::unknown)];
  };
  EXPECT_GT(madeIn(*rows.sites[0].second), 0U);
  EXPECT_EQ(madeIn(*rows.sites[0].second) + madeIn(*rows.classes[0].second), 10'000U);
}

TEST_F(madeExceptions, whatTheCallbackMakesIsNotRecorded) {
  beginMade();
  inCallback = [&](fake::invocation&) { make({frameOf("com.example.Shop.buy")}); };
  make({frameOf("com.example.Shop.buy")});
  EXPECT_EQ(deliveries().size(), 1U);
}

TEST_F(madeExceptions, whatIsMadeAfterTheUnloadingIsNotRecorded) {
  beginMade();
  unload();
  make({frameOf("com.example.Shop.buy")});
  EXPECT_THAT(deliveries(), IsEmpty());
}

// --- A VM that refuses.

TEST_F(madeExceptions, withoutTheCapabilityForVariablesThereAreNoValues) {
  jvmtiCapabilities some{};
  some.can_get_source_file_name = 1;
  some.can_get_line_numbers = 1;
  some.can_retransform_classes = 1;
  vm.setPotentialCapabilities(some);
  loadThrowable();
  begin({.classVariables = true, .methodArguments = true, .localVariables = true}, kOptions);
  makeConstructors();
  EXPECT_EQ(vm.capabilities().can_get_line_numbers, 1U);
  const std::string record =
      recordOfMaking({frameOf("com.example.Shop.buy", {{"item", "I", jint{7}}})});
  EXPECT_THAT(record, StartsWith("com.example.Shop.buy(Shop.java:"));
  EXPECT_EQ(framesIn(record).front().arguments, "");
  EXPECT_EQ(vm.calls("GetLocalInt"), 0U);
  EXPECT_THAT(messages("warn"), Contains(HasSubstr("records have no values")));
}

TEST_F(madeExceptions, anyRefusedCallLosesTheRecordAtMost) {
  for (const char* const function :
       {"GetObjectClass", "GetClassSignature", "GetClassMethods", "GetMethodName", "GetStackTrace",
        "GetCurrentThread", "GetMethodDeclaringClass", "GetLocalVariableTable", "GetLocalInt",
        "GetSuperclass", "NewStringUTF", "GetObjectHashCode"}) {
    SCOPED_TRACE(function);
    if (throwable == nullptr) {
      beginMade({.methodArguments = true});
    }
    const auto maker = frameOf("com.example.Shop.buy", {{"item", "I", jint{7}}});
    failure = vm.makeClass(std::string("com.example.Failure") + function, throwable);
    inFailure = constructorOf(failure);
    vm.fail(function, {.error = JVMTI_ERROR_OUT_OF_MEMORY});
    make({maker});
    vm.succeed(function);
    EXPECT_EQ(vm.pendingException(), nullptr);
    EXPECT_NE(recordOfMaking({maker}), kNothing);
  }
}

// --- Options.

TEST_F(madeExceptions, theOptionMayStandAnywhere) {
  loadThrowable();
  makeCallbackClass();
  ASSERT_EQ(load("features=exceptionprofiling,EXCEPTIONCAPTURE=Made"), 0);
  EXPECT_EQ(vm.capabilities().can_generate_exception_events, 0U);
  EXPECT_STREQ(agent::exceptionMode(), "made");
}

class captureOption : public exceptionTest, public testing::WithParamInterface<const char*> {};

TEST_P(captureOption, ofAnotherValueIsIgnoredWithALine) {
  const std::string item = GetParam();
  begin({}, ("logLevel=3," + item).c_str());
  EXPECT_EQ(vm.capabilities().can_generate_exception_events, 1U);
  EXPECT_STREQ(agent::exceptionMode(), "thrown");
  EXPECT_THAT(messages("warn"), ElementsAre("Ignoring option '" + item + "': its default holds"));
}

INSTANTIATE_TEST_SUITE_P(each, captureOption,
                         testing::Values("exceptionCapture=both", "exceptionCapture=",
                                         "exceptionCapture", "exceptionCapture=made "));

TEST_F(exceptionTest, exceptionsAreCapturedWhereTheyAreThrownByDefault) {
  begin({}, "exceptionCapture=thrown");
  EXPECT_EQ(vm.capabilities().can_generate_exception_events, 1U);
  EXPECT_STREQ(agent::exceptionMode(), "thrown");
  EXPECT_EQ(vm.calls("RetransformClasses"), 0U);
}

}  // namespace
