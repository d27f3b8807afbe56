// Exception capture switched on and off: capabilities, events, the settings and their black list.
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>

#include "exceptionTest.h"
#include "memory/memoryprofiler.h"

namespace {

using namespace test;
using agent::ExceptionCaptureSettings;
using agent::parseBlackList;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class exceptionConfig : public exceptionTest {
 protected:
  jint take(std::unique_ptr<agent::sessionSettings> settings) {
    return exceptions()->setProfileData(std::move(settings));
  }
  bool check(jvmtiError code) {
    return vm.native(
        [&](JNIEnv* jni) { return agent::exceptionProfiler::check(jni, vm.jvmti(), code); });
  }
  fake::javaClass* callbackClass() { return vm.classNamed(kCallbackClass); }
};

// --- Loading.

TEST_F(exceptionConfig, loadingAsksForExactlyFourCapabilities) {
  load("features=exceptionprofiling");
  const jvmtiCapabilities asked = vm.capabilities();
  std::uint32_t word = 0;
  std::memcpy(&word, &asked, sizeof word);
  EXPECT_EQ(word, 0x25800U);
  std::string rest(sizeof asked, '\0');
  std::memcpy(rest.data(), &asked, sizeof asked);
  EXPECT_EQ(rest.substr(sizeof word), std::string(sizeof asked - sizeof word, '\0'));
}

TEST_F(exceptionConfig, loadingInstallsNoHandlerAndEnablesNoEvent) {
  load();
  EXPECT_EQ(vm.callbacks().Exception, nullptr);
  EXPECT_THAT(vm.eventModes(), IsEmpty());
  EXPECT_EQ(exceptions()->state(), agent::kExceptionStopped);
}

// --- Switching.

TEST_F(exceptionConfig, enablingSwitchesTheEventsOnInTheirOrder) {
  begin();
  EXPECT_NE(vm.callbacks().Exception, nullptr);
  EXPECT_THAT(vm.eventModes(), ElementsAre(fake::eventMode{JVMTI_ENABLE, JVMTI_EVENT_VM_INIT},
                                           fake::eventMode{JVMTI_ENABLE, JVMTI_EVENT_EXCEPTION}));
  EXPECT_TRUE(exceptions()->enabled());
  EXPECT_EQ(exceptions()->state(), 7);
}

TEST_F(exceptionConfig, stepsAreMadeInTheirOrder) {
  makeCallbackClass();
  load();
  vm.setLogging(true);
  enable();
  std::vector<std::string> steps;
  for (const std::string& each : vm.callLog()) {
    for (const char* wanted : {"GetStringUTFChars", "FindClass", "GetStaticMethodID",
                               "SetEventCallbacks", "SetEventNotificationMode"}) {
      if (each == wanted) {
        steps.push_back(each);
      }
    }
  }
  EXPECT_THAT(steps, ElementsAre("GetStringUTFChars", "FindClass", "GetStaticMethodID",
                                 "GetStaticMethodID", "GetStaticMethodID", "SetEventCallbacks",
                                 "SetEventNotificationMode", "SetEventNotificationMode"));
}

TEST_F(exceptionConfig, disablingSwitchesTheEventsOffAndLeavesTheStage) {
  begin();
  EXPECT_EQ(enable({.enable = false}), 1);
  EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_VM_INIT));
  EXPECT_FALSE(vm.isEnabled(JVMTI_EVENT_EXCEPTION));
  const std::vector<fake::eventMode> modes = vm.eventModes();
  ASSERT_EQ(modes.size(), 4U);
  EXPECT_EQ(modes[2], (fake::eventMode{JVMTI_DISABLE, JVMTI_EVENT_VM_INIT}));
  EXPECT_EQ(modes[3], (fake::eventMode{JVMTI_DISABLE, JVMTI_EVENT_EXCEPTION}));
  EXPECT_EQ(vm.callbacks().Exception, nullptr);
  EXPECT_EQ(exceptions()->state(), 7) << "the stage stays as it was";
}

TEST_F(exceptionConfig, disablingBeforeAnythingElseLeavesTheStageStopped) {
  load();
  EXPECT_EQ(enable({.enable = false}), 1);
  EXPECT_EQ(exceptions()->state(), 8);
}

TEST_F(exceptionConfig, disablingStoresTheSettingsAndLogsNothing) {
  begin({}, "logLevel=4");
  const std::size_t before = log().size();
  EXPECT_EQ(enable({.enable = false}), 1);
  EXPECT_EQ(log().size(), before);
  callHandler(vm.makeObject(kFailure));
  EXPECT_EQ(errorsSaying("Exception is not enabled"), 1U) << "the new settings are the ones in use";
}

TEST_F(exceptionConfig, disabledCaptureDeliversNothing) {
  begin();
  enable({.enable = false});
  EXPECT_FALSE(vm.exception(thread(), nullptr, 0, vm.makeObject(kFailure)));
  EXPECT_THAT(deliveries(), IsEmpty());
}

