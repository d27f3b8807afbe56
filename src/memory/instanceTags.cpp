#include "memory/instanceTags.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <utility>
#include <vector>

#include "agent/twAprLib.h"
#include "memory/generation.h"
#include "support/annotations.h"
#include "support/jniRef.h"
#include "support/jvmtiStatus.h"

namespace agent {

namespace {

constexpr const char* kTagInstances = "memoryProfiler::tagInstances";

// The tags of classes whose instances are wanted, the first one's and downwards: no generation has
// them, since theirs are signed, and they have 32 bits, so that setObjectTag does not take them for
// references.
constexpr jlong kFirstMark = std::numeric_limits<std::uint32_t>::max();
constexpr jlong kLastMark = kFirstMark - std::numeric_limits<std::int32_t>::max();

bool isMark(jlong tag) {
  return tag <= kFirstMark && tag >= kLastMark;
}

jlong markOf(jsize place) {
  return kFirstMark - place;
}

struct walk {
  jlong tag;
  std::span<instanceTally> tallies;

  // Null for the tag of a class that is not wanted, but tracked itself.
  instanceTally* tallyOf(jlong classTag) const {
    const jlong place = kFirstMark - classTag;
    return isMark(classTag) && place < std::ssize(tallies)
               ? &tallies[static_cast<std::size_t>(place)]
               : nullptr;
  }

  // The tag of one more instance; 0 when there is no room for it.
  jlong tagOfOneMore(instanceTally& tally) const {
    if (tally.tagged >= tally.room) {
      tally.isCut = true;
      return 0;
    }
    ++tally.tagged;
    return tag;
  }
};

// Called by the VM for each reference to an untagged object of a tagged class, with the world
// stopped: no call into the VM.
jint JNICALL tagObject(jvmtiHeapReferenceKind /*kind*/, const jvmtiHeapReferenceInfo* /*info*/,
                       jlong classTag, jlong /*referrerClassTag*/, jlong /*size*/, jlong* tag,
                       jlong* /*referrerTag*/, jint /*length*/, void* userData) {
  const auto& walked = *static_cast<const walk*>(userData);
  instanceTally* const tally = walked.tallyOf(classTag);
  if (tally != nullptr && *tag == 0) {
    *tag = walked.tagOfOneMore(*tally);
  }
  return JVMTI_VISIT_OBJECTS;
}

// The same for each tagged object of a tagged class.
jint JNICALL countObject(jlong classTag, jlong /*size*/, jlong* /*tag*/, jint /*length*/,
                         void* userData) {
  instanceTally* const tally = static_cast<const walk*>(userData)->tallyOf(classTag);
  if (tally != nullptr && tally->tagged < std::numeric_limits<std::int32_t>::max()) {
    ++tally->tagged;
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
        mark(std::move(cls), i);
      } else {
        jni->ExceptionClear();
      }
    }
  }
  ~wantedClasses() {
    for (const marked& one : marked_) {
      if (hasItsMark(one)) {
        setTag(one, one.tag);
      }
    }
  }
  wantedClasses(const wantedClasses&) = delete;
  wantedClasses& operator=(const wantedClasses&) = delete;

  bool empty() const { return marked_.empty(); }

  // Tags those of the classes that have no tag of their own when java.lang.Class is among them:
  // they are instances themselves, which their marks have kept from the walk.
  void tagThemselves(const walk& walked) {
    const support::localRef<jclass> classOfClasses(jni_,
                                                   jni_->GetObjectClass(marked_[0].cls.get()));
    const auto found = std::find_if(marked_.begin(), marked_.end(), [&](const marked& one) {
      return jni_->IsSameObject(one.cls.get(), classOfClasses.get()) != JNI_FALSE;
    });
    if (found == marked_.end()) {
      return;
    }
    instanceTally& tally = *walked.tallyOf(found->mark);
    for (marked& one : marked_) {
      if (one.tag == 0 && hasItsMark(one)) {
        one.tag = walked.tagOfOneMore(tally);
      }
    }
  }

 private:
  struct marked {
    support::localRef<> cls;
    jlong tag;  // its own
    jlong mark;
  };

