// Class files: calls of static methods are inserted into methods. Plain functions over bytes, for
// any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace support {

// Where a call goes.
enum class callPlace {
  start,  // of a method, which is not a constructor
  // Of a constructor whose code begins with the call of Object's, behind that: `this` may be passed
  // on from there, and has no field set yet.
  afterObjectConstructor,
};

// A call in a method.
struct callInsertion {
  std::string_view method;
  std::string_view descriptor;
  // The local variables that the call takes: references, each an argument of the method or `this`.
  std::vector<std::uint8_t> arguments;
  // What is called: a static method that takes references and returns nothing.
  std::string_view calledClass;  // "com/example/Hook"
  std::string_view calledMethod;
  std::string_view calledDescriptor;
  callPlace place = callPlace::start;
};

struct changedClass {
  std::vector<std::uint8_t> bytes;
  std::vector<bool> isInserted;  // by the order of the insertions: a method with code was found
};

// The class file with the calls in it. A method gets the first insertion that names it. The call
// belongs to the line of what it stands before, and no handler of the method catches what it
// throws.
//
// Of the attributes of the changed code, those that the VM reads are kept: line numbers, local
// variables and stack maps. All others are omitted, type annotations among them: they may hold
// offsets into the code. Nothing else of the class changes except for constants that are added.
//
// None when:
// - the bytes are not a well-formed class file as far as they are read,
// - code would get longer than 65535 bytes,
// - there is no room for the constants,
// - the code has fewer local variables than an insertion takes,
// - a constructor does not begin as its insertion wants.
// Other instructions are not read.
std::optional<changedClass> insertCalls(std::span<const std::uint8_t> classFile,
                                        std::span<const callInsertion> insertions);

}  // namespace support
