// The tables of a lock report as text. Plain functions without state, callable on any thread.
#pragma once

#include <cstddef>
#include <string>

#include "lockReport.h"
#include "stackTable.h"
#include "tableParts.h"
#include "terminalStyle.h"

namespace viewer {

// The session and the sums over its locks, in one line.
std::string sessionLine(const lockReport& report, const terminalStyle& terminal);

// The locks by blocked time, then waited time, then contended entries, the largest first; with
// their entries by minute when the session had more than one.
std::string topLocks(const lockReport& report, const tableLimits& limits,
                     const terminalStyle& terminal);

// For each of the same locks its threads and the stack that was seen most often on it. A hash that
// `stacks` does not know is shown as it is.
std::string lockDetails(const lockReport& report, const stackTable& stacks,
                        const tableLimits& limits, const terminalStyle& terminal);

// The threads over all locks, by blocked time.
std::string topThreads(const lockReport& report, const tableLimits& limits,
                       const terminalStyle& terminal);

// The methods in which threads came to contended locks, by entries.
std::string topSites(const lockReport& report, const stackTable& stacks, const tableLimits& limits,
                     const terminalStyle& terminal);

// At most `rows` threads that owned locks while others came to wait, by blocking time. Where
// owner lookups were skipped, this and topThreads() report it and show estimates beside the counts.
std::string blockers(const lockReport& report, std::size_t rows, const terminalStyle& terminal);

// The classes of locks, by blocked time.
std::string topLockClasses(const lockReport& report, const tableLimits& limits,
                           const terminalStyle& terminal);

// The stacks of threads that were blocked, but at no lock of the report; nothing where none were.
std::string stacksOfNoLock(const lockReport& report, const stackTable& stacks,
                           const tableLimits& limits, const terminalStyle& terminal);

// The session line, the ranking, and the stacks of no lock; the ranking of locks has their details
// and the blockers too.
std::string lockTables(const lockReport& report, const stackTable& stacks, ranking by,
                       const tableLimits& limits, const terminalStyle& terminal);

}  // namespace viewer
