// Frames and objects with values in them, as tests and benchmarks of exception capture need them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "virtualMachine.h"

namespace fake {

// A variable or an instance field with its value. A variable without a value is one that the VM
// refuses to read.
struct namedValue {
  std::string name;
  std::string signature;
  fake::value value{};
};

// A frame of the method "package.Class.name", at line 42 of "Class.java". Arguments and locals take
// the slots from 0 on, long and double two of them. The method is static unless there is a `self`,
// which is then in slot 0; the class is that of `self`.
frame makeFrame(virtualMachine& vm, object* self, std::string_view className,
                std::string_view method, const std::vector<namedValue>& arguments,
                const std::vector<namedValue>& locals);
// An object of a class of its own, with these instance fields.
object* makeObjectWith(virtualMachine& vm, std::string_view className,
                       const std::vector<namedValue>& fields);

}  // namespace fake
