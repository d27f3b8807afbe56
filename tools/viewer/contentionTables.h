// The tables of a contention report as text. Plain functions without state, callable on any thread.
#pragma once

#include <cstddef>
#include <string>

#include "contentionReport.h"
#include "tableParts.h"
#include "terminalStyle.h"

namespace viewer {

// The profile, what is stuck, and the ranking; that of locks has who held them meanwhile, the waits
// and a time line. Then what is not in the report, and what the profile cost.
std::string contentionTables(const contentionReport& report, ranking by, const tableLimits& limits,
                             const terminalStyle& terminal);

}  // namespace viewer