TEST_F(exceptionConfig, captureCanBeSwitchedOnAgain) {
  begin();
  enable({.enable = false});
  EXPECT_EQ(enable(), 1);
  EXPECT_THAT(recordOf({frameOf("com.example.Shop.buy")}), HasSubstr("com.example.Shop.buy"));
}

TEST_F(exceptionConfig, withoutAnExceptionProfilerNothingHappens) {
  makeCallbackClass();
  load("features=mutexprofiling");
  EXPECT_EQ(enable(), 0);
  EXPECT_THAT(vm.eventModes(), IsEmpty());
  EXPECT_EQ(vm.callbacks().Exception, nullptr);
  EXPECT_EQ(vm.globalReferencesTo(callbackClass()), 0U) << "the settings are given up";
}

TEST_F(exceptionConfig, withoutAToolEnvironmentNothingHappens) {
  makeCallbackClass();
  vm.fail("GetEnv", {.times = 1});
  EXPECT_EQ(load(), 0);
  EXPECT_EQ(enable(), 0);
  EXPECT_EQ(vm.globalReferencesTo(callbackClass()), 0U);
}

TEST_F(exceptionConfig, afterTheUnloadingNothingHappens) {
  begin();
  unload();
  EXPECT_EQ(enable(), 0);
}

// --- Settings.

constexpr const char* kAllDifferent =
    "********Enabling Exception Capture feature : "
    "\n\t\tClass variales capturing status : 1"
    "\n\t\tMethod arguments capturing Status :0"
    "\n\t\tLocal variable capturing status :1"
    "\n\t\tThread Local capturing status :0"
    "\n\t\tException capturing Rate:-7"
    "\n\t\tStackTrace depth:500";

const captureSettings kAllDifferentSettings{
    .classVariables = true, .localVariables = true, .rate = -7, .depth = 500};

TEST_F(exceptionConfig, enablingIsLoggedWithTheSettings) {
  begin();
  const auto change = [&] { enable(kAllDifferentSettings); };
  EXPECT_THAT(loggedFrom(3, change, "Trace"), Contains(kAllDifferent));
}

TEST_F(exceptionConfig, theOtherTwoFlagsReachTheirPlace) {
  begin({.methodArguments = true, .threadLocals = true}, "logLevel=3");
  EXPECT_THAT(messages("Trace"),
              Contains(::testing::AllOf(HasSubstr("Class variales capturing status : 0\n"),
                                        HasSubstr("Method arguments capturing Status :1\n"),
                                        HasSubstr("Local variable capturing status :0\n"),
                                        HasSubstr("Thread Local capturing status :1\n"))));
}

TEST_F(exceptionConfig, linesNameTheFunction) {
  begin({}, "logLevel=3");
  EXPECT_EQ(log().back().function, "exceptionProfiler::setProfileData");
  EXPECT_EQ(log().back().sourceFile, "exceptionprofiler.cpp");
}

TEST_F(exceptionConfig, settingsOfNoneAreRefusedWithAnError) {
  load();
  EXPECT_THAT(loggedFrom(1, [&] { EXPECT_EQ(take(nullptr), 0); }),
              ElementsAre("Unable to get Exception profiler"));
}

TEST_F(exceptionConfig, settingsOfAnotherKindAreRefused) {
  load();
  EXPECT_EQ(take(std::make_unique<agent::MemorySessionConfig>()), 0);
}

TEST_F(exceptionConfig, settingsHandedOverDirectlyAreTaken) {
  load();
  auto settings = std::make_unique<ExceptionCaptureSettings>();
  settings->enabled = true;
  EXPECT_EQ(take(std::move(settings)), 1);
  EXPECT_EQ(take(std::make_unique<ExceptionCaptureSettings>()), 1);
}

// --- The class that is called back.

TEST_F(exceptionConfig, callbackClassIsHeldAsLongAsItsSettings) {
  begin();
  EXPECT_EQ(vm.globalReferencesTo(callbackClass()), 1U);
  enable();
  enable({.enable = false});
  EXPECT_EQ(vm.globalReferencesTo(callbackClass()), 1U) << "replaced settings let go of theirs";
  unload();
  EXPECT_EQ(vm.globalReferencesTo(callbackClass()), 0U);
}

TEST_F(exceptionConfig, missingCallbackClassIsFoundOutByTheHandler) {
  load();
  EXPECT_EQ(enable(), 1) << "and no Java exception reaches the caller";
  const auto record = [&] { return recordOf({frameOf("com.example.Shop.buy")}); };
  EXPECT_THAT(loggedFrom(4, [&] { EXPECT_EQ(record(), kNothing); }),
              Contains("exception id  not found").Times(1));
  EXPECT_EQ(errorsSaying("exception id  not found"), 1U);
}

TEST_F(exceptionConfig, missingDeliveryMethodIsFoundOutByTheHandler) {
  vm.makeMethod(vm.makeClass(kCallbackClass), "getobjectValue",
                "(Ljava/lang/Object;)Ljava/lang/String;", {.isStatic = true});
  load("logLevel=4");
  EXPECT_EQ(enable(), 1);
  EXPECT_EQ(recordOf({frameOf("com.example.Shop.buy")}), kNothing);
  EXPECT_EQ(errorsSaying("exception id  not found"), 1U);
}

