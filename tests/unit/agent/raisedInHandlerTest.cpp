// Exceptions that another thread sends to a thread in its handler are sent again at its end; what
// the handler's own calls throw is not.
#include <com_korvane_twutils_nativeagent_AgentCounters.h>

#include "exceptionTest.h"

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::HasSubstr;

class asynchronousExceptions : public exceptionTest {
 protected:
  // What the thread is sent at the end of a handler in whose callback `pending` came up: before the
  // callback came to its sink, or, with `inSink`, after that.
  fake::object* sentAgain(fake::object* pending, bool inSink = false) {
    inCallback = [=](fake::invocation& call) {
      if (inSink) {
        sinkBegins(call.env);
      }
      call.vm.throwInJava(pending);
    };
    recordOf({frameOf("a.A.m")});
    EXPECT_EQ(vm.pendingException(), nullptr) << "the VM must not find it pending";
    EXPECT_EQ(vm.globalReferences(), 1U);
    return thread()->sent;
  }
  // A record that is handed over as the companion does.
  void handOverOne() {
    inCallback = [](fake::invocation& call) { sinkBegins(call.env); };
    recordOf({frameOf("a.A.m")});
  }
  fake::object* someException() { return vm.makeObject("com.example.Sent"); }

 private:
  static void sinkBegins(JNIEnv* jni) {
    Java_com_korvane_twutils_nativeagent_AgentCounters_sinkBegins(jni, nullptr, JNI_TRUE);
  }
};

TEST_F(asynchronousExceptions, aStopOfTheThreadIsSentAgain) {
  begin();
  fake::object* const death = vm.makeObject("java.lang.ThreadDeath");
  EXPECT_EQ(sentAgain(death), death);
  handOverOne();
  EXPECT_EQ(sentAgain(death, true), death);
}

TEST_F(asynchronousExceptions, oneThatComesBeforeTheSinkBeginsIsSentAgain) {
  begin();
  handOverOne();
  fake::object* const sent = someException();
  EXPECT_EQ(sentAgain(sent), sent);
}

TEST_F(asynchronousExceptions, oneThatComesWhileTheSinkRunsIsTheSinks) {
  begin();
  EXPECT_EQ(sentAgain(someException(), true), nullptr);
  handOverOne();
  EXPECT_EQ(sentAgain(someException(), true), nullptr);
}

// Another callback than the companion's may throw at any point.
TEST_F(asynchronousExceptions, withACallbackThatDoesNotTellOfItsSinkItIsTheCallbacks) {
  begin();
  EXPECT_EQ(sentAgain(someException()), nullptr);
}

TEST_F(asynchronousExceptions, whileABuilderIsReadAllButItsOwnIsSentAgain) {
  begin({.localVariables = true});
  handOverOne();
  fake::object* thrown = vm.makeObject("java.lang.StringIndexOutOfBoundsException");
  fake::object* const builder = builderWith(4, [&](fake::invocation& call) -> fake::value {
    call.vm.throwInJava(thrown);
    return static_cast<fake::object*>(nullptr);
  });
  const std::vector<fake::frame> stack = {
      frameOf("a.A.m", {}, {{"b", "Ljava/lang/StringBuilder;", builder}})};
  EXPECT_EQ(topOf(stack).locals, nullObject("b"));
  EXPECT_EQ(thread()->sent, nullptr);
  thrown = someException();
  recordOf(stack);
  EXPECT_EQ(thread()->sent, thrown);
}

TEST_F(asynchronousExceptions, whatTheVmItselfRunsOutOfIsNot) {
  begin();
  handOverOne();
  EXPECT_EQ(sentAgain(vm.makeObject("java.lang.OutOfMemoryError")), nullptr);
  EXPECT_EQ(sentAgain(vm.makeObject("java.lang.StackOverflowError")), nullptr);
}

TEST_F(asynchronousExceptions, oneThatComesWhileABuilderIsReadIsSentAgain) {
  begin({.localVariables = true});
  fake::object* const death = vm.makeObject("java.lang.ThreadDeath");
  fake::object* const builder = builderWith(4, [&](fake::invocation& call) -> fake::value {
    call.vm.throwInJava(death);
    return static_cast<fake::object*>(nullptr);
  });
  EXPECT_EQ(topOf({frameOf("a.A.m", {}, {{"b", "Ljava/lang/StringBuilder;", builder}})}).locals,
            nullObject("b"))
      << "and the record is delivered";
  EXPECT_EQ(thread()->sent, death);
}

TEST_F(asynchronousExceptions, theCapabilityIsAskedForWhenItIsNeeded) {
  begin();
  recordOf({frameOf("a.A.m")});
  EXPECT_EQ(vm.capabilities().can_signal_thread, 0U);
  sentAgain(vm.makeObject("java.lang.ThreadDeath"));
  EXPECT_EQ(vm.capabilities().can_signal_thread, 1U);
}

TEST_F(asynchronousExceptions, oneThatCannotBeSentAgainIsSaidToBeLost) {
  begin({}, "logLevel=1");
  vm.fail("StopThread", {.error = JVMTI_ERROR_OPAQUE_FRAME});
  EXPECT_EQ(sentAgain(vm.makeObject("java.lang.ThreadDeath")), nullptr);
  EXPECT_THAT(errors(), Contains(HasSubstr("An exception that was sent to this thread is lost")));
}

}  // namespace
