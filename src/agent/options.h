// The option string of -agentpath, read by Agent_OnLoad.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/profilerRegistry.h"
#include "allocations/allocationSettings.h"
#include "contention/contentionSettings.h"
#include "exceptions/redaction.h"

namespace agent {

// What the option string sets.
struct startUpSettings {
  // Deliberate: the same on every system.
  std::string home = "C:\\opt\\korvane\\tracewell";
  std::int32_t logLevel = 3;
  std::int32_t objectType = 0;    // unset
  std::int32_t stackDepth = 0;    // unset
  std::int32_t objectDepth = -1;  // unset
  std::int32_t ownerLookupsPerSecond = 0;
  std::int32_t scanInOneQuery = 0;
  std::int32_t recordBytes = 0;  // unset
  bool contention = false;       // runs from the start of the VM
  contentionSettings contentionProfile;
  bool allocations = false;  // as well
  allocationSettings allocationProfile;
  bool quiet = false;
  bool idle = false;           // nothing is taken that costs without being used
  std::string companion;       // the file with its options; it is not started when empty
  bool companionLate = false;  // not before main
  redactionSettings redaction;
  // Items whose values count as not given, for the log.
  std::vector<std::string> ignored;
};

// Reads the options from left to right, and makes the profilers that they name, or all. Those named
// on the way get the capture settings that stand before them. Throws what the text conversions
// throw for a number that is none, after naming the item on standard error.
startUpSettings readOptions(profilerRegistry& registry, std::string_view options);

// Whether only errors are printed: the option `quiet`, read before all others.
bool asksForQuiet(std::string_view options);

// Whether the agent takes nothing of the VM yet: the option `idle`, likewise.
bool asksForIdle(std::string_view options);

// The same, for a VM that may not give the event of exceptions: they are then captured where they
// are made, whatever the options ask for. When it throws, `settings` has what stands before.
void readOptions(profilerRegistry& registry, std::string_view options, bool canSeeThrown,
                 startUpSettings& settings);

}  // namespace agent
