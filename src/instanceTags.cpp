#include "instanceTags.h"

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

#include "heapScan.h"
#include "support/annotations.h"
#include "support/jniRef.h"
#include "support/jvmtiStatus.h"
#include "twAprLib.h"

namespace agent {

namespace {

constexpr const char* kTagInstances = "memoryProfiler::tagInstances";

// The tag of a class whose instances are wanted: no generation has it, since theirs are signed, and
// it has 32 bits, so that setObjectTag does not take it for a reference.
constexpr jlong kWanted = std::numeric_limits<std::uint32_t>::max();

struct walk {
  jlong tag;
  std::int32_t count = 0;
};

// Called by the VM for each untagged object of a tagged class, with the world stopped: no call into
// the VM.
jint JNICALL tagObject(jlong classTag, jlong /*size*/, jlong* tag, jint /*length*/,
                       void* userData) {
  auto& walked = *static_cast<walk*>(userData);
  if (classTag == kWanted && walked.count < std::numeric_limits<std::int32_t>::max()) {
    *tag = walked.tag;
    ++walked.count;
  }
  return JVMTI_VISIT_OBJECTS;
}

void logRefusal(jvmtiEnv* jvmti, const char* call, jvmtiError error) {
  TW_LOG(kLogError, kSeverityError, kTagInstances, "%s failed: %s", call,
         support::errorName(jvmti, error).c_str());
}

// Marks classes as wanted for as long as it stands.
class wantedClasses {
 public:
  wantedClasses(jvmtiEnv* jvmti, JNIEnv* jni, jobjectArray classes) : jvmti_(jvmti), jni_(jni) {
    const jsize count = jni->GetArrayLength(classes);
    marked_.reserve(static_cast<std::size_t>(count));
    for (jsize i = 0; i < count; ++i) {
      support::localRef<> cls(jni, jni->GetObjectArrayElement(classes, i));
      if (cls) {
        mark(std::move(cls));
      } else {
        jni->ExceptionClear();
      }
    }
  }
  ~wantedClasses() { restore(0); }
  wantedClasses(const wantedClasses&) = delete;
  wantedClasses& operator=(const wantedClasses&) = delete;

  bool empty() const { return marked_.empty(); }

  // Whether java.lang.Class is among them: the marked classes are then instances themselves.
  bool includeClassOfClasses() const {
    const support::localRef<jclass> classOfClasses(jni_,
                                                   jni_->GetObjectClass(marked_[0].cls.get()));
    for (const marked& one : marked_) {
      if (jni_->IsSameObject(one.cls.get(), classOfClasses.get()) != JNI_FALSE) return true;
    }
    return false;
  }

  // Gives the classes their own tags again, `tagOfUntagged` to those that had none; tells how many
  // of these there were.
  std::int32_t restore(jlong tagOfUntagged) {
    std::int32_t untagged = 0;
    for (const marked& one : marked_) {
      jlong now = 0;
      jvmti_->GetTag(one.cls.get(), &now);
      if (now != kWanted) continue;
      const jlong tag = one.tag == 0 ? tagOfUntagged : one.tag;
      const jvmtiError error = jvmti_->SetTag(one.cls.get(), tag);
      if (error != JVMTI_ERROR_NONE) logRefusal(jvmti_, "SetTag", error);
      if (one.tag == 0) ++untagged;
    }
    marked_.clear();
    return untagged;
  }

 private:
  struct marked {
    support::localRef<> cls;
    jlong tag;  // its own
  };

  bool isMarked(jobject cls) const {
    return std::any_of(marked_.begin(), marked_.end(), [&](const marked& one) {
      return jni_->IsSameObject(one.cls.get(), cls) != JNI_FALSE;
    });
  }

  void mark(support::localRef<> cls) {
    jlong own = 0;
    jvmtiError error = jvmti_->GetTag(cls.get(), &own);
    if (error == JVMTI_ERROR_NONE && own == kWanted) {
      if (isMarked(cls.get())) return;  // named twice
      own = 0;                          // an earlier mark that the VM did not let go of
    }
    if (error == JVMTI_ERROR_NONE) error = jvmti_->SetTag(cls.get(), kWanted);
    if (error != JVMTI_ERROR_NONE) {
      logRefusal(jvmti_, "Marking a class", error);
      return;
    }
    marked_.push_back({std::move(cls), own});
  }

  jvmtiEnv* jvmti_;
  JNIEnv* jni_;
  std::vector<marked> marked_;
};

}  // namespace

std::int32_t tagInstances(jvmtiEnv* jvmti, JNIEnv* jni, jobjectArray classes,
                          std::uint32_t generation) {
  if (generation == 0) return 0;
  // Two walks would take each other's marks for the classes' own tags.
  static support::mutex& oneWalk = *new support::mutex;
  const support::lockGuard guard(oneWalk);

  constexpr jint kFurther = 8;  // references besides those to the classes
  const support::localFrame frame(jni, jni->GetArrayLength(classes) + kFurther);
  wantedClasses wanted(jvmti, jni, classes);
  if (wanted.empty()) return 0;

  walk walked{tagOf(generation)};
  jvmtiHeapCallbacks callbacks{};
  callbacks.heap_iteration_callback = tagObject;
  const jvmtiError error = jvmti->IterateThroughHeap(
      JVMTI_HEAP_FILTER_TAGGED | JVMTI_HEAP_FILTER_CLASS_UNTAGGED, nullptr, &callbacks, &walked);
  if (error != JVMTI_ERROR_NONE) {
    logRefusal(jvmti, "IterateThroughHeap", error);
    return 0;
  }
  if (wanted.includeClassOfClasses()) walked.count += wanted.restore(walked.tag);
  return walked.count;
}

}  // namespace agent
