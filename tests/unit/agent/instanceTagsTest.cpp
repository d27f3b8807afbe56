// tagInstances: which objects it marks, and that the tags of the classes are theirs again.
#include <limits>

#include "agentTest.h"
#include "memory/memoryprofiler.h"

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

  jobjectArray array(const std::vector<fake::object*>& classes) {
    return static_cast<jobjectArray>(vm.ref(vm.makeArray("[Ljava.lang.Class;", classes)));
  }

  // Tags within the room of each class; the room that is left.
  std::vector<jint> tagWithin(const std::vector<fake::object*>& classes,
                              const std::vector<jint>& room) {
    fake::intArray* const numbers = vm.makeIntArray(room);
    tagged_ = vm.native([&](JNIEnv* jni) {
      return TW_NATIVE(tagInstancesWithin)(jni, nullptr, array(classes), vm.ref(numbers));
    });
    return numbers->elements;
  }

  std::vector<jint> count(const std::vector<fake::object*>& classes) {
    fake::intArray* const numbers = vm.makeIntArray(std::vector<jint>(classes.size(), -7));
    counted_ = vm.native([&](JNIEnv* jni) {
      return TW_NATIVE(countTaggedInstances)(jni, nullptr, array(classes), vm.ref(numbers));
    });
    return numbers->elements;
  }

  jint tagAll(const std::vector<fake::object*>& classes) {
    return vm.native(
        [&](JNIEnv* jni) { return TW_NATIVE(tagInstances)(jni, nullptr, array(classes)); });
  }

  std::vector<std::string> errors() { return messages("Error"); }

  fake::javaClass* session_ = vm.makeClass("com.example.Session");
  fake::javaClass* longSession_ = vm.makeClass("com.example.LongSession", session_);
  fake::javaClass* other_ = vm.makeClass("com.example.Other");
  jint tagged_ = 0;
  jint counted_ = 0;
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
  EXPECT_EQ(vm.calls("FollowReferences"), 1U);
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
  EXPECT_EQ(vm.calls("FollowReferences"), 0U);
}

TEST_F(instanceTags, nothingIsDoneWithoutClasses) {
  begin();
  EXPECT_EQ(tagAll({}), 0);
  EXPECT_EQ(tagAll({nullptr}), 0);
  EXPECT_EQ(vm.native([](JNIEnv* jni) { return TW_NATIVE(tagInstances)(jni, nullptr, nullptr); }),
            0);
  EXPECT_EQ(vm.calls("FollowReferences"), 0U);
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
  vm.fail("FollowReferences", {.error = JVMTI_ERROR_OUT_OF_MEMORY});
  EXPECT_EQ(tagAll({session_, other_}), 0);
  EXPECT_EQ(session_->tag, 2);
  EXPECT_EQ(other_->tag, 0);
  EXPECT_THAT(errors(), Contains(HasSubstr("FollowReferences failed: JVMTI_ERROR_OUT_OF_MEMORY")));
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
  vm.on("FollowReferences", [&] {
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

TEST_F(instanceTags, leaveOutWhatNobodyCanReach) {
  begin();
  auto* const reached = vm.makeObject(session_);
  auto* const lost = vm.makeObject(session_);
  lost->reachable = false;
  EXPECT_EQ(tagAll({session_}), 1);
  EXPECT_EQ(reached->tag, 3);
  EXPECT_EQ(lost->tag, 0);
}

TEST_F(instanceTags, areNoMoreThanThereIsRoomFor) {
  begin();
  for (int i = 0; i < 3; ++i) {
    vm.makeObject(session_);
  }
  for (int i = 0; i < 3; ++i) {
    vm.makeObject(longSession_);
  }
  EXPECT_EQ(tagWithin({session_, nullptr, longSession_, other_}, {2, 5, 3, 0}),
            (std::vector<jint>{-1, 5, 0, 0}));
  EXPECT_EQ(tagged_, 5);
  EXPECT_EQ(tagWithin({session_}, {0}), std::vector<jint>{-1});
  EXPECT_EQ(tagged_, 0);
  EXPECT_EQ(tagWithin({session_}, {9}), std::vector<jint>{8});
  EXPECT_EQ(tagged_, 1);
}

TEST_F(instanceTags, ofClassesThemselvesKeepToTheirRoom) {
  begin();
  fake::javaClass* const classes = session_->type;
  for (fake::javaClass* const each : {session_, longSession_, other_}) {
    each->tag = 1;
  }
  tagAll({classes});
  for (fake::javaClass* const each : {session_, longSession_, classes}) {
    each->tag = 0;
  }
  EXPECT_EQ(tagWithin({classes, session_}, {2, 0}), (std::vector<jint>{-1, 0}));
  EXPECT_EQ(tagged_, 2);
}

TEST_F(instanceTags, withoutAsManyRoomsAsClassesAreNone) {
  begin();
  vm.makeObject(session_);
  EXPECT_EQ(tagWithin({session_, other_}, {2}), std::vector<jint>{2});
  EXPECT_EQ(tagged_, 0);
}

TEST_F(instanceTags, areCountedAsLongAsTheyStand) {
  begin();
  auto* const first = vm.makeObject(session_);
  vm.makeObject(session_);
  vm.makeObject(other_);
  EXPECT_EQ(tagAll({session_, other_}), 3);
  first->reachable = false;
  vm.makeObject(session_);
  session_->tag = 2;
  EXPECT_EQ(count({session_, nullptr, longSession_, other_}), (std::vector<jint>{2, 0, 0, 1}));
  EXPECT_EQ(counted_, 1);
  EXPECT_EQ(session_->tag, 2);
  EXPECT_EQ(other_->tag, 0);
  vm.collect(first);
  EXPECT_EQ(count({session_}), std::vector<jint>{1});
}

TEST_F(instanceTags, thatCannotBeCountedAreSaidToBeUncounted) {
  begin();
  vm.fail("IterateThroughHeap", {.error = JVMTI_ERROR_OUT_OF_MEMORY});
  EXPECT_EQ(count({session_}), std::vector<jint>{-7});
  EXPECT_EQ(counted_, 0);
  EXPECT_EQ(session_->tag, 0);
  EXPECT_THAT(errors(),
              Contains(HasSubstr("IterateThroughHeap failed: JVMTI_ERROR_OUT_OF_MEMORY")));
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
