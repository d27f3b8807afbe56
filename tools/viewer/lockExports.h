// Lock reports in the forms that other tools take. Plain functions without state.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "lockReport.h"
#include "stackTable.h"

namespace viewer {

// Gives each stack of each thread on each lock, from the bottom up, with how often the thread came
// to the lock so. The counts of a lock add up to its entries.
void forEachEntryStack(
    const lockReport& report, const stackTable& stacks,
    const std::function<void(const lockEntry& lock, const std::string& thread,
                             const std::vector<std::string>& frames, std::uint64_t count)>& visit);

}  // namespace viewer
