// What /proc shows of the processes of this machine, as far as this user may see it. A process may
// end at any time: what is not there any more is empty.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace watch {

// The entries of a folder that are numbers.
std::vector<int> numbersIn(const char* folder);

// The process and all that it has started, and those have started, as far as they still run.
std::vector<pid_t> familyOf(pid_t ancestor);

// Whether it is gone, or only waits for its parent to take notice.
bool hasEnded(pid_t process);

// In ticks of the clock since the system started; two processes of one id differ in it. 0 when the
// process is gone.
std::uint64_t startOf(pid_t process);

// The words of its command, separated by blanks, without the middle of a long one.
std::string commandOf(pid_t process);

enum class environment { unreadable, lacksText, hasText };

// Whether the environment that a process was started with has the text anywhere.
environment searchEnvironment(pid_t process, const std::string& text);

// Those that were started with it in their environment, without this process.
std::vector<pid_t> processesWith(const std::string& text);

// A JVM that does not have the library of this name: it has mapped the VM without it. Of a process
// of another user only the name of the command is known.
bool isJvmWithout(pid_t process, const std::string& library);

// The user that it runs as.
uid_t userOf(pid_t process);

}  // namespace watch
