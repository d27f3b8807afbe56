// The version that this library was built as, from the file VERSION.
#pragma once

namespace support {

// "javanativeagent" and the version, as in "javanativeagent 1.2.3"; also to be found by `strings`.
extern const char* const kAgentVersion;

}  // namespace support
