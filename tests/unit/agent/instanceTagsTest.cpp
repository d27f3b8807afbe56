// tagInstances: which objects it marks, and that the tags of the classes are theirs again.
#include <limits>

#include "agentTest.h"
#include "memoryprofiler.h"

#define TW_NATIVE(method) Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_##method

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

class instanceTags : public test::agentTest {
 protected:
  // Loads the agent and brings it into this generation.
  void begin(unsigned generation = 3) {
    load();
    agent::getMemoryProfiler()->setGcCounter(generation);
  }

  jint tagAll(const std::vector<fake::object*>& classes) {
    return vm.native([&](JNIEnv* jni) {
      auto* const array =
          static_cast<jobjectArray>(vm.ref(vm.makeArray("[Ljava.lang.Class;", classes)));
      return TW_NATIVE(tagInstances)(jni, nullptr, array);
    });
  }

  std::vector<std::string> errors() { return messages("Error"); }

  fake::javaClass* session_ = vm.makeClass("com.example.Session");
  fake::javaClass* longSession_ = vm.makeClass("com.example.LongSession", session_);
  fake::javaClass* other_ = vm.makeClass("com.example.Other");
};

TEST_F(instanceTags, areTheGenerationForInstancesOfExactlyTheseClasses) {
  begin();
  auto* const first = vm.makeObject(session_);
  auto* const second = vm.makeObject(session_);
  auto* const ofSubclass = vm.makeObject(longSession_);
  auto* const ofOther = vm.makeObject(other_);
  EXPECT_EQ(tagAll({session_}), 2);
  EXPECT_EQ(first->tag, 3);
  EXPECT_EQ(second->tag, 3);
  EXPECT_EQ(ofSubclass->tag, 0);
  EXPECT_EQ(ofOther->tag, 0);
}

TEST_F(instanceTags, takeOneWalkForAllClasses) {
  begin();
  vm.makeObject(session_);
  vm.makeObject(longSession_);
  vm.makeObject(other_);
  EXPECT_EQ(tagAll({session_, longSession_}), 2);
  EXPECT_EQ(vm.calls("IterateThroughHeap"), 1U);
}

TEST_F(instanceTags, thatStoodBeforeStay) {
  begin();
  auto* const tagged = vm.makeObject(session_);
  tagged->tag = 1;
  auto* const added = vm.makeObject(session_);
  EXPECT_EQ(tagAll({session_}), 1);
  EXPECT_EQ(tagged->tag, 1);
  EXPECT_EQ(added->tag, 3);
  EXPECT_EQ(tagAll({session_}), 0) << "nothing is left to tag";
}

TEST_F(instanceTags, leaveTheClassesTheirOwnTags) {
  begin();
  session_->tag = 2;
  other_->tag = 1;  // an object like any other: its instances are not asked for
  auto* const ofOther = vm.makeObject(other_);
  vm.makeObject(session_);
  vm.makeObject(longSession_);
  EXPECT_EQ(tagAll({session_, longSession_}), 2);
  EXPECT_EQ(session_->tag, 2);
  EXPECT_EQ(longSession_->tag, 0);
  EXPECT_EQ(other_->tag, 1);
  EXPECT_EQ(ofOther->tag, 0);
}

TEST_F(instanceTags, countAClassThatIsNamedTwiceOnce) {
  begin();
  vm.makeObject(session_);
  EXPECT_EQ(tagAll({session_, session_}), 1);
  EXPECT_EQ(session_->tag, 0);
}

TEST_F(instanceTags, passOverNullElements) {
  begin();
  vm.makeObject(session_);
  EXPECT_EQ(tagAll({nullptr, session_, nullptr}), 1);
}

TEST_F(instanceTags, reachTheClassesThemselvesWhenClassesAreAskedFor) {
  begin();
  other_->tag = 1;
  fake::javaClass* const classes = session_->type;
  ASSERT_EQ(classes->name, "java.lang.Class");
  EXPECT_GE(tagAll({classes, session_}), 3);
  EXPECT_EQ(classes->tag, 3) << "an instance of itself";
  EXPECT_EQ(session_->tag, 3);
  EXPECT_EQ(longSession_->tag, 3);
  EXPECT_EQ(other_->tag, 1);
}

TEST_F(instanceTags, areNotSetInGenerationZero) {
  begin(0);
  auto* const object = vm.makeObject(session_);
  EXPECT_EQ(tagAll({session_}), 0);
  EXPECT_EQ(object->tag, 0);
  EXPECT_EQ(vm.calls("IterateThroughHeap"), 0U);
}

