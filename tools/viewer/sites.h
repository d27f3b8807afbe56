// The methods in which threads came to a contended lock: the top frames of the stacks.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lockReport.h"
#include "stackTable.h"

namespace viewer {

struct siteSum {
  std::optional<std::string> method;  // none for stacks whose frames are not known
  std::uint64_t entries = 0;
  std::size_t stacks = 0;          // distinct ones
  std::vector<std::size_t> locks;  // indexes into the report's locks, in ascending order
};

// The one with the most entries first.
std::vector<siteSum> sitesOf(const lockReport& report, const stackTable& stacks);

}  // namespace viewer
