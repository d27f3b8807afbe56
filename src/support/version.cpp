#include "support/version.h"

namespace support {

const char* const kAgentVersion = "javanativeagent " TW_VERSION;

}  // namespace support
