// Stack traces: their text, their hash, and where each sighting is counted.
#include <algorithm>
#include <optional>

#include "lockTest.h"

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr std::uint64_t kHashOfNothing = 14695981039346656037U;

class stackTrace : public lockTest {
 protected:
  // The one text in the map of texts.
  std::string onlyText() {
    const auto texts = stackTexts();
    EXPECT_EQ(texts.size(), 1U);
    return texts.empty() ? "" : texts.begin()->second;
  }

  fake::object* lock = vm.makeObject("a.Lock");
  fake::javaThread* thread = vm.makeThread("T");
};

TEST(stackHashTest, theTestsHashIsFnv1aOf64Bits) {
  EXPECT_EQ(fnv1a(""), 0xcbf29ce484222325U);
  EXPECT_EQ(fnv1a("a"), 0xaf63dc4c8601ec8cU);
  EXPECT_EQ(fnv1a("foobar"), 0x85944171f73967e8U);
}

TEST_F(stackTrace, textOfOneFrameHasNoComma) {
  load();
  beginDetail({lock});
  setStack(thread, {"a.b.C.m"});
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(onlyText(), "at a.b.C.m()");
}

TEST_F(stackTrace, textOfTwoFramesIsJoinedByOneComma) {
  load();
  beginDetail({lock});
  setStack(thread, {"a.b.C.m", "x.Y.<init>"});
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(onlyText(), "at a.b.C.m(),at x.Y.<init>()");
}

TEST_F(stackTrace, hashIsThatOfTheWholeTextWithItsLineFeeds) {
  load();
  beginDetail({lock});
  setStack(thread, {"a.b.C.m", "x.Y.run"});
  vm.contendedEnter(thread, lock);
  EXPECT_THAT(stackHashes(), ElementsAre(fnv1a("at a.b.C.m()\nat x.Y.run()\n")));
}

TEST_F(stackTrace, classOutsideAnyPackageIsNamedByItself) {
  load();
  beginDetail({lock});
  thread->setFrames({{.code = vm.makeMethod("Main", "main", "([Ljava/lang/String;)V")}});
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(onlyText(), "at Main.main()");
}

TEST_F(stackTrace, neitherLinesNorSignaturesMakeADifference) {
  load();
  beginDetail({lock});
  fake::method* const one = vm.makeMethod("a.B", "m", "()V");
  fake::method* const other = vm.makeMethod("a.B", "m", "(I)V");
  thread->setFrames({{.code = one, .location = 1}});
  vm.contendedEnter(thread, lock);
  thread->setFrames({{.code = other, .location = 9}});
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(stackHashes().size(), 1U);
}

TEST_F(stackTrace, sameMethodsInAnotherOrderOrNumberAreAnotherTrace) {
  load();
  beginDetail({lock});
  fake::method* const one = vm.makeMethod("a.A", "one");
  fake::method* const two = vm.makeMethod("a.A", "two");
  const std::vector<std::vector<fake::method*>> stacks = {{one, two}, {two, one},      {one},
                                                          {two},      {one, two, two}, {}};
  for (int round = 0; round < 2; ++round) {
    for (const auto& stack : stacks) {
      std::vector<fake::frame> frames;
      for (fake::method* const each : stack) {
        frames.push_back({.code = each, .location = round});
      }
      thread->setFrames(std::move(frames));
      vm.contendedEnter(thread, lock);
    }
  }
  EXPECT_EQ(stackHashes().size(), stacks.size());
  for (const auto& [hash, trace] : tracesOf(lock, "T")) {
    EXPECT_EQ(trace.count, 2U);
    EXPECT_EQ(trace.hashcode, hash);
  }
  EXPECT_TRUE(tracesOf(lock, "T").contains(fnv1a("at a.A.two()\nat a.A.one()\n")));
}

TEST_F(stackTrace, knownTraceIsCountedForEachOfItsThreads) {
  load();
  beginDetail({lock});
  fake::method* const code = vm.makeMethod("a.A", "one");
  for (const char* name : {"S", "T", "U"}) {
    fake::javaThread* const each = vm.makeThread(name);
    each->setFrames({{.code = code}});
    vm.contendedEnter(each, lock);
    EXPECT_EQ(tracesOf(lock, name).at(fnv1a("at a.A.one()\n")).count, 1U) << name;
  }
}

