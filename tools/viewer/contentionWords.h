// What a contention report tells in sentences: the profile itself, what is stuck, what is missing.
// Plain functions without state, callable on any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "contentionReport.h"
#include "tableParts.h"
#include "terminalStyle.h"

namespace viewer {

// Monitors and locks, without waits.
struct contentionTotals {
  std::size_t locks = 0;
  std::uint64_t entries = 0;
  std::uint64_t nanos = 0;  // of blocks that have ended, and of those that have not
  std::uint64_t stillBlocked = 0;
};
contentionTotals totalsOf(const contentionReport& report);

// The length of the profile and its sums; that it was not stopped, if so.
std::string contentionHead(const contentionReport& report, const terminalStyle& terminal);

// Deadlocks, and the locks at which threads were stuck with their owners; nothing where none were.
std::string stuckLines(const contentionReport& report, const tableLimits& limits,
                       const terminalStyle& terminal);

// What is not in the report, one sentence each.
std::vector<std::string> omissionsOf(const contentionReport& report);

// What the profile cost the program.
std::string costText(const contentionReport& report);

// The sentences as lines, broken at blanks to the width of the terminal.
std::string sentenceLines(const std::vector<std::string>& sentences, const terminalStyle& terminal,
                          std::size_t indent = 0);

// A time of day, with the day when it is another one than that on which the profile began. UTC.
std::string momentText(const contentionReport& report, std::uint64_t at);

// A thread's name, cut to what leaves room beside it.
std::string shownThread(const std::optional<std::string>& name);

}  // namespace viewer
