#include "merging.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <tuple>
#include <utility>

#include "tableParts.h"

namespace viewer {
namespace {

constexpr const char* kAllJvms = "all JVMs";

void addEach(std::vector<std::uint64_t>& to, const std::vector<std::uint64_t>& more) {
  to.resize(std::max(to.size(), more.size()));
  for (std::size_t i = 0; i < more.size(); i++) {
    to[i] = plus(to[i], more[i]);
  }
}

void takeEarlier(std::optional<std::uint64_t>& to, const std::optional<std::uint64_t>& other) {
  to = to && other ? std::min(*to, *other) : to ? to : other;
}

void takeLater(std::optional<std::uint64_t>& to, const std::optional<std::uint64_t>& other) {
  to = to && other ? std::max(*to, *other) : to ? to : other;
}

// The stacks of several reports, each once.
template <typename stack>
class stackMerger {
 public:
  explicit stackMerger(std::vector<stack>& to) : to_(to) {}

  std::optional<std::uint64_t> of(const std::vector<stack>& from,
                                  const std::optional<std::uint64_t>& index) {
    if (!index) {
      return {};
    }
    const stack& one = from[*index];
    const auto [found, isNew] = known_.emplace(std::pair(one.frames, one.isCut), to_.size());
    if (isNew) {
      to_.push_back(one);
      to_.back().id = found->second + 1;
    }
    return found->second;
  }

 private:
  std::vector<stack>& to_;
  std::map<std::pair<std::vector<std::string>, bool>, std::uint64_t> known_;
};

std::optional<std::uint64_t> endOf(const contentionReport& report) {
  return report.endedAt;
}
// Of a JVM that ends, what is alive is of its shutdown.
std::optional<std::uint64_t> endOf(const allocationReport& report) {
  return report.shutdownAt ? report.shutdownAt : report.endedAt;
}

// The span of all reports: ended when all have.
template <typename report>
void takeSpan(report& to, const std::vector<const report*>& all) {
  to.source = kAllJvms;
  to.startedAt = all.front()->startedAt;
  bool haveEnded = true;
  for (const report* one : all) {
    to.startedAt = std::min(to.startedAt, one->startedAt);
    to.writtenAt = std::max(to.writtenAt, one->writtenAt);
    takeLater(to.endedAt, endOf(*one));
    haveEnded = haveEnded && endOf(*one);
  }
  if (!haveEnded) {
    to.endedAt.reset();
  }
}

class contentionMerger {
 public:
  void add(const contentionReport& report) {
    for (const contentionLock& lock : report.locks) {
      add(report, lock, locks_, to_.locks);
    }
    for (const contentionLock& lock : report.otherLocks) {
      add(report, lock, others_, to_.otherLocks);
    }
    for (std::vector<deadlockedThread> circle : report.deadlocks) {
      for (deadlockedThread& one : circle) {
        const std::string name = lockNameOf(report, one.waitsFor);
        one.waitsFor = nextId_++;
        to_.names.emplace(one.waitsFor, name);
      }
      to_.deadlocks.push_back(std::move(circle));
    }
    add(report.cost);
    add(report.omitted);
    to_.isFiltered = to_.isFiltered || report.isFiltered;
  }

  contentionReport take() {
    for (std::vector<contentionLock>* locks : {&to_.locks, &to_.otherLocks}) {
      for (contentionLock& lock : *locks) {
        std::stable_sort(
            lock.pairs.begin(), lock.pairs.end(),
            [](const auto& left, const auto& right) { return left.nanos > right.nanos; });
      }
      std::stable_sort(locks->begin(), locks->end(), [](const auto& left, const auto& right) {
        return totalOf(left) > totalOf(right);
      });
    }
    return std::move(to_);
  }

 private:
  using key = std::tuple<lockKind, std::optional<std::string>, std::optional<std::string>>;

