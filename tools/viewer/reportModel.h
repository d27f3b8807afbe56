// The agent's lock report and its stack file as values. Plain functions without state, callable on
// any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace viewer {

// An input that cannot be read: its text names the file, the place and what was expected there.
class inputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// How often one stack was seen; the hash finds its text in the stack file.
struct stackUse {
  std::uint64_t hash = 0;
  std::uint32_t count = 0;
};

// One thread on one lock, as of the detail session. Times are whole seconds.
struct threadEntry {
  std::string name;
  std::uint32_t entries = 0;
  std::uint32_t blockedSeconds = 0;
  std::uint32_t waitedSeconds = 0;
  std::vector<stackUse> stacks;
};

struct lockEntry {
  std::string name;
  std::uint32_t entries = 0;
  std::uint32_t blockedSeconds = 0;
  std::uint32_t waitedSeconds = 0;
  std::vector<std::uint32_t> entriesPerMinute;
  std::vector<threadEntry> threads;
};

// A thread that owned a ranked lock while others came to wait for it.
struct blockerEntry {
  std::string name;
  std::uint32_t timesOwner = 0;
  std::uint32_t blockingPeriods = 0;
  std::uint32_t blockingSeconds = 0;
  std::vector<stackUse> stacks;
};

// Names are UTF-8. Counts and times are unsigned: the 32 bits that the report writes with a sign
// are taken as they were counted.
struct lockReport {
  std::string sessionName;
  std::int32_t sessionId = 0;
  std::vector<lockEntry> locks;
  std::vector<blockerEntry> blockers;
  std::size_t distinctStacks = 0;
};

// Frames of each stack from the top down, as "a.b.C.method", by hash.
using stackTexts = std::map<std::uint64_t, std::vector<std::string>>;

// Reads a report that the agent wrote. `source` names it in errors. Throws inputError.
lockReport parseLockReport(std::string_view json, const std::string& source);
lockReport readLockReport(const std::filesystem::path& file);

// Reads a stack file, which may hold the stacks of several reports. Throws inputError.
stackTexts parseStackFile(std::string_view text, const std::string& source);
stackTexts readStackFile(const std::filesystem::path& file);

}  // namespace viewer
