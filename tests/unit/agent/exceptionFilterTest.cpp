// Which exceptions are recorded: the chain of checks before anything is read of the stack.
#include <ctime>
#include <memory>

#include "exceptionTest.h"

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class exceptionFilter : public exceptionTest {
 protected:
  // Throws `count` exceptions of a class in the method; how many were delivered.
  int deliveredOf(int count, std::string_view className = kFailure,
                  std::string_view method = "com.example.Shop.buy") {
    int all = 0;
    for (int i = 0; i < count; ++i) {
      all += recordOf({frameOf(method)}, className) != kNothing;
    }
    return all;
  }
  bool recordsFrom(std::string_view method) { return deliveredOf(1, kFailure, method) == 1; }

  void callHandlerWithFailure() { callHandler(vm.makeObject(kFailure)); }
};

// --- Before the exception is looked at.

TEST_F(exceptionFilter, withoutAProfilerTheHandlerSaysSo) {
  begin();
  unload();
  EXPECT_THAT(loggedFrom(4, [&] { callHandlerWithFailure(); }),
              ElementsAre("Unable to get Exception profiler"));
}

TEST_F(exceptionFilter, withoutSettingsCaptureIsNotEnabled) {
  load();
  EXPECT_THAT(loggedFrom(4, [&] { callHandlerWithFailure(); }),
              ElementsAre("Exception is not enabled"));
}

TEST_F(exceptionFilter, disabledSettingsDoNotCapture) {
  begin();
  enable({.enable = false});
  EXPECT_THAT(loggedFrom(4, [&] { callHandlerWithFailure(); }),
              ElementsAre("Exception is not enabled"));
  EXPECT_THAT(deliveries(), IsEmpty());
}

TEST_F(exceptionFilter, anExceptionOfNullIsRefused) {
  begin();
  EXPECT_THAT(loggedFrom(4, [&] { callHandler(nullptr); }),
              ElementsAre("exception object is NULL"));
}

TEST_F(exceptionFilter, aStoppedProfilerCapturesNothing) {
  load();
  auto settings = std::make_unique<agent::ExceptionCaptureSettings>();
  settings->enabled = true;
  exceptions()->setProfileData(std::move(settings));
  ASSERT_EQ(exceptions()->state(), agent::kExceptionStopped);
  EXPECT_THAT(loggedFrom(4, [&] { callHandlerWithFailure(); }),
              ElementsAre("Exception profiler stage is stopped"));
}

TEST_F(exceptionFilter, settingsAreLookedAtBeforeTheException) {
  load("logLevel=4");
  callHandler(nullptr);
  EXPECT_THAT(errors(), ElementsAre("Exception is not enabled"));
}

TEST_F(exceptionFilter, theExceptionIsLookedAtBeforeTheStage) {
  load("logLevel=4");
  auto settings = std::make_unique<agent::ExceptionCaptureSettings>();
  settings->enabled = true;
  exceptions()->setProfileData(std::move(settings));
  callHandler(nullptr);
  EXPECT_THAT(errors(), ElementsAre("exception object is NULL"));
}

TEST_F(exceptionFilter, messagesNameTheHandler) {
  load("logLevel=4");
  callHandler(nullptr);
  EXPECT_EQ(log().back().function, "exceptionProfiler::ExceptionCallback");
  EXPECT_EQ(log().back().severity, "Error");
}

// --- Its class.