TEST_F(stackTrace, codeOfAnUnloadedClassIsNotTakenForThatOfItsSuccessor) {
  load();
  beginDetail({lock});
  for (const char* name : {"gone.Code", "new.Code", "gone.Code"}) {
    fake::javaClass* const type = vm.makeClass(name);
    type->hash = 77;
    thread->setFrames({{.code = vm.makeMethod(type, "run", "()V")}});
    vm.contendedEnter(thread, lock);
    thread->setFrames({});
    vm.unload(type);
  }
  const agent::stackTraceBeans traces = tracesOf(lock, "T");
  EXPECT_EQ(traces.at(fnv1a("at gone.Code.run()\n")).count, 2U);
  EXPECT_EQ(traces.at(fnv1a("at new.Code.run()\n")).count, 1U);
}

TEST_F(stackTrace, traceKnownToTheLastSessionIsNewToTheNext) {
  load();
  setStack(thread, {"a.B.m"});
  for (int session = 0; session < 2; ++session) {
    beginDetail({lock}, {.stackTraces = 5});
    vm.contendedEnter(thread, lock);
    EXPECT_EQ(onlyText(), "at a.B.m()");
    EXPECT_EQ(stackHashes().size(), 1U);
    EXPECT_EQ(tracesLeft(), 4);
  }
}

TEST_F(stackTrace, emptyStackHasTheHashOfNoText) {
  load();
  beginDetail({lock});
  vm.contendedEnter(thread, lock);
  EXPECT_THAT(stackHashes(), ElementsAre(kHashOfNothing));
  EXPECT_EQ(onlyText(), "");
}

TEST_F(stackTrace, refusedStackIsAnEmptyOne) {
  load();
  beginDetail({lock});
  setStack(thread, {"a.b.C.m"});
  vm.fail("GetStackTrace");
  vm.contendedEnter(thread, lock);
  EXPECT_THAT(stackHashes(), ElementsAre(kHashOfNothing));
  EXPECT_EQ(tracesOf(lock, "T").at(kHashOfNothing).count, 1U);
}

TEST_F(stackTrace, frameWhoseMethodHasNoNameAddsNothing) {
  load();
  beginDetail({lock});
  fake::method* const nameless = vm.makeMethod("a.B", "x");
  nameless->nameIsNull = true;
  thread->setFrames({{.code = vm.makeMethod("a.A", "top")},
                     {.code = nameless},
                     {.code = vm.makeMethod("a.C", "below")}});
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(onlyText(), "at a.A.top(),at a.C.below()");
}

TEST_F(stackTrace, frameWhoseMethodNameIsRefusedAddsNothing) {
  load();
  beginDetail({lock});
  setStack(thread, {"a.A.top", "a.B.middle", "a.C.below"});
  vm.fail("GetMethodName", {.name = "middle"});
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(onlyText(), "at a.A.top(),at a.C.below()");
}

TEST_F(stackTrace, shortSignaturesDoNoHarm) {
  load();
  beginDetail({lock});
  for (const char* signature : {"", "I", "L;"}) {
    fake::javaClass* const odd = vm.makeClass("odd.Type");
    odd->signature = signature;
    thread->setFrames({{.code = vm.makeMethod(odd, "m", "()V")}});
    vm.contendedEnter(thread, lock);
  }
  fake::javaClass* const none = vm.makeClass("odd.Type");
  none->signature = std::nullopt;
  thread->setFrames({{.code = vm.makeMethod(none, "m", "()V")}});
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(threadOf(lock, "T")->count, 4U);
}

TEST_F(stackTrace, onlyTheTop100FramesCount) {
  load();
  beginDetail({lock});
  setDeepStack(thread, 100);
  vm.contendedEnter(thread, lock);
  setDeepStack(thread, 101);
  vm.contendedEnter(thread, lock);
  setDeepStack(thread, 5000);
  vm.contendedEnter(thread, lock);
  ASSERT_EQ(stackHashes().size(), 1U) << "stacks that differ only below frame 100 share a hash";
  EXPECT_EQ(tracesOf(lock, "T").begin()->second.count, 3U);
}

