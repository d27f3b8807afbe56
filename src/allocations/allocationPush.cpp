#include "allocations/allocationPush.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string_view>

#include "instruments/costAccount.h"
#include "pprof/profileWriter.h"

namespace agent {

namespace {

constexpr std::string_view kNoStack = "(no stack recorded)";
constexpr std::string_view kOtherSites = "(sites that are not listed)";

std::uint64_t rounded(double value) {
  return static_cast<std::uint64_t>(std::llround(std::max(value, 0.0)));
}

// What is not given of a sum yet. The sums of a window never go back.
std::uint64_t takeRest(double all, std::uint64_t& given) {
  const std::uint64_t now = std::max(rounded(all), given);
  const std::uint64_t rest = now - given;
  given = now;
  return rest;
}

}  // namespace

std::vector<allocationPush::row> allocationPush::rows(const survivingSamples& samples,
                                                      const std::vector<siteState>& alive) {
  std::vector<row> result;
  given_.resize(std::max(given_.size(), samples.sites().size()));
  for (std::size_t i = 0; i < samples.sites().size(); ++i) {
    const amounts& allocated = samples.sites()[i].allocated;
    const amounts inUse = i < alive.size() ? alive[i].alive : amounts();
    result.push_back({i,
                      {takeRest(allocated.objects, given_[i].objects),
                       takeRest(allocated.bytes, given_[i].bytes), rounded(inUse.objects),
                       rounded(inUse.bytes)}});
  }
  return result;
}

std::string allocationPush::take(const allocationSession& session,
                                 const allocationRecorder& recorder,
                                 const survivingSamples& samples,
                                 const std::vector<siteState>& alive, std::int64_t now) {
  constexpr std::int64_t kNanosPerMilli = 1'000'000;
  if (session_ == session.started && now <= last_) {
    return {};  // it is over, and all of it was given
  }
  if (session_ != session.started) {
    session_ = session.started;
    last_ = session.started;
    given_.clear();
  }
  pprof::profileWriter to({{"alloc_objects", "count"},
                           {"alloc_space", "bytes"},
                           {"inuse_objects", "count"},
                           {"inuse_space", "bytes"}});
  to.setPeriod({"space", "bytes"}, recorder.interval());
  to.setTime(instruments::epochMillisOf(last_) * kNanosPerMilli,
             std::max<std::int64_t>(now - last_, 0));
  last_ = now;
  std::vector<row> all = rows(samples, alive);
  std::sort(all.begin(), all.end(),
            [](const row& a, const row& b) { return a.weight() > b.weight(); });
  std::vector<std::uint64_t> rest(4);
  for (std::size_t i = 0; i < all.size(); ++i) {
    const allocationSite& site = samples.sites()[all[i].site].key;
    if (i >= kMostSites || all[i].site == 0) {  // 0 has those that had no room
      std::transform(rest.begin(), rest.end(), all[i].values.begin(), rest.begin(), std::plus<>());
      continue;
    }
    std::vector<std::string_view> frames;
    if (site.stack != 0) {
      for (const std::uint32_t each : samples.stacks().at(site.stack).frames) {
        frames.emplace_back(samples.stacks().frame(each));
      }
    }
    to.add(frames.empty() ? std::vector{kNoStack} : frames, all[i].values,
           {{"class", recorder.className(site.cls)}});
  }
  to.add({kOtherSites}, rest, {});
  return to.hasSamples() ? to.finish() : std::string();
}

}  // namespace agent
