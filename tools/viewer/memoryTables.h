// The table of a memory report as text. Plain functions without state, callable on any thread.
#pragma once

#include <cstddef>
#include <string>

#include "memoryReport.h"
#include "terminalStyle.h"

namespace viewer {

// The session and at most `rows` classes with what survived of them, the most bytes first, each
// with a histogram of its objects by generation from the oldest on.
std::string memoryTables(const memoryReport& report, std::size_t rows,
                         const terminalStyle& terminal);

}  // namespace viewer
