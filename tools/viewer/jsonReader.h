// Reads JSON straight into the viewer's model, whatever the size of the document: nothing but the
// model is kept of it. What is expected where, and where it goes, is described by shapes.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "input.h"

namespace viewer {

struct shape;

// A spot of the model that a value of the document goes to.
struct place {
  const shape* expected;
  void* target;
};

struct memberShape {
  std::string_view name;
  place (*at)(void* owner);
  bool required = true;
};

// Thrown by the functions of a shape: what was expected instead. The reader adds the place.
class misfit : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What a value has to be; a function that is missing is a kind of value that does not fit. Objects
// have either fixed members, others being passed over, or members of any name.
struct shape {
  const char* expected = "anything";
  bool anything = false;  // all that is below is passed over
  bool nullable = false;  // null leaves the target as it is
  void (*text)(void* target, std::string& value) = nullptr;
  void (*number)(void* target, std::int64_t value) = nullptr;
  void (*real)(void* target, double value) = nullptr;  // with a fraction or an exponent
  void (*boolean)(void* target, bool value) = nullptr;
  std::int64_t least = std::numeric_limits<std::int32_t>::min();  // of a number
  std::int64_t most = std::numeric_limits<std::int32_t>::max();
  std::vector<memberShape> members = {};  // at most 64
  place (*member)(void* target, std::string& name) = nullptr;
  place (*element)(void* target) = nullptr;
};

// The shape of a type of the model; specialised where the type is declared or read.
template <typename type>
const shape& shapeOf();

template <>
const shape& shapeOf<std::string>();
template <>
const shape& shapeOf<std::optional<std::string>>();
template <>
const shape& shapeOf<std::optional<bool>>();
template <>
const shape& shapeOf<std::int32_t>();
// 32 bits that were counted without a sign and are written with one.
template <>
const shape& shapeOf<std::uint32_t>();
template <>
const shape& shapeOf<std::int64_t>();
template <>
const shape& shapeOf<std::optional<std::int64_t>>();

const shape& passedOver();

template <typename>
struct memberType;
template <typename owner, typename type>
struct memberType<type owner::*> {
  using ownerOf = owner;
  using typeOf = type;
};

// The member of an object that goes to a data member: {"count", at<&lockEntry::entries>}.
template <auto member>
place at(void* owner) {
  using info = memberType<decltype(member)>;
  return {&shapeOf<typename info::typeOf>(),
          &(static_cast<typename info::ownerOf*>(owner)->*member)};
}

// An element appended to a vector.
template <typename type>
place appended(void* target) {
  return {&shapeOf<type>(), &static_cast<std::vector<type>*>(target)->emplace_back()};
}

// Reads one JSON document in modified UTF-8 into `root`. Throws inputError: `source`, the place (a
// line and column, or the names on the way to the value), what was expected and what was found.
// The model is then half filled.
void readJson(byteSource bytes, const std::string& source, place root);

struct foundMember {
  std::string name;  // empty when there is none
  std::string text;  // its value; empty when that is not a text
};

// The first member of the document's outermost object that `known` accepts; none, too, when the
// document is not an object. Reads no further. Throws inputError like readJson().
foundMember firstMember(byteSource bytes, const std::string& source,
                        const std::function<bool(std::string_view)>& known);

}  // namespace viewer
