#include "contention/contentionFigures.h"

#include <algorithm>
#include <functional>

#include "contention/lockNames.h"

namespace agent {

namespace {

void add(instruments::cost& all, const instruments::cost& more) {
  all.ticks += more.ticks;
  all.ticksLeftOut += more.ticksLeftOut;
  all.safepoints += more.safepoints;
  all.safepointNanos += more.safepointNanos;
  all.handshakes += more.handshakes;
  all.handshakeNanos += more.handshakeNanos;
  all.processorNanos += more.processorNanos;
}

void add(contentionFigures::sums& all, const contentionFigures::sums& more) {
  all.entries += more.entries;
  all.nanos += more.nanos;
}

template <typename Buckets>
void addBuckets(Buckets& all, const Buckets& more) {
  std::transform(all.begin(), all.end(), more.begin(), all.begin(), std::plus<>());
}

}  // namespace

void contentionFigures::keep(const contentionFigures& session) {
  for (const auto& [key, more] : session.rows) {
    const bool hasRoom = rows.size() < kMostRows || rows.count(key) > 0;
    add(rows[hasRoom ? key : std::pair(std::string(), key.second)], more);
  }
  for (std::size_t i = 0; i < kKinds; ++i) {
    addBuckets(ended[i].buckets, session.ended[i].buckets);
    ended[i].nanos += session.ended[i].nanos;
  }
  add(cost, session.cost);
  startsNotSeen += session.startsNotSeen;
  blocksNotSampled += session.blocksNotSampled;
}

void sessionFigures::read() {
  cells_.assign(lockTable::kClasses * kChannels, {});
  const lockTable& locks = recorder_.locks();
  for (std::uint32_t i = 0; i < locks.end(); ++i) {
    if (locks.isLive(i)) {
      const lockRecord& record = locks.at(i);
      cells_[indexOf(record.cls, static_cast<std::size_t>(record.by))].ended.add(
          record.counts.read());
    }
  }
  for (std::uint32_t cls = 0; cls < lockTable::kClasses; ++cls) {
    for (std::size_t by = 0; locks.isClass(cls) && by < kChannels; ++by) {
      cells_[indexOf(cls, by)].ended.add(locks.classAt(cls).sums.at(by).read());
    }
  }
}

lockKind sessionFigures::kindAt(std::size_t index) const {
  const auto cls = static_cast<std::uint32_t>(index / kChannels);
  return lockTable::kindOf(static_cast<channel>(index % kChannels), recorder_.locks().classAt(cls));
}

void sessionFigures::addBlocked(const contentionSampler& sampler) {
  constexpr std::uint32_t kClassBits = 16;
  const auto addTo = [&](std::size_t cls, std::size_t by,
                         const contentionSampler::blockedNow& blocked) {
    cell& found = cells_.at(indexOf(cls, by));
    found.goesOn += blocked.nanos;
    found.threads += blocked.threads;
  };
  const lockTable& locks = recorder_.locks();
  const std::vector<contentionSampler::blockedNow>& blocked = sampler.blocked();
  for (std::uint32_t i = 0; i < std::min<std::size_t>(locks.end(), blocked.size()); ++i) {
    if (blocked[i].threads > 0 && locks.isLive(i)) {
      addTo(locks.at(i).cls, static_cast<std::size_t>(locks.at(i).by), blocked[i]);
    }
  }
  for (const auto& [place, others] : sampler.blockedAtOthers()) {
    const std::uint32_t which = place & ~blockRecorder::kOthers;
    addTo(which & ((1U << kClassBits) - 1), which >> kClassBits, others);
  }
}

void sessionFigures::addTo(contentionFigures& all, const contentionSamples& samples,
                           const contentionSampler& sampler) {
  addBlocked(sampler);
  for (std::size_t i = 0; i < cells_.size(); ++i) {
    const cell& each = cells_[i];
    const lockKind kind = kindAt(i);
    if (kind == lockKind::idle || (each.ended.entries == 0 && each.threads == 0)) {
      continue;
    }
    const std::string_view cls = publicClass(samples.classNames[i / kChannels], kind);
    add(all.rows[{std::string(cls), kind}], {each.ended.entries, each.ended.nanos + each.goesOn});
    const auto index = static_cast<std::size_t>(kind);
    addBuckets(all.ended.at(index).buckets, each.ended.histogram);
    all.ended.at(index).nanos += each.ended.nanos;
    all.blockedThreads.at(index) += each.threads;
  }
  add(all.cost, samples.cost.total());
  all.startsNotSeen += recorder_.omitted().startsNotSeen.load();
  all.blocksNotSampled += recorder_.omitted().notSampled.load();
}

}  // namespace agent
