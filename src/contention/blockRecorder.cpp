#include "contention/blockRecorder.h"

#include <algorithm>

#include "instruments/costAccount.h"
#include "support/waitReturn.h"

namespace agent {

namespace {

thread_local support::notifiedWaiter lastWait;

// What the word of a thread is about, in its lowest bits.
enum class wordKind : std::uint8_t {
  nothing,
  slot,       // its block is in a slot
  noSlot,     // it is blocked, and the word has the lock and the time
  begun,      // an acquisition has begun, without a park as yet
  acquiring,  // between two parks of an acquisition: the lock and the time so far
  idle,       // it is blocked by what is not recorded
};

constexpr unsigned kKindBits = 3;
constexpr unsigned kSlotBits = 16;
constexpr unsigned kPlaceBits = 19;  // whether of others, channel, and place of lock or class
constexpr unsigned kTimeBits = 64 - kKindBits - kPlaceBits;
constexpr unsigned kCoarse = 10;  // times without a slot are in units of 1024 ns
// An acquisition has its session in front of its time: units of 16 ns, 73 minutes at most.
constexpr unsigned kAcquiredUnit = 4;
constexpr unsigned kAcquiredBits = 38;
constexpr unsigned kSessionBits = kTimeBits - kAcquiredBits;

constexpr std::uint64_t low(std::uint64_t value, unsigned bits) {
  return value & ((std::uint64_t{1} << bits) - 1);
}

std::uint64_t packed(wordKind kind, std::uint64_t rest) {
  return (rest << kKindBits) | static_cast<std::uint64_t>(kind);
}

wordKind kindOf(std::uint64_t word) {
  return static_cast<wordKind>(low(word, kKindBits));
}

std::uint64_t wordOf(blockedThreads::token taken) {
  return packed(wordKind::slot, (std::uint64_t{taken.turn} << kSlotBits) | taken.slot);
}

blockedThreads::token tokenIn(std::uint64_t word) {
  const std::uint64_t rest = word >> kKindBits;
  return {static_cast<std::uint32_t>(low(rest, kSlotBits)),
          static_cast<std::uint32_t>(rest >> kSlotBits)};
}

// A place in fewer bits: the bit of the others moves down.
std::uint64_t narrow(std::uint32_t place) {
  constexpr unsigned kOthersBit = 18;
  return (place & blockRecorder::kOthers) != 0
             ? (std::uint64_t{1} << kOthersBit) | low(place, kOthersBit)
             : place;
}

std::uint32_t wide(std::uint64_t place) {
  constexpr unsigned kOthersBit = 18;
  const auto rest = static_cast<std::uint32_t>(low(place, kOthersBit));
  return (place >> kOthersBit) != 0 ? blockRecorder::kOthers | rest : rest;
}

std::uint64_t wordOf(wordKind kind, std::uint32_t place, std::uint64_t time) {
  return packed(kind, (low(time, kTimeBits) << kPlaceBits) | narrow(place));
}

std::uint32_t placeIn(std::uint64_t word) {
  return wide(low(word >> kKindBits, kPlaceBits));
}

std::uint64_t timeIn(std::uint64_t word) {
  return word >> (kKindBits + kPlaceBits);
}

std::uint64_t acquiringWord(std::uint32_t place, std::uint64_t nanos, std::uint32_t session) {
  constexpr std::uint64_t kMost = (std::uint64_t{1} << kAcquiredBits) - 1;
  const std::uint64_t time = std::min(nanos >> kAcquiredUnit, kMost);
  return wordOf(wordKind::acquiring, place, (std::uint64_t{session} << kAcquiredBits) | time);
}

// The nanoseconds of an acquisition so far; its histogram has them and these in the same place.
std::uint64_t acquiredIn(std::uint64_t word) {
  return low(timeIn(word), kAcquiredBits) << kAcquiredUnit;
}

bool isOf(std::uint64_t acquiring, std::uint32_t session) {
  return timeIn(acquiring) >> kAcquiredBits == low(session, kSessionBits);
}

// When a block without a slot began, `now` being less than 52 days after it.
std::int64_t startIn(std::uint64_t word, std::int64_t now) {
  const std::uint64_t units = static_cast<std::uint64_t>(now) >> kCoarse;
  return static_cast<std::int64_t>((units - low(units - timeIn(word), kTimeBits)) << kCoarse);
}

std::uint64_t wordOf(jvmtiEnv* jvmti, jthread thread) {
  void* word = nullptr;
  return jvmti->GetThreadLocalStorage(thread, &word) == JVMTI_ERROR_NONE
             ? reinterpret_cast<std::uintptr_t>(word)
             : 0;
}

bool setWord(jvmtiEnv* jvmti, jthread thread, std::uint64_t word) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the VM stores it and never follows it
  void* const data = reinterpret_cast<void*>(word);
  return jvmti->SetThreadLocalStorage(thread, data) == JVMTI_ERROR_NONE;
}

}  // namespace

