// The tags that objects carry for their garbage-collection generation.
#pragma once

#include <jvmti.h>

#include <cstdint>
#include <limits>

namespace agent {

// The tag of objects of a generation; generations from 2^31 on have negative ones.
inline jlong tagOf(std::uint32_t generation) {
  return static_cast<std::int32_t>(generation);
}

// Whether a tag has 32 bits, signed or not: then it is a generation's.
inline bool isGeneration(jlong tag) {
  return tag >= std::numeric_limits<std::int32_t>::min() &&
         tag <= std::numeric_limits<std::uint32_t>::max();
}

// The generation of such a tag.
inline std::uint32_t generationOf(jlong tag) {
  return static_cast<std::uint32_t>(tag);
}

}  // namespace agent
