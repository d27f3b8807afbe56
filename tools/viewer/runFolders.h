// The folders of runs in an output folder, and which of them are of one command: the launcher and
// the companions list these in "settings-*.jvms". Plain functions without state.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace viewer {

// Whether it is a link that another user has made, who may mean this user to read something else
// than results: from a folder nothing is read by it.
bool isLinkOfOthers(const std::filesystem::directory_entry& entry);

// By its name the folder of one JVM.
bool isRunFolder(const std::filesystem::directory_entry& entry);

// The same, whatever its name, by the file that describes the run.
bool isRun(const std::filesystem::path& folder);

// In the order of their names, which is that of their starts.
std::vector<std::filesystem::path> runFoldersIn(const std::filesystem::path& output);

// The runs of the JVMs that one command has started, with this one: those of the list that names
// it, as far as they are there; only this one when there is no such list.
std::vector<std::filesystem::path> runsOfCommand(const std::filesystem::path& run);

// What else is in an output folder of which only this run is shown, and how to see it: lines for
// the user, none when there is nothing.
std::vector<std::string> otherRuns(const std::filesystem::path& output,
                                   const std::filesystem::path& shown);

enum class jvmState { unknown, running, gone };

// Whether the JVM of this process still runs, as far as it can be seen from here. It may be gone
// and yet run in a container or on another machine.
jvmState stateOf(const std::optional<std::int64_t>& pid);

// "the JVM is still running (process 7)", or what else is the reason for what has no end.
std::string reasonForNoEnd(const std::optional<std::int64_t>& pid);

}  // namespace viewer
