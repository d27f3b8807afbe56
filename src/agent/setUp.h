// What is done alike when the agent is loaded with a VM and into a running one, and when it leaves.
#pragma once

#include <jvmti.h>

#include <string>

#include "agent/options.h"
#include "agent/twAprLib.h"
#include "instruments/handlerGate.h"
#include "support/annotations.h"

namespace agent {

// Held while the agent is set up in a VM that runs, or leaves; outside all other locks. Those who
// hold it call the VM, and wait for handlers and natives.
support::mutex& setUpMutex();

// Gets the environment of the profilers, and watches for the end of the VM and for threads that
// attach themselves to it. Null when the VM gives no environment.
jvmtiEnv* beginSetUp(JavaVM* vm, bool isRunning);

// Whether nothing was taken of the VM yet, and wakeIdle() is still to be called. It is set with
// setUpMutex() held. Any thread.
bool isIdle();
void setIdle(bool isIdle);

// From the set-up until the agent leaves; an idle agent, which has no environment yet, included.
// Any thread.
bool isSetUp();

// The objects of APR, made on first use, or `isAnew`; null when that fails, which is printed to
// `out`. By one thread at a time.
const twAprContext* aprContext(std::FILE* out, bool isAnew);

// Logs what of the options is ignored, and why a profile that was asked for does not run.
void logSetUp(const char* function, const startUpSettings& settings,
              const std::string& noContention, const std::string& noAllocations);

// Takes the profilers out; handlers finish with the share that they hold.
void unload();

// The same, with no handler begun any more and those that run waited for, 2 seconds at most: a
// debugger may have suspended one, and a control call of another thread may take its time. A sink
// is within a handler itself, which nobody can wait for. False when one may still run.
bool leaveHandlers();

// Takes the profilers out as leaveHandlers() does, waits for natives as long, and gives the VM back
// its environment, its watch and its table of functions. Tags, events and capabilities go with the
// environment. One that somebody may still be using stays, without events. Empty, or what stays.
std::string leaveSessions(JavaVM* vm);

// Native methods of the companion are inside while they run.
instruments::handlerGate& nativesGate();

}  // namespace agent
