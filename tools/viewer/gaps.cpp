#include "gaps.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string_view>

namespace viewer {
namespace {

constexpr const char* kEndless = "the JVM was killed or is still running";

// The companion's defaults and limits.
// BEGIN options: made by scripts/make-options
constexpr int kDefaultTopLocks = 20;
constexpr int kDefaultTopClasses = 50;
// END options
constexpr std::size_t kMostLocks = 10'000;

// Exceptions thrown by classes whose names begin so are never recorded.
constexpr std::array<std::string_view, 4> kNeverRecorded = {
    "sun.", "com.korvane.tw", "com.korvane.koragent", "com.korvane.commons"};

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return text;
}

// The names in an option's value, separated by commas.
std::vector<std::string> namesIn(const std::string& list) {
  std::vector<std::string> names;
  for (std::size_t start = 0; start <= list.size();) {
    const std::size_t end = std::min(list.find(',', start), list.size());
    const std::size_t first = list.find_first_not_of(" \t", start);
    if (first < end) {
      names.push_back(list.substr(first, list.find_last_not_of(" \t", end - 1) - first + 1));
    }
    start = end + 1;
  }
  return names;
}

std::vector<std::string> namesOf(const profile& all, const std::string& option) {
  return namesIn(optionOf(all, option).value_or(""));
}

// How many locks or classes a report has at most; none for no limit, or none that is known.
std::optional<std::size_t> mostOf(const profile& all, const std::string& option, int otherwise) {
  if (!all.run) {
    return {};
  }
  const std::string text = optionOf(all, option).value_or("");
  int most = otherwise;
  std::from_chars(text.data(), text.data() + text.size(), most);
  return most > 0 ? std::optional(static_cast<std::size_t>(most)) : std::nullopt;
}

bool isExact(const std::string& pattern) {
  return pattern.find('*') == pattern.npos;
}

std::string fileName(const std::string& path) {
  return std::filesystem::path(path).filename();
}

template <typename report>
std::vector<std::string> sourcesOf(const std::vector<report>& reports) {
  std::vector<std::string> sources;
  sources.reserve(reports.size());
  for (const report& one : reports) {
    sources.push_back(one.source);
  }
  return sources;
}

// Reports of one kind, "lock" or "memory", whose files begin with `before`, that are not there.
template <typename report>
std::vector<std::string> reportGaps(const profile& all, const std::vector<report>& reports,
                                    const std::string& kind, const std::string& option) {
  const std::string before = option == "locks" ? "locks-" : "memory-";
  std::vector<std::string> reasons;
  for (const std::string& file : all.unfinished) {
    if (fileName(file).starts_with(before)) {
      reasons.push_back(
          fmt::format("a {} session did not end: {} ({})", kind, kEndless, fileName(file)));
    }
  }
  if (reports.empty() && reasons.empty()) {
    const bool isOff = all.run && !isOn(all, option);
    reasons.push_back(
        !all.run ? fmt::format("no {} report to check", kind)
        : isOff  ? fmt::format("no {} report: the run was started without {}=true", kind, option)
        : all.run->removedReports > 0
            ? fmt::format("no {} report: {} reports of the run were deleted", kind,
                          all.run->removedReports)
            : fmt::format("no {} report: no session began, or {}", kind, kEndless));
  }
  if (const std::string missing = missingNumbers(all, sourcesOf(reports), before);
      !missing.empty()) {
    reasons.push_back(fmt::format(
        "no report of {} session {}: it was not written, or was deleted when the run had too many "
        "files",
        kind, missing));
  }
  return reasons;
}

// Why exceptions may have been thrown that the user has excluded. The options of a run do not hold
// for what was started later on.
std::optional<std::string> excluded(const profile& all, const std::string& pattern) {
  const std::optional<captureEnd>& counted = all.exceptions->counted();
  const bool isCounted = counted && counted->agent;
  if (isCounted && counted->agent->blackListed == 0) {
    return {};  // none was thrown
  }
  const std::string thrown = fmt::format("{} exceptions of excluded classes were thrown",
                                         isCounted ? counted->agent->blackListed : 0);
  if (!isOn(all, "exceptions") || all.exceptions->ends() > 1) {
    return isCounted ? std::optional(thrown + ", and it is not known which ones") : std::nullopt;
  }
  for (const std::string& name : namesOf(all, "exceptions.exclude")) {
    if (matches(lowerCase(pattern), lowerCase(name))) {
      return fmt::format("{} was not recorded: exceptions.exclude names it{}", name,
                         isCounted ? "; " + thrown : "");
    }
  }
  return {};
}

bool hasClass(const profile& all, const std::string& pattern) {
  return std::any_of(
      all.memoryReports.begin(), all.memoryReports.end(), [&](const memoryReport& report) {
        return std::any_of(report.classes.begin(), report.classes.end(),
                           [&](const classEntry& one) { return matches(pattern, one.name); });
      });
}

// Whether all names that fit the pattern begin with `start`.
bool allBeginWith(const std::string& pattern, const std::string& start) {
  return pattern.substr(0, pattern.find('*')).starts_with(start);
}

// Whether there may be names that fit the pattern and begin with `start`.
bool mayBeginWith(const std::string& pattern, const std::string& start) {
  return allBeginWith(pattern, start) ||
         (!isExact(pattern) && start.starts_with(pattern.substr(0, pattern.find('*'))));
}

// Why it is not known that instances of these classes were tracked.
std::optional<std::string> notTracked(const profile& all, const std::string& pattern) {
  const bool isReported = hasClass(all, pattern);
  if (isReported && isExact(pattern)) {
    return {};
  }
  if (!all.run) {
    return isReported ? std::nullopt
                      : std::optional<std::string>(
                            "no object of a matching class is in the report, and there is no "
                            "run.json with the classes that were tracked");
  }
  const std::vector<std::string> tracked = namesOf(all, "memory.track");
  const std::string list = fmt::format("memory.track={}", fmt::join(tracked, ","));
  if (tracked.empty()) {
    return isReported ? std::nullopt
                      : std::optional<std::string>(
                            "no object of a matching class was tracked: the run was started "
                            "without memory.track");
  }
  const bool isNamed = std::find(tracked.begin(), tracked.end(), pattern) != tracked.end();
  const bool isCovered =
      isNamed || std::any_of(tracked.begin(), tracked.end(), [&](const std::string& one) {
        return !isExact(one) && allBeginWith(pattern, one.substr(0, one.size() - 1));
      });
  if (!isCovered) {
    return fmt::format("not all matching classes were tracked: {}", list);
  }
  if (isReported) {
    return {};
  }
  const std::uint64_t found = all.sweeps.value_or(sweepSum()).classes;
  const bool areAllNames = std::all_of(tracked.begin(), tracked.end(), isExact);
  if (found == 0 || (areAllNames && found < tracked.size())) {
    return fmt::format(
        "no object of a matching class is in the report, and at most {} of the classes of {} were "
        "loaded: is a name misspelt?",
        found, list);
  }
  return isNamed ? std::nullopt
                 : std::optional(fmt::format(
                       "no object of a matching class is in the report, and {} does not name the "
                       "class: is it misspelt? To check it, name it there",
                       list));
}

// Why some objects of a tracked class were not tracked.
std::optional<std::string> notAllTracked(const profile& all, const std::string& pattern) {
  if (!all.sweeps) {
    return {};
  }
  for (const std::string& name : all.sweeps->full) {
    if (matches(pattern, name)) {
      return fmt::format(
          "{} had more objects than memory.limit allows, and those beyond it were not tracked",
          name);
    }
  }
  return all.sweeps->isCut ? std::optional<std::string>(
                                 "the sweep file was full, so it is not known whether all objects "
                                 "were tracked")
                           : std::nullopt;
}

// Why tracked objects may not be in the report.
std::optional<std::string> notReported(const profile& all, const std::string& pattern) {
  if (isExact(pattern) && hasClass(all, pattern)) {
    return {};
  }
  if (isExact(pattern) && pattern.find('.') == pattern.npos) {
    return "classes in the unnamed package are never reported";
  }
  for (const std::string& name : namesOf(all, "memory.excludeClasses")) {
    // The agent searches for a name anywhere in the text of the option.
    if (matches(pattern, name) || (isExact(pattern) && name.find(pattern) != name.npos)) {
      return fmt::format("memory.excludeClasses names {}", name);
    }
  }
  for (const std::string& package : namesOf(all, "memory.excludePackages")) {
    const bool isIn = isExact(pattern)
                          ? package.find(pattern.substr(0, pattern.rfind('.'))) != package.npos
                          : mayBeginWith(pattern, package + '.');
    if (isIn) {
      return fmt::format("memory.excludePackages names {}", package);
    }
  }
  const std::optional<std::size_t> most = mostOf(all, "memory.top", kDefaultTopClasses);
  for (const memoryReport& report : all.memoryReports) {
    if (most && report.classes.size() >= *most) {
      return fmt::format(
          "the report of session {} has {} classes and no room for more: memory.top limits them, "
          "-1 "
          "for all",
          report.sessionId, report.classes.size());
    }
  }
  return {};
}

// Why records may be missing of exceptions of these classes.
std::vector<std::string> recordGaps(const profile& all, const std::string& pattern) {
  const auto isFiltered = [&](std::string_view start) {
    return allBeginWith(lowerCase(pattern), std::string(start));
  };
  std::vector<std::string> reasons;
  if (!all.exceptions) {
    const bool isOff = all.run && !isOn(all, "exceptions");
    reasons.push_back(!all.run ? "no exception file to check"
                      : isOff  ? "no exception file: the run was started without exceptions=true"
                               : fmt::format("no exception file: {}", kEndless));
  } else {
    reasons = lossesOf(*all.exceptions);
    if (all.exceptions->counted() && !all.exceptions->counted()->agent) {
      reasons.push_back(
          "the end line lacks what the agent could not record: an older version wrote it");
    }
    const std::string missing = missingNumbers(all, all.exceptions->sources(), "exceptions-");
    if (!missing.empty() && all.exceptions->recordsGone() == 0) {
      reasons.push_back(fmt::format(
          "exception file {} is missing: the oldest files of a run are deleted", missing));
    }
    if (const std::optional<std::string> reason = excluded(all, pattern)) {
      reasons.push_back(*reason);
    }
  }
  if (const auto found = std::find_if(kNeverRecorded.begin(), kNeverRecorded.end(), isFiltered);
      found != kNeverRecorded.end()) {
    reasons.push_back(
        fmt::format("exceptions thrown by classes of {}* are never recorded", *found));
  }
  return reasons;
}

// Why the counts of the agent do not have all exceptions of these classes.
std::vector<std::string> countGaps(const exceptionCounts& counts, const std::string& pattern) {
  std::vector<std::string> reasons;
  if (counts.other.thrown > 0 && !matches(pattern, kOtherClasses)) {
    reasons.push_back(
        fmt::format("{} exceptions are of classes that the agent had no room to count one by one",
                    counts.other.thrown));
  }
  // The VM makes some of them before anything can count them.
  for (const char* ready : {"java.lang.OutOfMemoryError", "java.lang.StackOverflowError"}) {
    if (counts.isOfMade && pattern == ready) {
      reasons.push_back(fmt::format(
          "exceptions were counted where they are made, and the VM keeps some of {} ready", ready));
    }
  }
  return reasons;
}

// Whether the counts were taken after the last exception.
bool areUpToTheEnd(const exceptionLog& log) {
  return log.counted() && log.recordsWithoutEnd() == 0 &&
         (!log.counted()->agent || log.counted()->agent->seen <= log.counts()->total.thrown);
}

}  // namespace