TEST_F(exceptionFilter, aClassWithoutASignatureIsDroppedSilently) {
  begin({}, "logLevel=4");
  vm.classNamed(kFailure)->signature.reset();
  EXPECT_EQ(deliveredOf(1), 0);
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(exceptionFilter, withoutItsClassAnExceptionIsDroppedSilently) {
  begin({}, "logLevel=4");
  vm.fail("GetObjectClass", {.times = 1});
  EXPECT_EQ(deliveredOf(1), 0);
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_EQ(deliveredOf(1), 1);
}

TEST_F(exceptionFilter, anEmptyClassNameIsRefused) {
  begin();
  vm.classNamed(kFailure)->signature = "L;";
  EXPECT_THAT(loggedFrom(4, [&] { EXPECT_EQ(deliveredOf(1), 0); }),
              ElementsAre("exception class is empty"));
}

TEST_F(exceptionFilter, withoutAThrowingMethodThePackageIsNotAskedFor) {
  begin();
  thread()->setFrames({frameOf("com.example.Shop.buy")});
  callHandler(vm.makeObject(kFailure), nullptr);
  EXPECT_EQ(deliveries().size(), 1U);
}

// --- Who throws.

TEST_F(exceptionFilter, exceptionsOfTheAgentsOwnPackagesAreNeverDelivered) {
  begin();
  EXPECT_FALSE(recordsFrom("com.korvane.tw.App.run"));
  EXPECT_FALSE(recordsFrom("com.korvane.twutils.nativeagent.Loader.run"));
  EXPECT_FALSE(recordsFrom("com.korvane.koragent.App.run"));
  EXPECT_FALSE(recordsFrom("com.korvane.commons.io.Files.read"));
  EXPECT_FALSE(recordsFrom("sun.nio.ch.Net.connect"));
  EXPECT_FALSE(recordsFrom("java.lang.Class.forName"));
}

TEST_F(exceptionFilter, theStartOfTheNameCountsWithoutRegardToCase) {
  begin();
  EXPECT_FALSE(recordsFrom("COM.Korvane.TWeed.run"));
  EXPECT_FALSE(recordsFrom("Sun.App.run"));
  EXPECT_FALSE(recordsFrom("java.lang.ClassLoader.loadClass"));
}

TEST_F(exceptionFilter, otherPackagesAreDelivered) {
  begin();
  EXPECT_TRUE(recordsFrom("com.korvane.App.run"));
  EXPECT_TRUE(recordsFrom("com.korvane.t.App.run"));
  EXPECT_TRUE(recordsFrom("com.sun.proxy.App.run")) << "its frames are empty, but it is recorded";
  EXPECT_TRUE(recordsFrom("sunny.App.run"));
  EXPECT_TRUE(recordsFrom("my.sun.App.run")) << "not at the start";
  EXPECT_TRUE(recordsFrom("java.lang.Integer.parseInt"));
}

TEST_F(exceptionFilter, theMessageNamesTheThrowerAndTheExceptionsSignature) {
  begin();
  EXPECT_THAT(loggedFrom(4, [&] { EXPECT_FALSE(recordsFrom("sun.nio.Net.connect")); }),
              ElementsAre("Default exception class sun.nio.Net  Lcom/example/Failure;"));
}

TEST_F(exceptionFilter, exceptionsOfTheAgentsOwnPackagesAreNeverCounted) {
  begin({.rate = 1});
  deliveredOf(3, kFailure, "sun.nio.ch.Net.connect");
  deliveredOf(3, kFailure, "com.korvane.twutils.App.run");
  EXPECT_EQ(deliveredOf(2), 1) << "the rate is whole";
}

// --- How many of a class.

TEST_F(exceptionFilter, asManyAsTheRateAreDeliveredAndTheNextIsDropped) {
  begin({.rate = 3});
  EXPECT_EQ(deliveredOf(3), 3);
  EXPECT_THAT(loggedFrom(4, [&] { EXPECT_EQ(deliveredOf(1), 0); }),
              Contains("exception ratecount exceed").Times(1));
}

TEST_F(exceptionFilter, moreThanAMinuteAfterTheFirstOneANewWindowOpens) {
  begin({.rate = 3});
  const std::time_t longAgo = std::time(nullptr) - 61;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(exceptions()->takeRate("com.example.failure", 3, longAgo));
  }
  EXPECT_EQ(deliveredOf(4), 3) << "the first opens a window for itself and two more";
}

TEST_F(exceptionFilter, theWindowClosesAfterMoreThanSixtySeconds) {
  load();
  constexpr std::time_t kStart = 1'000'000;
  const auto take = [&](std::time_t after) {
    return exceptions()->takeRate("a", 2, kStart + after);
  };
  EXPECT_TRUE(take(0));
  EXPECT_TRUE(take(59));
  EXPECT_FALSE(take(59));
  EXPECT_FALSE(take(60)) << "exactly 60 seconds are within the window";
  EXPECT_TRUE(take(61));
  EXPECT_TRUE(take(61 + 60)) << "the new window has room for a second one";
  EXPECT_FALSE(take(61 + 60)) << "and began with its own first one";
  EXPECT_TRUE(take(61 + 61));
}

TEST_F(exceptionFilter, theWindowIsOnlyLookedAtWhenTheRateIsSpent) {
  load();
  EXPECT_TRUE(exceptions()->takeRate("a", 3, 0));
  EXPECT_TRUE(exceptions()->takeRate("a", 3, 1000)) << "the second of the old window";
  EXPECT_TRUE(exceptions()->takeRate("a", 3, 1001)) << "the third";
  EXPECT_TRUE(exceptions()->takeRate("a", 3, 1002)) << "the first of a new window";
  EXPECT_TRUE(exceptions()->takeRate("a", 3, 1003));
  EXPECT_TRUE(exceptions()->takeRate("a", 3, 1003));
  EXPECT_FALSE(exceptions()->takeRate("a", 3, 1003));
}

