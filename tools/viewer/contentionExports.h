// Contention reports in the forms that other tools take. Plain functions without state; the caller
// checks the stream's state.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "contentionReport.h"

namespace viewer {

// Gives the stack of each waiter of monitors and locks, from the bottom up, with the blocked time
// that its samples stand for. Time of a lock that no sample stands for has no stack and no thread,
// so that the sum over a lock is its time, or that of its samples where they are more.
void forEachBlockedStack(
    const contentionReport& report,
    const std::function<void(const std::string& lock, const std::string& thread,
                             const std::vector<std::string>& frames, std::uint64_t nanos)>& visit);

// All locks with sums of others, waits among them; the pairs of all of them.
void csvContention(const std::vector<contentionReport>& reports, std::ostream& out);
void csvPairs(const std::vector<contentionReport>& reports, std::ostream& out);

void contentionGauges(const std::vector<contentionReport>& reports, std::ostream& out);

}  // namespace viewer