void blockRecorder::begin(JNIEnv* jni, std::int32_t locks, const parkClasses& parks) {
  parks_ = parks;
  ++session_;
  started_ = instruments::steadyNanos() >> kCoarse << kCoarse;
  threads_.dropAll(jni);
  locks_.begin(jni, locks);
  for (auto* const each :
       {&omitted_.startsNotSeen, &omitted_.notSampled, &omitted_.otherLocks, &omitted_.classes}) {
    each->store(0);
  }
  isOn_.store(true);
}

void blockRecorder::blockBegins(jvmtiEnv* jvmti, JNIEnv* jni, jthread storage, jthread thread,
                                channel by, jobject object) {
  const instruments::handlerGate::pass inside(gate_);
  if (!isOn()) {
    return;
  }
  if (by == channel::enter && lastWait.comesBack(jvmti, jni, storage)) {
    setWord(jvmti, storage, packed(wordKind::idle, 0));
    return;
  }
  blockedThreads::block begun;
  begun.outer = wordOf(jvmti, storage);
  std::uint32_t cls = 0;
  begun.place = locks_.find(jvmti, jni, parks_, by, object, cls);
  if (begun.place == lockTable::kNone) {
    begun.place = othersOf(by, cls);
    ++omitted_.otherLocks;
    omitted_.classes += cls == 0 ? 1 : 0;
  }
  const lockKind kind = kindOf(begun.place);
  if (kind == lockKind::idle) {
    setWord(jvmti, storage, packed(wordKind::idle, 0));
    return;
  }
  if (kind == lockKind::lock && agent::kindOf(begun.outer) == wordKind::acquiring &&
      placeIn(begun.outer) == begun.place && isOf(begun.outer, session_)) {
    begun.goesOn = true;
    begun.before = acquiredIn(begun.outer);
  }
  begun.since = instruments::steadyNanos();
  const std::uint64_t word = wordFor(begun, jni, thread);
  if (!setWord(jvmti, storage, word) && agent::kindOf(word) == wordKind::slot) {
    threads_.leave(jni, tokenIn(word));  // the end of the block could not find it
  }
}

// Takes a slot for a block that begins.
std::uint64_t blockRecorder::wordFor(const blockedThreads::block& begun, JNIEnv* jni,
                                     jthread thread) {
  jobject reference = nullptr;
  if ((begun.place & kOthers) == 0) {
    constexpr unsigned kUnitBits = 4;
    const auto chance = static_cast<std::uint64_t>(begun.since) >> kUnitBits;
    if ((chance & locks_.at(begun.place).thinning.load(std::memory_order_relaxed)) == 0) {
      reference = jni->NewGlobalRef(thread);
    }
  }
  const blockedThreads::token taken = threads_.enter(begun, reference);
  if (taken.slot != blockedThreads::kNone) {
    return wordOf(taken);
  }
  if (reference != nullptr) {
    jni->DeleteGlobalRef(reference);
  }
  ++omitted_.notSampled;
  return wordOf(wordKind::noSlot, begun.place, static_cast<std::uint64_t>(begun.since) >> kCoarse);
}

void blockRecorder::blockEnds(jvmtiEnv* jvmti, JNIEnv* jni, jthread storage, channel by) {
  const instruments::handlerGate::pass inside(gate_);
  // A virtual thread that comes back from a wait has not begun a block.
  if (isOn() && !endBlock(jvmti, jni, storage) &&
      (by != channel::enter || !support::isWithinWait(jvmti, jni, storage))) {
    ++omitted_.startsNotSeen;
  }
}

