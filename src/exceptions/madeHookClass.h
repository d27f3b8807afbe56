// The class file of com.korvane.twutils.nativeagent.hook.MadeHook, which the build embeds.
#pragma once

#include <cstddef>
#include <cstdint>

namespace agent {

extern const std::uint8_t kMadeHookBytes[];
extern const std::size_t kMadeHookSize;

}  // namespace agent
