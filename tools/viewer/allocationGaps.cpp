#include "allocationGaps.h"

#include <fmt/format.h>

#include <filesystem>

#include "allocationSites.h"
#include "gaps.h"
#include "tableParts.h"

namespace viewer {
namespace {

constexpr const char* kOption = "allocations";
constexpr const char* kFiles = "allocations-";
constexpr double kMillisOfAMinute = 60'000;

std::string fileName(const std::string& path) {
  return std::filesystem::path(path).filename();
}

std::string noReport(const profile& all) {
  if (!all.run) {
    return "no allocation report to check";
  }
  if (!optionOf(all, kOption)) {
    return "no allocation report: the run was started without allocations=true";
  }
  return all.run->removedReports > 0
             ? fmt::format("no allocation report: {} reports of the run were deleted",
                           all.run->removedReports)
             : "no allocation report: the profile could not be started (standard error had the "
               "reason), or the JVM was killed or is still running";
}

class gapFinder {
 public:
  gapFinder(const allocationReport& report, bool hasGrowth, allocationMeasure measure, double limit,
            std::vector<std::string>& to)
      : report_(report), hasGrowth_(hasGrowth), measure_(measure), limit_(limit), to_(to) {}

  void run() {
    addEnd();
    addLosses();
    addOthers();
    addWithoutSample();
  }

 private:
  void add(const std::string& reason) {
    to_.push_back(fmt::format("{}: {}", fileName(report_.source), reason));
  }

  void addEnd() {
    if (!report_.endedAt && !report_.shutdownAt) {
      add(
          fmt::format("written at {} UTC while the session ran: the JVM was killed later, or is "
                      "still running",
                      dayAndTimeText(report_.writtenAt)));
    }
    if (report_.collections == 0) {
      add("no collection ran, so that nothing is known to survive");
    } else if (!report_.isAfterCollection && report_.young.samples > 0) {
      add(
          fmt::format("no collection came before the report: none has looked at {} that were "
                      "allocated last",
                      sizeText(report_.young.bytes)));
    }
  }

  void addLosses() {
    const omittedSamples& omitted = report_.omitted;
    if (omitted.lost > 0 || omitted.failed > 0) {
      add(fmt::format("{} lost ({}), {} could not be kept",
                      counted(omitted.lost, "sample was", "samples were"),
                      sizeText(omitted.lostBytes), omitted.failed));
    }
    if (omitted.classes > 0 || omitted.sites > 0) {
      add(fmt::format("{} had no room for their site, {} none for their class",
                      counted(omitted.sites, "sample", "samples"), omitted.classes));
    }
  }

  double minutes() const { return static_cast<double>(lengthOf(report_)) / kMillisOfAMinute; }

  // What so many bytes are in the measure of the limit; growth is seen in 3 eighths of a session.
  double measured(std::uint64_t bytes, double shareOfSession) const {
    const auto amount = static_cast<double>(bytes);
    return measure_ == allocationMeasure::alive ? amount : amount / (minutes() * shareOfSession);
  }

  void addOthers() {
    if (report_.others.alive.bytes > 0 && measured(report_.others.alive.bytes, 1) > limit_) {
      add(fmt::format("{} are alive of {} that are not listed",
                      sizeText(report_.others.alive.bytes),
                      counted(report_.others.sites, "site", "sites")));
    }
  }

  void addWithoutSample() {
    const std::uint64_t most = mostWithoutSample(report_.intervalBytes);
    const double shown = measured(most, 3.0 / kParts);
    if (hasGrowth_ || !(shown > limit_)) {
      return;
    }
    add(measure_ == allocationMeasure::alive
            ? fmt::format("too few samples for this limit: with one for every {}, {} may be alive "
                          "without one",
                          sizeText(report_.intervalBytes), sizeText(most))
            : fmt::format("too few samples for this limit: with one for every {} in {}, something "
                          "may grow by {:.0f} bytes a minute without one; class histograms show it",
                          sizeText(report_.intervalBytes), durationText(lengthOf(report_)), shown));
  }

  const allocationReport& report_;
  const bool hasGrowth_;  // histograms that tell it
  const allocationMeasure measure_;
  const double limit_;
  std::vector<std::string>& to_;
};

}  // namespace

std::vector<std::string> allocationGaps(const profile& all, allocationMeasure measure,
                                        double limit) {
  std::vector<std::string> reasons;
  std::vector<std::string> files;
  if (all.allocations.empty()) {
    reasons.push_back(noReport(all));
  }
  for (const allocationSession& session : all.allocations) {
    files.push_back(session.name + ".json");
    const bool hasGrowth = measure == allocationMeasure::growth && hasHistograms(session);
    if (session.samples) {
      gapFinder(*session.samples, hasGrowth, measure, limit, reasons).run();
    } else if (!hasGrowth) {
      reasons.push_back(
          fmt::format("{} has no allocation report beside it", fileName(session.source())));
    }
  }
  if (const std::string missing = missingNumbers(all, files, kFiles); !missing.empty()) {
    reasons.push_back(fmt::format(
        "no report of allocation session {}: it was not written, or was deleted when the run had "
        "too many files",
        missing));
  }
  return reasons;
}

}  // namespace viewer
