// The class file of com.korvane.twutils.nativeagent.hook.ParkHook, which the build embeds.
#pragma once

#include <cstddef>
#include <cstdint>

namespace agent {

extern const std::uint8_t kParkHookBytes[];
extern const std::size_t kParkHookSize;

}  // namespace agent
