#include "contentionGaps.h"

#include <fmt/format.h>

#include <filesystem>
#include <string_view>

#include "contentionWords.h"
#include "gaps.h"

namespace viewer {
namespace {

constexpr const char* kOption = "contention";
constexpr const char* kFiles = "contention-";
constexpr std::string_view kLibrary = "java.util.concurrent.";

std::string fileName(const std::string& path) {
  return std::filesystem::path(path).filename();
}

// Whether there may be classes of the library among those that fit the pattern.
bool mayBeOfLibrary(const std::string& pattern) {
  const std::size_t star = pattern.find('*');
  const std::string start = pattern.substr(0, star);
  return start.starts_with(kLibrary) || (star != pattern.npos && kLibrary.starts_with(start));
}

std::string noReport(const profile& all) {
  if (!all.run) {
    return "no contention report to check";
  }
  if (!optionOf(all, kOption)) {
    return "no contention report: the run was started without contention=true";
  }
  return all.run->removedReports > 0
             ? fmt::format("no contention report: {} reports of the run were deleted",
                           all.run->removedReports)
             : "no contention report: the JVM was killed or is still running";
}

// Reports that are missing, or are of a profile that went on.
std::vector<std::string> reportGaps(const profile& all) {
  std::vector<std::string> reasons;
  if (all.contentionReports.empty()) {
    reasons.push_back(noReport(all));
  }
  std::vector<std::string> files;
  for (const contentionReport& report : all.contentionReports) {
    files.push_back(report.source);
    if (!report.endedAt) {
      reasons.push_back(fmt::format(
          "{} was written at {} UTC while the profile ran: the JVM was killed later, or is still "
          "running",
          fileName(report.source), dayAndTimeText(report.writtenAt)));
    }
  }
  if (const std::string missing = missingNumbers(all, files, kFiles); !missing.empty()) {
    reasons.push_back(fmt::format(
        "no report of contention profile {}: it was not written, or was deleted when the run had "
        "too many files",
        missing));
  }
  return reasons;
}

void addSampleGaps(const contentionReport& report, std::vector<std::string>& to) {
  const std::string file = fileName(report.source);
  if (report.omitted.blocksNotSampled > 0) {
    to.push_back(fmt::format(
        "{}: {} blocks had no room among those that are watched, so that blocks that have not "
        "ended may be missing",
        file, report.omitted.blocksNotSampled));
  }
}

std::uint64_t ownersNotKnown(const contentionReport& report) {
  std::uint64_t result = 0;
  for (const stuckLock& one : report.stuck) {
    result += one.owner.isKnown ? 0 : 1;
  }
  return result;
}

}  // namespace

std::vector<std::string> contentionGaps(const profile& all, const std::string& pattern) {
  std::vector<std::string> reasons = reportGaps(all);
  for (const contentionReport& report : all.contentionReports) {
    addSampleGaps(report, reasons);
    const std::string file = fileName(report.source);
    if (mayBeOfLibrary(pattern) && !hasParks(report)) {
      reasons.push_back(fmt::format("{} does not have the locks of java.util.concurrent: {}", file,
                                    report.parks));
    } else if (mayBeOfLibrary(pattern) && countsEachPark(report)) {
      reasons.push_back(fmt::format(
          "{} has each park at a lock of java.util.concurrent, in place of acquisitions", file));
    }
  }
  return reasons;
}

std::vector<std::string> deadlockGaps(const profile& all) {
  std::vector<std::string> reasons = reportGaps(all);
  for (const contentionReport& report : all.contentionReports) {
    addSampleGaps(report, reasons);
    const std::string file = fileName(report.source);
    if (!hasParks(report)) {
      reasons.push_back(fmt::format("{} does not have the locks of java.util.concurrent: {}", file,
                                    report.parks));
    }
    if (report.settings.samplesPerSecond == 0) {
      reasons.push_back(fmt::format("{}: samples were off, so that owners are not known", file));
    }
    if (report.omitted.stuck > 0) {
      reasons.push_back(
          fmt::format("{} does not list {} more stuck locks", file, report.omitted.stuck));
    }
    if (const std::uint64_t unknown = ownersNotKnown(report); unknown > 0) {
      reasons.push_back(fmt::format("{}: the owners of stuck locks are not known: {} of {}", file,
                                    unknown, report.stuck.size()));
    }
  }
  return reasons;
}

std::vector<std::string> contentionNotes(const profile& all) {
  std::vector<std::string> notes;
  for (const contentionReport& report : all.contentionReports) {
    const std::string file = fileName(report.source);
    if (report.omitted.startsNotSeen > 0) {
      notes.push_back(fmt::format("{}: {} blocks that had begun before the profile are not covered",
                                  file, report.omitted.startsNotSeen));
    }
    if (!hasParks(report)) {
      notes.push_back(
          fmt::format("{}: classes that are locks by means of java.util.concurrent are "
                      "not covered: {}",
                      file, report.parks));
    }
    std::uint64_t stuck = 0;
    for (const stuckLock& one : report.stuck) {
      stuck = plus(stuck, one.waiterCount);
    }
    if (const std::uint64_t blocked = totalsOf(report).stillBlocked; blocked > stuck) {
      notes.push_back(
          fmt::format("{}: {} threads were blocked at its end for less than {}: a "
                      "deadlock among them is not known yet",
                      file, blocked - stuck, durationText(report.settings.stuckMillis)));
    }
  }
  return notes;
}

}  // namespace viewer
