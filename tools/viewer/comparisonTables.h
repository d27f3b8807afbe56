// Two runs side by side as text. Plain functions without state, callable on any thread.
#pragma once

#include <cstddef>
#include <string>

#include "comparison.h"
#include "terminalStyle.h"

namespace viewer {

// For each kind of report at most `rows` of what differs by the threshold, the largest difference
// first, and how much is the same.
std::string comparisonTables(const comparison& both, std::size_t rows,
                             const terminalStyle& terminal);

}  // namespace viewer