TEST_F(stackTrace, textOfADeepStackHas100Frames) {
  load();
  beginDetail({lock}, {.stackTraces = 0});  // no file is written at once
  setDeepStack(thread, 150);
  vm.contendedEnter(thread, lock);
  const std::string text = onlyText();
  EXPECT_EQ(std::count(text.begin(), text.end(), ','), 99);
  EXPECT_THAT(text, HasSubstr("at deep.C.m99()"));
  EXPECT_THAT(text, Not(HasSubstr("at deep.C.m100()")));
}

TEST_F(stackTrace, firstSightingHasCount1AndNoHash) {
  load();
  beginDetail({lock});
  setStack(thread, {"a.B.m"});
  vm.contendedEnter(thread, lock);
  const agent::stackTraceBeans traces = tracesOf(lock, "T");
  ASSERT_EQ(traces.size(), 1U);
  EXPECT_EQ(traces.begin()->first, fnv1a("at a.B.m()\n"));
  EXPECT_EQ(traces.begin()->second.count, 1U);
  EXPECT_EQ(traces.begin()->second.hashcode, 0U);
}

TEST_F(stackTrace, secondSightingHasCount2AndTheTrueHash) {
  load();
  beginDetail({lock});
  setStack(thread, {"a.B.m"});
  vm.contendedEnter(thread, lock);
  vm.contendedEnter(thread, lock);
  const std::uint64_t hash = fnv1a("at a.B.m()\n");
  EXPECT_EQ(tracesOf(lock, "T").at(hash).count, 2U);
  EXPECT_EQ(tracesOf(lock, "T").at(hash).hashcode, hash);
}

TEST_F(stackTrace, sightingsAreCountedPerLockAndThread) {
  load();
  fake::object* const other = vm.makeObject("b.Lock");
  fake::javaThread* const second = vm.makeThread("S");
  beginDetail({lock, other});
  setStack(thread, {"a.B.m"});
  setStack(second, {"a.B.m"});
  vm.contendedEnter(thread, lock);
  vm.contendedEnter(thread, other);
  vm.contendedEnter(second, lock);
  const std::uint64_t hash = fnv1a("at a.B.m()\n");
  EXPECT_EQ(tracesOf(lock, "T").at(hash).count, 1U);
  EXPECT_EQ(tracesOf(other, "T").at(hash).count, 1U);
  EXPECT_EQ(tracesOf(lock, "S").at(hash).count, 1U);
  EXPECT_EQ(stackHashes().size(), 1U) << "its text is kept once";
}

TEST_F(stackTrace, waitsTakeNoStackTrace) {
  load();
  beginDetail({lock});
  setStack(thread, {"a.B.m"});
  wait(thread, lock, 5);
  EXPECT_EQ(vm.calls("GetStackTrace"), 0U);
}

// --- Owners.

TEST_F(stackTrace, traceOfAKnownOwnerIsCountedForItAsAnOwnerToo) {
  load();
  beginDetailWithOwner(lock, thread, vm.makeThread("other"));
  setStack(thread, {"a.B.m"});
  const std::uint64_t hash = fnv1a("at a.B.m()\n");
  vm.contendedEnter(thread, lock);
  ASSERT_TRUE(ownerOf(lock, "T")->stacktracebean.contains(hash));
  EXPECT_EQ(ownerOf(lock, "T")->stacktracebean.at(hash).count, 1U);
  EXPECT_EQ(ownerOf(lock, "T")->stacktracebean.at(hash).hashcode, 0U);
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(ownerOf(lock, "T")->stacktracebean.at(hash).count, 2U);
  EXPECT_EQ(ownerOf(lock, "T")->stacktracebean.at(hash).hashcode, hash);
  EXPECT_EQ(tracesOf(lock, "T").at(hash).count, 2U);
}

TEST_F(stackTrace, traceOfAThreadIsNotCountedForTheOwnerItWaitsFor) {
  load();
  fake::javaThread* const owner = vm.makeThread("owner");
  beginDetail({lock});
  vm.setOwner(lock, owner);
  setStack(thread, {"a.B.m"});
  vm.contendedEnter(thread, lock);
  EXPECT_TRUE(ownerOf(lock, "owner")->stacktracebean.empty());
}