std::string missingNumbers(const profile& all, const std::vector<std::string>& files,
                           std::string_view before) {
  std::set<std::int64_t> numbers;
  for (const std::string& file : files) {
    const std::string name = fileName(file);
    std::int64_t number = 0;
    if (name.starts_with(before) &&
        std::from_chars(name.data() + before.size(), name.data() + name.size(), number).ec ==
            std::errc()) {
      numbers.insert(number);
    }
  }
  if (all.name.empty() || numbers.empty()) {
    return "";
  }
  std::string missing;
  std::int64_t next = 1;
  for (const std::int64_t number : numbers) {
    if (next < number) {
      missing += fmt::format("{}{}", missing.empty() ? "" : ", ", next);
      missing += number - next > 1 ? fmt::format(" to {}", number - 1) : "";
    }
    next = number + 1;
  }
  return missing;
}

std::vector<std::string> lockGaps(const profile& all) {
  std::vector<std::string> reasons = reportGaps(all, all.lockReports, "lock", "locks");
  const std::optional<std::size_t> most = mostOf(all, "locks.top", kDefaultTopLocks);
  for (const lockReport& report : all.lockReports) {
    if (report.locks.empty()) {
      reasons.push_back(
          fmt::format("no lock was recorded in session {}: it ended before its detail phase (use a "
                      "shorter locks.summary), or no thread had blocked before that phase (use a "
                      "longer one)",
                      report.sessionId));
    } else if (report.locks.size() >= std::min(most.value_or(kMostLocks), kMostLocks)) {
      reasons.push_back(
          fmt::format("session {} recorded {} locks and had no room for more: locks.top limits "
                      "them, -1 for all",
                      report.sessionId, report.locks.size()));
    }
  }
  return reasons;
}

