// What became of exceptions: the counts, a line for those that are lost, and the records that wait
// for a thread with a stack.
#include <array>
#include <map>
#include <numeric>
#include <set>

#include "exceptionTest.h"
#include "exceptions/exceptionCounts.h"
#include "exceptions/undeliveredRecords.h"
#include "support/stackRoom.h"

namespace {

using namespace test;
using agent::exceptionCount;
using agent::lossLines;
using agent::undeliveredRecord;
using agent::undeliveredRecords;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// --- Lines.

TEST(lossLines, areDueOnceAMinuteForAClassAndAReason) {
  lossLines lines;
  EXPECT_TRUE(lines.take("a.A", exceptionCount::vm, 1000));
  EXPECT_FALSE(lines.take("a.A", exceptionCount::vm, 1059));
  EXPECT_TRUE(lines.take("a.A", exceptionCount::callback, 1000));
  EXPECT_TRUE(lines.take("b.B", exceptionCount::vm, 1000));
  EXPECT_TRUE(lines.take("a.A", exceptionCount::vm, 1060));
  EXPECT_FALSE(lines.take("a.A", exceptionCount::vm, 1060));
}

TEST(lossLines, areBoundedInAMinute) {
  lossLines lines;
  int taken = 0;
  for (int i = 0; i < 1000; ++i) {
    taken += lines.take(std::to_string(i), exceptionCount::vm, 1000);
  }
  EXPECT_EQ(taken, 128);
  EXPECT_TRUE(lines.take("one more", exceptionCount::vm, 1060));
}

// --- Counts.

class exceptionCounted : public exceptionTest {
 protected:
  static std::uint64_t count(exceptionCount which) {
    const jlong told = Java_com_korvane_twutils_nativeagent_AgentCounters_exceptions(
        nullptr, nullptr, static_cast<jint>(which));
    return static_cast<std::uint64_t>(told);
  }
  // All counts: seen, filtered, black-listed, over the rate, delivered, cut, and lost for want of
  // stack, by the callback, for want of memory, by the VM; thrown again.
  static std::vector<std::uint64_t> counts() {
    std::vector<std::uint64_t> all;
    for (std::size_t i = 0; i < agent::kExceptionCounts; ++i) {
      all.push_back(count(static_cast<exceptionCount>(i)));
    }
    return all;
  }
  // A class of error that the callback throws.
  void callbackThrows(const char* className) {
    inCallback = [this, className](fake::invocation& call) {
      call.vm.throwInJava(vm.makeObject(className));
    };
  }
  std::vector<std::string> warnings() const { return messages("warn"); }

