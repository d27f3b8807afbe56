// How reports call the classes of allocated objects.
#pragma once

#include <string>
#include <string_view>

namespace agent {

// The name that a source has for a signature, with or without the address of a hidden class:
// "a.Shop", "byte[]", "java.lang.String[][]".
std::string sourceNameOf(std::string_view signature);

}  // namespace agent
