// Sessions of allocation samples as tables for the terminal. Plain functions without state.
#pragma once

#include <string>

#include "allocationReport.h"
#include "tableParts.h"
#include "terminalStyle.h"

namespace viewer {

// What grows, then by class, site and path, and what is missing.
std::string allocationTables(const allocationSession& session, const tableLimits& limits,
                             const terminalStyle& terminal);

}  // namespace viewer