TEST_F(exceptionConfig, missingTextMethodDoesNotMatter) {
  makeCallbackClass();
  vm.fail("GetStaticMethodID", {.name = "getobjectValue", .throwing = true});
  load();
  EXPECT_EQ(enable(), 1);
  EXPECT_NE(recordOf({frameOf("com.example.Shop.buy")}), kNothing);
}

// --- The black list.

TEST(blackList, namesAreSeparatedByCommasWithinOneCharacterOnEachSide) {
  EXPECT_THAT(parseBlackList("[A,b]"), ElementsAre("a", "b"));
  EXPECT_THAT(parseBlackList("xjava.lang.Errory"), ElementsAre("java.lang.error"));
}

TEST(blackList, oneAndTwoCharactersGiveAnEmptyList) {
  EXPECT_THAT(parseBlackList("["), IsEmpty());
  EXPECT_THAT(parseBlackList("[]"), IsEmpty());
  EXPECT_THAT(parseBlackList("ab"), IsEmpty());
}

TEST(blackList, emptyTextThrows) {
  try {
    parseBlackList("");
    FAIL() << "nothing was thrown";
  } catch (const std::out_of_range& thrown) {
    EXPECT_STREQ(thrown.what(), "invalid string position");
  }
}

TEST(blackList, piecesAreReadAsGetlineReadsThem) {
  EXPECT_THAT(parseBlackList("[a,,b]"), ElementsAre("a", "", "b"));
  EXPECT_THAT(parseBlackList("[a,]"), ElementsAre("a")) << "nothing follows the last comma";
  EXPECT_THAT(parseBlackList("[,a]"), ElementsAre("", "a"));
  EXPECT_THAT(parseBlackList("[,]"), ElementsAre(""));
  EXPECT_THAT(parseBlackList("[a, b]"), ElementsAre("a", " b")) << "blanks are kept";
}

TEST(blackList, otherBytesThanAToZStayAsTheyAre) {
  EXPECT_THAT(parseBlackList("[Caf\xC3\x89$X]"), ElementsAre("caf\xC3\x89$x"));
}

TEST_F(exceptionConfig, emptyBlackListIsFatalAfterALineThatNamesTheArgument) {
  load();
  ::testing::internal::CaptureStderr();
  try {
    enableUnguarded({.blackList = ""});
    ADD_FAILURE() << "nothing was thrown";
  } catch (const std::out_of_range& thrown) {
    EXPECT_STREQ(thrown.what(), "invalid string position");
  }
  const std::string printed = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(printed, HasSubstr("blackList"));
  EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 1) << printed;
  EXPECT_THAT(vm.eventModes(), IsEmpty()) << "nothing was switched on";
}

TEST_F(exceptionConfig, nullBlackListIsAnEmptyOne) {
  begin({.blackList = std::nullopt});
  EXPECT_NE(recordOf({frameOf("com.example.Shop.buy")}), kNothing);
}

TEST_F(exceptionConfig, newSettingsBringANewBlackList) {
  const std::vector<fake::frame> stack{frameOf("com.example.Shop.buy")};
  begin({.blackList = "[com.example.Failure]"});
  EXPECT_EQ(recordOf(stack), kNothing);
  enable();
  EXPECT_NE(recordOf(stack), kNothing);
}

// --- The check of JVMTI errors.

TEST_F(exceptionConfig, noErrorIsNone) {
  load("logLevel=4");
  vm.resetCalls();
  EXPECT_FALSE(check(JVMTI_ERROR_NONE));
  EXPECT_THAT(vm.callNames(), IsEmpty());
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(exceptionConfig, errorsAreLoggedByNameAndCode) {
  load();
  EXPECT_THAT(loggedFrom(4, [&] { EXPECT_TRUE(check(JVMTI_ERROR_WRONG_PHASE)); }),
              ElementsAre("Error name is JVMTI_ERROR_WRONG_PHASE and error code is 112"));
}

TEST_F(exceptionConfig, errorsThatTheVmHasNoNameForStillCount) {
  load("logLevel=4");
  EXPECT_TRUE(check(static_cast<jvmtiError>(120)));
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("and error code is 120")));
}

TEST_F(exceptionConfig, errorsWhoseNameCannotBeHadStillCount) {
  load("logLevel=4");
  vm.fail("GetErrorName");
  EXPECT_TRUE(check(JVMTI_ERROR_WRONG_PHASE));
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("and error code is 112")));
}

TEST_F(exceptionConfig, aPendingJavaExceptionIsDescribedAndCleared) {
  load("logLevel=1");
  vm.resetCalls();
  vm.native([&](JNIEnv* jni) {
    vm.throwInJava(nullptr);
    EXPECT_TRUE(agent::exceptionProfiler::check(jni, vm.jvmti(), JVMTI_ERROR_INTERNAL));
    EXPECT_EQ(vm.pendingException(), nullptr);
  });
  EXPECT_EQ(vm.calls("ExceptionDescribe"), 1U);
  EXPECT_EQ(vm.calls("ExceptionClear"), 1U);
}

}  // namespace
