#include "contention/contentionSampler.h"

#include <algorithm>
#include <bit>
#include <string>

#include "agent/twAprLib.h"
#include "contention/lockNames.h"
#include "support/heldClasses.h"
#include "support/jniRef.h"
#include "support/text.h"

namespace agent {

namespace {

constexpr std::int64_t kNanosPerSecond = 1'000'000'000;
constexpr std::int64_t kNanosPerMilli = 1'000'000;
constexpr std::uint64_t kStride = 0x9E3779B1U;
constexpr std::int64_t kUpkeep = 100 * kNanosPerMilli;
constexpr std::int64_t kThinning = 20 * kNanosPerMilli;

std::uint64_t since(std::uint64_t now, std::uint64_t before) {
  return now > before ? now - before : 0;
}

}  // namespace

void contentionSampler::begin(const contentionSettings& settings, const ownerClasses& classes,
                              bool canCheck, std::int64_t now) {
  settings_ = settings;
  classes_ = classes;
  canCheck_ = canCheck;
  const auto locks = static_cast<std::size_t>(settings.locks);
  waiting_.assign(locks, {});
  waitedFor_.clear();
  blocked_.assign(locks, {});
  weights_.assign(locks, {});
  baselines_.assign(locks, {});
  contended_ = {};
  waits_ = {};
  nextTick_ = now;
  lastTick_ = now;
  lastWaitTick_ = now;
  nextUpkeep_ = now;
  nextThinning_ = now;
  entriesBefore_.assign(locks, 0);
  nextStuckLook_ = now;
  tickNumber_ = 0;
  stuckSince_.clear();
  reportedStuck_.clear();
  reportedDeadlocks_.clear();
  samples_.clear();
  samples_.cost.setBudget(settings.budgetPercent);
  samples_.current.start = now;
}

std::int64_t contentionSampler::nextStep(std::int64_t now) const {
  const std::int64_t next =
      settings_.samplesPerSecond > 0 ? std::min(nextTick_, nextUpkeep_) : nextUpkeep_;
  return std::max(next, now);
}

// Threads are scanned for what needs it only: there may be tens of thousands of them.
void contentionSampler::step(jvmtiEnv* jvmti, JNIEnv* jni, std::int64_t now) {
  thinOut(now);
  const bool isTick = settings_.samplesPerSecond > 0 && now >= nextTick_;
  if (isTick) {
    nextTick_ = now + kNanosPerSecond / settings_.samplesPerSecond;
  }
  const bool isTaken = isTick && samples_.cost.takeTick(now);
  if (!isTaken && now < nextUpkeep_) {
    samples_.cost.endTick();
    return;
  }
  scan(now);
  if (isTaken) {
    tick(jvmti, jni, now);
  }
  findStuck(jvmti, jni, now);
  if (now >= nextUpkeep_) {
    nextUpkeep_ = now + kUpkeep;
    readNames(jvmti, jni);
    std::vector<bool> isUsed(blocked_.size());
    std::transform(blocked_.begin(), blocked_.end(), isUsed.begin(),
                   [](const blockedNow& each) { return each.threads > 0; });
    recorder_.locks().makeRoom(jni, recorder_.gate(), isUsed);
    if (now - samples_.current.start >= settings_.windowMillis * kNanosPerMilli) {
      endWindow(sumUp(now), now);
    }
  }
  samples_.cost.endTick();
}

void contentionSampler::catchUp(jvmtiEnv* jvmti, JNIEnv* jni, std::int64_t now) {
  readNames(jvmti, jni);
  fillWindow(sumUp(now), now);
}

// Who is blocked by what. The order in which slots are read changes, so that of more threads than
// there is room for not always the same are skipped.
void contentionSampler::scan(std::int64_t now) {
  for (const std::uint32_t place : waitedFor_) {
    waiting_[place].clear();
    blocked_[place] = {};
  }
  waitedFor_.clear();
  others_.clear();
  const std::uint32_t end = recorder_.threads().end();
  const auto start = static_cast<std::uint32_t>(++tickNumber_ * kStride);
  for (std::uint32_t i = 0; i < end; ++i) {
    const std::uint32_t slot = (start + i) & (end - 1);
    blockedThread found{};
    if (!recorder_.threads().read(slot, found)) {
      continue;
    }
    const auto nanos = static_cast<std::uint64_t>(std::max<std::int64_t>(now - found.since, 0));
    const bool isOther = found.place >= blocked_.size();
    blockedNow& lock = isOther ? others_[found.place] : blocked_[found.place];
    if (lock.threads++ == 0) {
      lock.since = found.since;
    }
    lock.nanos += nanos;
    if (isOther) {
      continue;
    }
    if (lock.threads == 1) {
      waitedFor_.push_back(found.place);
    }
    std::vector<waitingThread>& waiting = waiting_[found.place];
    if (waiting.size() < kMostWaiting) {
      waiting.push_back({slot, found});
    } else if (found.since < lock.since) {
      waiting.front() = {slot, found};  // the one that is blocked longest is always among them
    }
    lock.since = std::min(lock.since, found.since);
  }
}

// Of the threads of a lock that many meet, only every n-th leaves a reference to itself. The length
// of its block does not matter, so that the threads that can be sampled are like the others.
void contentionSampler::thinOut(std::int64_t now) {
  constexpr std::uint64_t kPerLock = 16;
  constexpr std::uint64_t kInAll = 128;
  if (now < nextThinning_) {
    return;
  }
  nextThinning_ = now + kThinning;
  lockTable& locks = recorder_.locks();
  std::vector<std::pair<std::uint32_t, std::uint64_t>> busy;
  for (std::uint32_t i = 0; i < locks.end(); ++i) {
    const std::uint64_t entries = locks.at(i).counts.entries();
    if (locks.isLive(i) && entries > entriesBefore_[i]) {
      busy.emplace_back(i, entries - entriesBefore_[i]);
    } else {
      locks.at(i).thinning.store(0, std::memory_order_relaxed);
    }
    entriesBefore_[i] = entries;
  }
  const std::uint64_t each =
      std::max<std::uint64_t>(std::min(kPerLock, kInAll / (busy.size() + 1)), 1);
  for (const auto& [place, number] : busy) {
    locks.at(place).thinning.store(static_cast<std::uint32_t>(std::bit_ceil(number / each + 1) - 1),
                                   std::memory_order_relaxed);
  }
}

void contentionSampler::tick(jvmtiEnv* jvmti, JNIEnv* jni, std::int64_t now) {
  weigh(now);
  std::vector<std::uint32_t> places;
  std::copy_if(waitedFor_.begin(), waitedFor_.end(), std::back_inserter(places),
               [&](std::uint32_t place) { return weightOf(place) > 0; });
  const std::size_t most = std::clamp<std::size_t>(samples_.cost.affordable(), 1, kLocksPerTick);
  if (places.size() > most) {
    samples_.locksNotSampled += places.size() - most;
    std::partial_sort(places.begin(), places.begin() + static_cast<std::ptrdiff_t>(most),
                      places.end(),
                      [&](std::uint32_t a, std::uint32_t b) { return weightOf(a) > weightOf(b); });
    places.resize(most);
  }
  lockLook look(jvmti, jni, recorder_, samples_, classes_, canCheck_);
  for (const std::uint32_t place : places) {
    sample(look, place);
  }
}

// The record may be that of another lock than the last time.
std::uint64_t& contentionSampler::weightOf(std::uint32_t place) {
  const std::uint32_t id = recorder_.locks().at(place).id;
  if (weights_[place].id != id) {
    weights_[place] = {id, 0};
  }
  return weights_[place].nanos;
}

// Each thread that is blocked now stands for the time since the last look.
void contentionSampler::weigh(std::int64_t now) {
  const bool withWaits = samples_.cost.total().ticks % kWaitShare == 0;
  const auto nanos = static_cast<std::uint64_t>(now - lastTick_);
  const auto waitNanos = static_cast<std::uint64_t>(now - lastWaitTick_);
  for (const std::uint32_t place : waitedFor_) {
    if (isContention(recorder_.kindOf(place))) {
      weightOf(place) += blocked_[place].threads * nanos;
    } else if (withWaits) {
      weightOf(place) += blocked_[place].threads * waitNanos;
    }
  }
  lastTick_ = now;
  if (withWaits) {
    lastWaitTick_ = now;
  }
}

void contentionSampler::sample(lockLook& look, std::uint32_t place) {
  const lockRecord& record = recorder_.locks().at(place);
  // The first ones are shown: each of them as often as the others.
  std::vector<waitingThread>& waiting = waiting_[place];
  const std::uint64_t turn = static_cast<std::uint32_t>(tickNumber_ * kStride);
  std::rotate(waiting.begin(),
              waiting.begin() + static_cast<std::ptrdiff_t>(turn * waiting.size() >> 32U),
              waiting.end());
  const lockSeen seen = look.at(place, waiting, kWaitersPerLock);
  if (seen.waiters.empty()) {
    return;  // its time waits for a sample
  }
  std::uint64_t& nanos = weightOf(place);
  const std::uint64_t share = nanos / seen.waiters.size();
  nanos = 0;
  for (const waiterSeen& each : seen.waiters) {
    book({record.id, each.thread, each.stack, seen.owner}, record, share);
  }
}

void contentionSampler::book(const pairKey& key, const lockRecord& record, std::uint64_t nanos) {
  pairCounts* const counts = samples_.pairs.at(key);
  if (counts == nullptr) {
    ++samples_.pairsDropped;
    samples_.pairNanosDropped += nanos;
    return;
  }
  counts->nanos += nanos;
  ++counts->samples;
  counts->cls = record.cls;
  counts->by = record.by;
}

void contentionSampler::readNames(jvmtiEnv* jvmti, JNIEnv* jni) {
  lockTable& locks = recorder_.locks();
  for (std::uint32_t i = 1; i < lockTable::kClasses; ++i) {
    if (!samples_.classNames[i].empty() || !locks.isClass(i)) {
      continue;
    }
    const support::localRef<jclass> cls(
        jni, static_cast<jclass>(jni->NewLocalRef(locks.classAt(i).cls)));
    if (cls) {
      samples_.classNames[i] =
          support::classNameOf(support::classSignature(jvmti, cls.get()).view());
    }
  }
}

// Sums are read before the threads that are blocked still: what ends in between is missing now and
// there the next time, but never counted twice.
contentionSampler::allSums contentionSampler::sumUp(std::int64_t now) {
  const lockTable& locks = recorder_.locks();
  allSums all;
  all.locks.resize(blocked_.size());
  for (std::uint32_t i = 0; i < locks.end(); ++i) {
    if (locks.isLive(i)) {
      all.locks[i] = {locks.at(i).counts.nanos(), locks.at(i).counts.entries()};
    }
  }
  for (std::uint32_t i = 0; i < lockTable::kClasses; ++i) {
    for (std::size_t by = 0; locks.isClass(i) && by < kChannels; ++by) {
      const lockClass& cls = locks.classAt(i);
      sums& sum = isContention(lockTable::kindOf(static_cast<channel>(by), cls)) ? all.contended
                                                                                 : all.waits;
      sum.nanos += cls.sums[by].nanos();
      sum.entries += cls.sums[by].entries();
    }
  }
  scan(now);
  for (const auto& [place, blocked] : others_) {
    (isContention(recorder_.kindOf(place)) ? all.contended : all.waits).nanos += blocked.nanos;
  }
  for (std::uint32_t i = 0; i < locks.end(); ++i) {
    if (!locks.isLive(i)) {
      continue;
    }
    all.locks[i].nanos += blocked_[i].nanos;
    sums& sum = isContention(locks.at(i).kind) ? all.contended : all.waits;
    sum.nanos += all.locks[i].nanos;
    sum.entries += all.locks[i].entries;
  }
  return all;
}

void contentionSampler::fillWindow(const allSums& now, std::int64_t end) {
  contentionWindow& window = samples_.current;
  window.end = end;
  window.nanos = since(now.contended.nanos, contended_.nanos);
  window.entries = since(now.contended.entries, contended_.entries);
  window.waitNanos = since(now.waits.nanos, waits_.nanos);
  window.waits = since(now.waits.entries, waits_.entries);
  window.locks.clear();
  const lockTable& locks = recorder_.locks();
  for (std::uint32_t i = 0; i < locks.end(); ++i) {
    if (!locks.isLive(i)) {
      continue;
    }
    const std::uint32_t id = locks.at(i).id;
    const baseline before = baselines_[i].id == id ? baselines_[i] : baseline{};
    const windowShare share{id, since(now.locks[i].nanos, before.nanos),
                            since(now.locks[i].entries, before.entries)};
    if (share.nanos > 0 || share.entries > 0) {
      window.locks.push_back(share);
    }
  }
  const std::size_t kept = std::min(window.locks.size(), contentionSamples::kWindowLocks);
  std::partial_sort(window.locks.begin(), window.locks.begin() + static_cast<std::ptrdiff_t>(kept),
                    window.locks.end(),
                    [](const windowShare& a, const windowShare& b) { return a.nanos > b.nanos; });
}

void contentionSampler::endWindow(const allSums& now, std::int64_t end) {
  fillWindow(now, end);
  const auto raise = [](baseline& before, const sums& sum) {
    before.nanos = std::max(before.nanos, sum.nanos);
    before.entries = std::max(before.entries, sum.entries);
  };
  raise(contended_, now.contended);
  raise(waits_, now.waits);
  const lockTable& locks = recorder_.locks();
  for (std::uint32_t i = 0; i < locks.end(); ++i) {
    if (locks.isLive(i)) {
      if (baselines_[i].id != locks.at(i).id) {
        baselines_[i] = {locks.at(i).id, 0, 0};
      }
      raise(baselines_[i], now.locks[i]);
    }
  }
  std::vector<windowShare>& shares = samples_.current.locks;
  if (shares.size() > contentionSamples::kWindowLocks) {
    samples_.windowLocksDropped += shares.size() - contentionSamples::kWindowLocks;
    shares.resize(contentionSamples::kWindowLocks);
    shares.shrink_to_fit();
  }
  samples_.windows.add(std::move(samples_.current));
  samples_.current = {};
  samples_.current.start = end;
}

void contentionSampler::findStuck(jvmtiEnv* jvmti, JNIEnv* jni, std::int64_t now) {
  std::vector<std::uint32_t> places;
  std::vector<std::int64_t> starts;
  for (const std::uint32_t place : waitedFor_) {
    if (isContention(recorder_.kindOf(place)) &&
        now - blocked_[place].since >= settings_.stuckMillis * kNanosPerMilli) {
      places.push_back(place);
    }
  }
  std::sort(places.begin(), places.end(), [&](std::uint32_t a, std::uint32_t b) {
    return blocked_[a].since < blocked_[b].since;
  });
  std::transform(places.begin(), places.end(), std::back_inserter(starts),
                 [&](std::uint32_t place) { return blocked_[place].since; });
  if (starts == stuckSince_ && now < nextStuckLook_) {
    return;
  }
  stuckSince_ = starts;
  nextStuckLook_ = now + kNanosPerSecond;
  samples_.stuck.clear();
  samples_.stuckDropped = 0;
  readNames(jvmti, jni);
  lockLook look(jvmti, jni, recorder_, samples_, classes_, canCheck_);
  for (const std::uint32_t place : places) {
    if (samples_.stuck.size() == contentionSamples::kMostStuck) {
      ++samples_.stuckDropped;
      continue;
    }
    const std::vector<waitingThread> waiting = stuckAt(jvmti, jni, place, now);
    if (waiting.empty()) {
      continue;
    }
    adoptThreads(jvmti, jni, waiting);
    const lockSeen seen = look.at(place, waiting, contentionSamples::kMostStuckThreads);
    const lockRecord& record = recorder_.locks().at(place);
    stuckLock stuck{record.id,
                    std::string(publicClass(samples_.classNames[record.cls], record.kind)) + '@' +
                        identityText(record.hash),
                    waiting.front().block.since,
                    blocked_[place].threads,
                    {},
                    seen.owner};
    for (const waiterSeen& each : seen.waiters) {
      stuck.waiters.push_back({each.thread, each.since, each.stack});
    }
    samples_.stuck.push_back(std::move(stuck));
  }
  findDeadlocks();
  reportStuck(now);
}

// The threads that are blocked for too long, the longest first. One that has ended is none: its
// block was left without an event.
std::vector<waitingThread> contentionSampler::stuckAt(jvmtiEnv* jvmti, JNIEnv* jni,
                                                      std::uint32_t place, std::int64_t now) {
  std::vector<waitingThread> stuck;
  for (const waitingThread& each : waiting_[place]) {
    if (now - each.block.since < settings_.stuckMillis * kNanosPerMilli) {
      continue;
    }
    const support::localRef<jthread> thread(
        jni, recorder_.threads().threadOf(jni, each.slot, each.block));
    jint state = 0;
    if (thread && jvmti->GetThreadState(thread.get(), &state) == JVMTI_ERROR_NONE &&
        (state & JVMTI_THREAD_STATE_ALIVE) == 0) {
      recorder_.threads().drop(jni, each.slot, each.block);
      continue;
    }
    stuck.push_back(each);
  }
  std::sort(stuck.begin(), stuck.end(), [](const waitingThread& a, const waitingThread& b) {
    return a.block.since < b.block.since;
  });
  return stuck;
}

// Platform threads that left no reference to themselves get one here.
void contentionSampler::adoptThreads(jvmtiEnv* jvmti, JNIEnv* jni,
                                     const std::vector<waitingThread>& waiting) {
  const std::size_t count = std::min(waiting.size(), contentionSamples::kMostStuckThreads);
  const bool isMissing = std::any_of(
      waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(count),
      [&](const waitingThread& each) { return !recorder_.threads().hasThread(each.slot); });
  if (!isMissing) {
    return;
  }
  constexpr jint kExpectedThreads = 4096;
  const support::localFrame frame(jni, kExpectedThreads);
  jint threadCount = 0;
  support::jvmtiPtr<jthread> threads(jvmti);
  threads.fill([&](jthread** out) { return jvmti->GetAllThreads(&threadCount, out); });
  for (jint i = 0; threads && i < threadCount; ++i) {
    const support::localRef<jthread> thread(jni, threads[i]);
    const std::uint32_t slot = recorder_.slotOf(jvmti, thread.get());
    const auto found = std::find_if(waiting.begin(), waiting.end(),
                                    [&](const waitingThread& each) { return each.slot == slot; });
    if (found != waiting.end()) {
      recorder_.threads().adopt(jni, slot, found->block, thread.get());
    }
  }
}

// Circles of stuck locks whose owners wait for the next one.
void contentionSampler::findDeadlocks() {
  samples_.deadlocks.clear();
  const std::vector<stuckLock>& stuck = samples_.stuck;
  const auto nextOf = [&](const stuckLock& lock) {
    return std::find_if(stuck.begin(), stuck.end(), [&](const stuckLock& each) {
      return lock.owner.waitsFor != 0 && each.lock == lock.owner.waitsFor;
    });
  };
  std::set<std::uint32_t> seen;
  for (const stuckLock& first : stuck) {
    std::vector<const stuckLock*> path;
    const stuckLock* each = &first;
    while (each != nullptr && seen.insert(each->lock).second) {
      path.push_back(each);
      const auto next = nextOf(*each);
      each = next == stuck.end() ? nullptr : &*next;
    }
    const auto begin = std::find(path.begin(), path.end(), each);
    if (each == nullptr || begin == path.end()) {
      continue;
    }
    std::vector<deadlockStep> circle;
    std::transform(begin, path.end(), std::back_inserter(circle), [&](const stuckLock* lock) {
      return deadlockStep{lock->owner.thread, lock->owner.waitsFor, nextOf(*lock)->name};
    });
    samples_.deadlocks.push_back(std::move(circle));
  }
}

// Once to the log for each.
void contentionSampler::reportStuck(std::int64_t now) {
  constexpr const char* kFunction = "contentionSampler::findStuck";
  const auto nameOf = [&](std::uint32_t id) {
    return id == 0 ? "unknown thread" : samples_.names.at(id).c_str();
  };
  decltype(reportedStuck_) still;
  for (const stuckLock& each : samples_.stuck) {
    const std::pair<std::uint32_t, std::int64_t> key{each.lock, each.since};
    const bool isReported = reportedStuck_.contains(key);
    if (isReported || !each.waiters.empty()) {
      still.insert(key);
    }
    if (isReported || each.waiters.empty()) {
      continue;
    }
    TW_LOG(kLogWarn, kSeverityWarn, kFunction,
           "Thread %s has been blocked by %s for %lld ms; held by: %s",
           nameOf(each.waiters.front().thread), each.name.c_str(),
           static_cast<long long>((now - each.since) / kNanosPerMilli),
           each.owner.note == ownerNote::known ? nameOf(each.owner.thread) : "not known");
  }
  reportedStuck_ = std::move(still);
  decltype(reportedDeadlocks_) circles;
  for (const std::vector<deadlockStep>& circle : samples_.deadlocks) {
    std::vector<std::uint32_t> locks;
    std::string text;
    for (const deadlockStep& step : circle) {
      locks.push_back(step.waitsFor);
      text +=
          (text.empty() ? "" : ", ") + std::string(nameOf(step.thread)) + " waits for " + step.lock;
    }
    std::sort(locks.begin(), locks.end());
    if (!reportedDeadlocks_.contains(locks)) {
      TW_LOG(kLogWarn, kSeverityWarn, kFunction, "Deadlock: %s", text.c_str());
    }
    circles.insert(std::move(locks));
  }
  reportedDeadlocks_ = std::move(circles);
}

}  // namespace agent