std::vector<std::string> exceptionGaps(const profile& all, const std::string& pattern) {
  const exceptionCounts* counts = countsOf(all);
  if (counts == nullptr) {
    return recordGaps(all, pattern);
  }
  std::vector<std::string> reasons = countGaps(*counts, pattern);
  if (!areUpToTheEnd(*all.exceptions)) {
    // Of what came later there are records alone.
    for (const std::string& reason : recordGaps(all, pattern)) {
      reasons.push_back(fmt::format("counts end at {}, and {}", counts->end, reason));
    }
  }
  return reasons;
}

std::vector<std::string> survivorGaps(const profile& all, const std::string& pattern) {
  std::vector<std::string> reasons = reportGaps(all, all.memoryReports, "memory", "memory");
  if (all.memoryReports.empty()) {
    return reasons;
  }
  for (const auto& reason :
       {notTracked(all, pattern), notAllTracked(all, pattern), notReported(all, pattern)}) {
    if (reason) {
      reasons.push_back(*reason);
    }
  }
  return reasons;
}

std::optional<std::string> locksNotCovered(const profile& all) {
  const std::optional<std::size_t> most = mostOf(all, "locks.top", kDefaultTopLocks);
  if (!most || all.lockReports.empty()) {
    return {};
  }
  return fmt::format(
      "at most {} locks of a session were recorded (locks.top; -1 for all): those on which threads "
      "had blocked longest before the detail phase",
      *most);
}

std::vector<std::string> exceptionsNotCovered(const profile& all) {
  std::vector<std::string> notes;
  const exceptionCounts* counts = countsOf(all);
  if (counts != nullptr && counts->isOfMade) {
    notes.push_back(std::string(kOnlyMade));
  }
  if (counts != nullptr || !all.exceptions) {
    return notes;
  }
  notes.push_back(
      "the agent's counts of exceptions are not there: of each class only that it was thrown is "
      "checked, by its records");
  const std::optional<captureEnd>& counted = all.exceptions->counted();
  if (counted && counted->agent && counted->agent->filtered > 0) {
    notes.push_back(fmt::format(
        "{} exceptions were not covered: they were thrown by classes of {}* or by java.lang.Class",
        counted->agent->filtered, fmt::join(kNeverRecorded, "*, ")));
  }
  return notes;
}

}  // namespace viewer