  void add(const contentionReport& report, const contentionLock& lock,
           std::map<key, std::size_t>& known, std::vector<contentionLock>& to) {
    const auto [found, isNew] =
        known.emplace(std::tuple(lock.kind, lock.className, lock.field), to.size());
    if (isNew) {
      contentionLock added;
      added.id = nextId_++;
      added.kind = lock.kind;
      added.className = lock.className;
      added.field = lock.field;
      to_.names.emplace(added.id, nameOf(added));
      to.push_back(std::move(added));
    }
    contentionLock& sum = to[found->second];
    sum.entries = plus(sum.entries, lock.entries);
    sum.blockedNanos = plus(sum.blockedNanos, lock.blockedNanos);
    sum.stillBlocked = plus(sum.stillBlocked, lock.stillBlocked);
    sum.stillBlockedNanos = plus(sum.stillBlockedNanos, lock.stillBlockedNanos);
    sum.maxNanos = std::max(sum.maxNanos, longestOf(report, lock).nanos);
    takeEarlier(sum.firstAt, lock.firstAt);
    takeLater(sum.lastAt, lock.lastAt);
    addEach(sum.histogram, lock.histogram);
    for (const contentionPair& pair : lock.pairs) {
      add(report, pair, found->second, to);
    }
  }

  // Without what the owner itself waits for: that is one lock, and here they are sums.
  void add(const contentionReport& report, contentionPair pair, std::size_t at,
           std::vector<contentionLock>& to) {
    pair.waiterStack = stacks_.of(report.stacks, pair.waiterStack);
    pair.ownerStack = stacks_.of(report.stacks, pair.ownerStack);
    pair.ownerWaitsFor.reset();
    const auto [found, isNew] = pairs_.emplace(
        std::tuple(&to == &to_.locks, at, pair.waiterThread, pair.waiterStack, pair.ownerThread,
                   pair.ownerStack, pair.holdingFrame, pair.ownerNote),
        to[at].pairs.size());
    if (isNew) {
      to[at].pairs.push_back(std::move(pair));
      return;
    }
    contentionPair& sum = to[at].pairs[found->second];
    sum.nanos = plus(sum.nanos, pair.nanos);
    sum.samples = plus(sum.samples, pair.samples);
  }

  void add(const contentionCost& cost) {
    using type = contentionCost;
    for (auto member : {&type::ticks, &type::ticksLeftOut, &type::safepoints, &type::safepointNanos,
                        &type::handshakes, &type::handshakeNanos, &type::processorNanos}) {
      to_.cost.*member = plus(to_.cost.*member, cost.*member);
    }
  }

  void add(const contentionOmissions& omitted) {
    using type = contentionOmissions;
    for (auto member :
         {&type::startsNotSeen, &type::blocksNotSampled, &type::locksNotSampled,
          &type::ownersChanged, &type::otherLocks, &type::classes, &type::pairs, &type::pairNanos,
          &type::stacks, &type::windows, &type::windowLocks, &type::stuck}) {
      to_.omitted.*member = plus(to_.omitted.*member, omitted.*member);
    }
  }

  using pairKey =
      std::tuple<bool, std::size_t, std::optional<std::string>, std::optional<std::uint64_t>,
                 std::optional<std::string>, std::optional<std::uint64_t>,
                 std::optional<std::uint64_t>, std::optional<std::string>>;

