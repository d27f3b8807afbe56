#include "fleet.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "hostSpread.h"
#include "runInputs.h"
#include "utf8.h"

namespace viewer {
namespace {

constexpr std::size_t kMostLines = 100;  // of problems, and of unfinished reports
constexpr std::size_t kMostValues = 20;  // of a setting
constexpr const char* kOtherValues = "(others)";

// What is kept of a run.
struct runResult {
  hostName host;
  std::string jvm;           // what tells it from others of the host; empty where the run does not
  std::vector<sums> tables;  // one for each kind
  std::vector<std::size_t> sessions;  // 0: the run has no reports of the kind
  std::map<std::string, std::string> settings;
  std::set<const char*> omissions;
  std::uint64_t millis = 0;
  std::vector<std::string> problems;
  std::vector<std::string> unfinished;
  bool hasReports = false;
};

std::map<std::string, std::string> settingsOf(const profile& run) {
  std::map<std::string, std::string> result;
  if (run.run) {
    result["version of the agent"] = run.run->agent.value_or("not known");
  }
  for (const contentionReport& report : run.contentionReports) {
    result["contention, samples a second"] = std::to_string(report.settings.samplesPerSecond);
    result["contention, window in ms"] = std::to_string(report.settings.windowMillis);
    result["contention, locks of java.util.concurrent"] = report.parks;
  }
  for (const allocationSession& session : run.allocations) {
    if (session.samples) {
      result["allocations, bytes for a sample at the end"] =
          std::to_string(session.samples->intervalBytes);
      result["allocations, last report after a collection"] =
          session.samples->isAfterCollection ? "yes" : "no";
    }
  }
  if (const exceptionCounts* counts = countsOf(run)) {
    result["exceptions are counted where they are"] = counts->isOfMade ? "made" : "thrown";
  }
  return result;
}

// What the sums of a run do not have.
std::set<const char*> omissionsOf(const profile& run) {
  std::set<const char*> result;
  const auto add = [&result](bool isSo, const char* what) {
    if (isSo) {
      result.insert(what);
    }
  };
  add(run.run && run.run->removedReports > 0, "reports were deleted because there were too many");
  for (const contentionReport& report : run.contentionReports) {
    const contentionOmissions& omitted = report.omitted;
    add(!report.endedAt, "the contention profile had not been stopped when its report was written");
    add(omitted.startsNotSeen > 0, "blocks had begun before the contention profile");
    add(omitted.pairs > 0 || omitted.blocksNotSampled > 0,
        "samples of blocked threads had no room, and are of no site");
    add(report.settings.samplesPerSecond == 0, "contention was not sampled, and has no sites");
  }
  for (const allocationSession& session : run.allocations) {
    if (session.samples) {
      const allocationReport& report = *session.samples;
      add(!report.endedAt && !report.shutdownAt,
          "the allocation profile had not been stopped when its report was written");
      add(report.collections == 0, "no collection ran, so that no object is known to be alive");
      add(report.omitted.lost > 0 || report.omitted.failed > 0, "samples of allocations were lost");
      add(report.others.alive.bytes > 0, "sites of allocations are not listed, and have no row");
    }
  }
  add(run.exceptions && countsOf(run) == nullptr && !lossesOf(*run.exceptions).empty(),
      "records of exceptions were lost");
  return result;
}

std::uint64_t millisOf(const profile& run) {
  std::uint64_t millis = 0;
  for (const contentionReport& report : run.contentionReports) {
    millis = std::max(millis, lengthOf(report));
  }
  for (const allocationSession& session : run.allocations) {
    millis = session.samples ? std::max(millis, lengthOf(*session.samples)) : millis;
  }
  return millis;
}

bool hasAnyReport(const profile& run) {
  return !run.lockReports.empty() || run.exceptions || !run.memoryReports.empty() ||
         !run.contentionReports.empty() || !run.allocations.empty();
}

runResult resultOf(const runPlace& place, profile run, const std::string& grep) {
  if (!grep.empty()) {
    filter(run, grep);
  }
  runResult result;
  result.host = hostOf(place, run);
  if (run.run && run.run->pid && run.run->started) {
    result.jvm = std::to_string(*run.run->pid) + ' ' + *run.run->started;
  }
  for (const sumKind& kind : sumKinds()) {
    result.sessions.push_back(kind.sessionsOf(run));
    result.tables.push_back(result.sessions.back() > 0 ? kind.of(run) : sums());
  }
  result.settings = settingsOf(run);
  result.omissions = omissionsOf(run);
  result.millis = millisOf(run);
  result.hasReports = hasAnyReport(run);
  result.problems = std::move(run.problems);
  result.unfinished = std::move(run.unfinished);
  return result;
}

// Sums up to a number of names; those of further ones together.
struct boundedSums {
  struct value {
    std::uint64_t sum = 0;
    std::size_t runs = 0;
  };
  std::map<sumKey, value> names;
  std::optional<std::uint64_t> others;

