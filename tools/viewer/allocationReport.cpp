#include "allocationReport.h"

#include <algorithm>

#include "contentionReport.h"
#include "exceptionCounts.h"

namespace viewer {
namespace {

using predicate = std::function<bool(const std::string&)>;

bool anyHas(const std::vector<std::string>& texts, const predicate& has) {
  return std::any_of(texts.begin(), texts.end(), has);
}

bool occursIn(const allocationReport& report, const allocationSite& site, const predicate& has) {
  return has(site.className) || (site.stack && anyHas(report.stacks[*site.stack].frames, has)) ||
         std::any_of(site.threads.begin(), site.threads.end(),
                     [&](const allocationThread& one) { return has(one.name); });
}

bool occursIn(const rootPath& path, const predicate& has) {
  return has(path.className) || has(path.root.text) || anyHas(path.stack, has) ||
         std::any_of(path.chain.begin(), path.chain.end(), [&](const pathLink& one) {
           return has(one.className) || (one.field && has(*one.field));
         });
}

}  // namespace

sampledAmount& operator+=(sampledAmount& to, const sampledAmount& more) {
  to.samples = plus(to.samples, more.samples);
  to.bytes = plus(to.bytes, more.bytes);
  to.objects = plus(to.objects, more.objects);
  return to;
}

const std::string& allocationSession::source() const {
  return samples ? samples->source : growth ? growth->source : paths ? paths->source : name;
}

std::uint64_t lengthOf(const allocationReport& report) {
  const std::uint64_t end = report.shutdownAt.value_or(report.endedAt.value_or(report.writtenAt));
  return end - std::min(end, report.startedAt);
}

std::optional<std::string> siteOf(const allocationReport& report, const allocationSite& site) {
  if (!site.stack || report.stacks[*site.stack].frames.empty()) {
    return {};
  }
  const std::vector<std::string>& frames = report.stacks[*site.stack].frames;
  const auto found = std::find_if(frames.begin(), frames.end(),
                                  [](const std::string& frame) { return !isOfJdk(frame); });
  return found == frames.end() ? frames.front() : *found;
}

bool holdsAllocations(const allocationSession& session) {
  return (session.samples && !session.samples->sites.empty()) ||
         (session.growth && !session.growth->classes.empty()) ||
         (session.paths && !session.paths->paths.empty());
}

void keepAllocations(allocationSession& session, const predicate& has) {
  if (session.samples) {
    std::erase_if(session.samples->sites,
                  [&](const allocationSite& one) { return !occursIn(*session.samples, one, has); });
  }
  if (session.growth) {
    std::erase_if(session.growth->classes,
                  [&](const classGrowth& one) { return !has(one.className); });
  }
  if (session.paths) {
    std::erase_if(session.paths->paths, [&](const rootPath& one) { return !occursIn(one, has); });
  }
  session.isFiltered = true;
}

}  // namespace viewer