  contentionReport to_;
  std::uint64_t nextId_ = 1;
  std::map<key, std::size_t> locks_;
  std::map<key, std::size_t> others_;
  stackMerger<contentionStack> stacks_{to_.stacks};
  std::map<pairKey, std::size_t> pairs_;
};

void addSite(allocationSite& sum, const allocationSite& site) {
  sum.allocated += site.allocated;
  sum.alive += site.alive;
  sum.young += site.young;
  if (site.afterHooks) {
    (sum.afterHooks ? *sum.afterHooks : sum.afterHooks.emplace()) += *site.afterHooks;
  }
  addEach(sum.ages, site.ages);
  addEach(sum.seconds, site.seconds);
  for (const allocationThread& thread : site.threads) {
    const auto found =
        std::find_if(sum.threads.begin(), sum.threads.end(),
                     [&](const allocationThread& one) { return one.name == thread.name; });
    if (found == sum.threads.end()) {
      sum.threads.push_back(thread);
    } else {
      found->samples = plus(found->samples, thread.samples);
    }
  }
}

void addOmitted(omittedSamples& to, const omittedSamples& more) {
  using type = omittedSamples;
  for (auto member : {&type::lost, &type::lostBytes, &type::failed, &type::leftOut, &type::sites,
                      &type::stacks, &type::classes, &type::names, &type::thinned}) {
    to.*member = plus(to.*member, more.*member);
  }
}

void addSums(allocationReport& to, const allocationReport& one) {
  to.intervalBytes = std::max(to.intervalBytes, one.intervalBytes);
  to.collections = plus(to.collections, one.collections);
  to.isAfterCollection = to.isAfterCollection && one.isAfterCollection;
  to.allocated += one.allocated;
  to.alive += one.alive;
  to.young += one.young;
  to.others.sites = plus(to.others.sites, one.others.sites);
  to.others.allocated += one.others.allocated;
  to.others.alive += one.others.alive;
  to.others.young += one.others.young;
  to.cost.processorNanos = plus(to.cost.processorNanos, one.cost.processorNanos);
  to.cost.handlerNanos = plus(to.cost.handlerNanos, one.cost.handlerNanos);
  to.cost.samples = plus(to.cost.samples, one.cost.samples);
  addOmitted(to.omitted, one.omitted);
}

// "process 7", or the folder where the process is not known.
std::string jvmName(const profile& jvm) {
  return jvm.run && jvm.run->pid ? fmt::format("process {}", *jvm.run->pid) : jvm.name;
}

std::vector<std::string> notesOn(const std::vector<profile>& jvms) {
  std::string list = fmt::format("The {} JVMs of one command together:", jvms.size());
  std::string stuck;
  for (const profile& jvm : jvms) {
    list += fmt::format("\n  {}, {}", jvm.name, jvm.run ? jvmName(jvm) : "without run.json");
    if (jvm.run && !jvm.run->command.value_or("").empty()) {
      list += ": " + *jvm.run->command;
    }
    if (jvm.contentionReports.empty() && jvm.allocations.empty() && jvm.lockReports.empty() &&
        jvm.memoryReports.empty() && !jvm.exceptions) {
      list += " (has no report)";
    }
    for (const contentionReport& report : jvm.contentionReports) {
      if (!report.stuck.empty()) {
        stuck += fmt::format("\n  {} in {}: {}", jvmName(jvm), jvm.name,
                             counted(report.stuck.size(), "lock", "locks"));
      }
    }
  }
  std::vector<std::string> notes = {
      list,
      "Added up are contention (by the field or class of locks, so that locks of one class are one "
      "row), allocated objects (by class and stack), and exceptions. Not added up, but by JVM: "
      "lock "
      "and memory sessions, histograms, and what holds objects. Not shown: time lines, growth from "
      "samples, stuck threads, and what owners wait for. These are in the report of each JVM: "
      "twprofile report DIR/run-..."};
  if (!stuck.empty()) {
    notes.push_back("Threads are stuck, which the reports of these JVMs show:" + stuck);
  }
  return notes;
}

void moveAll(std::vector<std::string>& to, std::vector<std::string>& from) {
  std::move(from.begin(), from.end(), std::back_inserter(to));
}

// What stays by JVM, with the process in its name.
void moveSessions(profile& to, profile& jvm) {
  const std::string suffix = fmt::format(" ({})", jvmName(jvm));
  for (lockReport& report : jvm.lockReports) {
    report.sessionName += suffix;
    to.lockReports.push_back(std::move(report));
  }
  for (memoryReport& report : jvm.memoryReports) {
    report.sessionName += suffix;
    to.memoryReports.push_back(std::move(report));
  }
  for (allocationSession& session : jvm.allocations) {
    session.samples.reset();
    if (session.growth || session.paths) {
      session.name += suffix;
      to.allocations.push_back(std::move(session));
    }
  }
}

void addExceptions(profile& to, profile& jvm) {
  if (!jvm.exceptions) {
    return;
  }
  if (to.exceptions) {
    to.exceptions->addJvm(std::move(*jvm.exceptions));
  } else {
    to.exceptions = std::move(jvm.exceptions);
  }
}

// What is known of all of them: how they were profiled, by the first.
runInfo runOf(const std::vector<profile>& jvms) {
  runInfo run;
  for (const profile& jvm : jvms) {
    if (jvm.run) {
      run = *jvm.run;
      break;
    }
  }
  run.pid.reset();
  run.removedReports = 0;
  run.command = fmt::format("{} JVMs of one command", jvms.size());
  for (const profile& jvm : jvms) {
    run.removedReports += jvm.run ? jvm.run->removedReports : 0;
  }
  return run;
}

}  // namespace

contentionReport merged(const std::vector<const contentionReport*>& reports) {
  contentionMerger merger;
  for (const contentionReport* one : reports) {
    merger.add(*one);
  }
  contentionReport result = merger.take();
  takeSpan(result, reports);
  result.settings = reports.front()->settings;
  result.parks = reports.front()->parks;
  return result;
}

allocationReport merged(const std::vector<const allocationReport*>& reports) {
  allocationReport result;
  takeSpan(result, reports);
  result.settings = reports.front()->settings;
  result.isAfterCollection = true;
  stackMerger<allocationStack> stacks(result.stacks);
  std::map<std::pair<std::string, std::optional<std::uint64_t>>, std::size_t> known;
  for (const allocationReport* report : reports) {
    addSums(result, *report);
    for (const allocationSite& site : report->sites) {
      const auto stack = stacks.of(report->stacks, site.stack);
      const auto [found, isNew] =
          known.emplace(std::pair(site.className, stack), result.sites.size());
      if (isNew) {
        allocationSite& added = result.sites.emplace_back();
        added.id = result.sites.size();
        added.className = site.className;
        added.stack = stack;
      }
      addSite(result.sites[found->second], site);
    }
  }
  return result;
}

profile merged(std::vector<profile> jvms) {
  profile all;
  all.run = runOf(jvms);
  all.notes = notesOn(jvms);
  std::map<std::string, std::vector<const contentionReport*>> contention;  // by what they have
  std::vector<const allocationReport*> allocations;
  for (const profile& jvm : jvms) {
    for (const contentionReport& report : jvm.contentionReports) {
      contention[report.parks].push_back(&report);
    }
    for (const allocationSession& session : jvm.allocations) {
      if (session.samples) {
        allocations.push_back(&*session.samples);
      }
    }
  }
  for (const auto& [parks, reports] : contention) {
    all.contentionReports.push_back(merged(reports));
  }
  if (!allocations.empty()) {
    allocationSession& session = all.allocations.emplace_back();
    session.name = kAllJvms;
    session.samples = merged(allocations);
  }
  for (profile& jvm : jvms) {
    moveAll(all.inputs, jvm.inputs);
    moveAll(all.unfinished, jvm.unfinished);
    moveAll(all.problems, jvm.problems);
    all.stacks.add(jvm.stacks);
    addExceptions(all, jvm);
    moveSessions(all, jvm);
  }
  return all;
}

profile readCommands(const std::vector<std::filesystem::path>& inputs) {
  std::vector<profile> jvms = readJvms(inputs);
  if (jvms.size() > 1) {
    return merged(std::move(jvms));
  }
  profile all = readProfile(inputs);
  all.notes.push_back(jvms.empty() ? "--all: files are shown as they are; it is for folders."
                                   : "--all: the command has no other JVM with results.");
  return all;
}

}  // namespace viewer
