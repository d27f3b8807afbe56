// What the tables of all kinds of reports have in common. Plain functions without state.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "terminalStyle.h"

namespace viewer {

template <typename entry>
std::span<const entry> first(const std::vector<entry>& entries, std::size_t limit) {
  return std::span(entries).first(std::min(limit, entries.size()));
}

// "NAME (21)", or "NAME (5 of 21)" where not all are shown, as a line.
std::string title(const std::string& name, std::size_t all, std::size_t shown,
                  const terminalStyle& terminal);

// A line of `before`, the name and `after`, in which the name is cut to what the terminal's width
// leaves it: at its start, or at its end. It is made printable, the others are as they are.
std::string startCutLine(const std::string& before, const std::string& name,
                         const std::string& after, const terminalStyle& terminal);
std::string endCutLine(const std::string& before, const std::string& name, const std::string& after,
                       const terminalStyle& terminal);

// "... 16 more" as a line where not all are shown, else nothing.
std::string moreLine(std::size_t all, std::size_t shown, std::size_t indent);

// "83 %"; "-" of nothing.
std::string percentage(std::uint64_t part, std::uint64_t whole);

// "12,238".
std::string grouped(std::uint64_t number);

// "64 B", "1.5 KiB", "20 MiB".
std::string sizeText(std::uint64_t bytes);

}  // namespace viewer
