// How reports call the classes of allocated objects.
#pragma once

#include <string>
#include <string_view>

namespace agent {

// The signature of a class up to what differs between runs, the address of a hidden class: for
// "La/Shop$$Lambda.0x0001;" it is "La/Shop$$Lambda". Without one it is whole.
std::string_view withoutAddress(std::string_view signature);

// The name that a source has for such a signature: "a.Shop", "byte[]", "java.lang.String[][]".
std::string sourceNameOf(std::string_view signature);

}  // namespace agent
