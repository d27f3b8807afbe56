// An agent that has nothing of the VM before the first profiler is started: the option `idle`.
#pragma once

#include <jni.h>

#include <string>

namespace agent {

// It wakes with these options, which are not empty.
void beIdle(std::string options);

// Takes the VM's environment, makes the profilers and asks for the capabilities that a running VM
// gives; what it does not give is logged. Nothing when the agent is not idle, or no longer. When
// that fails, which is logged, it stays idle, and the next call tries again. Nothing watches for
// the end of the VM before the first call. Java threads, in the live phase; outside nativesGate(),
// as it may wait for an agent that leaves.
void wakeIdle(JNIEnv* jni) noexcept;

// It does not wake any more: the agent leaves. With setUpMutex() held.
void forgetIdle();

}  // namespace agent
