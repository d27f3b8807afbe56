// The verbs of twprofile that have to do with running JVMs. One thread.
#pragma once

#include <sys/types.h>

#include <ostream>
#include <string>
#include <vector>

#include "attachment.h"
#include "command.h"

namespace control {

// Prints the JVMs that have the agent and the companion, of this user or, for root, of all users
// and containers; they notice nothing. `folder` is that of the kernel.
void list(std::ostream& out, const std::string& folder = "/proc");

// Has the companion in the JVM do what is asked for; prints what it answers. The exit code. Throws
// a failure that names why it cannot be asked.
int control(pid_t pid, const request& request, std::ostream& out, std::ostream& err);

// The same for agent and companion that are to come into the JVM.
int attachTo(pid_t pid, const attachWords& words, std::ostream& out, std::ostream& err);

}  // namespace control
