// Starts the companion in this VM: the Java side in javanativeagent.jar, beside the library.
//
// The option -javaagent does the same, with the module java.instrument: the VM then sets up its
// modules again instead of from its archive, which takes longer than all that the agent does. What
// runs natively from the VM's start on needs the companion to be written only. So it comes when the
// VM has lived for a while, or when its shutdown hooks are about to run and there is something to
// report. A VM that ends before leaves no report, and a line in the list of the VMs, which it
// writes when it starts: it may be killed.
//
// It has a JVMTI environment of its own.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "instruments/ownEnvironment.h"
#include "instruments/ownThread.h"

namespace agent {

// There is one in the process.
class companionStart {
 public:
  static companionStart& ofProcess();

  // In Agent_OnLoad. `settings` is a file with the companion's options. It starts before main, or,
  // with `isLate`, some seconds later. Empty, or why it will not start.
  std::string startWithVm(JavaVM* vm, const std::string& settings, bool isLate);

  // The same for an agent that takes nothing of the VM: it starts when it is asked for.
  void startIdle(const std::string& settings);

  // In Agent_OnUnload.
  void vmEnds();

  // Has it started now if it is still to come, and waits until it has, 10 seconds at most. True
  // when it has been started, now or before. Any Java thread, in the live phase.
  bool startNow(JNIEnv* jni);

 private:
  enum class state : std::uint8_t { none, due, starting, started };

  companionStart();

  static void JNICALL VMInit(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread);
  static void JNICALL VMDeath(jvmtiEnv* jvmti, JNIEnv* jni);
  static void hooksBegin(JNIEnv* jni);

  void vmStarted(JNIEnv* jni);
  std::optional<std::int64_t> takeStep(JNIEnv* jni);
  void start(JNIEnv* jni, bool isEnding);
  void noteStart() const;

  instruments::ownEnvironment environment_;
  instruments::ownThread thread_;
  std::string settings_;
  bool isLate_ = false;
  bool isIdle_ = false;
  int jar_ = -1;          // open until it has started
  std::int64_t due_ = 0;  // steady nanoseconds
  std::atomic<state> state_{state::none};
  std::atomic<bool> isAsked_{false};
  std::atomic<bool> isEnding_{false};
};

}  // namespace agent