  // What takeUndelivered gives.
  std::vector<std::string> take() {
    fake::objectArray* const parts =
        vm.makeArray("[Ljava.lang.Object;", std::vector<fake::object*>(8, nullptr));
    const bool taken = vm.native([&](JNIEnv* jni) {
      return Java_com_korvane_twutils_nativeagent_AgentCounters_takeUndelivered(
                 jni, nullptr, static_cast<jobjectArray>(vm.ref(parts))) == JNI_TRUE;
    });
    std::vector<std::string> texts;
    for (fake::object* const each : parts->elements) {
      auto* const text = dynamic_cast<fake::javaString*>(each);
      if (auto* const places = dynamic_cast<fake::intArray*>(each)) {
        texts.push_back(std::to_string(places->elements.size()) + " places");
      } else if (taken) {
        texts.push_back(text == nullptr ? "(null)" : text->text);
      }
    }
    return texts;
  }
};

TEST_F(exceptionCounted, deliveredOnes) {
  begin();
  recordOf({frameOf("a.A.m")});
  recordOf({frameOf("a.A.m")});
  EXPECT_THAT(counts(), ElementsAre(2, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0));
}

TEST_F(exceptionCounted, thoseThatTheFiltersKeepBack) {
  begin({.rate = 2, .blackList = "[x.black]"});
  recordOf({frameOf("sun.nio.A.m")});
  recordOf({frameOf("a.A.m")}, "x.Black");
  for (int i = 0; i < 3; ++i) {
    recordOf({frameOf("a.A.m")}, "x.Often");
  }
  EXPECT_THAT(counts(), ElementsAre(5, 1, 1, 1, 2, 0, 0, 0, 0, 0, 0));
}

TEST_F(exceptionCounted, noneWhileCaptureIsOff) {
  begin();
  enable({.enable = false});
  callHandler(vm.makeObject(kFailure));
  EXPECT_THAT(counts(), testing::Each(0U));
}

TEST_F(exceptionCounted, noneThatTheCallbackThrows) {
  begin();
  inCallback = [&](fake::invocation& call) {
    call.vm.exception(thread(), nullptr, 0, call.vm.makeObject(kFailure));
  };
  recordOf({frameOf("a.A.m")});
  EXPECT_THAT(counts(), ElementsAre(1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0));
}

TEST_F(exceptionCounted, cutOnes) {
  begin({.localVariables = true}, "recordBytes=4096");
  fake::object* const text =
      objectWith("a.T", {{"s", "Ljava/lang/String;", vm.makeString(std::string(9'000, 'x'))}});
  recordOf({frameOf("a.A.m", {}, {{"t", "La/T;", text}})});
  EXPECT_THAT(counts(), ElementsAre(1, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0));
}

TEST_F(exceptionCounted, thoseWhoseCallbackThrows) {
  begin({}, "logLevel=1");
  callbackThrows("java.lang.NoClassDefFoundError");
  recordOf({frameOf("a.A.m")});
  recordOf({frameOf("a.A.m")});
  EXPECT_THAT(counts(), ElementsAre(2, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0));
  EXPECT_THAT(warnings(),
              ElementsAre("The record of a thrown com.example.Failure is lost: the callback threw "
                          "java.lang.NoClassDefFoundError"))
      << "once a minute";
  EXPECT_EQ(vm.pendingException(), nullptr);
}

TEST_F(exceptionCounted, thoseWithoutACallback) {
  load("logLevel=1");
  enable();
  recordOf({frameOf("a.A.m")});
  EXPECT_EQ(count(exceptionCount::callback), 1U);
  EXPECT_THAT(warnings(), ElementsAre(HasSubstr("there is no callback")));
}

TEST_F(exceptionCounted, thoseWithoutMemoryInJava) {
  begin({}, "logLevel=1");
  vm.fail("NewStringUTF",
          {.throwing = true, .exception = vm.makeObject("java.lang.OutOfMemoryError")});
  recordOf({frameOf("a.A.m")});
  vm.succeed("NewStringUTF");
  callbackThrows("java.lang.OutOfMemoryError");
  recordOf({frameOf("a.A.m")}, "x.Other");
  EXPECT_THAT(counts(), ElementsAre(2, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0));
  EXPECT_THAT(warnings(), SizeIs(2));
}

TEST_F(exceptionCounted, thoseWithoutMemoryInTheAgent) {
  begin({}, "logLevel=1");
  vm.on("GetStackTrace", [] { throw std::bad_alloc(); });
  recordOf({frameOf("a.A.m")});
  vm.off("GetStackTrace");
  vm.fail("GetMethodName", {.error = JVMTI_ERROR_OUT_OF_MEMORY});
  recordOf({frameOf("a.A.m")});
  EXPECT_THAT(counts(), ElementsAre(2, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0));
  EXPECT_THAT(warnings(), ElementsAre(HasSubstr("there is no memory")));
}

TEST_F(exceptionCounted, thoseThatTheVmRefusesSomethingFor) {
  begin({}, "logLevel=1");
  for (const char* function :
       {"GetStackTrace", "GetClassSignature", "GetMethodDeclaringClass", "GetObjectClass"}) {
    vm.fail(function, {.times = 1});
    recordOf({frameOf("a.A.m")}, std::string("x.") + function);
    vm.succeed(function);
  }
  EXPECT_THAT(counts(), ElementsAre(4, 0, 0, 0, 0, 0, 0, 0, 0, 4, 0));
  EXPECT_THAT(warnings(), testing::Contains("The record of a thrown x.GetStackTrace is lost: the "
                                            "VM refused something with error 113"));
}

TEST_F(exceptionCounted, thoseWithoutFrames) {
  begin({.depth = 0}, "logLevel=1");
  recordOf({frameOf("a.A.m")});
  EXPECT_EQ(count(exceptionCount::vm), 1U);
  EXPECT_THAT(warnings(), ElementsAre(HasSubstr("it has no frame")));
}

TEST_F(exceptionCounted, eachIsInOneOfTheCountsWhateverFails) {
  begin({.localVariables = true});
  const std::vector<fake::frame> stack{frameOf("a.A.m", {}, {{"x", "I", jint{1}}})};
  recordOf(stack);
  // What gives something back, or asks what is pending, does not fail.
  const std::set<std::string> never{"Deallocate",     "DeleteLocalRef", "DeleteWeakGlobalRef",
                                    "ExceptionCheck", "PopLocalFrame",  "ReleaseStringUTFChars"};
  for (const std::string& function : vm.callNames()) {
    if (never.count(function) > 0) {
      continue;
    }
    vm.on(function, [] { throw std::bad_alloc(); });
    vm.exception(thread(), stack[0].code, 10, vm.makeObject(vm.makeClass(kFailure)));
    vm.off(function);
    vm.clearException();
  }
  const std::vector<std::uint64_t> all = counts();
  EXPECT_GT(all[0], 10U);
  EXPECT_EQ(std::accumulate(all.begin() + 1, all.end(), std::uint64_t{0}), all[0]);
}

// --- Records of threads without stack.

constexpr const char* kOverflow = "java.lang.StackOverflowError";

TEST_F(exceptionCounted, aThreadWithoutStackLosesItsRecordWhenNobodyAsksForSuch) {
  begin({}, "logLevel=1");
  callbackThrows(kOverflow);
  recordOf({frameOf("a.A.m")}, kOverflow);
  EXPECT_THAT(counts(), ElementsAre(1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0));
  EXPECT_THAT(warnings(),
              ElementsAre("The record of a thrown java.lang.StackOverflowError is lost: "
                          "there is no stack to call Java on"));
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(exceptionCounted, aRecordWithoutStackWaitsForWhoeverAsked) {
  begin({.localVariables = true});
  EXPECT_THAT(take(), IsEmpty());
  callbackThrows(kOverflow);
  recordOf({frameOf("a.A.m", {}, {{"x", "I", jint{1}}})}, kOverflow);
  EXPECT_THAT(counts(), ElementsAre(1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0));
  const std::vector<std::string> parts = take();
  ASSERT_THAT(parts, SizeIs(8));
  EXPECT_GT(std::stoll(parts[0]), 1'600'000'000'000);
  EXPECT_EQ(parts[1], "worker-1");
  EXPECT_EQ(parts[2], kOverflow);
  EXPECT_EQ(parts[3], "a.A.m(A.java:42)%40%41%42%43x%3A4%3A1%2C%44");
  EXPECT_EQ(parts[4], "");
  EXPECT_EQ(parts[5], "") << "its thread is no virtual one";
  EXPECT_EQ(parts[6], "0");
  EXPECT_EQ(parts[7], "(null)") << "its callback takes no places";
  EXPECT_THAT(counts(), ElementsAre(1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0))
      << "it is delivered after all";
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(exceptionCounted, aRecordThatWaitsKeepsItsPlacesAndFacts) {
  takesPlaces = true;
  begin({.localVariables = true});
  take();
  callbackThrows(kOverflow);
  recordOf({frameOf("a.A.m", {}, {{"x", "I", jint{1}}})}, kOverflow);
  const delivered given = deliveries().back();
  const std::vector<std::string> parts = take();
  ASSERT_THAT(parts, SizeIs(8));
  EXPECT_EQ(parts[3], given.record);
  EXPECT_EQ(parts[6], std::to_string(given.facts));
  EXPECT_EQ(parts[7], "11 places");
  EXPECT_THAT(given.places, SizeIs(11));
}

TEST_F(exceptionCounted, aRecordThatCannotBeHandedOverStays) {
  takesPlaces = true;
  begin();
  take();
  callbackThrows(kOverflow);
  recordOf({frameOf("a.A.m")}, kOverflow);
  const std::vector<std::pair<const char*, unsigned>> failures{
      {"NewStringUTF", 3}, {"SetObjectArrayElement", 3}, {"NewIntArray", 1}};
  for (const auto& [function, from] : failures) {
    vm.fail(function, {.from = from, .times = 1, .throwing = true});
    EXPECT_TRUE(take().empty()) << function;
    vm.succeed(function);
  }
  EXPECT_EQ(count(exceptionCount::noStack), 1U);
  EXPECT_THAT(take(), SizeIs(8));
}

undeliveredRecord waiting(std::string text) {
  return {.time = 1, .thread = "t", .exceptionClass = "c", .text = std::move(text)};
}

TEST(undelivered, areSixtyFourAtMostAndTheOldestComesFirst) {
  undeliveredRecords records;
  EXPECT_FALSE(records.keep(waiting("before anyone asks")));
  records.take();
  for (int i = 0; i < 64; ++i) {
    EXPECT_TRUE(records.keep(waiting(std::to_string(i))));
  }
  EXPECT_FALSE(records.keep(waiting("one more")));
  EXPECT_EQ(records.take()->text, "0");
  EXPECT_TRUE(records.keep(waiting("one more")));
  EXPECT_EQ(records.take()->text, "1");
}

TEST(undelivered, placesCountAndGoWithTheValues) {
  undeliveredRecords records;
  records.take();
  undeliveredRecord record = waiting("a.A.m(A.java:42)%40%41" + std::string(1 << 20, 'x'));
  record.places = std::vector<jint>(1 << 20);
  record.facts = 5;
  EXPECT_TRUE(records.keep(record)) << "of 4 MiB and more";
  const auto taken = records.take();
  EXPECT_EQ(taken->text, "a.A.m(A.java:42)%40%41%42%43%44");
  EXPECT_TRUE(taken->places.empty());
  EXPECT_EQ(taken->facts, 0U);
}

TEST(undelivered, keepFourMebibytesOfTextAndThenSitesOnly) {
  undeliveredRecords records;
  records.take();
  const std::string frame = "a.A.m(A.java:42)%40%41";
  const std::string text = frame + std::string(1 << 20, 'x') + "%42%43%44";
  for (int i = 0; i < 6; ++i) {
    EXPECT_TRUE(records.keep(waiting(text)));
  }
  std::vector<std::string> short_;
  while (const auto each = records.take()) {
    EXPECT_EQ(each->isCut, each->text != text);
    if (each->isCut) {
      short_.push_back(each->text);
    }
  }
  EXPECT_THAT(short_, ElementsAre(frame + "%42%43%44", frame + "%42%43%44", frame + "%42%43%44"));
  EXPECT_TRUE(records.keep(waiting(text)));
  EXPECT_EQ(records.take()->text, text) << "what was taken makes room";
}

TEST_F(exceptionCounted, aThreadWithoutStackForARecordBuildsNone) {
  begin({}, "logLevel=1");
  const fake::frame frame = frameOf("a.A.m");
  thread()->setFrames({frame});
  fake::object* const thrown = vm.makeObject(kFailure);
  vm.resetCalls();
  const std::function<void()> deep = [&] {
    std::array<volatile char, 4096> used;
    used[0] = 0;
    if (support::stackLeft() > std::size_t{44} << 10U) {
      return deep();
    }
    vm.exception(thread(), frame.code, 10, thrown);
    used[1] = used[0];
  };
  deep();
  EXPECT_EQ(vm.calls("GetStackTrace"), 0U);
  EXPECT_THAT(counts(), ElementsAre(1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0));
  EXPECT_THAT(warnings(), ElementsAre(HasSubstr("there is no stack to build it on")));
}

TEST(stackRoom, getsLessFurtherDown) {
  const std::size_t here = support::stackLeft();
  const auto below = [] {
    std::array<volatile char, 10'000> used;
    used[0] = 1;
    used[used.size() - 1] = used[0];
    return support::stackLeft();
  };
  const std::size_t there = below();
  EXPECT_LT(there + 9'000, here);
  EXPECT_GT(there + 100'000, here);
}

}  // namespace
