// What tests of the memory profiler share: sessions, collections, tagged objects, what a report
// says of classes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "agentTest.h"
#include "memory/memoryprofiler.h"

namespace test {

// Arguments of startMemoryLeaksProfileSession; all classes and no filter at first.
struct memorySession {
  bool enable = true;
  jlong duration = 60;
  jint id = 7;
  std::string name = "leaks";
  jint topClasses = -1;
  std::string excludeClasses{};
  std::string excludePackages{};
  std::string includeClasses{};
  std::string includePackages{};
};

class memoryTest : public agentTest {
 protected:
  // Native methods, each called as the VM calls one.
  jint start(const memorySession& session = {});
  jint stop();  // the report goes to reportPath()
  jint stop(const std::string& path);
  jint stopWithoutPath();  // a null String
  void tag(fake::object* object);
  // The finish of `times` collections.
  void collect(int times = 1);

  // Loads the agent, starts a session and finishes one collection: tags are 1 from here on.
  void begin(const memorySession& session = {}, const char* options = "");

  // An object of a class that is made when it is not there yet.
  fake::object* object(std::string_view className, jlong size = 16);
  // The same, tagged with the current generation.
  fake::object* tagged(std::string_view className, jlong size = 16);

  // Of the report: the names of its classes in their order, and what it says of one.
  std::vector<std::string> classes() const;
  nlohmann::ordered_json reported(const std::string& name) const;
  // "generation:count:size" for each generation of a class.
  std::vector<std::string> survivors(const std::string& name) const;

  std::shared_ptr<agent::memoryProfiler> memory() { return agent::getMemoryProfiler(); }
  std::vector<std::string> errors() const { return messages("Error"); }
  std::vector<std::string> warnings() const { return messages("warn"); }
  // Messages of one function, in their order, with "severity: " in front.
  std::vector<std::string> linesOf(std::string_view function) const;
};

inline constexpr const char* kNoHeapData =
    "Agent was not able to find any heap data to report genuinely as no problem occurred";
inline constexpr const char* kNoGcCount =
    "Agent was not able to find any gccount to report genuinely as no problem occurred";
inline constexpr const char* kNoTaggedData =
    "Agent was not able to find any tagged data for memory to report genuinely as no problem "
    "occurred";

}  // namespace test
