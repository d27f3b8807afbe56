#include "contention/contentionPush.h"

#include <algorithm>
#include <numeric>
#include <string_view>

#include "contention/lockNames.h"
#include "instruments/costAccount.h"
#include "pprof/profileWriter.h"

namespace agent {

namespace {

constexpr std::string_view kNoStack = "(no stack recorded)";
constexpr pprof::valueType kContentions{"contentions", "count"};

const char* nameOf(lockKind kind) {
  return kind == lockKind::monitor ? "monitor" : "lock";
}

std::vector<std::string_view> framesOf(const instruments::stackTable& stacks, std::uint32_t id) {
  std::vector<std::string_view> frames;
  if (id != 0) {
    for (const std::uint32_t each : stacks.at(id).frames) {
      frames.emplace_back(stacks.frame(each));
    }
  }
  return frames.empty() ? std::vector{kNoStack} : frames;
}

}  // namespace

void contentionPush::read(const blockRecorder& recorder) {
  counted_.assign(lockTable::kClasses * kChannels, {});
  const auto add = [this](std::size_t cls, std::size_t by, const blockCounts& counts) {
    sums& all = counted_.at(indexOf(cls, by));
    all.entries += counts.entries();
    all.nanos += counts.nanos();
  };
  const lockTable& locks = recorder.locks();
  for (std::uint32_t i = 0; i < locks.end(); ++i) {
    if (locks.isLive(i)) {
      add(locks.at(i).cls, static_cast<std::size_t>(locks.at(i).by), locks.at(i).counts);
    }
  }
  for (std::uint32_t cls = 0; cls < lockTable::kClasses; ++cls) {
    for (std::size_t by = 0; locks.isClass(cls) && by < kChannels; ++by) {
      add(cls, by, locks.classAt(cls).sums.at(by));
    }
  }
}

void contentionPush::addBlocked(const blockRecorder& recorder, const contentionSampler& sampler) {
  const lockTable& locks = recorder.locks();
  const std::vector<contentionSampler::blockedNow>& blocked = sampler.blocked();
  for (std::uint32_t i = 0; i < std::min<std::size_t>(locks.end(), blocked.size()); ++i) {
    if (blocked[i].threads > 0 && locks.isLive(i)) {
      const lockRecord& record = locks.at(i);
      counted_.at(indexOf(record.cls, static_cast<std::size_t>(record.by))).nanos +=
          blocked[i].nanos;
    }
  }
  for (std::uint32_t cls = 0; cls < lockTable::kClasses; ++cls) {
    for (std::size_t by = 0; by < kChannels; ++by) {
      const auto found =
          sampler.blockedAtOthers().find(blockRecorder::othersOf(static_cast<channel>(by), cls));
      if (found != sampler.blockedAtOthers().end()) {
        counted_.at(indexOf(cls, by)).nanos += found->second.nanos;
      }
    }
  }
}

// What samples stand for since the last window, by class and channel.
std::vector<std::vector<contentionPush::part>> contentionPush::newParts(
    const contentionSamples& samples) {
  std::vector<std::vector<part>> parts(counted_.size());
  for (const auto& [key, counts] : samples.pairs) {
    std::uint64_t& given = givenPairs_[key];
    if (counts.nanos > given) {
      parts.at(indexOf(counts.cls, static_cast<std::size_t>(counts.by)))
          .push_back({&key, counts.nanos - given});
      given = counts.nanos;
    }
  }
  return parts;
}

std::string contentionPush::take(const contentionSession& session, const blockRecorder& recorder,
                                 const contentionSamples& samples, const contentionSampler& sampler,
                                 std::int64_t now) {
  if (session_ == session.started && now <= last_) {
    return {};  // it is over, and all of it was given
  }
  if (session_ != session.started) {
    session_ = session.started;
    last_ = session.started;
    given_.assign(counted_.size(), {});
    givenPairs_.clear();
  }
  addBlocked(recorder, sampler);
  pprof::profileWriter to({kContentions, {"delay", "nanoseconds"}});
  to.setPeriod(kContentions, 1);
  constexpr std::int64_t kNanosPerMilli = 1'000'000;
  to.setTime(instruments::epochMillisOf(last_) * kNanosPerMilli,
             std::max<std::int64_t>(now - last_, 0));
  last_ = now;
  const std::vector<std::vector<part>> parts = newParts(samples);
  for (std::size_t i = 0; i < counted_.size(); ++i) {
    const std::size_t cls = i / kChannels;
    const lockKind kind =
        lockTable::kindOf(static_cast<channel>(i % kChannels),
                          recorder.locks().classAt(static_cast<std::uint32_t>(cls)));
    const sums& all = counted_[i];
    sums& given = given_[i];
    const std::uint64_t entries = all.entries > given.entries ? all.entries - given.entries : 0;
    if (!isContention(kind) || (entries == 0 && all.nanos <= given.nanos && parts[i].empty())) {
      continue;
    }
    std::vector<std::uint64_t> nanos;
    for (const part& each : parts[i]) {
      nanos.push_back(each.nanos);
    }
    const std::uint64_t sampled = std::accumulate(nanos.begin(), nanos.end(), std::uint64_t{0});
    const std::uint64_t due = all.nanos > given.nanos ? all.nanos - given.nanos : 0;
    if (due > sampled || nanos.empty()) {
      nanos.push_back(due - sampled);
    }
    given.entries += entries;
    given.nanos += std::max(due, sampled);
    const std::vector<std::uint64_t> shares = pprof::split(entries, nanos);
    const std::string_view name = publicClass(samples.classNames.at(cls), kind);
    for (std::size_t j = 0; j < nanos.size(); ++j) {
      const pairKey* const pair = j < parts[i].size() ? parts[i][j].pair : nullptr;
      to.add(framesOf(samples.stacks, pair == nullptr ? 0 : pair->waiterStack),
             {shares[j], nanos[j]},
             {{"lock", name.empty() ? "(class not known)" : name},
              {"field", pair == nullptr ? std::string_view() : samples.fieldOf(pair->lock)},
              {"kind", nameOf(kind)}});
    }
  }
  return to.hasSamples() ? to.finish() : std::string();
}

}  // namespace agent
