// What Agent_OnAttach answers.
#pragma once

#include <jni.h>

namespace agent {

// The VM prints these to its client as "return code: N".
enum class attachAnswer : jint {
  done = 0,
  failed = 1,         // nothing is set up; the reason is on standard error and in the log
  alreadyLoaded = 2,  // nothing has changed
  noCompanion = 3,    // of a command, as the next two: its class is not in this JVM
  companionFailed = 4,
  notSetUp = 5,
};

}  // namespace agent