TEST_F(instanceTags, nothingIsDoneWithoutClasses) {
  begin();
  EXPECT_EQ(tagAll({}), 0);
  EXPECT_EQ(tagAll({nullptr}), 0);
  EXPECT_EQ(vm.native([](JNIEnv* jni) { return TW_NATIVE(tagInstances)(jni, nullptr, nullptr); }),
            0);
  EXPECT_EQ(vm.calls("IterateThroughHeap"), 0U);
}

TEST_F(instanceTags, nothingIsDoneWithoutTheMemoryProfiler) {
  load("features=mutexprofiling_exceptionprofiling");
  vm.makeObject(session_);
  EXPECT_EQ(tagAll({session_}), 0);
  EXPECT_EQ(vm.calls("SetTag"), 0U);
}

TEST_F(instanceTags, nothingIsDoneBeforeALoad) {
  EXPECT_EQ(tagAll({session_}), 0);
  EXPECT_EQ(vm.calls("SetTag"), 0U);
}

TEST_F(instanceTags, aFailedWalkIsLoggedAndLeavesTheClassesTheirTags) {
  begin();
  session_->tag = 2;
  vm.fail("IterateThroughHeap", {.error = JVMTI_ERROR_OUT_OF_MEMORY});
  EXPECT_EQ(tagAll({session_, other_}), 0);
  EXPECT_EQ(session_->tag, 2);
  EXPECT_EQ(other_->tag, 0);
  EXPECT_THAT(errors(),
              Contains(HasSubstr("IterateThroughHeap failed: JVMTI_ERROR_OUT_OF_MEMORY")));
}

TEST_F(instanceTags, aClassThatCannotBeMarkedIsLoggedAndPassedOver) {
  begin();
  auto* const unreached = vm.makeObject(session_);
  auto* const reached = vm.makeObject(other_);
  vm.fail("SetTag", {.times = 1});
  EXPECT_EQ(tagAll({session_, other_}), 1);
  EXPECT_EQ(unreached->tag, 0);
  EXPECT_EQ(reached->tag, 3);
  EXPECT_THAT(errors(), Contains(HasSubstr("Marking a class failed")));
}

TEST_F(instanceTags, aMarkThatCouldNotBeTakenAwayIsTakenAwayNextTime) {
  begin();
  vm.makeObject(session_);
  vm.fail("SetTag", {.from = 2, .times = 1});
  EXPECT_EQ(tagAll({session_}), 1);
  EXPECT_NE(session_->tag, 0);
  vm.makeObject(session_);
  EXPECT_EQ(tagAll({session_, session_}), 1);
  EXPECT_EQ(session_->tag, 0);
}

// Another thread may tag a class while the walk is under way.
TEST_F(instanceTags, aTagThatAClassIsGivenMeanwhileStays) {
  begin();
  session_->tag = 1;
  vm.on("IterateThroughHeap", [&] {
    vm.native([&](JNIEnv* jni) { TW_NATIVE(setObjectTag)(jni, nullptr, vm.ref(session_)); });
  });
  tagAll({session_});
  EXPECT_EQ(session_->tag, 3);
  EXPECT_EQ(vm.calls("DeleteGlobalRef"), 0U) << "a borrowed tag is no reference";
}

TEST_F(instanceTags, withoutALocalFrameNoReferenceStays) {
  begin();
  vm.makeObject(session_);
  vm.fail("PushLocalFrame", {.throwing = true});
  EXPECT_EQ(tagAll({session_, other_}), 1);
  EXPECT_EQ(vm.localReferences(), 0U);
}

TEST_F(instanceTags, reachTheReport) {
  load();
  agent::getMemoryProfiler()->setGcCounter(2);
  vm.makeObject(session_);
  vm.makeObject(session_);
  tagAll({session_});
  agent::getMemoryProfiler()->setGcCounter(3);
  const std::string path = folder() / "memory.json";
  vm.native([&](JNIEnv* jni) {
    jstring const name = vm.ref(vm.makeString("leaks"));
    jstring const none = vm.ref(vm.makeString(""));
    TW_NATIVE(startMemoryLeaksProfileSession)
    (jni, nullptr, JNI_TRUE, 60, 7, name, 5, none, none, none, none);
    TW_NATIVE(stopMemoryLeaksProfileSession)(jni, nullptr, 7, vm.ref(vm.makeString(path)));
  });
  const auto report = nlohmann::ordered_json::parse(test::readFile(path));
  const auto survived = report["topNMemoryleakClass"]["com.example.Session"]["gcsurvived"][0];
  EXPECT_EQ(survived["GCCounter"], 2);
  EXPECT_EQ(survived["count"], 2);
}

}  // namespace
