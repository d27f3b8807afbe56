// The memory profiler when the VM refuses calls, exceptions are under way, or the VM ends.
#include <map>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "agent/twAprLib.h"
#include "memoryTest.h"

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

// Calls that cannot fail, or that only end what another one began.
bool cannotFail(const std::string& call) {
  static const std::set<std::string> names = {"Deallocate",     "DeleteLocalRef",
                                              "ExceptionClear", "IsSameObject",
                                              "PopLocalFrame",  "ReleaseStringUTFChars"};
  return names.contains(call);
}

// Calls that leave a Java exception behind when they fail.
bool throwsWhenFailing(const std::string& call) {
  static const std::set<std::string> names = {"EnsureLocalCapacity", "GetStringUTFChars",
                                              "PushLocalFrame"};
  return names.contains(call);
}

class memoryFaults : public memoryTest {
 protected:
  // A session with two classes in two generations, ready to be stopped.
  void beginScene() {
    if (!memory()) {
      load("logLevel=3");
    }
    start();
    memory()->setGcCounter(1);
    for (fake::object* const each : scene_) {
      vm.collect(each);
    }
    scene_ = {tagged("p.A", 16), tagged("p.B", 32), tagged("p.A", 16)};
    collect();
    scene_.push_back(tagged("p.A", 16));
    collect();
    vm.resetCalls();
  }

  void expectTheSceneIsReported() {
    EXPECT_EQ(stop(), 1);
    EXPECT_THAT(survivors("p.A"), ElementsAre("1:2:32", "2:1:16"));
    EXPECT_THAT(survivors("p.B"), ElementsAre("1:1:32"));
  }

  // How often a stop makes each call.
  std::map<std::string, unsigned> callsOfAStop() {
    beginScene();
    stop();
    std::map<std::string, unsigned> calls;
    for (const std::string& each : vm.callNames()) {
      calls[each] = static_cast<unsigned>(vm.calls(each));
    }
    return calls;
  }

  std::vector<fake::object*> scene_;
};

TEST_F(memoryFaults, theScansSceneIsReported) {
  beginScene();
  expectTheSceneIsReported();
}

// The fixture reports what is still held afterwards, and any pending exception.
TEST_F(memoryFaults, everyRefusedCallOfAStopIsSurvivedAndTheNextStopIsWhole) {
  for (const auto& [call, count] : callsOfAStop()) {
    if (cannotFail(call)) {
      continue;
    }
    for (unsigned from = 1; from <= count; ++from) {
      for (const unsigned times : {1U, fake::failure::kAlways}) {
        SCOPED_TRACE(call + " refused at time " + std::to_string(from) +
                     (times == 1 ? "" : " and ever after"));
        beginScene();
        vm.fail(call, {.error = times == 1 ? JVMTI_ERROR_OUT_OF_MEMORY : JVMTI_ERROR_WRONG_PHASE,
                       .from = from,
                       .times = times,
                       .throwing = throwsWhenFailing(call)});
        stop();
        vm.succeed(call);
        EXPECT_EQ(vm.pendingException(), nullptr);
        EXPECT_EQ(vm.memoryHeld(), 0U);
        beginScene();
        expectTheSceneIsReported();
      }
    }
  }
}

TEST_F(memoryFaults, everyExceptionUnderWayEndsTheStopWith0AndOneError) {
  for (const auto& [call, count] : callsOfAStop()) {
    for (unsigned at = 1; at <= count; ++at) {
      SCOPED_TRACE("exception from " + call + " at time " + std::to_string(at));
      // What gives something back is called by destructors, which throw nothing. A real VM throws
      // nowhere.
      if ((cannotFail(call) && call != "IsSameObject") || call == "GetTag" || call == "SetTag") {
        continue;
      }
      beginScene();
      const std::size_t saidBefore = errors().size();
      unsigned n = 0;
      vm.on(call, [&] {
        if (++n == at) {
          throw std::bad_alloc();
        }
      });
      EXPECT_EQ(stop(), 0);
      vm.off(call);
      const std::vector<std::string> said = errors();
      EXPECT_EQ(said.size(), saidBefore + 1);
      EXPECT_THAT(said.back(), StartsWith("Exception occured in "));
      EXPECT_EQ(vm.memoryHeld(), 0U);
      beginScene();
      expectTheSceneIsReported();
    }
  }
}

