// Allocation samples in the forms that other tools take. Plain functions without state; the caller
// checks the stream's state.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "allocationReport.h"

namespace viewer {

// Gives the stack of each site, from the bottom up, with the class and the bytes that are alive.
// What is alive of sites that are not listed has no class and no stack, so that the sum is that of
// the report.
void forEachAliveStack(
    const allocationReport& report,
    const std::function<void(const std::string& className, const std::vector<std::string>& frames,
                             std::uint64_t bytes)>& visit);

// The sites; what grows most first.
void csvAllocations(const std::vector<allocationSession>& sessions, std::ostream& out);

void allocationGauges(const std::vector<allocationSession>& sessions, std::ostream& out);

}  // namespace viewer
