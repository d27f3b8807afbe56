// All that a set of inputs holds: the run of one program, as far as it was recorded.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "allocationReport.h"
#include "contentionReport.h"
#include "exceptionGroups.h"
#include "lockReport.h"
#include "memoryReport.h"
#include "stackTable.h"

namespace viewer {

// The JVM that was profiled.
struct runInfo {
  std::optional<std::int64_t> pid;
  std::optional<std::string> started;
  std::optional<std::string> agent;  // the version of the companion
  std::optional<std::string> host;   // the name of the machine or container
  std::optional<std::string> java;
  std::optional<std::string> vm;
  std::optional<std::string> command;
  std::map<std::string, std::string> options;  // of the profiler
  std::int64_t removedReports = 0;             // deleted because there were too many
};

// How the memory reports came about: what the companion's sweeps found.
struct sweepSum {
  std::uint64_t classes = 0;      // the most that one of them searched for
  std::vector<std::string> full;  // classes of which not all objects could be tracked
  bool isCut = false;             // the file does not have all sweeps
};

struct profile {
  std::string name;                 // of the folder of the run; empty for files from anywhere
  std::vector<std::string> inputs;  // the files that were read
  std::optional<runInfo> run;
  std::vector<lockReport> lockReports;
  stackTable stacks;  // of all stack files: a hash stands for one stack wherever it turns up
  std::optional<exceptionLog> exceptions;
  std::vector<memoryReport> memoryReports;
  std::vector<contentionReport> contentionReports;
  std::vector<allocationSession> allocations;  // in the order of their first files
  std::optional<sweepSum> sweeps;
  std::vector<std::string> unfinished;  // reports that were begun and have not got their name
  std::vector<std::string> problems;    // what could not be read, or not to its end
  std::vector<std::string> notes;       // what else there is, and how to see it; lines
  bool isFiltered = false;              // not all that was read is here

  bool empty() const {
    return !run && lockReports.empty() && !exceptions && memoryReports.empty() &&
           contentionReports.empty() && allocations.empty();
  }
};

// Reads files, and folders with such files; a folder with none of its own stands for the newest
// run-* folder in it. The content decides what a file is. In a folder, files of other kinds are
// passed over unless they have a name that the agent or its companion gives. Of those that are
// being written (*.part) only the names are kept, of the companion's *.sweeps only what they come
// to. What cannot be read is reported in `problems`; nothing is thrown for it.
profile readProfile(const std::vector<std::filesystem::path>& inputs);

// Adds a file of a folder to what was read of it, as readProfile() does. False when it is not a
// report: another file, or one that is being written.
bool addFile(profile& all, const inputFile& file);

// The run in this folder. Throws std::filesystem::filesystem_error when there is none.
profile readRun(const std::filesystem::path& folder);

// The same for each JVM of a command: a folder stands for those of the command that its newest run,
// or the run that it is, belongs to. None when there are other files among the inputs, or a folder
// cannot be read.
std::vector<profile> readJvms(const std::vector<std::filesystem::path>& inputs);

// The same for each JVM: one profile for each folder of a run, which is named or in a folder that
// is named. All other files together make one more, if there are any or there is nothing else.
std::vector<profile> readRuns(const std::vector<std::filesystem::path>& inputs);

// The exceptions of a profile by class and place, those of which the most were thrown first.
std::vector<exceptionGroup> groupsOf(const profile& all, thrownIn where);

// What the agent has counted of them; none where there is no file of counts.
const exceptionCounts* countsOf(const profile& all);

// Whether a run is known, and was started with this option set to "true".
bool isOn(const profile& all, const std::string& option);

// The value of an option that a run was started with; none when it was not given.
std::optional<std::string> optionOf(const profile& all, const std::string& option);

// Keeps what `text` occurs in, without regard to the case of ASCII letters: locks by their name,
// field, threads and stacks, blockers, exception records by anything in them, counts of exceptions
// by class, place, or with a record that is kept, classes by name, allocations by class, frames,
// threads and the fields that hold them.
void filter(profile& all, const std::string& text);

// Whether there is any lock, blocker, exception record or class.
bool holdsAny(const profile& all);

// Whether a name is of the kind that `pattern` describes: "*" stands for any text, also for none.
bool matches(std::string_view pattern, std::string_view name);

}  // namespace viewer
