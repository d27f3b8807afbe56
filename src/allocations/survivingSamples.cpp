#include "allocations/survivingSamples.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <span>

#include "allocations/allocationRecorder.h"

namespace agent {

namespace {

// Counts `value` in the bucket of its highest bit; 0 goes with 1.
void countIn(std::vector<std::uint64_t>& buckets, std::uint64_t value) {
  const auto bucket =
      static_cast<std::size_t>(std::bit_width(std::max<std::uint64_t>(value, 1)) - 1);
  if (buckets.size() <= bucket) {
    buckets.resize(bucket + 1);
  }
  ++buckets[bucket];
}

}  // namespace

void survivingSamples::begin(std::size_t limit, std::int64_t now) {
  limit_ = limit;
  startedAt_ = now;
  // Two full queues beyond the limit, at most: no reference is lost for lack of memory.
  live_.reserve(limit + 2 * sampleQueue::kMost);
  stacks_.clear();
  indexes_.clear();
  sites_.assign(1, {});
  live_.clear();
  points_.clear();
  points_.reserve(kMostPoints);
  step_ = kFirstStep;
  nextPoint_ = now + step_;
  isLastEarly_ = false;
  droppedSites_ = 0;
  thinned_ = 0;
}

void survivingSamples::drop(JNIEnv* jni) {
  for (const liveSample& each : live_) {
    jni->DeleteWeakGlobalRef(each.object);
  }
  live_.clear();
}

void survivingSamples::release() {
  stacks_.clear();
  indexes_ = {};
  sites_ = std::vector<site>(1);
  live_ = {};
  points_ = {};
}

std::uint32_t survivingSamples::indexOf(const allocationSite& key) {
  const auto known = indexes_.find(key);
  if (known != indexes_.end()) {
    return known->second;
  }
  if (indexes_.size() == kMostSites) {
    ++droppedSites_;
    return 0;
  }
  const auto index = static_cast<std::uint32_t>(sites_.size());
  sites_.push_back({key, {}, points_.size(), {}});
  indexes_.emplace(key, index);
  return index;
}

void survivingSamples::add(jvmtiEnv* jvmti, JNIEnv* jni, const sampleQueue::entry& taken,
                           const collectionRounds& rounds) {
  const takenSample& sample = taken.sample;
  const auto depth = static_cast<std::size_t>(taken.depth);
  const double bytes = estimatedBytes(sample.size, sample.interval);
  const double objects = sample.size > 0 ? bytes / static_cast<double>(sample.size) : 1;
  live_.push_back(
      {sample.object, 0, sample.thread, rounds.roundOf(sample.at), sample.at, bytes, objects});
  const std::uint32_t stack =
      stacks_.idOf(jvmti, jni, std::span(taken.frames).first(depth), taken.isCut);
  const std::uint32_t index = indexOf({sample.cls, stack});
  live_.back().site = index;
  sites_[index].allocated.add(bytes, objects);
}

void survivingSamples::removeDead(JNIEnv* jni) {
  std::erase_if(live_, [&](const liveSample& each) {
    const bool isDead = jni->IsSameObject(each.object, nullptr) != JNI_FALSE;
    if (isDead) {
      jni->DeleteWeakGlobalRef(each.object);
    }
    return isDead;
  });
}

void survivingSamples::renewed(const collectionRounds& rounds) {
  for (liveSample& each : live_) {
    each.round = std::min(each.round, rounds.roundOf(each.at));
  }
}

void survivingSamples::thinOut(JNIEnv* jni) {
  std::erase_if(live_, [&](const liveSample& each) {
    constexpr std::uint32_t kBit = 1U << 16U;  // the lowest bits are not random enough
    const bool goes = (random_() & kBit) != 0;
    if (goes) {
      jni->DeleteWeakGlobalRef(each.object);
    }
    return goes;
  });
  for (liveSample& each : live_) {
    each.bytes *= 2;
    each.objects *= 2;
  }
  ++thinned_;
}

// Leaves every second point.
void survivingSamples::thinPoints() {
  const auto thin = [](auto& values, std::size_t first) {
    std::size_t kept = 0;
    for (std::size_t i = first % 2; i < values.size(); i += 2) {
      values[kept++] = values[i];
    }
    values.resize(kept);
  };
  thin(points_, 0);
  for (site& each : sites_) {
    thin(each.course, each.courseFrom);
    each.courseFrom = (each.courseFrom + 1) / 2;
  }
  step_ *= 2;
}

void survivingSamples::dropLastPoint() {
  points_.pop_back();
  for (site& each : sites_) {
    if (!each.course.empty()) {
      each.course.pop_back();
    }
    each.courseFrom = std::min(each.courseFrom, points_.size());
  }
}

std::vector<amounts> survivingSamples::alive(const collectionRounds& rounds) const {
  std::vector<amounts> alive(sites_.size());
  for (const liveSample& each : live_) {
    if (age(each, rounds) > 0) {
      alive[each.site].add(each.bytes, each.objects);
    }
  }
  return alive;
}

void survivingSamples::markPoint(const collectionRounds& rounds, std::int64_t now) {
  const std::vector<amounts> found = alive(rounds);
  double total = 0;
  for (std::size_t i = 0; i < sites_.size(); ++i) {
    std::vector<double>& course = sites_[i].course;
    total += found[i].bytes;
    const bool goesOn = found[i].bytes != 0 || !course.empty();
    if (goesOn && course.size() == course.capacity()) {
      course.reserve(std::min(2 * course.size() + 1, kMostPoints));
    }
  }
  // Nothing is thrown from here on, or points and courses would not match.
  if (isLastEarly_) {
    dropLastPoint();
  }
  if (points_.size() == kMostPoints) {
    thinPoints();
  }
  for (std::size_t i = 0; i < sites_.size(); ++i) {
    site& each = sites_[i];
    if (each.course.empty() && found[i].bytes == 0) {
      each.courseFrom = points_.size() + 1;
    } else {
      each.course.push_back(found[i].bytes);
    }
  }
  points_.push_back({now, rounds.ended(), total});
  isLastEarly_ = now < nextPoint_;
  if (!isLastEarly_) {
    nextPoint_ = now + step_;
  }
}

std::vector<siteState> survivingSamples::states(const collectionRounds& rounds,
                                                std::int64_t now) const {
  constexpr std::int64_t kSecond = std::chrono::nanoseconds(std::chrono::seconds(1)).count();
  std::vector<siteState> states(sites_.size());
  const std::int64_t length = std::max<std::int64_t>(now - startedAt_, 1);
  for (const liveSample& each : live_) {
    siteState& state = states[each.site];
    const std::uint32_t rank = age(each, rounds);
    if (rank == 0) {
      state.young.add(each.bytes, each.objects);
      continue;
    }
    state.alive.add(each.bytes, each.objects);
    countIn(state.ages, rank);
    countIn(state.seconds,
            static_cast<std::uint64_t>(std::max<std::int64_t>(now - each.at, 0) / kSecond));
    const std::int64_t since = std::clamp<std::int64_t>(each.at - startedAt_, 0, length - 1);
    const auto part = static_cast<double>(since) / static_cast<double>(length);
    state.born.at(static_cast<std::size_t>(part * siteState::kEighths)) += each.bytes;
    ++state.threads[each.thread];
  }
  return states;
}

std::vector<amounts> survivingSamples::aliveSince(std::int64_t time, std::uint32_t round,
                                                  const collectionRounds& rounds) const {
  std::vector<amounts> alive(sites_.size());
  if (rounds.ended() <= round) {
    return alive;
  }
  for (const liveSample& each : live_) {
    if (each.at < time && age(each, rounds) > 0) {
      alive[each.site].add(each.bytes, each.objects);
    }
  }
  return alive;
}

}  // namespace agent