  // Unless setObjectTag has given it another one.
  bool hasItsMark(const marked& one) const {
    jlong now = 0;
    return jvmti_->GetTag(one.cls.get(), &now) == JVMTI_ERROR_NONE && now == one.mark;
  }

  bool isMarked(jobject cls) const {
    return std::any_of(marked_.begin(), marked_.end(), [&](const marked& one) {
      return jni_->IsSameObject(one.cls.get(), cls) != JNI_FALSE;
    });
  }

  void mark(support::localRef<> cls, jsize place) {
    jlong own = 0;
    jvmtiError error = jvmti_->GetTag(cls.get(), &own);
    if (error == JVMTI_ERROR_NONE && isMark(own)) {
      if (isMarked(cls.get())) {
        return;  // named twice
      }
      own = 0;  // an earlier mark that the VM did not let go of
    }
    marked one{std::move(cls), own, markOf(place)};
    if (error == JVMTI_ERROR_NONE) {
      error = jvmti_->SetTag(one.cls.get(), one.mark);
    }
    if (error != JVMTI_ERROR_NONE) {
      logRefusal(jvmti_, "Marking a class", error);
      return;
    }
    marked_.push_back(std::move(one));
  }

  void setTag(const marked& one, jlong tag) {
    const jvmtiError error = jvmti_->SetTag(one.cls.get(), tag);
    if (error != JVMTI_ERROR_NONE) {
      logRefusal(jvmti_, "SetTag", error);
    }
  }

  jvmtiEnv* jvmti_;
  JNIEnv* jni_;
  std::vector<marked> marked_;
};

// Two walks would take each other's marks for the classes' own tags.
support::mutex& oneWalk() {
  static support::mutex& mutex = *new support::mutex;
  return mutex;
}

constexpr jint kFurther = 8;  // references besides those to the classes

}  // namespace

std::int32_t tagInstances(jvmtiEnv* jvmti, JNIEnv* jni, jobjectArray classes,
                          std::uint32_t generation, std::span<instanceTally> tallies) {
  if (generation == 0) {
    return 0;
  }
  const support::lockGuard guard(oneWalk());
  const support::localFrame frame(jni, jni->GetArrayLength(classes) + kFurther);
  wantedClasses wanted(jvmti, jni, classes);
  if (wanted.empty()) {
    return 0;
  }

  walk walked{tagOf(generation), tallies};
  jvmtiHeapCallbacks callbacks{};
  callbacks.heap_reference_callback = tagObject;
  const jvmtiError error =
      jvmti->FollowReferences(JVMTI_HEAP_FILTER_TAGGED | JVMTI_HEAP_FILTER_CLASS_UNTAGGED, nullptr,
                              nullptr, &callbacks, &walked);
  if (error == JVMTI_ERROR_NONE) {
    wanted.tagThemselves(walked);
  } else {
    logRefusal(jvmti, "FollowReferences", error);
  }
  std::int64_t tagged = 0;
  for (const instanceTally& each : tallies) {
    tagged += each.tagged;
  }
  return static_cast<std::int32_t>(
      std::min<std::int64_t>(tagged, std::numeric_limits<std::int32_t>::max()));
}

bool countTaggedInstances(jvmtiEnv* jvmti, JNIEnv* jni, jobjectArray classes,
                          std::span<instanceTally> tallies) {
  const support::lockGuard guard(oneWalk());
  const support::localFrame frame(jni, jni->GetArrayLength(classes) + kFurther);
  const wantedClasses wanted(jvmti, jni, classes);
  if (wanted.empty()) {
    return true;
  }

  walk walked{0, tallies};
  jvmtiHeapCallbacks callbacks{};
  callbacks.heap_iteration_callback = countObject;
  const jvmtiError error = jvmti->IterateThroughHeap(
      JVMTI_HEAP_FILTER_UNTAGGED | JVMTI_HEAP_FILTER_CLASS_UNTAGGED, nullptr, &callbacks, &walked);
  if (error != JVMTI_ERROR_NONE) {
    logRefusal(jvmti, "IterateThroughHeap", error);
  }
  return error == JVMTI_ERROR_NONE;
}

}  // namespace agent
