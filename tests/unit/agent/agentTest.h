// What tests of the agent on the fake VM are built on: a folder of their own, the agent loaded and
// unloaded as a VM does it, its native methods, its log and reports.
#pragma once

#include <com_korvane_twutils_nativeagent_AgentCounters.h>
#include <com_korvane_twutils_nativeagent_TWNativeAgentProfiling.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "agent/profilerRegistry.h"
#include "fakevm/fakeVm.h"
#include "locks/mutexlockprofiler.h"

namespace test {

// Arguments of startMutexLockProfilingSession, with limits that no small test meets.
struct lockSession {
  jlong id = 42;
  std::string name = "checkout";
  jlong duration = 300;  // seconds
  jint topLocks = 10;
  jint locks = 100;
  jint threadsPerLock = 100;
  jint threads = 100;
  jint stackTraces = 100;
  jint stackTracesPerThread = 10;
};

// A record of the agent log, by its columns.
struct logRecord {
  std::string sourceFile;
  std::string function;
  std::string severity;
  std::string message;
};

class agentTest : public fake::vmTest {
 protected:
  agentTest();
  ~agentTest() override;

  // Unloads the agent if it is loaded, then has the VM report what is still held.
  void TearDown() override;

  // Runs Agent_OnLoad with "twHome=<folder>," in front of `options`; null stands for no options.
  jint load(const char* options = "");
  // Runs Agent_OnLoad with these options as they stand.
  jint loadWith(std::string options);
  void unload();

  // Native methods, each called as the VM calls one.
  jint startProfiling(const lockSession& session = {});
  void startSummary(jlong id = 42);
  void startDetail(jlong id = 42);
  void stopSummary(jlong id = 42);
  void stopDetail(jlong id = 42);
  jint stopProfiling(jlong id = 42);  // the report goes to reportPath()
  jint stopProfiling(const std::string& path, jlong id = 42);

  // Profiling and summary, or profiling and detail, with `locks` met in between by one contended
  // entry each, so that the ranking can select them.
  void beginSummary(const lockSession& session = {});
  void beginDetail(const std::vector<fake::object*>& locks, const lockSession& session = {});
  // A whole contended entry of `thread`: enter, `blocked` nanoseconds, entered.
  void contend(fake::javaThread* thread, fake::object* lock, jlong blocked = 0);

  std::string nameOf(fake::object* lock);  // "class@hash"
  agent::lockBean* lockBeanOf(fake::object* lock);
  std::shared_ptr<agent::mutexLockProfiler> locks() { return agent::getMutexProfiler(); }

  std::string reportPath() const { return folder_ / "report.json"; }
  std::string stackPath() const { return folder_ / "stacks.txt"; }
  nlohmann::ordered_json report() const;  // of the lock session
  std::vector<std::string> stackLines() const;

  std::vector<logRecord> log() const;
  std::vector<std::string> messages(std::string_view severity) const;
  std::vector<std::filesystem::path> logFiles() const;  // in the order of their names
  // What `call` logs with this severity at a level; at the one below it has to log nothing so.
  std::vector<std::string> loggedFrom(std::int32_t level, const std::function<void()>& call,
                                      std::string_view severity = "Error") const;

  const std::filesystem::path& folder() const { return folder_; }

 private:
  std::filesystem::path folder_;
  bool loaded_ = false;
};

// No file gets larger than so many bytes, as `ulimit -f` does it: a disk that is full. Java
// programs have the signal that comes with it ignored.
class fileLimit {
 public:
  explicit fileLimit(rlim_t bytes);
  ~fileLimit();
  fileLimit(const fileLimit&) = delete;
  fileLimit& operator=(const fileLimit&) = delete;

 private:
  void (*before_)(int);
  rlimit old_{};
};

std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, std::string_view text);

// The thread is within Object.wait.
void putIntoWait(fake::virtualMachine& vm, fake::javaThread* thread);

}  // namespace test
