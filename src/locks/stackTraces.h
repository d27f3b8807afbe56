// Stack traces as text, and the hashes of those met before.
//
// The text of a trace takes three calls into the VM for each frame. A trace is therefore remembered
// by its methods, together with weak references on their classes: method IDs die with their class
// (JDK-8268364), and may then come to mean other methods, so a trace counts as known only while all
// of its classes are loaded. Classes of the VM's own loaders, which are never unloaded, need no
// reference.
#pragma once

#include <jvmti.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "support/annotations.h"
#include "support/classCache.h"
#include "support/insertOnlyMap.h"

namespace agent {

using stackFrames = std::span<const jvmtiFrameInfo>;

struct stackClass {
  bool staysLoaded = false;  // as long as the VM lives
};
// Classes that are held weakly, each once.
using heldClasses = support::classCache<stackClass>;

// A trace in words.
struct stackText {
  // One line for each frame, "at a.b.C.m()" and a line feed. A frame that the VM cannot name adds
  // nothing.
  std::string text;
  // The classes of its methods that may be unloaded; none when a frame could not be named or such a
  // class not be held.
  std::optional<std::vector<heldClasses::entryPtr>> classes;
};
stackText textOfFrames(jvmtiEnv* jvmti, JNIEnv* jni, heldClasses& held, stackFrames frames);

// The traces of one session. Lookups take no lock.
class knownStackTraces {
 public:
  // The hash of a trace that was remembered and whose classes are all still loaded.
  std::optional<std::uint64_t> find(JNIEnv* jni, stackFrames frames) const;
  void remember(stackFrames frames, std::uint64_t hash, std::vector<heldClasses::entryPtr> classes)
      EXCLUDES(mutex_);

 private:
  struct trace {
    trace(std::uint64_t textHash, std::vector<jmethodID> methodIds,
          std::vector<heldClasses::entryPtr> methodClasses)
        : hash(textHash), methods(std::move(methodIds)), classes(std::move(methodClasses)) {}

    const std::uint64_t hash;
    const std::vector<jmethodID> methods;
    const std::vector<heldClasses::entryPtr> classes;
  };

  support::mutex mutex_;  // serialises insertion
  support::insertOnlyMap<trace> traces_;
};

}  // namespace agent
