#include "exceptions/currentProfiler.h"

#include "support/sharedSlot.h"

namespace agent {

namespace {

// Never destroyed: handlers may run while the process ends.
support::sharedSlot<exceptionProfiler>& published() {
  static support::sharedSlot<exceptionProfiler>& slot = *new support::sharedSlot<exceptionProfiler>;
  return slot;
}

}  // namespace

std::shared_ptr<exceptionProfiler> getExceptionProfiler() {
  return published().load();
}

void setExceptionProfiler(const std::shared_ptr<exceptionProfiler>& profiler) {
  published().store(profiler);
}

}  // namespace agent
