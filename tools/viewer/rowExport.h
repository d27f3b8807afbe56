// Runs as rows for databases: one JSON object a line. docs/queries.md has the columns. One thread
// at a time; the caller checks the stream's state.
#pragma once

#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "runInputs.h"

namespace viewer {

// Writes the rows of one run.
void writeRows(const runPlace& place, const profile& run, std::ostream& out);

// The same for all runs of the inputs, see placesOf(), one after the other: only one is in memory.
// `grep` as for filter(). `warn` gets what cannot be read, and reports that are not finished. Gives
// how many could not be read.
std::size_t writeRows(const std::vector<std::filesystem::path>& inputs, const std::string& grep,
                      std::ostream& out, const std::function<void(const std::string&)>& warn);

}  // namespace viewer
