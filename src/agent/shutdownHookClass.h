// The class file of com.korvane.twutils.nativeagent.hook.ShutdownHook, which the build embeds.
#pragma once

#include <cstddef>
#include <cstdint>

namespace agent {

extern const std::uint8_t kShutdownHookBytes[];
extern const std::size_t kShutdownHookSize;

}  // namespace agent
