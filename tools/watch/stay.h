// What `twprofile run` becomes when it is to show results at the end: the parent of the command, in
// the command's process group and with its streams.
#pragma once

namespace watch {

// Runs the command (ended by a null pointer), passes signals on to it, and when it has ended calls
// `conclusion` (likewise) with standard error only. What a terminal sends to the whole group
// reaches the command by itself. Ends this process as the command has ended: with its exit code, or
// by its signal. A command that cannot be started ends it with 126 or 127, as a shell does.
[[noreturn]] void stayWith(char** command, char** conclusion);

}  // namespace watch
