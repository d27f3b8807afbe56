// Many runs of many hosts as one answer: what locks, exceptions and allocations come to by class
// and site, and how that spreads over the hosts.
//
// The runs are read one after the other, by a few threads of which each has one run in memory. What
// stays of a run is its sums (runSums.h), and of a host its spread: memory goes with the number of
// distinct names, not with that of runs. Results do not depend on the threads: runs are added up in
// their order.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "runSums.h"

namespace viewer {

struct fleetOptions {
  // Names of a table that have a row of their own, in the order in which hosts bring them; the
  // others are added up as one.
  std::size_t names = 50'000;
  std::size_t threads = 2;
  std::string grep;  // as for filter(); empty: all
};

// A name over all hosts that have it. The median is that of these hosts.
struct spreadSum {
  sumKey key;
  std::uint64_t sum = 0;
  std::uint64_t median = 0;
  bool isMedianRounded = false;
  std::uint64_t worst = 0;
  std::string worstHost;
  std::size_t hosts = 0;
  std::size_t runs = 0;
};

struct fleetTable {
  const sumKind* kind = nullptr;
  std::size_t hosts = 0;  // with reports of this kind, whether there is anything in them or not
  std::size_t runs = 0;
  std::vector<spreadSum> rows;        // the largest sum first
  std::optional<spreadSum> others{};  // names without a row; their runs are not known: 0
};

// A setting, or what else decides what numbers mean, and how many runs have which value. Values
// beyond the first few are counted as one.
struct fleetSetting {
  std::string name;
  std::map<std::string, std::size_t> runs;
};

struct fleet {
  std::size_t runs = 0;      // that were found, and inputs that cannot be read
  std::size_t complete = 0;  // of these, those that were read
  std::size_t partly = 0;    // read except for some of their files
  std::size_t withoutReport = 0;
  std::size_t notRead = 0;
  std::size_t hosts = 0;
  std::size_t unknownHosts = 0;      // of these, runs that do not tell theirs
  std::uint64_t shortestMillis = 0;  // of the profiles of a run
  std::uint64_t longestMillis = 0;
  std::vector<fleetTable> tables;  // kinds that no run has are omitted
  // What reports do not have, in words, and of how many runs: "samples of allocations were lost".
  std::map<std::string, std::size_t> omissions;
  std::vector<fleetSetting> settings;  // all of them
  std::vector<std::string> problems;   // the first of them
  std::size_t moreProblems = 0;
  std::vector<std::string> unfinished;  // reports that are being written, the first of them
  std::size_t moreUnfinished = 0;
  std::size_t names = 0;  // the limit
};

// Reads all runs of the inputs, see placesOf(). Nothing is thrown for what cannot be read.
fleet readFleet(const std::vector<std::filesystem::path>& inputs, const fleetOptions& options);

}  // namespace viewer
