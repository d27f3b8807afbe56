#include "allocationWords.h"

#include <fmt/format.h>

#include <algorithm>

#include "contentionReport.h"

namespace viewer {
namespace {

constexpr double kNanosOfAMilli = 1e6;

std::string samplesText(std::uint64_t samples) {
  return counted(samples, "sample", "samples");
}

std::string momentText(const allocationReport& report, std::uint64_t at) {
  constexpr std::uint64_t kDay = 24 * 60 * 60 * 1000;
  return at / kDay == report.startedAt / kDay ? timeText(at) : dayAndTimeText(at);
}

void add(std::vector<std::string>& to, bool isSo, const std::string& text) {
  if (isSo) {
    to.push_back(text);
  }
}

void addHooks(const allocationReport& report, std::vector<std::string>& to) {
  if (!report.shutdownAt) {
    return;
  }
  const std::string when =
      fmt::format("What is alive is as of {} UTC, before the program's shutdown hooks ran",
                  momentText(report, *report.shutdownAt));
  if (!report.released) {
    to.push_back(when +
                 "; no collection has run since, so that it is not known what they "
                 "released.");
    return;
  }
  const std::uint64_t left = report.released->amount.bytes;
  const std::uint64_t before = report.alive.bytes;
  to.push_back(fmt::format(
      "{}. {} of it was released later ({} since): {} in {} is left.", when,
      sizeText(before - std::min(before, left)),
      counted(report.released->collections, "round of collections", "rounds of collections"),
      sizeText(left), samplesText(report.released->amount.samples)));
}

void addCollections(const allocationReport& report, std::vector<std::string>& to) {
  if (report.collections == 0) {
    to.emplace_back(
        "NO COLLECTION ran: nothing is known to survive, and nothing is known to grow. Let one run "
        "before the report is written.");
    return;
  }
  add(to, !report.isAfterCollection,
      "No collection ran just before this was written. Only collections of the old generation look "
      "at old objects: garbage there counts as alive until the next one.");
  add(to, report.young.samples > 0,
      fmt::format(
          "{} in {} is not counted: it was allocated since the last collection, so none has "
          "looked at it.",
          sizeText(report.young.bytes), samplesText(report.young.samples)));
}

std::string rangeText(const estimateRange& range) {
  return fmt::format("between about {} and {}", sizeText(range.low), sizeText(range.high));
}

}  // namespace

std::vector<std::string> allocationHead(const allocationSession& session) {
  std::vector<std::string> result;
  if (!session.samples) {
    result.push_back(fmt::format("Memory growth of {}", session.name));
    result.emplace_back(
        "Allocations were not sampled, or their report is missing: there are no sites.");
    return result;
  }
  const allocationReport& report = *session.samples;
  const std::uint64_t end = report.shutdownAt.value_or(report.endedAt.value_or(report.writtenAt));
  result.push_back(fmt::format("Allocations that survive, from {} to {} UTC ({})",
                               dayAndTimeText(report.startedAt), momentText(report, end),
                               durationText(lengthOf(report))));
  result.push_back(
      fmt::format("About {} alive after {}, of about {} allocated ({}). All sizes are estimates: "
                  "one sample is drawn for every {} allocated, on average.",
                  sizeText(report.alive.bytes),
                  counted(report.collections, "round of collections", "rounds of collections"),
                  sizeText(report.allocated.bytes), samplesText(report.allocated.samples),
                  sizeText(report.intervalBytes)));
  add(result, !report.endedAt && !report.shutdownAt,
      fmt::format("It was not stopped: it still ran at {} UTC, when this was written, or the JVM "
                  "was killed later. What came after is not in it.",
                  momentText(report, report.writtenAt)));
  add(result, session.isFiltered, "Tables and lists are of what was selected, sums are of all.");
  return result;
}

std::vector<std::string> allocationOmissions(const allocationSession& session) {
  std::vector<std::string> result;
  if (!session.samples) {
    return result;
  }
  const allocationReport& report = *session.samples;
  const omittedSamples& omitted = report.omitted;
  addCollections(report, result);
  addHooks(report, result);
  constexpr std::uint64_t kMinute = 60'000;
  add(result, lengthOf(report) < kMinute && report.collections > 0,
      fmt::format("The session took {}: growth by minute is scaled up from that.",
                  durationText(lengthOf(report))));
  add(result, omitted.thinned > 0,
      fmt::format("There were more than {} live samples, so the interval was lengthened ({}): {} "
                  "before, {} in the end. Each figure is based on fewer samples.",
                  grouped(report.settings.liveSamples), counted(omitted.thinned, "time", "times"),
                  sizeText(report.settings.intervalBytes), sizeText(report.intervalBytes)));
  add(result, omitted.lost > 0,
      fmt::format("{} ({}) were lost because they came faster than they could be kept: figures are "
                  "too low.",
                  samplesText(omitted.lost), sizeText(omitted.lostBytes)));
  add(result, omitted.failed > 0,
      fmt::format("{} could not be kept: no memory, or the VM refused.",
                  samplesText(omitted.failed)));
  add(result, report.others.sites > 0,
      fmt::format("Not listed: {}, with {} alive in {} and {} allocated.",
                  counted(report.others.sites, "more site", "more sites"),
                  sizeText(report.others.alive.bytes), samplesText(report.others.alive.samples),
                  sizeText(report.others.allocated.bytes)));
  add(result, omitted.sites > 0,
      fmt::format("Of these, {} had no room for a site of their own.", samplesText(omitted.sites)));
  add(result, omitted.stacks > 0,
      fmt::format("{} no room: \"(stack not known)\".",
                  counted(omitted.stacks, "stack had", "stacks had")));
  add(result, omitted.classes > 0,
      fmt::format("{} had no room for their class.", samplesText(omitted.classes)));
  add(result, omitted.names > 0,
      fmt::format("{} no room.", counted(omitted.names, "name had", "names had")));
  return result;
}

std::vector<std::string> growthNotes(const allocationSession& session) {
  std::vector<std::string> result;
  if (!session.growth) {
    result.emplace_back("No class histograms were taken: growth is from samples alone.");
    return result;
  }
  const growthReport& growth = *session.growth;
  if (growth.problem) {
    result.push_back("Class histograms: " + *growth.problem + '.');
  }
  add(result, growth.intervalMillis > growth.askedMillis,
      fmt::format("Histograms were taken every {} instead of every {}: each took more than 1 % of "
                  "that.",
                  durationText(growth.intervalMillis), durationText(growth.askedMillis)));
  add(result, !hasHistograms(session),
      fmt::format("{}: it takes 3 to tell what classes grow by.",
                  counted(growth.points.size(), "histogram was taken", "histograms were taken")));
  add(result, growth.heap.fullAt.has_value(),
      fmt::format(
          "If live objects go on to grow by {}/min, the heap of {} is full at about {} UTC.",
          sizeText(static_cast<std::uint64_t>(
              std::clamp(growth.heap.bytesPerMinute.value_or(0), 0.0, 9e18))),
          sizeText(growth.maxHeap.value_or(0)), dayAndTimeText(growth.heap.fullAt.value_or(0))));
  add(result, growth.otherClasses > 0,
      fmt::format("Histograms list the {} that grew most; {} not listed.",
                  counted(growth.classes.size(), "class", "classes"),
                  counted(growth.otherClasses, "other is", "others are")));
  return result;
}

std::vector<std::string> pathNotes(const allocationSession& session,
                                   const std::vector<grownClass>& classes, std::size_t shown) {
  std::vector<std::string> result;
  if (!session.paths) {
    result.emplace_back("Who holds objects is not known: paths to roots were not asked for.");
    return result;
  }
  const pathReport& paths = *session.paths;
  if (paths.problem) {
    result.push_back("Who holds objects: " + *paths.problem + '.');
  }
  if (!paths.problem || paths.samples > 0) {
    result.push_back(
        fmt::format("Paths to roots are of {} that the flight recorder drew itself (256 at most), "
                    "others than those counted here; {} of them had a path.",
                    counted(paths.samples, "object", "objects"), grouped(paths.withRoot)));
  }
  add(result, paths.own > 0,
      fmt::format("{} not listed, as the profiler itself held their objects.",
                  counted(paths.own, "path is", "paths are")));
  add(result, paths.otherPaths > 0,
      fmt::format("{} not listed.", counted(paths.otherPaths, "more path is", "more paths are")));
  std::string without;
  for (const grownClass& one : first(classes, shown)) {
    const bool isAlive = one.sum.alive.samples > 0 || one.sum.growsBy.value_or(0) > 0;
    if (isAlive && pathsOf(session, one.className, {}).empty()) {
      without += (without.empty() ? "" : ", ") + one.className;
    }
  }
  add(result, !without.empty(), "No path is known for objects of " + without + '.');
  return result;
}

std::string aliveText(const sampledAmount& alive) {
  if (alive.samples == 0) {
    return "no sample is alive";
  }
  const std::string text =
      fmt::format("{} alive ({}", sizeText(alive.bytes), samplesText(alive.samples));
  if (alive.samples >= kFewSamples) {
    return text + ')';
  }
  const estimateRange range = rangeOf(alive.bytes, alive.samples, alive.objects);
  return range.low == range.high ? text + ": objects so large that each is one)"
                                 : text + ": an estimate, " + rangeText(range) + ')';
}

std::string growthText(const allocationSum& sum) {
  if (!sum.growsBy) {
    return "?";
  }
  return sum.isTooFew ? "too few" : *sum.growsBy == 0 ? "0" : sizeText(*sum.growsBy) + "/min";
}

std::string growthPhrase(const allocationSum& sum) {
  if (!sum.growsBy) {
    return "growth not known";
  }
  if (*sum.growsBy == 0) {
    return sum.isTooFew ? "too few samples to show growth" : "does not grow";
  }
  return "grows by " + growthText(sum);
}

std::string shownSite(const std::optional<std::string>& site) {
  return site.value_or("(stack not known)");
}

std::string costText(const allocationReport& report) {
  const std::uint64_t length = lengthOf(report);
  const double millis = static_cast<double>(report.cost.processorNanos) / kNanosOfAMilli;
  return fmt::format(
      "The samples' own cost: {} ms of processor time on a thread of the agent ({:.1f} % of one "
      "processor), and about {} ms on the program's threads for {}. Collections that were forced "
      "come on top.",
      milliText(report.cost.processorNanos),
      length == 0 ? 0 : 100 * millis / static_cast<double>(length),
      milliText(report.cost.handlerNanos), samplesText(report.cost.samples));
}

}  // namespace viewer
