#include "contention/lockTable.h"

#include <algorithm>
#include <bit>

#include "support/jniRef.h"

namespace agent {

namespace {

constexpr std::uint32_t kSpread = 0x9E3779B1U;

}  // namespace

lockKind parkClasses::kindOf(JNIEnv* jni, jobject blocker) const {
  const auto is = [&](jclass cls) {
    return cls != nullptr && jni->IsInstanceOf(blocker, cls) != JNI_FALSE;
  };
  if (is(pool)) {
    return lockKind::idle;  // a carrier or worker without work
  }
  return (is(synchronizer) && !is(latch)) || is(stampedLock) ? lockKind::lock : lockKind::park;
}

lockTable::lockTable()
    : records_(contentionSettings::kMostLocks),
      slots_(std::size_t{contentionSettings::kMostLocks} * kSlotsPerLock),
      classes_(kClasses),
      returned_(contentionSettings::kMostLocks) {}

void lockTable::begin(JNIEnv* jni, std::int32_t limit) {
  for (std::uint32_t i = 0; i < end(); ++i) {
    if (records_[i].object != nullptr) {
      jni->DeleteWeakGlobalRef(records_[i].object);
    }
  }
  for (std::uint32_t i = 0; i < kClasses; ++i) {
    if (classes_[i].cls != nullptr) {
      jni->DeleteWeakGlobalRef(classes_[i].cls);
    }
  }
  records_.clear();
  slots_.clear();
  classes_.clear();
  classes_[0].parkKind = lockKind::park;
  returned_.clear();
  unlinked_.clear();
  departure_ = {};
  used_.store(0);
  returnedCount_.store(0);
  takenCount_.store(0);
  limit_ = static_cast<std::uint32_t>(limit);
  slotMask_ = std::bit_ceil(limit_ * kSlotsPerLock) - 1;
}

std::uint32_t lockTable::end() const {
  return std::min(used_.load(), limit_);
}

bool lockTable::isLive(std::uint32_t place) const {
  const std::uint32_t state = records_[place].state.load(std::memory_order_acquire);
  return state == kLive || state == kUnlinked;
}

bool lockTable::isClass(std::uint32_t place) const {
  return place == 0 || classes_[place].state.load(std::memory_order_acquire) == kLive;
}

lockKind lockTable::kindOf(channel by, const lockClass& cls) {
  switch (by) {
    case channel::enter:
      return lockKind::monitor;
    case channel::wait:
      return lockKind::wait;
    default:
      return cls.parkKind;
  }
}

std::uint32_t lockTable::find(jvmtiEnv* jvmti, JNIEnv* jni, const parkClasses& parks, channel by,
                              jobject object, std::uint32_t& cls) {
  jint hash = 0;
  if (jvmti->GetObjectHashCode(object, &hash) != JVMTI_ERROR_NONE) {
    cls = 0;
    return kNone;
  }
  const std::uint32_t known = lookUp(jni, by, hash, object);
  if (known != kNone) {
    return known;
  }
  cls = classOf(jvmti, jni, parks, object);
  return add(jni, by, hash, object, cls);
}

std::uint32_t lockTable::slotOf(jint hash) const {
  const std::uint32_t spread = static_cast<std::uint32_t>(hash) * kSpread;
  return (spread ^ (spread >> 15U)) & slotMask_;
}

std::uint32_t lockTable::lookUp(JNIEnv* jni, channel by, jint hash, jobject object) const {
  const std::uint32_t first = slotOf(hash);
  for (std::uint32_t i = 0; i < kMostProbes; ++i) {
    const std::uint32_t slot = slots_[(first + i) & slotMask_].load();
    if (slot == kEmptySlot) {
      return kNone;
    }
    if (slot == kGoneSlot) {
      continue;
    }
    const lockRecord& record = records_[slot - kFirst];
    if (record.hash == hash && record.by == by &&
        jni->IsSameObject(record.object, object) != JNI_FALSE) {
      return slot - kFirst;
    }
  }
  return kNone;
}

// Two threads that meet a new lock at once may both take a record. They go on with the one that is
// found first; a report adds up what the other has.
std::uint32_t lockTable::add(JNIEnv* jni, channel by, jint hash, jobject object,
                             std::uint32_t cls) {
  const std::uint32_t place = takePlace();
  if (place == kNone) {
    return kNone;
  }
  lockRecord& record = records_[place];
  record.state.store(kFilling);
  record.object = jni->NewWeakGlobalRef(object);
  if (record.object == nullptr) {
    jni->ExceptionClear();
  }
  record.hash = hash;
  record.by = by;
  record.cls = static_cast<std::uint16_t>(cls);
  record.kind = kindOf(by, classes_[cls]);
  record.id = ++lastId_;
  record.hasVirtuals = false;
  record.thinning.store(0, std::memory_order_relaxed);
  record.state.store(kLive, std::memory_order_release);
  link(place);
  const std::uint32_t found = lookUp(jni, by, hash, object);
  return found == kNone ? place : found;
}

std::uint32_t lockTable::takePlace() {
  std::uint32_t taken = takenCount_.load();
  while (taken != returnedCount_.load()) {
    const std::uint32_t place = returned_[taken % returned_.size()].load();
    if (takenCount_.compare_exchange_weak(taken, taken + 1)) {
      return place;
    }
  }
  if (used_.load() >= limit_) {
    return kNone;
  }
  const std::uint32_t place = used_.fetch_add(1);
  return place < limit_ ? place : kNone;
}

// Without a free slot nearby the record is not found again; a report has it all the same.
void lockTable::link(std::uint32_t place) {
  const std::uint32_t first = slotOf(records_[place].hash);
  for (std::uint32_t i = 0; i < kMostProbes; ++i) {
    std::atomic<std::uint32_t>& slot = slots_[(first + i) & slotMask_];
    std::uint32_t known = slot.load();
    if (known <= kGoneSlot && slot.compare_exchange_strong(known, place + kFirst)) {
      return;
    }
  }
}

void lockTable::unlink(std::uint32_t place) {
  const std::uint32_t first = slotOf(records_[place].hash);
  for (std::uint32_t i = 0; i < kMostProbes; ++i) {
    std::uint32_t known = place + kFirst;
    const std::uint32_t next = slots_[(first + i + 1) & slotMask_].load();
    if (slots_[(first + i) & slotMask_].compare_exchange_strong(
            known, next == kEmptySlot ? kEmptySlot : kGoneSlot)) {
      return;
    }
  }
}

std::uint32_t lockTable::classOf(jvmtiEnv* jvmti, JNIEnv* jni, const parkClasses& parks,
                                 jobject object) {
  const support::localRef<jclass> cls(jni, jni->GetObjectClass(object));
  jint hash = 0;
  if (!cls || jvmti->GetObjectHashCode(cls.get(), &hash) != JVMTI_ERROR_NONE) {
    return 0;
  }
  const std::uint32_t spread = static_cast<std::uint32_t>(hash) * kSpread;
  for (std::uint32_t i = 0; i < kMostProbes; ++i) {
    const std::uint32_t place = ((spread >> 16U) + i) % kClasses;
    if (place == 0) {
      continue;
    }
    lockClass& each = classes_[place];
    std::uint32_t state = each.state.load(std::memory_order_acquire);
    if (state == kFree && each.state.compare_exchange_strong(state, kFilling)) {
      each.hash = hash;
      each.parkKind = parks.kindOf(jni, object);
      each.cls = jni->NewWeakGlobalRef(cls.get());
      if (each.cls == nullptr) {
        jni->ExceptionClear();
      }
      each.state.store(kLive, std::memory_order_release);
      return place;
    }
    if (state == kLive && each.hash == hash &&
        jni->IsSameObject(each.cls, cls.get()) != JNI_FALSE) {
      return place;
    }
  }
  return 0;
}

void lockTable::makeRoom(JNIEnv* jni, const instruments::handlerGate& gate,
                         const std::vector<bool>& isUsed) {
  if (!unlinked_.empty()) {
    if (hasDeparted_) {  // before `isUsed` was found out
      std::erase_if(unlinked_, [&](std::uint32_t place) {
        if (!isUsed[place]) {
          free(jni, place);
        }
        return !isUsed[place];
      });
    }
    hasDeparted_ = departure_.isOver(gate);
    return;
  }
  const std::uint32_t inUse = end() - (returnedCount_.load() - takenCount_.load());
  if (inUse < limit_ - limit_ / 4) {
    return;
  }
  for (std::uint32_t i = 0; i < end(); ++i) {
    lockRecord& record = records_[i];
    if (record.state.load() == kLive && !isUsed[i] &&
        jni->IsSameObject(record.object, nullptr) != JNI_FALSE) {
      record.state.store(kUnlinked);
      unlink(i);
      unlinked_.push_back(i);
    }
  }
  departure_ = {};
  hasDeparted_ = false;
}

void lockTable::free(JNIEnv* jni, std::uint32_t place) {
  lockRecord& record = records_[place];
  lockClass& cls = classes_[record.cls];
  cls.sums[static_cast<std::size_t>(record.by)].add(record.counts.read());
  record.counts.clear();
  if (record.object != nullptr) {
    jni->DeleteWeakGlobalRef(record.object);
  }
  record.object = nullptr;
  record.state.store(kFree, std::memory_order_release);
  returned_[returnedCount_.load() % returned_.size()].store(place);
  ++returnedCount_;
}

}  // namespace agent
