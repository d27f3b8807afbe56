// Where exceptions are captured: where they are thrown, by the VM's event, or where they are made,
// by a hook in the constructors of Throwable.
//
// "made" takes no capability that slows the program's throws, and sees other things. An exception
// that is made and never thrown counts. Not seen are one that is thrown again, one that the VM has
// made before, and the implicit ones of code that HotSpot has optimised. The exception is half made
// when it is handed over.
#pragma once

#include <atomic>

namespace agent {

inline std::atomic<bool> exceptionsAreMadeFlag{false};

// Set when the agent is loaded only, before any profiler is made.
inline void captureExceptionsWhereMade(bool isMade) {
  exceptionsAreMadeFlag.store(isMade, std::memory_order_relaxed);
}
inline bool exceptionsAreCapturedWhereMade() {
  return exceptionsAreMadeFlag.load(std::memory_order_relaxed);
}

// "made" or "thrown".
inline const char* exceptionMode() {
  return exceptionsAreCapturedWhereMade() ? "made" : "thrown";
}

}  // namespace agent
