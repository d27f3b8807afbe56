// Secrets in texts: found by what they look like and by the names that stand before them, and
// replaced. Plain functions on UTF-8, the modified one too, in linear time; any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "exceptions/redactedNames.h"

namespace agent::redacted {

// Why something is hidden; `nameOf` is what stands in its place: "<redacted:card>".
enum class reason {
  name,
  type,
  password,
  card,
  iban,
  jwt,
  token,
  key,
  pattern,
  entropy,
  notScanned
};
std::string_view nameOf(reason why);
std::string markOf(reason why);

// What a text is searched for besides the built-in rules.
struct valueRules {
  words names = {};  // for name=value pairs
  words shown = {};
  // "*" is any run of characters that are not blank, "?" any character, "#" a digit.
  std::vector<std::string> patterns = {};
  bool isStrict = false;  // hides texts that look random, and more names in sentences
};

// Bytes of a text that are searched; what comes after them is hidden.
inline constexpr std::size_t kScannedBytes = std::size_t{64} << 10U;

// Hides what the rules find. Without a hit it is `text` itself, else it is in `changed`. `isWhole`
// is false for the beginning of a longer text: its last characters are hidden, too, since a secret
// may begin in them.
std::string_view hideIn(std::string_view text, bool isWhole, const valueRules& rules,
                        std::string& changed);

// Whether a part of a URL, a variable of this name, has a password in it: "user:password" where it
// is called userInfo, "user:password@host" where it is called authority.
bool isWithPassword(std::string_view name, std::string_view text);

// Why the complete text is hidden: the reason in the mark that is all of it.
std::optional<std::string_view> onlyMarkIn(std::string_view text);

// The UTF-16 units of a text in modified UTF-8, and where so many of them end from `at` on.
std::size_t unitsIn(std::string_view text);
std::size_t endOfUnits(std::string_view text, std::size_t at, std::size_t units);

// Whether a pattern can be used: not empty, with something besides "*" and "?", and not longer
// than 128 characters.
bool isPattern(std::string_view pattern);

}  // namespace agent::redacted
