// messageOriginOf: the class that answers for the message of an exception.
#include "agentTest.h"

#define TW_NATIVE(method) Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_##method

namespace {

class messageOrigin : public test::agentTest {
 protected:
  fake::object* originOf(fake::javaClass* type) {
    return vm.native([&](JNIEnv* jni) {
      jclass const origin = TW_NATIVE(messageOriginOf)(jni, nullptr, vm.ref(type));
      fake::object* const found = vm.target(origin);
      jni->DeleteLocalRef(origin);
      return found;
    });
  }

  fake::javaClass* throwable_ = vm.classNamed("java.lang.Throwable");
  fake::javaClass* plain_ = vm.makeClass("com.example.Plain", throwable_);
  fake::javaClass* talking_ = vm.makeClass("com.example.Talking", throwable_);
  fake::javaClass* ofTalking_ = vm.makeClass("com.example.OfTalking", talking_);

  void SetUp() override {
    test::agentTest::SetUp();
    vm.makeMethod(throwable_, "getMessage", "()Ljava/lang/String;");
    vm.makeMethod(talking_, "getMessage", "()Ljava/lang/String;");
  }
};

TEST_F(messageOrigin, isTheNearestClassThatDeclaresIt) {
  load();
  EXPECT_EQ(originOf(throwable_), throwable_);
  EXPECT_EQ(originOf(plain_), throwable_);
  EXPECT_EQ(originOf(talking_), talking_);
  EXPECT_EQ(originOf(ofTalking_), talking_);
}

TEST_F(messageOrigin, isNotToldOfAClassThatIsNotInitialized) {
  load();
  plain_->initialized = false;
  EXPECT_EQ(originOf(plain_), nullptr);
  EXPECT_EQ(vm.calls("GetMethodID"), 0U) << "it would wait for the initialization";
}

TEST_F(messageOrigin, isNotToldOfWhatIsNoException) {
  load();
  EXPECT_EQ(originOf(vm.makeClass("com.example.Shop")), nullptr);
  EXPECT_EQ(originOf(nullptr), nullptr);
}

TEST_F(messageOrigin, isNotToldWhenTheVmRefuses) {
  load();
  vm.fail("GetMethodDeclaringClass");
  EXPECT_EQ(originOf(plain_), nullptr);
  vm.fail("GetClassStatus");
  EXPECT_EQ(originOf(plain_), nullptr);
}

TEST_F(messageOrigin, isNotToldBeforeALoad) {
  EXPECT_EQ(originOf(plain_), nullptr);
}

}  // namespace
