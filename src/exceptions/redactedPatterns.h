// The users' own patterns for values to hide.
#pragma once

#include <cstddef>
#include <string_view>

namespace agent::redacted {

// A part of a text.
struct span {
  std::size_t begin = 0;
  std::size_t end = 0;
};

// The first part from `from` on that is like the pattern, as long as possible; one that ends where
// it begins when there is none. It begins and ends where a word does, or at a "*". A walk over all
// parts of a text takes time in proportion to its length. What follows a "*" counts as found at the
// end of a text that is not whole.
span findLike(std::string_view text, bool isWhole, std::size_t from, std::string_view pattern);

}  // namespace agent::redacted
