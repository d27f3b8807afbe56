// Outcomes of reports are read by some threads while others write them.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "agent/profiler.h"
#include "agent/reportOutcome.h"

namespace {

using agent::reportOutcomes;

constexpr std::int32_t kLocks = agent::kMutexLockProfiler;
constexpr std::int32_t kMemory = agent::kMemoryProfiler;

TEST(reportOutcomeThreads, isReadWhileReportsAreWritten) {
  constexpr int kRounds = 2000;
  const auto write = [](std::int32_t kind, const std::string& path) {
    for (int i = 0; i < kRounds; ++i) {
      reportOutcomes::ofProcess().begin(kind);
      reportOutcomes::ofProcess().end(kind, {path, path, path.size()});
    }
  };
  std::vector<std::thread> threads;
  threads.emplace_back(write, kLocks, std::string(30, 'a'));
  threads.emplace_back(write, kLocks, std::string(40, 'b'));
  threads.emplace_back(write, kMemory, std::string(50, 'c'));
  for (int i = 0; i < kRounds; ++i) {
    for (const std::int32_t kind : {kLocks, kMemory}) {
      if (const auto last = reportOutcomes::ofProcess().last(kind)) {
        EXPECT_EQ(last->path, last->problem);
        EXPECT_EQ(last->path.size(), last->bytes);
      }
    }
  }
  for (std::thread& each : threads) {
    each.join();
  }
}

}  // namespace
