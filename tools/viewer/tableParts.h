// What the tables of all kinds of reports have in common. Plain functions without state.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "terminalStyle.h"

namespace viewer {

// How much is shown.
struct tableLimits {
  std::size_t rows = 5;      // of each ranking
  std::size_t threads = 12;  // of each lock, and blockers
  std::size_t frames = 6;    // of each stack
};

// What lock reports and contention reports are ranked by. A blocker is an owner.
enum class ranking { lock, lockClass, thread, site, owner };

template <typename entry>
std::span<const entry> first(const std::vector<entry>& entries, std::size_t limit) {
  return std::span(entries).first(std::min(limit, entries.size()));
}

// "NAME (21)", or "NAME (5 of 21)" where not all are shown, as a line.
std::string title(const std::string& name, std::size_t all, std::size_t shown,
                  const terminalStyle& terminal);

// A line of `before`, the name and `after`, in which the name is cut to what the terminal's width
// leaves it: as cutName() does, or, for other texts, at its end. It is made printable, the others
// are as they are.
std::string nameLine(const std::string& before, const std::string& name, const std::string& after,
                     const terminalStyle& terminal);
std::string textLine(const std::string& before, const std::string& text, const std::string& after,
                     const terminalStyle& terminal);

// "... 16 more" as a line where not all are shown, else nothing.
std::string moreLine(std::size_t all, std::size_t shown, std::size_t indent);

// "83 %"; "-" of nothing.
std::string percentage(std::uint64_t part, std::uint64_t whole);

// "12,238".
std::string grouped(std::uint64_t number);

// "1 lock", "2,000 locks".
std::string counted(std::uint64_t number, const char* one, const char* more);

// "64 B", "1.5 KiB", "20 MiB".
std::string sizeText(std::uint64_t bytes);

// Nanoseconds in milliseconds, without the unit: "12,238", "12.2" below 100, "<0.1", "0".
std::string milliText(std::uint64_t nanos);

// Milliseconds as "12.2 s", "3 min 5 s", "2 h 10 min".
std::string durationText(std::uint64_t millis);

// Milliseconds since 1970 in UTC: "12:00:59", "2026-11-22 12:00:59". "?" beyond the year 9999.
std::string timeText(std::uint64_t millis);
std::string dayAndTimeText(std::uint64_t millis);

}  // namespace viewer
