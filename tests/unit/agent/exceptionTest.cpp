#include "exceptionTest.h"

#include <algorithm>

namespace test {

namespace {

// Moves what stands before `separator` out of `text`.
std::string cutBefore(std::string& text, std::string_view separator) {
  const std::size_t end = text.find(separator);
  if (end == std::string::npos) {
    ADD_FAILURE() << "no " << separator << " in: " << text;
    return {};
  }
  std::string before = text.substr(0, end);
  text.erase(0, end + separator.size());
  return before;
}

}  // namespace

void exceptionTest::makeCallbackClass() {
  fake::javaClass* const type = vm.makeClass(kCallbackClass);
  vm.makeMethod(type, "getobjectValue", "(Ljava/lang/Object;)Ljava/lang/String;",
                {.isStatic = true});
  const auto keep = [this](fake::invocation& call) -> fake::value {
    auto* const record =
        dynamic_cast<fake::javaString*>(std::get<fake::object*>(call.arguments[0]));
    auto* const exception = std::get<fake::object*>(call.arguments[1]);
    delivered each{record == nullptr ? "(null)" : record->text, exception};
    if (call.arguments.size() > 2) {
      auto* const places =
          dynamic_cast<fake::intArray*>(std::get<fake::object*>(call.arguments[2]));
      each.hasPlaces = true;
      each.places = places->elements;
      each.facts = static_cast<std::uint32_t>(std::get<jint>(call.arguments[3]));
    }
    {
      const std::lock_guard guard(mutex_);
      deliveries_.push_back(std::move(each));
    }
    if (inCallback) {
      inCallback(call);
    }
    return {};
  };
  vm.makeMethod(type, "onExceptionOccured", "(Ljava/lang/String;Ljava/lang/Object;)V",
                {.isStatic = true, .body = keep});
  if (takesPlaces) {
    vm.makeMethod(type, "onExceptionRecord", "(Ljava/lang/String;Ljava/lang/Object;[II)V",
                  {.isStatic = true, .body = keep});
  }
}

void exceptionTest::begin(const captureSettings& settings, const char* options) {
  makeCallbackClass();
  ASSERT_EQ(load(options), 0);
  ASSERT_EQ(enable(settings), 1);
}

jint exceptionTest::enable(const captureSettings& settings) {
  return vm.native([&](JNIEnv*) { return enableUnguarded(settings); });
}

jint exceptionTest::enableUnguarded(const captureSettings& settings) {
  const auto flag = [](bool value) -> jboolean { return value ? JNI_TRUE : JNI_FALSE; };
  fake::javaString* const blackList =
      settings.blackList ? vm.makeString(*settings.blackList) : nullptr;
  return Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_enableCaptureVariableinException(
      vm.env(), nullptr, flag(settings.enable), flag(settings.classVariables),
      flag(settings.methodArguments), flag(settings.localVariables), flag(settings.threadLocals),
      settings.rate, settings.depth, vm.ref(blackList));
}

fake::frame exceptionTest::frameOf(std::string_view method, const std::vector<variable>& arguments,
                                   const std::vector<variable>& locals) {
  const std::size_t dot = method.rfind('.');
  return fake::makeFrame(vm, nullptr, method.substr(0, dot), method.substr(dot + 1), arguments,
                         locals);
}

fake::frame exceptionTest::frameOn(fake::object* self, std::string_view method,
                                   const std::vector<variable>& arguments,
                                   const std::vector<variable>& locals) {
  return fake::makeFrame(vm, self, self->type->name, method, arguments, locals);
}

fake::object* exceptionTest::objectWith(std::string_view className,
                                        const std::vector<variable>& fields) {
  return fake::makeObjectWith(vm, className, fields);
}

fake::object* exceptionTest::builderWith(jint length, fake::methodBody substring) {
  fake::javaClass* const type = vm.makeClass("java.lang.StringBuilder");
  vm.makeMethod(type, "length", "()I",
                {.body = [length](fake::invocation&) -> fake::value { return length; }});
  vm.makeMethod(type, "substring", "(II)Ljava/lang/String;", {.body = std::move(substring)});
  return vm.makeObject(type);
}

fake::object* exceptionTest::builder(std::string_view text) {
  const auto substring = [kept = std::string(text)](fake::invocation& call) -> fake::value {
    const auto at = [&](std::size_t i) { return std::get<jint>(call.arguments[i]); };
    return call.vm.makeString(fake::utf16Part(kept, at(0), at(1) - at(0)));
  };
  return builderWith(fake::utf16Length(text), substring);
}

std::string exceptionTest::recordOf(const std::vector<fake::frame>& stack,
                                    std::string_view className, fake::delivery how) {
  fake::object* const thrown = vm.makeObject(className);
  const std::size_t before = deliveries().size();
  thread()->setFrames(stack);
  EXPECT_TRUE(
      vm.exception(thread(), stack.front().code, stack.front().location, thrown, nullptr, 0, how))
      << "the event is off";
  const std::vector<delivered> all = deliveries();
  if (all.size() == before) {
    return kNothing;
  }
  EXPECT_EQ(all.size(), before + 1) << "delivered more than once";
  EXPECT_EQ(all.back().exception, thrown) << "delivered with another exception";
  return all.back().record;
}

frameSections exceptionTest::topOf(const std::vector<fake::frame>& stack) {
  const std::string record = recordOf(stack);
  if (record == kNothing) {
    ADD_FAILURE() << kNothing;
    return {};
  }
  return framesIn(record).front();
}

void exceptionTest::callHandler(fake::object* exception, fake::method* method) {
  vm.native([&](JNIEnv* jni) {
    agent::exceptionProfiler::ExceptionCallback(vm.jvmti(), jni, vm.ref(thread()),
                                                method == nullptr ? nullptr : method->id, 0,
                                                vm.ref(exception), nullptr, 0);
  });
}

std::vector<delivered> exceptionTest::deliveries() const {
  const std::lock_guard guard(mutex_);
  return deliveries_;
}

fake::javaThread* exceptionTest::thread() {
  if (thread_ == nullptr) {
    thread_ = vm.makeThread("worker-1");
  }
  return thread_;
}

std::size_t exceptionTest::errorsSaying(std::string_view message) const {
  const std::vector<std::string> all = errors();
  return static_cast<std::size_t>(std::count(all.begin(), all.end(), message));
}

std::vector<frameSections> framesIn(const std::string& record) {
  std::vector<frameSections> frames;
  std::string rest = record + "%7C";
  while (!rest.empty()) {
    frameSections each;
    std::string frame = cutBefore(rest, "%7C");
    each.header = cutBefore(frame, "%40%41") + "%40%41";
    each.classVariables = cutBefore(frame, "%42");
    each.arguments = cutBefore(frame, "%43");
    each.locals = cutBefore(frame, "%44");
    each.threadLocals = frame;
    frames.push_back(std::move(each));
    if (::testing::Test::HasFailure()) {
      break;
    }
  }
  return frames;
}

std::string entry(std::string_view name, int code, std::string_view value) {
  return std::string(name) + "%3A" + std::to_string(code) + "%3A" + std::string(value) + "%2C";
}

std::string objectEntry(std::string_view name, std::string_view captured) {
  return "!%23" + std::string(name) + "%3A10%3A" + std::string(captured) + "!%23%2C";
}

std::string nullObject(std::string_view name) {
  return objectEntry(name, "NULL");
}

std::string nullField(std::string_view name) {
  return entry(name, 10, "NULL");
}

std::string repeated(std::string_view text, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) {
    all += text;
  }
  return all;
}

}  // namespace test