void blockRecorder::waitEnds(jvmtiEnv* jvmti, JNIEnv* jni, bool timedOut) {
  lastWait.waited(timedOut);
  blockEnds(jvmti, jni, nullptr, channel::wait);
}

// False when its begin was not seen.
bool blockRecorder::endBlock(jvmtiEnv* jvmti, JNIEnv* jni, jthread storage) {
  const std::uint64_t word = wordOf(jvmti, storage);
  const std::int64_t now = instruments::steadyNanos();
  blockedThreads::block ended;
  switch (agent::kindOf(word)) {
    case wordKind::slot:
      break;
    case wordKind::noSlot:
      ended.place = placeIn(word);
      ended.since = startIn(word, now);
      setWord(jvmti, storage, 0);
      if (ended.since < started_) {
        return false;
      }
      add(ended, now);
      return true;
    case wordKind::idle:
      setWord(jvmti, storage, 0);
      return true;
    default:
      return false;
  }
  const blockedThreads::token taken = tokenIn(word);
  if (!threads_.read(taken, ended)) {
    return false;  // the word is of an earlier block
  }
  add(ended, now);  // before the slot is free: a record without slots may be given up
  const wordKind outer = agent::kindOf(ended.outer);
  if (kindOf(ended.place) == lockKind::lock && (outer == wordKind::begun || ended.goesOn)) {
    const auto nanos = static_cast<std::uint64_t>(std::max<std::int64_t>(now - ended.since, 0));
    setWord(jvmti, storage, acquiringWord(ended.place, ended.before + nanos, session_));
  } else if (blockedThreads::block still;
             outer == wordKind::noSlot ||
             (outer == wordKind::slot && threads_.read(tokenIn(ended.outer), still))) {
    setWord(jvmti, storage, ended.outer);  // a block within another one
  }
  threads_.leave(jni, taken);
  return true;
}

void blockRecorder::acquisitionBegins(jvmtiEnv* jvmti) {
  const instruments::handlerGate::pass inside(gate_);
  if (!isOn()) {
    return;
  }
  const std::uint64_t word = wordOf(jvmti, nullptr);
  blockedThreads::block still;
  if (agent::kindOf(word) == wordKind::slot && threads_.read(tokenIn(word), still)) {
    return;  // of the carrier of a virtual thread that is about to park
  }
  setWord(jvmti, nullptr, packed(wordKind::begun, 0));
}

std::uint32_t blockRecorder::awaitedBy(jvmtiEnv* jvmti, jthread thread) const {
  const std::uint64_t word = wordOf(jvmti, thread);
  blockedThreads::block found;
  if (agent::kindOf(word) != wordKind::slot || !threads_.read(tokenIn(word), found) ||
      !isContention(kindOf(found.place))) {
    return lockTable::kNone;
  }
  return found.place;
}

std::uint32_t blockRecorder::slotOf(jvmtiEnv* jvmti, jthread thread) const {
  const std::uint64_t word = wordOf(jvmti, thread);
  blockedThreads::block found;
  return agent::kindOf(word) == wordKind::slot && threads_.read(tokenIn(word), found)
             ? tokenIn(word).slot
             : blockedThreads::kNone;
}

lockKind blockRecorder::kindOf(std::uint32_t place) const {
  if ((place & kOthers) == 0) {
    return locks_.at(place).kind;
  }
  const auto by = static_cast<channel>((place >> 16U) & 3U);
  return lockTable::kindOf(by, locks_.classAt(place & 0xFFFFU));
}

void blockRecorder::add(const blockedThreads::block& ended, std::int64_t end) {
  countsOf(ended.place).add(ended.since, end, ended.goesOn, ended.before);
}

blockCounts& blockRecorder::countsOf(std::uint32_t place) {
  if ((place & kOthers) == 0) {
    return locks_.at(place).counts;
  }
  return locks_.classAt(place & 0xFFFFU).sums[(place >> 16U) & 3U];
}

}  // namespace agent
