#include "allocationExports.h"

#include "allocationSites.h"
#include "exportParts.h"

namespace viewer {
namespace {

constexpr const char* kOtherSites = "(sites that are not listed)";

}  // namespace

void forEachAliveStack(
    const allocationReport& report,
    const std::function<void(const std::string& className, const std::vector<std::string>& frames,
                             std::uint64_t bytes)>& visit) {
  for (const allocationSite& site : report.sites) {
    std::vector<std::string> frames = {kNoStack};
    if (site.stack && !report.stacks[*site.stack].frames.empty()) {
      const std::vector<std::string>& known = report.stacks[*site.stack].frames;
      frames.assign(known.rbegin(), known.rend());
    }
    if (site.alive.bytes > 0) {
      visit(site.className, frames, site.alive.bytes);
    }
  }
  if (report.others.alive.bytes > 0) {
    visit(kOtherSites, {kNoStack}, report.others.alive.bytes);
  }
}

void csvAllocations(const std::vector<allocationSession>& sessions, std::ostream& out) {
  csvRow(out, "report", "class", "site", "grows_bytes_per_minute", "alive_samples", "alive_bytes",
         "alive_objects", "young_samples", "young_bytes", "allocated_samples", "allocated_bytes");
  for (const allocationSession& session : sessions) {
    for (const grownSite& place : grownSitesOf(session)) {
      for (const classAtSite& one : place.classes) {
        const allocationSum& sum = one.sum;
        csvRow(out, session.source(), one.className, place.site.value_or(""),
               sum.growsBy ? std::to_string(*sum.growsBy) : "", sum.alive.samples, sum.alive.bytes,
               sum.alive.objects, sum.young.samples, sum.young.bytes, sum.allocated.samples,
               sum.allocated.bytes);
      }
    }
  }
}

void allocationGauges(const std::vector<allocationSession>& sessions, std::ostream& out) {
  gauge alive("allocations_alive_bytes", "Bytes of a class that survived, estimated from samples.");
  gauge samples("allocations_alive_samples", "The samples behind the estimate.");
  gauge allocated("allocations_allocated_bytes", "Bytes allocated, estimated from samples.");
  gauge growth("allocations_growth_bytes_per_minute", "What a class grows by.");
  for (const allocationSession& session : sessions) {
    for (const grownClass& one : grownClassesOf(session)) {
      const gauge::labels of = {{"report", session.source()}, {"class", one.className}};
      if (one.sum.allocated.samples > 0) {  // others are in histograms only
        alive.add(of, one.sum.alive.bytes);
        samples.add(of, one.sum.alive.samples);
        allocated.add(of, one.sum.allocated.bytes);
      }
      if (one.sum.growsBy) {
        growth.add(of, *one.sum.growsBy);
      }
    }
  }
  for (const gauge* one : {&alive, &samples, &allocated, &growth}) {
    one->write(out);
  }
}

}  // namespace viewer
