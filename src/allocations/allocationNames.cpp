#include "allocations/allocationNames.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace agent {

namespace {

using primitive = std::pair<char, std::string_view>;
constexpr std::array<primitive, 8> kPrimitives{{{'Z', "boolean"},
                                                {'B', "byte"},
                                                {'C', "char"},
                                                {'S', "short"},
                                                {'I', "int"},
                                                {'J', "long"},
                                                {'F', "float"},
                                                {'D', "double"}}};

}  // namespace

std::string sourceNameOf(std::string_view signature) {
  const std::size_t dimensions = std::min(signature.find_first_not_of('['), signature.size());
  std::string_view element = signature.substr(dimensions);
  std::string name;
  if (!element.empty() && element.front() == 'L') {
    element.remove_prefix(1);
    if (!element.empty() && element.back() == ';') {
      element.remove_suffix(1);
    }
    name = element;
    std::replace(name.begin(), name.end(), '/', '.');
  } else {
    const auto* const known =
        std::find_if(kPrimitives.begin(), kPrimitives.end(), [&](const primitive& each) {
          return element.size() == 1 && each.first == element.front();
        });
    name = known == kPrimitives.end() ? element : known->second;
  }
  for (std::size_t i = 0; i < dimensions; ++i) {
    name += "[]";
  }
  return name;
}

}  // namespace agent