TEST_F(memoryFaults, anExceptionInTheScanIsLoggedByTheScan) {
  load();
  vm.on("GetClassSignature", [] { throw std::bad_alloc(); });
  loggedFrom(1, [&] {
    start();
    collect();
    tagged("p.A");
    collect();
    EXPECT_EQ(stop(), 0);
  });
  EXPECT_THAT(linesOf("memoryProfiler::scanJavaHeap"),
              ElementsAre("Error: Exception occured in memoryprofiler : scanJavaHeap"));
}

TEST_F(memoryFaults, anExceptionInTheReportIsLoggedByTheReport) {
  begin({}, "logLevel=1");
  vm.on("GetStringUTFChars", [] { throw std::bad_alloc(); });
  EXPECT_EQ(stop(), 0);
  EXPECT_EQ(linesOf("memoryProfiler::dumpJsonObjectFromMapDS").size(), 1U);
  EXPECT_THAT(linesOf("memoryProfiler::dumpJsonObjectFromMapDS"), Each(StartsWith("Error: ")));
}

// --- What single failures lead to ------------------------------------------------------------

TEST_F(memoryFaults, theStatusOfARefusedWalkIsLoggedAndEveryGenerationIsAskedFor) {
  beginScene();
  vm.fail("IterateThroughHeap", {.error = JVMTI_ERROR_OUT_OF_MEMORY});
  expectTheSceneIsReported();
  EXPECT_THAT(linesOf("memoryProfiler::scanJavaHeap"), Contains("Trace: *jvmti status: 110"));
  EXPECT_THAT(warnings(), ElementsAre(kNoHeapData));
  EXPECT_EQ(vm.calls("GetObjectsWithTags"), 2U);
}

TEST_F(memoryFaults, aVmThatRefusesEverythingIsNotAskedForEveryGeneration) {
  beginScene();
  memory()->setGcCounter(0xFFFFFFFFU);
  vm.fail("IterateThroughHeap");
  vm.fail("GetObjectsWithTags");
  EXPECT_EQ(stop(), 1);
  EXPECT_EQ(vm.calls("GetObjectsWithTags"), 1U);
  EXPECT_THAT(classes(), IsEmpty());
}

TEST_F(memoryFaults, aRefusedGenerationIsMissingTheOthersAreReported) {
  beginScene();
  vm.fail("GetObjectsWithTags", {.error = JVMTI_ERROR_OUT_OF_MEMORY, .times = 1});
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(survivors("p.A"), ElementsAre("2:1:16"));
  EXPECT_THAT(errors(), ElementsAre("The objects of generation 1 are not in the report: "
                                    "JVMTI_ERROR_OUT_OF_MEMORY"));
}

TEST_F(memoryFaults, anObjectWhoseClassCannotBeHadIsLeftOut) {
  beginScene();
  vm.fail("GetObjectClass", {.times = 1});
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(survivors("p.A"), ElementsAre("1:1:16", "2:1:16"));
  EXPECT_THAT(survivors("p.B"), ElementsAre("1:1:32"));
}

TEST_F(memoryFaults, anObjectWhoseClassCannotBeNamedIsLeftOutTheNextOneIsNot) {
  beginScene();
  vm.fail("GetClassSignature", {.times = 1});
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(survivors("p.A"), ElementsAre("1:1:16", "2:1:16"));
}

