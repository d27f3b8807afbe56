// The report of an allocation profile, in the form that docs/reports.md describes.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "allocations/allocationRecorder.h"
#include "allocations/allocationSettings.h"
#include "allocations/survivingSamples.h"
#include "instruments/costAccount.h"
#include "support/jsonWriter.h"

namespace agent {

// What was alive at some moment. Times are steady nanoseconds.
struct aliveState {
  std::int64_t at = 0;
  std::uint32_t collections = 0;
  bool afterCollection = false;  // one that was asked for came just before
  std::vector<siteState> sites;  // by index
};

struct allocationSession {
  allocationSettings settings;
  std::int64_t started = 0;   // 0: there was none
  std::int64_t ended = 0;     // 0: it goes on
  std::int64_t shutdown = 0;  // when the VM began to shut down; 0: not yet
};

// What the shutdown hooks have left of what was alive before, by site.
struct afterHooks {
  std::uint32_t collections = 0;  // since then
  std::vector<amounts> sites;
};

constexpr std::size_t kMostReportedSites = 1000;

void writeAllocationReport(support::jsonWriter& json, const allocationSession& session,
                           const allocationRecorder& recorder, const survivingSamples& samples,
                           const aliveState& alive, const std::optional<afterHooks>& left,
                           const instruments::cost& cost, std::int64_t now);

}  // namespace agent