TEST_F(exceptionFilter, aClockThatGoesBackDoesNotOpenAWindow) {
  load();
  EXPECT_TRUE(exceptions()->takeRate("a", 1, 1'000'000));
  EXPECT_FALSE(exceptions()->takeRate("a", 1, 900'000));
}

TEST_F(exceptionFilter, aRateOfOneLetsOneThrough) {
  begin({.rate = 1});
  EXPECT_EQ(deliveredOf(3), 1);
}

TEST_F(exceptionFilter, ratesBelowOneAreNoLimit) {
  begin();
  for (const jint rate : {0, -1}) {
    enable({.rate = rate});
    EXPECT_EQ(deliveredOf(50), 50) << "rate " << rate;
  }
}

TEST_F(exceptionFilter, eachClassHasItsOwnRate) {
  begin({.rate = 1});
  EXPECT_EQ(deliveredOf(2, "com.example.Failure"), 1);
  EXPECT_EQ(deliveredOf(2, "com.example.Other"), 1);
}

TEST_F(exceptionFilter, namesThatDifferInCaseShareARate) {
  begin({.rate = 1});
  EXPECT_EQ(deliveredOf(1, "com.example.Failure"), 1);
  EXPECT_EQ(deliveredOf(1, "com.example.FAILURE"), 0);
}

TEST_F(exceptionFilter, classesOfOneNameShareARate) {
  begin({.rate = 1});
  EXPECT_EQ(deliveredOf(1), 1);
  thread()->setFrames({frameOf("com.example.Shop.buy")});
  callHandler(vm.makeObject(vm.makeClass(kFailure)));
  EXPECT_EQ(deliveries().size(), 1U);
}

TEST_F(exceptionFilter, rateCountsOutliveAChangeOfSettings) {
  begin({.rate = 2});
  EXPECT_EQ(deliveredOf(2), 2);
  enable({.enable = false, .rate = 2});
  enable({.rate = 2});
  EXPECT_EQ(deliveredOf(1), 0);
  enable({.rate = 3});
  EXPECT_EQ(deliveredOf(2), 1) << "one more than before";
}

TEST_F(exceptionFilter, aRateBelowTheCountIsNeverMet) {
  begin({.rate = 3});
  EXPECT_EQ(deliveredOf(3), 3);
  enable({.rate = 2});
  EXPECT_EQ(deliveredOf(5), 5) << "only a count equal to the rate stops a class";
}

// --- The black list.

TEST_F(exceptionFilter, listedClassesAreDropped) {
  begin({.blackList = "[com.example.Other,COM.example.failure]"});
  EXPECT_THAT(loggedFrom(4, [&] { EXPECT_EQ(deliveredOf(1), 0); }),
              ElementsAre("exception class com.example.failure found in black list"));
}

TEST_F(exceptionFilter, onlyWholeNamesAreListed) {
  begin({.blackList = "[com.example.Failur,com.example.FailureX,example.Failure,]"});
  EXPECT_EQ(deliveredOf(1), 1);
}

TEST_F(exceptionFilter, aListedClassUsesUpItsRate) {
  begin({.rate = 2, .blackList = "[com.example.Failure]"});
  EXPECT_EQ(deliveredOf(2), 0);
  enable({.rate = 2});
  EXPECT_EQ(deliveredOf(1), 0) << "its two were counted";
}

TEST_F(exceptionFilter, theRateComesBeforeTheBlackList) {
  begin({.rate = 1, .blackList = "[com.example.Failure]"}, "logLevel=4");
  deliveredOf(2);
  EXPECT_EQ(errorsSaying("exception class com.example.failure found in black list"), 1U);
  EXPECT_EQ(errorsSaying("exception ratecount exceed"), 1U);
}

// --- What a dropped exception costs.

TEST_F(exceptionFilter, whatIsNotRecordedIsNotRead) {
  begin({.methodArguments = true, .localVariables = true, .rate = 1, .blackList = "[x.Listed]"});
  deliveredOf(1);
  vm.resetCalls();
  deliveredOf(1);                                    // its rate is spent
  deliveredOf(1, "x.Listed");                        // black-listed
  deliveredOf(1, "x.Other", "sun.nio.Net.connect");  // of a package left out
  EXPECT_EQ(vm.calls("GetStackTrace"), 0U);
  EXPECT_EQ(vm.calls("GetLocalVariableTable"), 0U);
  EXPECT_EQ(vm.calls("GetThreadInfo"), 0U);
}

// --- How deep.

TEST_F(exceptionFilter, noMoreFramesAreWalkedThanAskedFor) {
  begin({.depth = 2});
  const std::string record =
      recordOf({frameOf("a.A.one"), frameOf("a.A.two"), frameOf("a.A.three")});
  EXPECT_EQ(framesIn(record).size(), 2U);
  EXPECT_THAT(record, Not(HasSubstr("a.A.three")));
}

TEST_F(exceptionFilter, aDepthOf500WalksAtMost100Frames) {
  begin({.depth = 500});
  std::vector<fake::frame> stack;
  for (int i = 0; i < 150; ++i) {
    stack.push_back(frameOf("a.A.m" + std::to_string(i)));
  }
  const std::vector<frameSections> frames = framesIn(recordOf(stack));
  ASSERT_EQ(frames.size(), 100U);
  EXPECT_EQ(frames.back().header, "a.A.m99(A.java:42)%40%41");
}

TEST_F(exceptionFilter, depthsBelowOneDeliverNothing) {
  begin();
  for (const jint depth : {0, -1}) {
    enable({.depth = depth});
    EXPECT_EQ(deliveredOf(1), 0) << "depth " << depth;
  }
  enable();
  EXPECT_EQ(deliveredOf(1), 1);
}

}  // namespace
