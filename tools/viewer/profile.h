// All that a set of inputs holds: the run of one program, as far as it was recorded.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "exceptionLog.h"
#include "lockReport.h"
#include "memoryReport.h"
#include "stackTable.h"

namespace viewer {

// The JVM that was profiled.
struct runInfo {
  std::optional<std::int64_t> pid;
  std::optional<std::string> started;
  std::optional<std::string> java;
  std::optional<std::string> vm;
  std::optional<std::string> command;
  std::map<std::string, std::string> options;  // of the profiler
};

struct profile {
  std::vector<std::string> inputs;  // the files that were read
  std::optional<runInfo> run;
  std::vector<lockReport> lockReports;
  stackTable stacks;  // of all stack files: a hash stands for one stack wherever it turns up
  std::optional<exceptionLog> exceptions;
  std::vector<memoryReport> memoryReports;
  std::vector<std::string> problems;  // what could not be read, or not to its end

  bool empty() const { return !run && lockReports.empty() && !exceptions && memoryReports.empty(); }
};

// Reads files, and folders with such files; a folder with none of its own stands for the newest
// run-* folder in it. What a file is, is told by its content. In a folder, files of other kinds are
// passed over unless they have a name that the agent or its companion gives, and so are those that
// are being written (*.part). The companion's *.sweeps are known and passed over. What cannot be
// read is told in `problems`; nothing is thrown for it.
profile readProfile(const std::vector<std::filesystem::path>& inputs);

// The exceptions of a profile by class and site, those with the most records first.
std::vector<exceptionGroup> groupsOf(const profile& all);

// Whether exceptions were recorded: a run that was to record them and met none may have left no
// file.
bool recordsExceptions(const profile& all);

// Keeps what `text` occurs in, without regard to the case of ASCII letters: locks by their name,
// threads and stacks, blockers, exception records by anything in them, classes by name.
void filter(profile& all, const std::string& text);

// Whether there is any lock, blocker, exception record or class.
bool holdsAny(const profile& all);

// Whether a name is of the kind that `pattern` describes: "*" stands for any text, also for none.
bool matches(std::string_view pattern, std::string_view name);

}  // namespace viewer
