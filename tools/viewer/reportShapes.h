// Shapes that the readers of the agent's and the companion's own reports have in common: counts,
// times of day, measured values, arrays and objects. Plain functions without state.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <limits>
#include <type_traits>

#include "jsonReader.h"

namespace viewer {

constexpr std::int64_t kLastTime = 253'402'300'799'999;  // of the year 9999

template <typename type>
constexpr bool isOptional = !std::is_integral_v<type>;

template <typename type>
void assignCount(void* target, std::int64_t value) {
  if (value < 0) {
    throw misfit(fmt::format("expected a number of 0 or more, found {}", value));
  }
  *static_cast<type*>(target) = static_cast<std::uint64_t>(value);
}

template <typename type>
void assignTime(void* target, std::int64_t value) {
  if (value < 0 || value > kLastTime) {
    throw misfit(fmt::format("expected milliseconds since 1970, found {}", value));
  }
  *static_cast<type*>(target) = static_cast<std::uint64_t>(value);
}

template <typename type, void (*assign)(void*, std::int64_t)>
const shape& numberShape() {
  static const shape result = {
      .expected = isOptional<type> ? "a whole number or null" : "a whole number",
      .nullable = isOptional<type>,
      .number = assign,
      .least = std::numeric_limits<std::int64_t>::min(),
      .most = std::numeric_limits<std::int64_t>::max()};
  return result;
}

// Members that are counts or durations, and those that are times of day.
template <auto member>
place count(void* owner) {
  using info = memberType<decltype(member)>;
  using type = typename info::typeOf;
  return {&numberShape<type, assignCount<type>>(),
          &(static_cast<typename info::ownerOf*>(owner)->*member)};
}
template <auto member>
place time(void* owner) {
  using info = memberType<decltype(member)>;
  using type = typename info::typeOf;
  return {&numberShape<type, assignTime<type>>(),
          &(static_cast<typename info::ownerOf*>(owner)->*member)};
}

// A member that is an array of objects of this shape.
template <auto member, const shape& (*elementShape)()>
place objects(void* owner) {
  using info = memberType<decltype(member)>;
  using element = typename info::typeOf::value_type;
  static const shape result = {.expected = "an array", .element = [](void* target) -> place {
                                 auto& all = *static_cast<std::vector<element>*>(target);
                                 return {&elementShape(), &all.emplace_back()};
                               }};
  return {&result, &(static_cast<typename info::ownerOf*>(owner)->*member)};
}

// A member that is one object of this shape.
template <auto member, const shape& (*memberShapeOf)()>
place object(void* owner) {
  using info = memberType<decltype(member)>;
  return {&memberShapeOf(), &(static_cast<typename info::ownerOf*>(owner)->*member)};
}

inline const shape& textElement() {
  return shapeOf<std::string>();
}

inline const shape& countElement() {
  return numberShape<std::uint64_t, assignCount<std::uint64_t>>();
}

// The member that names the kind of the report.
template <const auto& kind>
place kindOf(void*) {
  static const shape result = {
      .expected = "a string", .text = [](void*, std::string& value) {
        if (value != kind) {
          throw misfit(fmt::format("expected \"{}\", found \"{}\"", kind, value));
        }
      }};
  return {&result, nullptr};
}

template <std::int64_t known>
place versionOf(void*) {
  static const shape result = {
      .expected = "a whole number",
      .number =
          [](void*, std::int64_t value) {
            if (value != known) {
              throw misfit(fmt::format("expected version {}, found {}{}", known, value,
                                       value > known ? ": a newer agent wrote this report, read "
                                                       "it with the twreport that came with it"
                                                     : ""));
            }
          },
      .least = std::numeric_limits<std::int64_t>::min(),
      .most = std::numeric_limits<std::int64_t>::max()};
  return {&result, nullptr};
}

template <auto member>
place flag(void* owner) {
  static const shape result = {
      .expected = "true or false",
      .boolean = [](void* target, bool value) { *static_cast<bool*>(target) = value; }};
  using info = memberType<decltype(member)>;
  return {&result, &(static_cast<typename info::ownerOf*>(owner)->*member)};
}

// A measured value, written with a fraction or without one, or null.
inline const shape& measuredShape() {
  static const shape result = {
      .expected = "a number or null",
      .nullable = true,
      .number =
          [](void* target, std::int64_t value) {
            *static_cast<std::optional<double>*>(target) = static_cast<double>(value);
          },
      .real = [](void* target,
                 double value) { *static_cast<std::optional<double>*>(target) = value; },
      .least = std::numeric_limits<std::int64_t>::min(),
      .most = std::numeric_limits<std::int64_t>::max()};
  return result;
}

template <auto member>
place measured(void* owner) {
  using info = memberType<decltype(member)>;
  return {&measuredShape(), &(static_cast<typename info::ownerOf*>(owner)->*member)};
}

}  // namespace viewer
