// The set-up of the agent in a VM that runs already: of one that is attached, or that was idle.
#pragma once

#include <jvmti.h>

#include <memory>
#include <string>
#include <string_view>

#include "agent/options.h"
#include "agent/profilerRegistry.h"

namespace agent {

// The environment of the VM, the profilers and their capabilities. All is given back unless it is
// completed, which waits as leaveSessions() does. The methods are called in their order, on a
// thread that holds setUpMutex(), in the live phase. Texts are empty, or why not.
class runningSetUp {
 public:
  explicit runningSetUp(JavaVM* vm);
  ~runningSetUp();
  runningSetUp(const runningSetUp&) = delete;
  runningSetUp& operator=(const runningSetUp&) = delete;

  // Takes an environment and makes the profilers. What the VM gives no more, they do without:
  // exceptions are captured where they are made when it has no event for them, or `areMade`.
  std::string readOptions(std::string_view options, bool areMade = false);
  // What the options have set, as far as they could be read.
  const startUpSettings& settings() const { return settings_; }

  // Asks for what the profilers need and the VM gives.
  std::string addCapabilities();

  // What the VM does not give any more, one line each: the capability, and what that means.
  std::string missing() const;
  // The same as warnings; `whom` it does not give that to.
  void logMissing(const char* function, const char* whom) const;

  // Nothing is given back any more, unless the VM has begun to end.
  std::string complete();

 private:
  JavaVM* const vm_;
  std::shared_ptr<profilerRegistry> registry_;
  jvmtiEnv* jvmti_ = nullptr;
  bool isComplete_ = false;
  jvmtiCapabilities potential_{};
  startUpSettings settings_;
};

}  // namespace agent