TEST_F(stackTrace, ownerOfAnotherLockGetsNoTrace) {
  load();
  fake::object* const other = vm.makeObject("b.Lock");
  beginDetail({lock, other});
  vm.setOwner(lock, thread);
  contend(vm.makeThread("waits"), lock);
  setStack(thread, {"a.B.m"});
  vm.contendedEnter(thread, other);
  EXPECT_TRUE(ownerOf(lock, "T")->stacktracebean.empty());
}

// --- The budget, and traces that fill all 100 frames.

TEST_F(stackTrace, eachNewTraceTakesFromTheBudget) {
  load();
  beginDetail({lock}, {.stackTraces = 5});
  setStack(thread, {"a.B.m"});
  vm.contendedEnter(thread, lock);
  vm.contendedEnter(thread, lock);
  setStack(thread, {"a.B.n"});
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(tracesLeft(), 3);
}

TEST_F(stackTrace, newTraceOf100FramesIsWrittenAtOnce) {
  load();
  beginDetail({lock});
  setDeepStack(thread, 100);
  vm.contendedEnter(thread, lock);
  ASSERT_EQ(stackLines().size(), 1U);
  EXPECT_THAT(stackLines().front(), HasSubstr("=[at deep.C.m0(),"));
  EXPECT_TRUE(stackTexts().empty());
  EXPECT_EQ(stackHashes().size(), 1U) << "its hash stays known";
}

TEST_F(stackTrace, traceOf99FramesIsNotWrittenAtOnce) {
  load();
  beginDetail({lock});
  setDeepStack(thread, 99);
  vm.contendedEnter(thread, lock);
  EXPECT_FALSE(std::filesystem::exists(stackPath()));
}

TEST_F(stackTrace, traceMetBeforeIsNotWrittenAgain) {
  load();
  beginDetail({lock});
  setDeepStack(thread, 100);
  vm.contendedEnter(thread, lock);
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(stackLines().size(), 1U);
}

TEST_F(stackTrace, spentBudgetWritesNothingAtOnce) {
  load();
  beginDetail({lock}, {.stackTraces = 1});
  setStack(thread, {"a.B.m"});
  vm.contendedEnter(thread, lock);  // takes the last of the budget
  setDeepStack(thread, 100);
  vm.contendedEnter(thread, lock);
  EXPECT_FALSE(std::filesystem::exists(stackPath()));
  EXPECT_EQ(stackTexts().size(), 2U);
}

TEST_F(stackTrace, lastOfTheBudgetIsStillWrittenAtOnce) {
  load();
  beginDetail({lock}, {.stackTraces = 1});
  setDeepStack(thread, 100);
  vm.contendedEnter(thread, lock);
  setDeepStack(thread, 100, 1);
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(stackLines().size(), 1U);
}

TEST_F(stackTrace, writingAtOnceTakesAlongWhatWasMetBefore) {
  load();
  beginDetail({lock});
  setStack(thread, {"a.B.m"});
  vm.contendedEnter(thread, lock);
  setDeepStack(thread, 100);
  vm.contendedEnter(thread, lock);
  EXPECT_EQ(stackLines().size(), 2U);
}

// --- What is said.

TEST_F(stackTrace, hashOfANewTraceIsSaidAtDebugOnce) {
  load("logLevel=4");
  beginDetail({lock});
  setStack(thread, {"a.B.m"});
  vm.contendedEnter(thread, lock);
  vm.contendedEnter(thread, lock);
  const std::string said =
      "Hashcode for current stackTrace : " + std::to_string(fnv1a("at a.B.m()\n"));
  EXPECT_THAT(debugLines(), Contains(said).Times(1));
  for (const logRecord& each : log()) {
    if (each.message == said) {
      EXPECT_EQ(each.function, "mutexLockProfiler::updateStackTrace");
    }
  }
}

TEST_F(stackTrace, hashIsNotSaidAtTrace) {
  load("logLevel=3");
  beginDetail({lock});
  vm.contendedEnter(thread, lock);
  EXPECT_THAT(debugLines(), IsEmpty());
}

}  // namespace
