// Exceptions that another thread sends to a thread in its handler are sent again at its end; what
// the handler's own calls throw is not.
#include "exceptionTest.h"

namespace {

using namespace test;
using ::testing::Contains;
using ::testing::HasSubstr;

class asynchronousExceptions : public exceptionTest {
 protected:
  // An exception with these classes in its stack trace.
  fake::object* madeIn(const std::vector<std::string>& classes) {
    fake::javaClass* const throwable = vm.classNamed("java.lang.Throwable");
    fake::javaClass* const element = vm.classNamed("java.lang.StackTraceElement");
    if (name_ == nullptr) {
      name_ = vm.makeField(element, "declaringClass", "Ljava/lang/String;");
      trace_ = vm.makeField(throwable, "stackTrace", "[Ljava/lang/StackTraceElement;");
      vm.makeMethod(element, "getClassName", "()Ljava/lang/String;",
                    {.body = [this](fake::invocation& call) -> fake::value {
                      return call.self->fields.at(name_);
                    }});
      vm.makeMethod(throwable, "getStackTrace", "()[Ljava/lang/StackTraceElement;",
                    {.body = [this](fake::invocation& call) -> fake::value {
                      const auto found = call.self->fields.find(trace_);
                      if (found == call.self->fields.end())
                        return static_cast<fake::object*>(nullptr);
                      return found->second;
                    }});
    }
    std::vector<fake::object*> frames;
    for (const std::string& each : classes) {
      frames.push_back(vm.makeObject(element));
      vm.setField(frames.back(), name_, vm.makeString(each));
    }
    fake::object* const made = vm.makeObject(vm.makeClass("x.Sent", throwable));
    vm.setField(made, trace_, vm.makeArray("[Ljava.lang.StackTraceElement;", frames));
    return made;
  }
  // What the thread is sent at the end of a handler in whose callback `pending` came up; `thrown`
  // in Java code, or not.
  fake::object* sentAgain(fake::object* pending, bool thrown = false) {
    inCallback = [=, this](fake::invocation& call) {
      if (thrown) call.vm.exception(thread(), nullptr, 0, pending);
      call.vm.throwInJava(pending);
    };
    recordOf({frameOf("a.A.m")});
    EXPECT_EQ(vm.pendingException(), nullptr) << "the VM must not find it pending";
    EXPECT_EQ(vm.globalReferences(), 1U);
    return thread()->sent;
  }

 private:
  fake::field* name_ = nullptr;
  fake::field* trace_ = nullptr;
};

TEST_F(asynchronousExceptions, aStopOfTheThreadIsSentAgain) {
  begin();
  fake::object* const death = vm.makeObject("java.lang.ThreadDeath");
  EXPECT_EQ(sentAgain(death), death);
  EXPECT_EQ(sentAgain(death, true), death);
}

TEST_F(asynchronousExceptions, oneThatWasMadeElsewhereAndWasNotThrownIsSentAgain) {
  begin();
  fake::object* const sent = madeIn({"com.example.Debugger", "java.lang.Thread"});
  EXPECT_EQ(sentAgain(sent), sent);
}

TEST_F(asynchronousExceptions, oneThatTheCallbackMadeIsNot) {
  begin();
  EXPECT_EQ(sentAgain(madeIn({"com.example.Sink", kCallbackClass, "a.A"})), nullptr);
}

TEST_F(asynchronousExceptions, oneThatJavaCodeHasThrownIsNotWhereverItWasMade) {
  begin();
  EXPECT_EQ(sentAgain(madeIn({"com.example.Pool", "java.lang.Thread"}), true), nullptr)
      << "a sink may throw the cause of what another thread has failed with";
}

TEST_F(asynchronousExceptions, oneThatDoesNotTellWhereItWasMadeIsNot) {
  begin();
  EXPECT_EQ(sentAgain(madeIn({})), nullptr);
  EXPECT_EQ(sentAgain(nullptr), nullptr) << "nor one without a stack trace at all";
}

TEST_F(asynchronousExceptions, whatTheVmItselfRunsOutOfIsNot) {
  begin();
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
