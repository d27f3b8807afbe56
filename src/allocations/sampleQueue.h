// Samples of allocations on their way from the program's threads to the profile's own.
#pragma once

#include <jvmti.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "instruments/reservedArray.h"
#include "instruments/stackTable.h"
#include "support/annotations.h"

namespace agent {

// An allocated object, without its stack.
struct takenSample {
  jweak object = nullptr;     // deleted by whoever takes it out of the queue
  std::int64_t at = 0;        // steady nanoseconds
  std::int64_t size = 0;      // bytes
  std::int64_t interval = 0;  // of the samples, in bytes, when it was taken
  std::uint32_t cls = 0;      // names by id, 0 for none
  std::uint32_t thread = 0;
};

// Handlers add, on any thread, without a wait for more than the copy of another's sample. One
// thread takes.
class sampleQueue {
 public:
  static constexpr std::size_t kMost = 2048;  // samples
  static constexpr std::size_t kWaking = kMost / 4;
  static constexpr jint kMostDepth = instruments::stackTable::kMostDepth;

  struct entry {
    takenSample sample;
    jint depth;
    bool isCut;  // there are more frames
    std::array<jvmtiFrameInfo, static_cast<std::size_t>(kMostDepth)> frames;
  };

  // How many there are now; 0 when there was no room: the sample stays the caller's.
  std::size_t add(const takenSample& sample, std::span<const jvmtiFrameInfo> frames, bool isCut)
      EXCLUDES(mutex_);

  // Gives `visit` all that were added since the last time, in their order.
  template <typename Visit>
  void take(Visit&& visit) EXCLUDES(mutex_) {
    const half full = swap();
    for (std::size_t i = 0; i < full.count; ++i) {
      visit(std::as_const(entries_[full.begin + i]));
    }
  }

 private:
  struct half {
    std::size_t begin = 0;
    std::size_t count = 0;
  };
  half swap() EXCLUDES(mutex_);

  support::mutex mutex_;
  half filled_ GUARDED_BY(mutex_);
  // Handlers write one half under the lock while the other is read without it.
  instruments::reservedArray<entry> entries_{2 * kMost};
};

}  // namespace agent
