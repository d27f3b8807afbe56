// Tagging all instances of some classes, whoever made them, in one walk over the heap.
#pragma once

#include <jvmti.h>

#include <cstdint>

namespace agent {

// Gives every untagged instance of exactly these classes the tag of `generation`, and tells how
// many that were; dead ones that are not collected yet may be among them. Null elements are passed
// over. In generation 0, whose tag is that of objects that are not followed, nothing is tagged.
//
// The world stands still for the walk. Calls wait for each other. Tags of the classes themselves
// are borrowed meanwhile: each has its own again at the end, or what setObjectTag gave it during
// the walk. What cannot be marked or walked is logged, and counts as having no instances.
std::int32_t tagInstances(jvmtiEnv* jvmti, JNIEnv* jni, jobjectArray classes,
                          std::uint32_t generation);

}  // namespace agent
