// A command for the companion of a JVM that runs, given as the option "command=PATH" of the attach
// interface.
#pragma once

#include <jni.h>

#include <optional>
#include <string>
#include <string_view>

#include "agent/attachAnswer.h"

namespace agent {

// The path in "command=PATH", which may have any character; none for other options.
std::optional<std::string> commandIn(std::string_view options);

// Hands the path of the request to the companion, which the system class loader has to know, and
// waits for it. No lock is held meanwhile: commands may meet, and one may detach the agent. On a
// Java thread, in the live phase; an exception that was pending there stays so, and none is left.
// What went wrong is in the log.
attachAnswer runCommand(JNIEnv* jni, const std::string& path);

}  // namespace agent