  void add(const sumKey& key, std::uint64_t sum, std::size_t limit) {
    auto found = names.find(key);
    if (found == names.end()) {
      if (names.size() == limit) {
        others = plus(others.value_or(0), sum);
        return;
      }
      found = names.emplace(key, value()).first;
    }
    found->second.sum = plus(found->second.sum, sum);
    found->second.runs++;
  }
};

// The largest first, so that these have a row when there is no room for all.
std::vector<sums::const_iterator> byWeight(const sums& all) {
  std::vector<sums::const_iterator> result;
  for (auto one = all.begin(); one != all.end(); ++one) {
    result.push_back(one);
  }
  std::stable_sort(result.begin(), result.end(), [](const auto& left, const auto& right) {
    return left->second > right->second;
  });
  return result;
}

// What the runs of one host come to.
struct hostSums {
  bool isKnown = true;
  std::set<std::string> jvms;
  std::array<boundedSums, std::tuple_size_v<std::remove_cvref_t<decltype(sumKinds())>>> tables;
  std::array<std::size_t, std::tuple_size_v<std::remove_cvref_t<decltype(sumKinds())>>> runs{};
};

class fleetMerger {
 public:
  fleetMerger(const fleetOptions& options, std::map<std::string, std::size_t> runsOfHosts)
      : options_(options), toCome_(std::move(runsOfHosts)) {
    result_.names = options.names;
  }

  // Of an input without runs.
  void addProblem(const std::string& problem) {
    result_.runs++;
    result_.notRead++;
    addLines(result_.problems, result_.moreProblems, {problem});
  }

  void add(const runResult& run) {
    addToCounts(run);
    if (run.hasReports) {
      addToHost(run);
    }
    if (auto left = toCome_.find(run.host.name); left != toCome_.end() && --left->second == 0) {
      toCome_.erase(left);
      close(run.host.name);
    }
  }

  fleet take() {
    while (!hosts_.empty()) {
      close(hosts_.begin()->first);
    }
    for (std::size_t i = 0; i < sumKinds().size(); i++) {
      if (tables_[i].hosts > 0) {
        result_.tables.push_back(taken(i));
      }
    }
    for (auto& [name, runs] : settings_) {
      result_.settings.push_back({name, std::move(runs)});
    }
    return std::move(result_);
  }

 private:
  struct row {
    hostSpread spread;
    std::size_t runs = 0;
  };
  struct table {
    std::map<sumKey, row> rows;
    hostSpread others;
    std::size_t hosts = 0;
    std::size_t runs = 0;
  };

  static void addLines(std::vector<std::string>& to, std::size_t& more,
                       const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
      if (to.size() < kMostLines) {
        to.push_back(line);
      } else {
        more++;
      }
    }
  }

  void addToCounts(const runResult& run) {
    if (!run.hasReports && run.problems.empty() && run.unfinished.empty() && run.settings.empty()) {
      return;  // a folder of an archive with other files
    }
    result_.runs++;
    const bool isWhole = run.problems.empty();
    std::size_t& kind = run.hasReports ? (isWhole ? result_.complete : result_.partly)
                        : isWhole      ? result_.withoutReport
                                       : result_.notRead;
    kind++;
    addLines(result_.problems, result_.moreProblems, run.problems);
    addLines(result_.unfinished, result_.moreUnfinished, run.unfinished);
  }

  void addToHost(const runResult& run) {
    if (run.millis > 0) {
      result_.longestMillis = std::max(result_.longestMillis, run.millis);
      result_.shortestMillis =
          result_.shortestMillis == 0 ? run.millis : std::min(result_.shortestMillis, run.millis);
    }
    for (const auto& [name, value] : run.settings) {
      std::map<std::string, std::size_t>& values = settings_[name];
      const bool hasRoom = values.contains(value) || values.size() < kMostValues;
      values[hasRoom ? value : kOtherValues]++;
    }
    for (const char* what : run.omissions) {
      result_.omissions[what]++;
    }
    hostSums& host = hosts_[run.host.name];
    host.isKnown = run.host.isKnown;
    if (!run.jvm.empty() && !host.jvms.insert(run.jvm).second) {
      result_.omissions["another run has the same host, process and start: copies count twice"]++;
    }
    for (std::size_t i = 0; i < run.tables.size(); i++) {
      host.runs[i] += run.sessions[i] > 0 ? 1 : 0;
      for (const auto& one : byWeight(run.tables[i])) {
        host.tables[i].add(one->first, one->second, options_.names);
      }
    }
  }

  // When the last run of a host was read: what is left of it is its part of the spread.
  void close(const std::string& name) {
    const auto found = hosts_.find(name);
    if (found == hosts_.end()) {
      return;
    }
    const std::size_t number = hostNames_.size();
    hostNames_.push_back(name);
    result_.hosts++;
    result_.unknownHosts += found->second.isKnown ? 0 : 1;
    for (std::size_t i = 0; i < tables_.size(); i++) {
      if (found->second.runs[i] > 0) {
        tables_[i].hosts++;
        tables_[i].runs += found->second.runs[i];
        close(number, found->second.tables[i], tables_[i]);
      }
    }
    hosts_.erase(found);
  }

