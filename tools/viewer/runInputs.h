// Any number of runs, of one host or of many: where they are, and one after the other. Plain
// functions without state, callable on any thread.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "profile.h"

namespace viewer {

// A folder of a run, or an archive with one or several of them.
struct runPlace {
  std::filesystem::path path;
  bool isArchive = false;
};

// Where the runs of these inputs are, each once: a folder of a run, all those in an output folder,
// archives (.tar.gz), those in a folder, and what a pattern (glob) stands for. In the order of
// their names. `problems` has what is none of them.
std::vector<runPlace> placesOf(const std::vector<std::filesystem::path>& inputs,
                               std::vector<std::string>& problems);

// The name of the host of each run in a place, as hostOf() gives it, in the order of the runs. Of
// an archive that is damaged those that come before.
std::vector<std::string> hostsIn(const runPlace& place);

// Calls `visit` with each run of the place; a profile has the name of its folder, and what could
// not be read of it in `problems`. Of an archive one folder is in memory at a time; a folder whose
// files do not come one after the other is one run for each group of them, and has a problem. What
// goes wrong with an archive is a problem of its last run.
void readRunsIn(const runPlace& place, const std::function<void(profile run)>& visit);

// The host of a run as it is counted: its name, or when the run does not tell that of the place and
// of the run, which are then a host of their own.
struct hostName {
  std::string name;
  bool isKnown = true;
};
hostName hostOf(const runPlace& place, const profile& run);

}  // namespace viewer
