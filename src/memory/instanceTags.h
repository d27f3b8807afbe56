// Tagging the instances of some classes, whoever made them, in one walk over the heap.
#pragma once

#include <jvmti.h>

#include <cstdint>
#include <limits>
#include <span>

namespace agent {

// What a walk does for one class, by its place in the array of classes.
struct instanceTally {
  std::int32_t room = std::numeric_limits<std::int32_t>::max();  // how many may get a tag
  std::int32_t tagged = 0;
  bool isCut = false;  // an instance was skipped for lack of room
};

// Gives the untagged instances of exactly these classes the tag of `generation`: those that can be
// reached, and no more than `tallies`, one for each element, have room for. Returns how many that
// were in all. Null elements are passed over; of a class that is named twice only the first place
// counts. In generation 0, whose tag is that of objects that are not tracked, nothing is tagged.
//
// The world stands still for the walk, which follows all references: what it takes grows with the
// objects that are alive, and so does its memory, by about a sixty-fourth of theirs. Calls wait for
// each other. Tags of the classes themselves are borrowed meanwhile: each has its own again at the
// end, or what setObjectTag gave it during the walk. What cannot be marked or walked is logged, and
// counts as having no instances.
std::int32_t tagInstances(jvmtiEnv* jvmti, JNIEnv* jni, jobjectArray classes,
                          std::uint32_t generation, std::span<instanceTally> tallies);

// Counts the tagged instances of exactly these classes into the `tagged` of `tallies`. Those that
// nobody can reach but that are not collected yet are among them: they have a tag in the VM, too.
// Returns whether the heap could be walked; otherwise as above.
bool countTaggedInstances(jvmtiEnv* jvmti, JNIEnv* jni, jobjectArray classes,
                          std::span<instanceTally> tallies);

}  // namespace agent
