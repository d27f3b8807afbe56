#include "allocationSites.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <tuple>
#include <unordered_map>

#include "contentionReport.h"
#include "contentionSites.h"
#include "exceptionCounts.h"

namespace viewer {
namespace {

constexpr std::string_view kArray = "[]";

// By class; of histograms that are enough.
using growthByClass = std::unordered_map<std::string, double>;

growthByClass growthsOf(const allocationSession& session) {
  growthByClass result;
  if (!hasHistograms(session)) {
    return result;
  }
  std::vector<std::uint64_t> at;
  for (const growthPoint& one : session.growth->points) {
    at.push_back(one.at);
  }
  for (const classGrowth& one : session.growth->classes) {
    if (const std::optional<double> growth = growsBy(at, one.bytes)) {
      result.emplace(one.className, *growth);
    }
  }
  return result;
}

std::optional<double> growthOf(const growthByClass& growths, const std::string& className) {
  const auto found = growths.find(className);
  return found == growths.end() ? std::nullopt : std::optional(found->second);
}

void sortSites(allocationSum& sum) {
  std::stable_sort(sum.sites.begin(), sum.sites.end(),
                   [](const allocationSite* left, const allocationSite* right) {
                     return left->alive.bytes > right->alive.bytes;
                   });
}

auto rankOf(const allocationSum& sum) {
  std::uint64_t between = 0;
  for (std::size_t i = 1; i + 1 < sum.born.size(); i++) {
    between = plus(between, sum.born[i]);
  }
  return std::tuple(sum.growsBy.value_or(0), between, sum.alive.bytes, sum.allocated.bytes);
}

template <typename element>
void sortByGrowth(std::vector<element>& all) {
  std::stable_sort(all.begin(), all.end(), [](const element& left, const element& right) {
    return rankOf(left.sum) > rankOf(right.sum);
  });
}

// By no more than its classes together: those that histograms have by what they show, the others by
// their samples. None where histograms have none of them.
std::optional<double> mostOf(const allocationReport& report, const grownSite& group,
                             const growthByClass& growths) {
  double known = 0;
  bool isAnyKnown = false;
  allocationSum others;
  for (const classAtSite& one : group.classes) {
    if (const std::optional<double> growth = growthOf(growths, one.className)) {
      known += std::max(*growth, 0.0);
      isAnyKnown = true;
    } else {
      for (const allocationSite* site : one.sum.sites) {
        others.add(report, *site);
      }
    }
  }
  const std::uint64_t ofOthers = growsBy(evidenceOf(report, others, {})).value_or(0);
  return isAnyKnown ? std::optional(known + static_cast<double>(ofOthers)) : std::nullopt;
}

// Few samples that show no growth show nothing, unless histograms do.
void setGrowth(allocationSum& sum, const aliveEvidence& evidence) {
  sum.growsBy = growsBy(evidence);
  sum.isTooFew = sum.growsBy == 0 && sum.alive.samples > 0 && sum.alive.samples < kFewSamples &&
                 evidence.mostBytesPerMinute.value_or(1) > 0;
}

void finish(const allocationReport& report, grownSite& group, const growthByClass& growths) {
  for (classAtSite& one : group.classes) {
    setGrowth(one.sum, evidenceOf(report, one.sum, growthOf(growths, one.className)));
    sortSites(one.sum);
  }
  sortByGrowth(group.classes);
  group.most = mostOf(report, group, growths);
  setGrowth(group.sum, evidenceOf(report, group.sum, group.most));
  sortSites(group.sum);
}

void finish(const allocationReport& report, grownClass& group, const growthByClass& growths) {
  for (siteOfClass& one : group.sites) {
    setGrowth(one.sum, evidenceOf(report, one.sum, growthOf(growths, group.className)));
    sortSites(one.sum);
  }
  sortByGrowth(group.sites);
  setGrowth(group.sum, evidenceOf(report, group, growthOf(growths, group.className)));
  sortSites(group.sum);
}

// Histograms are exact: with few samples they are the better witness.
void addHistogram(const allocationSession& session, const classGrowth& from,
                  const growthByClass& growths, grownClass& group) {
  for (auto known = from.bytes.rbegin(); known != from.bytes.rend() && !group.histogramBytes;
       ++known) {
    group.histogramBytes = *known;
  }
  group.histogramBytesPerMinute = growthOf(growths, group.className);
  const bool areFew = group.sum.alive.samples < kFewSamples || !session.samples;
  if (group.histogramBytesPerMinute && (areFew || !group.sum.growsBy)) {
    constexpr double kMost = 9e18;
    group.sum.growsBy =
        static_cast<std::uint64_t>(std::clamp(*group.histogramBytesPerMinute, 0.0, kMost));
    group.isByHistograms = true;
    group.sum.isTooFew = false;
  }
}

std::string linkText(const pathLink& link) {
  std::string text = link.className;
  if (link.field) {
    text += '.' + *link.field;
  } else if (link.index && text.ends_with(kArray)) {
    text.replace(text.size() - kArray.size(), kArray.size(), fmt::format("[{}]", *link.index));
  } else if (link.index) {
    text += fmt::format("[{}]", *link.index);
  }
  return text + (link.skipped > 0 ? fmt::format(" <- ({} more)", link.skipped) : "");
}

// The first link of the chain that is of the class; the chain's size when there is none.
std::size_t linkOf(const rootPath& path, const std::string& className) {
  return static_cast<std::size_t>(
      std::find_if(path.chain.begin(), path.chain.end(),
                   [&](const pathLink& one) { return one.className == className; }) -
      path.chain.begin());
}

bool isAllocatedAt(const rootPath& path, const std::string& site) {
  const auto found = std::find_if(path.stack.begin(), path.stack.end(),
                                  [](const std::string& frame) { return !isOfJdk(frame); });
  return found != path.stack.end() && methodOf(*found) == methodOf(site);
}

}  // namespace

void allocationSum::add(const allocationReport& report, const allocationSite& site) {
  allocated += site.allocated;
  alive += site.alive;
  young += site.young;
  born.resize(std::max(born.size(), std::min(site.born.size(), kParts)));
  for (std::size_t i = 0; i < std::min(site.born.size(), kParts); i++) {
    born[i] = plus(born[i], site.born[i]);
  }
  course.resize(report.points.size());
  const std::size_t known = std::min(site.course.size(), course.size());
  for (std::size_t i = 0; i < known && site.courseFrom < course.size() - i; i++) {
    std::uint64_t& to = course[static_cast<std::size_t>(site.courseFrom) + i];
    to = plus(to, site.course[i]);
  }
  sites.push_back(&site);
}

aliveEvidence evidenceOf(const allocationReport& report, const allocationSum& sum,
                         std::optional<double> most) {
  if (report.collections == 0) {
    return {};
  }
  return {sum.born, sum.alive.samples, lengthOf(report), most, {}};
}

aliveEvidence evidenceOf(const allocationReport& report, const grownClass& group,
                         std::optional<double> most) {
  aliveEvidence evidence = evidenceOf(report, group.sum, most);
  allocationSum others;
  for (const siteOfClass& one : group.sites) {
    if (one.sum.alive.samples >= kFewSamples) {
      evidence.parts.push_back(evidenceOf(report, one.sum, {}));
    } else {
      for (const allocationSite* site : one.sum.sites) {
        others.add(report, *site);
      }
    }
  }
  evidence.parts.push_back(evidenceOf(report, others, {}));
  return evidence;
}

std::vector<grownSite> grownSitesOf(const allocationSession& session) {
  std::vector<grownSite> result;
  if (!session.samples) {
    return result;
  }
  const allocationReport& report = *session.samples;
  std::map<std::optional<std::string>, std::map<std::string, allocationSum>> groups;
  for (const allocationSite& site : report.sites) {
    groups[siteOf(report, site)][site.className].add(report, site);
  }
  const growthByClass growths = growthsOf(session);
  for (auto& [site, classes] : groups) {
    grownSite& group = result.emplace_back();
    group.site = site;
    for (auto& [name, sum] : classes) {
      for (const allocationSite* one : sum.sites) {
        group.sum.add(report, *one);
      }
      group.classes.push_back({name, std::move(sum)});
    }
    finish(report, group, growths);
  }
  sortByGrowth(result);
  return result;
}

std::vector<grownClass> grownClassesOf(const allocationSession& session) {
  std::map<std::string, grownClass> groups;
  const growthByClass growths = growthsOf(session);
  if (session.samples) {
    const allocationReport& report = *session.samples;
    std::map<std::string, std::map<std::optional<std::string>, allocationSum>> bySite;
    for (const allocationSite& site : report.sites) {
      groups[site.className].sum.add(report, site);
      bySite[site.className][siteOf(report, site)].add(report, site);
    }
    for (auto& [name, group] : groups) {
      group.className = name;
      for (auto& [site, sum] : bySite[name]) {
        group.sites.push_back({site, std::move(sum)});
      }
      finish(report, group, growths);
    }
  }
  if (session.growth) {
    for (const classGrowth& one : session.growth->classes) {
      grownClass& group = groups[one.className];
      group.className = one.className;
      addHistogram(session, one, growths, group);
    }
  }
  std::vector<grownClass> result;
  result.reserve(groups.size());
  for (auto& [name, group] : groups) {
    result.push_back(std::move(group));
  }
  sortByGrowth(result);
  return result;
}

bool hasHistograms(const allocationSession& session) {
  constexpr std::size_t kLeast = 3;
  return session.growth && session.growth->points.size() >= kLeast;
}

std::vector<const rootPath*> pathsOf(const allocationSession& session, const std::string& className,
                                     const std::optional<std::string>& site) {
  std::vector<const rootPath*> ofSite;
  std::vector<const rootPath*> ofClass;
  std::vector<const rootPath*> through;
  if (session.paths) {
    for (const rootPath& path : session.paths->paths) {
      if (path.className == className) {
        ofClass.push_back(&path);
        if (isPathOf(path, className, site)) {
          ofSite.push_back(&path);
        }
      } else if (linkOf(path, className) < path.chain.size()) {
        through.push_back(&path);
      }
    }
  }
  return !ofSite.empty() ? ofSite : !ofClass.empty() ? ofClass : through;
}

bool isPathOf(const rootPath& path, const std::string& className,
              const std::optional<std::string>& site) {
  return path.className == className && site && isAllocatedAt(path, *site);
}

std::string pathText(const rootPath& path, const std::string& className) {
  std::string text;
  const std::size_t from = path.className == className ? 0 : linkOf(path, className) + 1;
  for (std::size_t i = from; i < path.chain.size(); i++) {
    const std::string link = linkText(path.chain[i]);
    // The holder of a static field is named by the root as well.
    if (i + 1 < path.chain.size() || link != path.root.text) {
      text += link + " <- ";
    }
  }
  text += path.root.kind + ' ' + path.root.text;
  return path.root.thread ? text + fmt::format(" (thread {})", *path.root.thread) : text;
}

}  // namespace viewer
