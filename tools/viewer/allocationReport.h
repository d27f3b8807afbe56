// The report of the allocation samples, with the growth of classes and the paths to roots that were
// recorded beside it, as values; docs/reports.md describes the files. Plain values and functions
// without state.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "input.h"

namespace viewer {

// What a document is whose member "report" has this value.
inline constexpr std::string_view kAllocations = "allocations";
inline constexpr std::string_view kGrowth = "growth";
inline constexpr std::string_view kPaths = "paths";

// Times of day are milliseconds since 1970-01-01 UTC, until the year 9999. Bytes and objects are
// what the samples stand for: estimates.
struct sampledAmount {
  std::uint64_t samples = 0;
  std::uint64_t bytes = 0;
  std::uint64_t objects = 0;  // not known of what was allocated
};
sampledAmount& operator+=(sampledAmount& to, const sampledAmount& more);

struct allocationStack {
  std::uint64_t id = 0;
  std::vector<std::string> frames;  // the innermost first
  bool isCut = false;
};

// What stands for a name that the report does not have: of a class that was unloaded or had no
// room.
inline constexpr const char* kUnknownClass = "(class not known)";
inline constexpr const char* kUnknownThread = "(thread not known)";

struct allocationThread {
  std::string name = kUnknownThread;
  std::uint64_t samples = 0;
};

// One class, allocated with one stack.
struct allocationSite {
  std::uint64_t id = 0;
  std::string className = kUnknownClass;
  std::optional<std::uint64_t> stack;  // index into the report's `stacks`
  sampledAmount allocated;
  sampledAmount alive;
  sampledAmount young;
  std::optional<sampledAmount> afterHooks;
  std::vector<std::uint64_t> ages;     // alive samples by the rounds of collections they survived
  std::vector<std::uint64_t> seconds;  // and by their age; both in powers of two
  std::vector<std::uint64_t> born;     // alive bytes by the eighth of the session
  std::uint64_t courseFrom = 0;        // index into the report's `points`
  std::vector<std::uint64_t> course;   // alive bytes at the points from there on
  std::vector<allocationThread> threads;
};

struct otherAllocationSites {
  std::uint64_t sites = 0;
  sampledAmount allocated;
  sampledAmount alive;
  sampledAmount young;
};

struct allocationPoint {
  std::uint64_t at = 0;
  std::uint64_t collections = 0;
  std::uint64_t alive = 0;  // bytes
};

struct allocationSettings {
  std::uint64_t intervalBytes = 0;
  std::uint64_t liveSamples = 0;
};

// What collections found after the program's shutdown hooks had begun.
struct afterHooks {
  sampledAmount amount;
  std::uint64_t collections = 0;
};

struct allocationCost {
  std::uint64_t processorNanos = 0;
  std::uint64_t handlerNanos = 0;
  std::uint64_t samples = 0;
};

struct omittedSamples {
  std::uint64_t lost = 0;
  std::uint64_t lostBytes = 0;
  std::uint64_t failed = 0;
  std::uint64_t leftOut = 0;  // of the profiler's own threads
  std::uint64_t sites = 0;
  std::uint64_t stacks = 0;
  std::uint64_t classes = 0;
  std::uint64_t names = 0;
  std::uint64_t thinned = 0;
};

struct allocationReport {
  std::string source;
  std::uint64_t startedAt = 0;
  std::uint64_t writtenAt = 0;
  std::optional<std::uint64_t> endedAt;     // none of a session that was not stopped before
  std::optional<std::uint64_t> shutdownAt;  // what is alive is of then
  allocationSettings settings;
  std::uint64_t intervalBytes = 0;  // at last
  std::uint64_t collections = 0;    // rounds, each at least one collection
  bool isAfterCollection = false;   // one came just before
  sampledAmount allocated;
  sampledAmount alive;
  sampledAmount young;
  std::optional<afterHooks> released;
  std::vector<allocationPoint> points;  // in order of time
  std::vector<allocationSite> sites;
  otherAllocationSites others;
  std::vector<allocationStack> stacks;
  allocationCost cost;
  omittedSamples omitted;
};

struct growthPoint {
  std::uint64_t at = 0;
  std::uint64_t liveBytes = 0;
  std::uint64_t liveObjects = 0;
  std::uint64_t tookMillis = 0;
};

struct heapGrowth {
  std::optional<double> bytesPerMinute;
  std::optional<double> fit;  // coefficient of determination
  std::optional<std::uint64_t> fullAt;
};

struct classGrowth {
  std::string className;
  std::vector<std::optional<std::uint64_t>> bytes;  // at each point
  std::vector<std::optional<std::uint64_t>> objects;
  std::optional<double> bytesPerMinute;
  std::optional<double> fit;
};

struct growthReport {
  std::string source;
  std::uint64_t writtenAt = 0;
  std::uint64_t intervalMillis = 0;
  std::uint64_t askedMillis = 0;
  std::optional<std::uint64_t> maxHeap;
  std::optional<std::string> problem;
  std::vector<growthPoint> points;
  heapGrowth heap;
  std::vector<classGrowth> classes;
  std::uint64_t otherClasses = 0;
};

struct pathLink {
  std::string className;
  std::optional<std::string> field;
  std::optional<std::uint64_t> index;
  std::uint64_t skipped = 0;
};

struct pathRoot {
  std::string kind;
  std::string text;
  std::optional<std::string> thread;
};

struct rootPath {
  std::string className;
  std::uint64_t samples = 0;
  std::optional<std::uint64_t> bytes;
  std::vector<pathLink> chain;  // from the holder of the object to the root
  pathRoot root;
  std::vector<std::string> stack;
  std::uint64_t allocatedAt = 0;
};

struct pathReport {
  std::string source;
  std::uint64_t writtenAt = 0;
  std::string from;  // who found the paths
  std::optional<std::string> problem;
  std::uint64_t tookMillis = 0;
  std::uint64_t samples = 0;
  std::uint64_t withRoot = 0;
  std::uint64_t own = 0;
  std::vector<rootPath> paths;
  std::uint64_t otherPaths = 0;
};

// What was recorded of one session; any part may be missing.
struct allocationSession {
  std::string name;  // what the names of its files have in common
  std::optional<allocationReport> samples;
  std::optional<growthReport> growth;
  std::optional<pathReport> paths;
  bool isFiltered = false;  // not all that was read is here

  // Of the first part that is there.
  const std::string& source() const;
};

// Throw inputError: `source` (the name for the text in errors), the place and what was expected.
// Stacks that are referred to and missing are unknown; `problems` gets a line on them.
allocationReport readAllocationReport(byteSource bytes, const std::string& source,
                                      std::vector<std::string>& problems);
growthReport readGrowthReport(byteSource bytes, const std::string& source);
pathReport readPathReport(byteSource bytes, const std::string& source);

// How long the samples were taken until what is alive was looked at, in milliseconds.
std::uint64_t lengthOf(const allocationReport& report);

// The innermost frame outside the JDK; the innermost one of a stack that has none.
std::optional<std::string> siteOf(const allocationReport& report, const allocationSite& site);

// Whether there is any site, class or path.
bool holdsAllocations(const allocationSession& session);

// Keeps sites, classes and paths in whose classes, frames, threads or fields `has` accepts a text.
void keepAllocations(allocationSession& session,
                     const std::function<bool(const std::string&)>& has);

}  // namespace viewer