  void close(std::size_t number, const boundedSums& host, table& to) const {
    std::optional<std::uint64_t> others = host.others;
    for (const auto& [key, value] : host.names) {
      auto found = to.rows.find(key);
      if (found == to.rows.end()) {
        if (to.rows.size() == options_.names) {
          others = plus(others.value_or(0), value.sum);
          continue;
        }
        found = to.rows.emplace(key, row()).first;
      }
      found->second.spread.add(number, value.sum);
      found->second.runs += value.runs;
    }
    if (others) {
      to.others.add(number, *others);
    }
  }

  spreadSum shown(const sumKey& key, const hostSpread& spread, std::size_t runs) const {
    return {.key = key,
            .sum = spread.sum(),
            .median = spread.median(),
            .isMedianRounded = spread.isMedianRounded(),
            .worst = spread.worst(),
            .worstHost = hostNames_[spread.worstHost()],
            .hosts = spread.hosts(),
            .runs = runs};
  }

  fleetTable taken(std::size_t i) const {
    const table& from = tables_[i];
    fleetTable result = {
        .kind = &sumKinds()[i], .hosts = from.hosts, .runs = from.runs, .rows = {}};
    for (const auto& [key, one] : from.rows) {
      result.rows.push_back(shown(key, one.spread, one.runs));
    }
    std::stable_sort(
        result.rows.begin(), result.rows.end(),
        [](const spreadSum& left, const spreadSum& right) { return left.sum > right.sum; });
    if (from.others.hosts() > 0) {
      result.others = shown({}, from.others, 0);
    }
    return result;
  }

  const fleetOptions& options_;
  std::map<std::string, std::size_t> toCome_;  // runs of hosts that were not read yet
  std::map<std::string, hostSums> hosts_;      // of which not all runs were read
  std::vector<std::string> hostNames_;
  std::array<table, std::tuple_size_v<std::remove_cvref_t<decltype(sumKinds())>>> tables_;
  std::map<std::string, std::map<std::string, std::size_t>> settings_;
  fleet result_;
};

// Does `work(number, turn)` for each number below `count`, by some threads; `turn()` returns when
// the work of all numbers before is done. The first exception ends it, and is thrown.
template <typename action>
void inTurns(std::size_t count, std::size_t threads, action work) {
  std::atomic<std::size_t> next = 0;
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t turn = 0;
  std::exception_ptr problem;
  const auto waitFor = [&](std::size_t number) {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return turn == number; });
  };
  const auto run = [&] {
    for (std::size_t number = next++; number < count; number = next++) {
      std::exception_ptr own;
      try {
        work(number, [&] { waitFor(number); });
      } catch (...) {
        own = std::current_exception();
      }
      waitFor(number);
      const std::lock_guard lock(mutex);
      problem = problem ? problem : own;
      if (problem) {
        next = count;
      }
      turn++;
      changed.notify_all();
    }
  };
  std::vector<std::jthread> others;
  for (std::size_t i = 1; i < std::min(threads, count); i++) {
    others.emplace_back(run);
  }
  run();
  others.clear();
  if (problem) {
    std::rethrow_exception(problem);
  }
}

struct hostsOfPlace {
  runPlace place;
  std::vector<std::string> hosts;
};

// The places in the order of their hosts, so that the runs of one come one after the other.
std::vector<hostsOfPlace> byHost(std::vector<runPlace> places, std::size_t threads,
                                 std::map<std::string, std::size_t>& runs) {
  std::vector<hostsOfPlace> result(places.size());
  inTurns(places.size(), threads, [&](std::size_t i, const auto&) {
    result[i].place = std::move(places[i]);
    result[i].hosts = hostsIn(result[i].place);
  });
  for (const hostsOfPlace& one : result) {
    for (const std::string& host : one.hosts) {
      runs[host]++;
    }
  }
  std::stable_sort(result.begin(), result.end(),
                   [](const auto& left, const auto& right) { return left.hosts < right.hosts; });
  return result;
}

}  // namespace

fleet readFleet(const std::vector<std::filesystem::path>& inputs, const fleetOptions& options) {
  std::vector<std::string> problems;
  std::map<std::string, std::size_t> runs;
  const std::vector<hostsOfPlace> places =
      byHost(placesOf(inputs, problems), options.threads, runs);
  fleetMerger merger(options, std::move(runs));
  for (const std::string& problem : problems) {
    merger.addProblem(problem);
  }
  inTurns(places.size(), options.threads, [&](std::size_t i, const auto& turn) {
    readRunsIn(places[i].place, [&](profile run) {
      const runResult result = resultOf(places[i].place, std::move(run), options.grep);
      turn();
      merger.add(result);
    });
  });
  return merger.take();
}

}  // namespace viewer
