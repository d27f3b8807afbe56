// What tests of exception capture share: settings, stacks with variables, what was delivered.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/twAprLib.h"
#include "agentTest.h"
#include "exceptions/exceptionprofiler.h"

namespace test {

// Arguments of enableCaptureVariableinException; no rate limit and no black list at first.
struct captureSettings {
  bool enable = true;
  bool classVariables = false;
  bool methodArguments = false;
  bool localVariables = false;
  bool threadLocals = false;
  jint rate = 0;
  jint depth = 100;
  std::optional<std::string> blackList = "[]";
};

using variable = fake::namedValue;

// What onExceptionOccured was called with, or onExceptionRecord.
struct delivered {
  std::string record;
  fake::object* exception = nullptr;
  bool hasPlaces = false;  // by onExceptionRecord
  std::vector<jint> places{};
  std::uint32_t facts = 0;
};

// The sections of one frame of a record.
struct frameSections {
  std::string header;  // with the texts that end it
  std::string classVariables;
  std::string arguments;
  std::string locals;
  std::string threadLocals;
};

inline constexpr const char* kCallbackClass =
    "com.korvane.twutils.nativeagent.TWNativeAgentProfiling";
inline constexpr const char* kFailure = "com.example.Failure";
inline constexpr const char* kNothing = "(nothing was delivered)";

class exceptionTest : public agentTest {
 protected:
  // The class that is called back, with its methods.
  void makeCallbackClass();
  // Makes that class, loads the agent and switches exception capture on.
  void begin(const captureSettings& settings = {}, const char* options = "");
  jint enable(const captureSettings& settings = {});
  // The same, with an exception profiler or not; what it throws comes out.
  jint enableUnguarded(const captureSettings& settings);

  // A frame of a static method "package.Class.method", at line 42 of "Class.java". Arguments and
  // locals take the slots from 0 on, long and double two of them.
  fake::frame frameOf(std::string_view method, const std::vector<variable>& arguments = {},
                      const std::vector<variable>& locals = {});
  // A frame of a method of an object, which is in slot 0.
  fake::frame frameOn(fake::object* self, std::string_view method,
                      const std::vector<variable>& arguments = {},
                      const std::vector<variable>& locals = {});
  // An object of a class of its own, with these instance fields.
  fake::object* objectWith(std::string_view className, const std::vector<variable>& fields);
  // A StringBuilder of so many UTF-16 units, with a substring of its own.
  fake::object* builderWith(jint length, fake::methodBody substring);
  fake::object* builder(std::string_view text);

  // Throws an exception in the top frame of a stack, on thread(); the record delivered for it.
  std::string recordOf(const std::vector<fake::frame>& stack, std::string_view className = kFailure,
                       fake::delivery how = fake::delivery::ifEnabled);
  // The sections of its top frame.
  frameSections topOf(const std::vector<fake::frame>& stack);
  // Calls the handler as a VM does that decided to post the event before it was switched off.
  void callHandler(fake::object* exception, fake::method* method = nullptr);

  std::vector<delivered> deliveries() const;
  fake::javaThread* thread();
  // Run by a callback after it has kept what it was given.
  std::function<void(fake::invocation&)> inCallback;
  // Whether the callback class has onExceptionRecord, too.
  bool takesPlaces = false;

  std::shared_ptr<agent::exceptionProfiler> exceptions() { return agent::getExceptionProfiler(); }
  std::vector<std::string> errors() const { return messages("Error"); }
  std::size_t errorsSaying(std::string_view message) const;

 private:
  mutable std::mutex mutex_;  // guards the deliveries
  std::vector<delivered> deliveries_;
  fake::javaThread* thread_ = nullptr;
};

// Takes a record apart whose values hold none of the texts that end sections.
std::vector<frameSections> framesIn(const std::string& record);

// The entries of a record.
std::string entry(std::string_view name, int code, std::string_view value);
std::string objectEntry(std::string_view name, std::string_view captured);
std::string nullObject(std::string_view name);  // among arguments and locals
std::string nullField(std::string_view name);   // among an object's fields

// `count` times `text`.
std::string repeated(std::string_view text, int count);

}  // namespace test
