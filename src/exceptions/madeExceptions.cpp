#include "exceptions/madeExceptions.h"

#include <algorithm>
#include <array>
#include <optional>

namespace agent {

namespace {

// The hook's own frame, and that of the constructor of Throwable which calls it.
constexpr jint kHookFrames = 2;

constexpr jint kFramesAtOnce = 16;

}  // namespace

bool findMaker(throwEvent& event, jclass cls) {
  const constructorTable* const table = event.info->value.constructors(event.jvmti, event.jni, cls);
  if (table == nullptr) {
    return false;
  }
  std::array<jvmtiFrameInfo, kFramesAtOnce> frames;
  jint first = kHookFrames;
  // One constructor of each class, most times, and then the frame that is looked for.
  jint wanted = std::clamp(table->depth(), 1, kFramesAtOnce);
  jint last = 0;  // how far below Object the constructor above was
  for (;;) {
    jint count = 0;
    if (event.failed(event.jvmti->GetStackTrace(nullptr, first, wanted, frames.data(), &count))) {
      return false;
    }
    for (jint i = 0; i < count; ++i) {
      const jvmtiFrameInfo& frame = frames[static_cast<std::size_t>(i)];
      const std::optional<jint> depth = table->depthOf(frame.method);
      // Constructors run from the class to Throwable: what is above again is another object's.
      if (!depth || *depth < last) {
        event.firstFrame = first + i;
        event.method = frame.method;
        event.location = frame.location;
        return true;
      }
      last = *depth;
    }
    if (count < wanted) {
      return false;
    }
    first += count;
    wanted = kFramesAtOnce;
  }
}

}  // namespace agent