TEST_F(memoryFaults, aClassWithoutASignatureIsLeftOut) {
  begin();
  fake::javaClass* const nameless = vm.makeClass("p.Nameless");
  tag(vm.makeObject(nameless));
  tagged("p.A");
  nameless->signature.reset();
  collect();
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(classes(), ElementsAre("p.A"));
}

TEST_F(memoryFaults, anObjectWhoseSizeCannotBeHadCountsWithoutSize) {
  beginScene();
  vm.fail("GetObjectSize", {.times = 1});
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(survivors("p.A"), ElementsAre("1:2:16", "2:1:16"));
}

TEST_F(memoryFaults, aClassWithoutAHashCodeIsCountedAllTheSame) {
  beginScene();
  vm.fail("GetObjectHashCode");
  expectTheSceneIsReported();
}

TEST_F(memoryFaults, withoutALocalFrameReferencesAreDeletedAllTheSame) {
  beginScene();
  vm.fail("PushLocalFrame", {.throwing = true});
  vm.fail("EnsureLocalCapacity", {.throwing = true});
  expectTheSceneIsReported();
  EXPECT_EQ(vm.localReferences(), 0U);
  EXPECT_EQ(vm.calls("PopLocalFrame"), 0U);
}

TEST_F(memoryFaults, aPathThatTheVmHasNoMemoryForGives0AndOneError) {
  beginScene();
  vm.fail("GetStringUTFChars", {.throwing = true});
  EXPECT_EQ(stop(), 0);
  EXPECT_EQ(errors().size(), 1U);
  EXPECT_EQ(vm.pendingException(), nullptr);
}

TEST_F(memoryFaults, aRefusedEventSwitchLetsTheSessionRunOn) {
  load();
  vm.fail("SetEventNotificationMode");
  vm.fail("SetEventCallbacks");
  EXPECT_EQ(start(), 1);
  EXPECT_EQ(memory()->state(), 5);
  EXPECT_EQ(stop(), 1);
}

// At the VM's end calls answer WRONG_PHASE and leave what they should give unset.
TEST_F(memoryFaults, aDeadVmIsSurvived) {
  beginScene();
  fake::object* const late = object("p.Late");
  vm.setPhase(JVMTI_PHASE_DEAD);
  tag(late);
  EXPECT_EQ(stop(), 1);
  vm.setPhase(JVMTI_PHASE_LIVE);
  EXPECT_EQ(late->tag, 0);
  EXPECT_THAT(classes(), IsEmpty());
}

// --- Tagging ---------------------------------------------------------------------------------

TEST_F(memoryFaults, taggingNullCallsTheVmForNothing) {
  begin();
  vm.resetCalls();
  tag(nullptr);
  EXPECT_THAT(vm.callNames(), IsEmpty());
}

TEST_F(memoryFaults, everyRefusedCallOfATagIsSurvived) {
  for (const char* const call : {"GetTag", "SetTag", "DeleteGlobalRef"}) {
    SCOPED_TRACE(call);
    if (!memory()) {
      begin();
    }
    fake::object* const one = object("p.A");
    vm.fail(call, {.times = 1});
    tag(one);
    vm.succeed(call);
    tag(one);
    EXPECT_EQ(one->tag, 1);
  }
}

TEST_F(memoryFaults, anExceptionWhileTaggingIsLogged) {
  begin({}, "logLevel=1");
  vm.on("SetTag", [] { throw std::bad_alloc(); });
  tag(object("p.A"));
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("Exception occured in ")));
}

TEST_F(memoryFaults, nullTextsOfASessionCountAsEmpty) {
  load();
  vm.fail("GetStringUTFChars", {.throwing = true});
  EXPECT_EQ(start({.excludeClasses = "p.A"}), 1);
  EXPECT_EQ(vm.pendingException(), nullptr);
  vm.succeed("GetStringUTFChars");
  collect();
  tagged("p.A");
  collect();
  stop();
  EXPECT_THAT(classes(), ElementsAre("p.A"));
}

}  // namespace
