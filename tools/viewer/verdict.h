// What came of checking a run.
#pragma once

#include <string>
#include <vector>

namespace viewer {

// What came of the limits, a line for each thing.
struct verdict {
  std::vector<std::string> broken;  // limits that are broken, or not covered by the run
  std::vector<std::string> notes;   // what the limits do not cover
};

}  // namespace viewer
