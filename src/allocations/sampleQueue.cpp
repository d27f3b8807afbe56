#include "allocations/sampleQueue.h"

#include <algorithm>

namespace agent {

std::size_t sampleQueue::add(const takenSample& sample, std::span<const jvmtiFrameInfo> frames,
                             bool isCut) {
  const support::lockGuard guard(mutex_);
  if (filled_.count == kMost) {
    return 0;
  }
  entry& added = entries_[filled_.begin + filled_.count];
  added.sample = sample;
  added.depth = static_cast<jint>(frames.size());
  added.isCut = isCut;
  std::copy(frames.begin(), frames.end(), added.frames.begin());
  return ++filled_.count;
}

sampleQueue::half sampleQueue::swap() {
  const support::lockGuard guard(mutex_);
  const half full = filled_;
  filled_ = {kMost - full.begin, 0};
  return full;
}

}  // namespace agent
