#include "contention/blockedThreads.h"

namespace agent {

namespace {

std::uint32_t spread(std::uint64_t value) {
  constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15U;
  constexpr unsigned kShift = 40;
  return static_cast<std::uint32_t>((value * kSpread) >> kShift);
}

// Threads begin to look at different places: by the place of their stack.
std::uint32_t startOfThread() {
  constexpr unsigned kPageBits = 12;
  const char here = 0;
  return spread(reinterpret_cast<std::uintptr_t>(&here) >> kPageBits);
}

}  // namespace

blockedThreads::token blockedThreads::enter(const block& begun, jobject thread) {
  const std::uint32_t start = startOfThread();
  // Virtual threads have the stack of their carrier: so many would not find a place there.
  const std::uint32_t other = spread(static_cast<std::uint64_t>(begun.since ^ begun.since >> 7));
  while (true) {
    std::uint32_t active = active_.load(std::memory_order_relaxed);
    for (std::uint32_t i = 0; i < kProbes + kMoreProbes; ++i) {
      const std::uint32_t index = (i < kProbes ? start + i : other + i * kStride) & (active - 1);
      slot& each = slots_[index];
      std::uint64_t word = each.word.load(std::memory_order_relaxed);
      const std::uint64_t turn = word >> kStateBits;
      if (word != wordOf(turn, kFree) ||
          !each.word.compare_exchange_strong(word, wordOf(turn, kChanging))) {
        continue;
      }
      each.place.store(begun.place, std::memory_order_relaxed);
      each.since.store(begun.since, std::memory_order_relaxed);
      each.before.store(begun.before, std::memory_order_relaxed);
      each.goesOn.store(begun.goesOn, std::memory_order_relaxed);
      each.outer.store(begun.outer, std::memory_order_relaxed);
      each.thread.store(thread, std::memory_order_relaxed);
      each.word.store(wordOf(turn, kBlocked), std::memory_order_release);
      return {index, static_cast<std::uint32_t>(turn)};
    }
    if (active >= kSlots) {
      return {kNone, 0};
    }
    active_.compare_exchange_strong(active, active * 2);
  }
}

bool blockedThreads::read(token taken, block& found) const {
  const slot& mine = slots_[taken.slot];
  const std::uint64_t word = mine.word.load(std::memory_order_acquire);
  const std::uint64_t turn = word >> kStateBits;
  if (static_cast<std::uint32_t>(turn) != taken.turn ||
      (word != wordOf(turn, kBlocked) && word != wordOf(turn, kRead))) {
    return false;
  }
  found.place = mine.place.load(std::memory_order_acquire);
  found.since = mine.since.load(std::memory_order_acquire);
  found.before = mine.before.load(std::memory_order_acquire);
  found.goesOn = mine.goesOn.load(std::memory_order_acquire);
  found.outer = mine.outer.load(std::memory_order_acquire);
  // Of another thread's slot the block may have ended meanwhile.
  return mine.word.load(std::memory_order_relaxed) >> kStateBits == turn;
}

void blockedThreads::leave(JNIEnv* jni, token taken) {
  slot& mine = slots_[taken.slot];
  std::uint64_t word = mine.word.load(std::memory_order_acquire);
  const std::uint64_t turn = word >> kStateBits;
  while (true) {
    if (word == wordOf(turn, kBlocked)) {
      if (mine.word.compare_exchange_weak(word, wordOf(turn, kChanging))) {
        free(jni, mine, turn);
        return;
      }
    } else if (word == wordOf(turn, kRead)) {
      if (mine.word.compare_exchange_weak(word, wordOf(turn, kLeft))) {
        return;
      }
    } else {
      return;
    }
  }
}

bool blockedThreads::read(std::uint32_t index, blockedThread& found) const {
  const slot& each = slots_[index];
  const std::uint64_t word = each.word.load(std::memory_order_acquire);
  if ((word & ((1U << kStateBits) - 1)) != kBlocked) {
    return false;
  }
  found.place = each.place.load(std::memory_order_acquire);
  found.since = each.since.load(std::memory_order_acquire);
  found.word = word;
  return each.word.load(std::memory_order_relaxed) == word;
}

jthread blockedThreads::threadOf(JNIEnv* jni, std::uint32_t index, const blockedThread& found) {
  slot& each = slots_[index];
  const std::uint64_t turn = found.word >> kStateBits;
  std::uint64_t word = found.word;
  if (!each.word.compare_exchange_strong(word, wordOf(turn, kRead))) {
    return nullptr;
  }
  jobject const reference = each.thread.load(std::memory_order_relaxed);
  jthread const thread = reference == nullptr ? nullptr : jni->NewLocalRef(reference);
  word = wordOf(turn, kRead);
  if (!each.word.compare_exchange_strong(word, wordOf(turn, kBlocked))) {
    free(jni, each, turn);  // it has left meanwhile
  }
  return thread;
}

void blockedThreads::adopt(JNIEnv* jni, std::uint32_t index, const blockedThread& found,
                           jthread thread) {
  slot& each = slots_[index];
  const std::uint64_t turn = found.word >> kStateBits;
  std::uint64_t word = found.word;
  if (!each.word.compare_exchange_strong(word, wordOf(turn, kRead))) {
    return;
  }
  if (each.thread.load(std::memory_order_relaxed) == nullptr) {
    each.thread.store(jni->NewGlobalRef(thread), std::memory_order_relaxed);
  }
  word = wordOf(turn, kRead);
  if (!each.word.compare_exchange_strong(word, wordOf(turn, kBlocked))) {
    free(jni, each, turn);
  }
}

void blockedThreads::drop(JNIEnv* jni, std::uint32_t index, const blockedThread& found) {
  slot& each = slots_[index];
  std::uint64_t word = found.word;
  const std::uint64_t turn = word >> kStateBits;
  if (each.word.compare_exchange_strong(word, wordOf(turn, kChanging))) {
    free(jni, each, turn);
  }
}

void blockedThreads::dropAll(JNIEnv* jni) {
  for (std::uint32_t i = 0; i < end(); ++i) {
    blockedThread found{};
    if (read(i, found)) {
      drop(jni, i, found);
    }
  }
}

void blockedThreads::free(JNIEnv* jni, slot& changing, std::uint64_t turn) {
  jobject const reference = changing.thread.exchange(nullptr, std::memory_order_relaxed);
  changing.word.store(wordOf(turn + 1, kFree), std::memory_order_release);
  if (reference != nullptr) {
    jni->DeleteGlobalRef(reference);
  }
}

}  // namespace agent
