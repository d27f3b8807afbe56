// How classes and threads of the agent are known in reports.
#pragma once

#include <string_view>

namespace viewer {

constexpr std::string_view kOwnPackage = "com.korvane.twutils.nativeagent.";  // and those below it
constexpr std::string_view kOwnThreads = "javanativeagent";  // their names begin so

}  // namespace viewer
