#include "allocationTables.h"

#include <fmt/format.h>

#include <algorithm>

#include "allocationSites.h"
#include "allocationWords.h"
#include "contentionDetails.h"
#include "contentionWords.h"
#include "textTable.h"
#include "utf8.h"

namespace viewer {
namespace {

constexpr std::size_t kCourseColumns = 16;
constexpr std::size_t kClassesOfASite = 3;
constexpr std::size_t kPathsOfASite = 2;

// Nothing is alive there because nobody has looked.
std::string beforeCollections(const std::vector<allocationPoint>& points) {
  const auto looked = std::find_if(points.begin(), points.end(),
                                   [](const allocationPoint& one) { return one.collections > 0; });
  return looked == points.begin() || looked == points.end()
             ? ""
             : fmt::format("No collection ran before {}: what was alive until then is not known.\n",
                           timeText(looked->at));
}

std::string courseLine(const allocationSession& session, const terminalStyle& terminal) {
  constexpr std::size_t kColumns = 60;
  if (!session.samples || session.samples->points.size() < 2) {
    return "";
  }
  const std::vector<allocationPoint>& points = session.samples->points;
  std::vector<std::uint64_t> values;
  values.reserve(points.size());
  for (const allocationPoint& one : points) {
    values.push_back(one.alive);
  }
  const std::string from = timeText(points.front().at);
  const std::string to = timeText(points.back().at);
  const std::size_t size = std::min({kColumns, terminal.width, values.size()});
  const std::size_t gap = size > from.size() + to.size() ? size - from.size() - to.size() : 1;
  return '\n' + terminal.strong("Alive after collections, over time (UTC)\n") +
         terminal.sparkline(values, size) + '\n' + fmt::format("{}{:{}}{}\n", from, "", gap, to) +
         fmt::format("First: {}; last: {}; most: {}\n", sizeText(values.front()),
                     sizeText(values.back()),
                     sizeText(*std::max_element(values.begin(), values.end()))) +
         beforeCollections(points);
}

// "HashMap$Node" of "java.util.HashMap$Node": the lines below the table have all of it.
std::string shortName(const std::string& className) {
  return className.substr(className.rfind('.') + 1);
}

std::string classesText(const grownSite& group) {
  std::string text;
  for (const classAtSite& one : first(group.classes, kClassesOfASite)) {
    text += (text.empty() ? "" : ", ") + shortName(one.className);
  }
  return group.classes.size() > kClassesOfASite
             ? text + fmt::format(" and {} more", group.classes.size() - kClassesOfASite)
             : text;
}

std::string siteTable(const std::vector<grownSite>& sites, std::size_t rows,
                      const terminalStyle& terminal) {
  textTable table({{"#", align::right},
                   {"Allocated in", align::left, shorten::name},
                   {"Classes", align::left, shorten::end},
                   {"Grows by", align::right},
                   {"Alive", align::right},
                   {"Samples", align::right},
                   {"Over time"}});
  std::size_t rank = 1;
  for (const grownSite& one : first(sites, rows)) {
    table.addRow({std::to_string(rank++), shownSite(one.site), classesText(one),
                  growthText(one.sum), sizeText(one.sum.alive.bytes),
                  grouped(one.sum.alive.samples),
                  terminal.sparkline(one.sum.course, kCourseColumns)});
  }
  return title("What grows, by the place that allocated it", sites.size(), rows, terminal) +
         table.render(terminal);
}

std::string pathLines(const allocationSession& session, const std::string& className,
                      const std::optional<std::string>& site, const terminalStyle& terminal) {
  std::vector<std::string> texts;  // paths by other places in arrays may read the same
  for (const rootPath* path : pathsOf(session, className, site)) {
    const std::string text = fmt::format(
        "{} {}", isPathOf(*path, className, site) ? "held by" : "objects of this class are held by",
        pathText(*path, className));
    if (std::find(texts.begin(), texts.end(), text) == texts.end()) {
      texts.push_back(text);
    }
  }
  std::string result;
  for (const std::string& text : first(texts, kPathsOfASite)) {
    result += sentenceLines({text}, terminal, 6);
  }
  return result + moreLine(texts.size(), kPathsOfASite, 6);
}

std::string threadsText(const allocationSum& sum) {
  std::set<std::string> names;
  for (const allocationSite* site : sum.sites) {
    for (const allocationThread& thread : site->threads) {
      names.insert(thread.name);
    }
  }
  return names.empty() ? "" : someOf(names);
}

std::string stackLines(const allocationReport& report, const allocationSum& sum,
                       const tableLimits& limits, const terminalStyle& terminal) {
  const allocationSite& most = *sum.sites.front();
  if (!most.stack) {
    return "";
  }
  const std::vector<std::string>& frames = report.stacks[*most.stack].frames;
  std::string result;
  for (const std::string& frame : first(frames, limits.frames)) {
    result += nameLine("      at ", frame, "", terminal);
  }
  return result + moreLine(frames.size(), limits.frames, 6);
}

std::string siteDetails(const allocationSession& session, const grownSite& group, std::size_t rank,
                        const tableLimits& limits, const terminalStyle& terminal) {
  std::string result =
      '\n' + terminal.strong(nameLine(fmt::format("{}. ", rank), shownSite(group.site),
                                      ": " + growthPhrase(group.sum), terminal));
  for (const classAtSite& one : first(group.classes, kClassesOfASite)) {
    result += sentenceLines(
        {fmt::format("{}: {}, {}", one.className, aliveText(one.sum.alive), growthPhrase(one.sum))},
        terminal, 3);
    if (one.sum.alive.samples > 0) {
      result += pathLines(session, one.className, group.site, terminal);
    }
  }
  result += moreLine(group.classes.size(), kClassesOfASite, 3);
  if (const std::string threads = threadsText(group.sum); !threads.empty()) {
    result += textLine("   allocated by ", threads, "", terminal);
  }
  return result + stackLines(*session.samples, group.sum, limits, terminal);
}

std::string classTable(const std::vector<grownClass>& classes, std::size_t rows,
                       const terminalStyle& terminal) {
  textTable table({{"#", align::right},
                   {"Class", align::left, shorten::name},
                   {"Grows by", align::right},
                   {"From"},
                   {"Alive", align::right},
                   {"Samples", align::right},
                   {"Histogram", align::right},
                   {"Mostly in", align::left, shorten::name}});
  std::size_t rank = 1;
  for (const grownClass& one : first(classes, rows)) {
    table.addRow({std::to_string(rank++), one.className, growthText(one.sum),
                  one.isByHistograms ? "histograms" : "samples", sizeText(one.sum.alive.bytes),
                  grouped(one.sum.alive.samples),
                  one.histogramBytes ? sizeText(*one.histogramBytes) : "",
                  one.sites.empty() ? "(no sample)" : shownSite(one.sites.front().site)});
  }
  return '\n' + title("Classes by growth", classes.size(), rows, terminal) + table.render(terminal);
}

std::string sitesText(const allocationSession& session, const tableLimits& limits,
                      const terminalStyle& terminal) {
  const std::vector<grownSite> sites = grownSitesOf(session);
  if (sites.empty()) {
    return session.samples ? fmt::format("\nNo site is in the report{}.\n",
                                         session.isFiltered ? " that was selected" : "")
                           : "";
  }
  std::string result = '\n' + siteTable(sites, limits.rows, terminal);
  std::size_t rank = 1;
  for (const grownSite& one : first(sites, fewer(limits.rows))) {
    result += siteDetails(session, one, rank++, limits, terminal);
  }
  return result;
}

}  // namespace

std::string allocationTables(const allocationSession& session, const tableLimits& limits,
                             const terminalStyle& terminal) {
  std::vector<std::string> head = allocationHead(session);
  std::string result = terminal.strong(sentenceLines({head.front()}, terminal));
  head.erase(head.begin());
  result += sentenceLines(head, terminal) + courseLine(session, terminal) +
            sitesText(session, limits, terminal);
  const std::vector<grownClass> classes = grownClassesOf(session);
  if (!classes.empty()) {
    result += classTable(classes, limits.rows, terminal);
  }
  std::vector<std::string> sentences = allocationOmissions(session);
  for (const auto& more : {growthNotes(session), pathNotes(session, classes, limits.rows)}) {
    sentences.insert(sentences.end(), more.begin(), more.end());
  }
  if (session.samples) {
    sentences.push_back(costText(*session.samples));
  }
  return result + '\n' + sentenceLines(sentences, terminal);
}

}  // namespace viewer
