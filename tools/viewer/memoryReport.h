// The agent's memory report as values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "input.h"

namespace viewer {

// The objects of a class that live and were tagged when `generation` collections had finished.
struct generationEntry {
  std::uint32_t generation = 0;
  std::uint32_t objects = 0;
  std::uint64_t bytes = 0;
};

struct classEntry {
  std::string name;
  std::uint32_t objects = 0;
  std::uint64_t bytes = 0;
  std::vector<generationEntry> generations;  // in ascending order
};

struct memoryReport {
  std::string source;
  std::string sessionName;
  std::int32_t sessionId = 0;
  std::vector<classEntry> classes;  // the one with the most bytes first
};

// Throws inputError: `source` (the name for the text in errors), the place and what was expected.
memoryReport readMemoryReport(byteSource bytes, const std::string& source);

// All generations that the report has, in ascending order.
std::vector<std::uint32_t> generationsOf(const memoryReport& report);

}  // namespace viewer
