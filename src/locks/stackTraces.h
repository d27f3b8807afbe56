// Stack traces: as text, the hashes and texts of those met in a session, and how often each was
// seen.
//
// The text of a trace takes three calls into the VM for each frame. A trace is therefore remembered
// by its methods, together with weak references on their classes. Method IDs die with their class
// (JDK-8268364), and may then mean other methods. So a trace counts as known only while all of its
// classes are loaded. Classes of the VM's own loaders, which are never unloaded, need no
// reference.
#pragma once

#include <jvmti.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "support/annotations.h"
#include "support/heldClasses.h"
#include "support/insertOnlyMap.h"

namespace agent {

// How often one stack trace was seen. Deliberate: its hash stays 0 until the second time.
struct stackTraceBean {
  std::uint64_t hashcode = 0;
  std::uint32_t count = 1;
};

// Stack traces by hash.
using stackTraceBeans = std::map<std::uint64_t, stackTraceBean>;

// Counts one sighting of the trace `hash`.
void countStackTrace(stackTraceBeans& beans, std::uint64_t hash);
// Adds sightings to others; a trace that is in both gets its true hash.
void mergeStackTraces(stackTraceBeans& into, const stackTraceBeans& from);

using stackFrames = std::span<const jvmtiFrameInfo>;

using support::heldClasses;

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

// The traces of one session. Lookups of traces and hashes take no lock.
class knownStackTraces {
 public:
  // The hash of a trace that was remembered and whose classes are all still loaded.
  std::optional<std::uint64_t> find(JNIEnv* jni, stackFrames frames) const;
  void remember(stackFrames frames, std::uint64_t hash, std::vector<heldClasses::entryPtr> classes)
      EXCLUDES(tracesMutex_);

  // Stores the text of a trace, which has one line for each frame. True when it is a new one.
  bool add(std::uint64_t hash, std::string_view text) EXCLUDES(stackMapMutex_);
  bool knows(std::uint64_t hash) const { return stackHashMap_.find(hash) != nullptr; }
  // All hashes met, in ascending order.
  std::vector<std::uint64_t> hashes() const;
  // The texts that wait to be written, by hash.
  std::map<std::uint64_t, std::string> texts() const EXCLUDES(stackMapMutex_);

  // What came of writing to a file.
  struct written {
    std::size_t traces = 0;
    std::string error;  // the system's reason for the first failure
  };
  // Appends the texts of the traces met since the last time to the file at `path`, by hash: one
  // line "hash=[text]" for each. Nothing, and no file is opened, when there are none. Texts that
  // cannot be written are gone all the same.
  std::optional<written> writeTexts(const std::string& path) EXCLUDES(stackMapMutex_);

 private:
  struct trace {
    trace(std::uint64_t textHash, std::vector<jmethodID> methodIds,
          std::vector<heldClasses::entryPtr> methodClasses)
        : hash(textHash), methods(std::move(methodIds)), classes(std::move(methodClasses)) {}

    const std::uint64_t hash;
    const std::vector<jmethodID> methods;
    const std::vector<heldClasses::entryPtr> classes;
  };
  struct nothing {};

  support::mutex tracesMutex_;                    // serialises insertion of traces
  support::insertOnlyMap<trace> traces_;          // by their methods
  support::insertOnlyMap<nothing> stackHashMap_;  // by hash of the text
  mutable support::mutex stackMapMutex_;          // serialises insertion of hashes too
  std::map<std::uint64_t, std::string> stacktracemap_ GUARDED_BY(stackMapMutex_);
};

}  // namespace agent
