// The agent in a JVM that runs already: what Agent_OnAttach sets up, and how it leaves again.
#pragma once

#include <jvmti.h>

#include <string>

namespace agent {

// Whether the agent was set up in a JVM that was running, and has not left since. Any thread.
bool isAttached();

// What this JVM does not give an agent that is attached, one line each: the capability, and what
// that means. Empty when there is nothing, or the agent was loaded with the JVM. Any thread.
std::string missingWhenAttached();

// Ends all that the agent runs: its events, the calls inserted into the JDK's classes, its threads;
// and gives back what it asked of the VM. Waits for safepoints, and for handlers 2 seconds at most.
// Agent_OnAttach may set it up again. Empty, or what could not be done, in lines. On a Java thread,
// in the live phase; calls take turns with each other and with Agent_OnAttach.
std::string detach(JNIEnv* jni);

}  // namespace agent
