#include "exceptions/redactedNames.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "support/text.h"

namespace agent::redacted {

namespace {

// Where in a word of a name a secret one may stand.
enum class place { alone, whole, atEnd, anywhere };

struct secretWord {
  std::string_view text;
  place where;
};

// "secretary", "tokenizer", "pinned" and "discard" are none.
constexpr std::array kSecretWords{
    secretWord{"password", place::anywhere},
    secretWord{"passwd", place::anywhere},
    secretWord{"passphrase", place::anywhere},
    secretWord{"passcode", place::atEnd},
    secretWord{"pwd", place::atEnd},
    secretWord{"pass", place::alone},
    secretWord{"secret", place::atEnd},
    secretWord{"token", place::atEnd},
    secretWord{"credential", place::atEnd},
    secretWord{"cookie", place::atEnd},
    secretWord{"authorization", place::atEnd},
    secretWord{"apikey", place::atEnd},
    secretWord{"privatekey", place::atEnd},
    secretWord{"accesskey", place::atEnd},
    secretWord{"secretkey", place::atEnd},
    secretWord{"signingkey", place::atEnd},
    secretWord{"encryptionkey", place::atEnd},
    secretWord{"masterkey", place::atEnd},
    secretWord{"sessionid", place::atEnd},
    secretWord{"creditcard", place::atEnd},
    secretWord{"cardnumber", place::atEnd},
    secretWord{"cardno", place::atEnd},
    secretWord{"card", place::whole},
    secretWord{"cvv", place::whole},
    secretWord{"cvc", place::whole},
    secretWord{"pin", place::whole},
    secretWord{"pincode", place::whole},
    secretWord{"ssn", place::whole},
    secretWord{"socialsecurity", place::whole},
    secretWord{"iban", place::whole},
    secretWord{"otp", place::whole},
    secretWord{"jwt", place::whole},
    secretWord{"userpass", place::atEnd},
    secretWord{"dbpass", place::atEnd},
};

// A parser's message has a "token:", too.
constexpr std::array kInSentences{
    secretWord{"password", place::anywhere}, secretWord{"passwd", place::anywhere},
    secretWord{"passphrase", place::atEnd},  secretWord{"pwd", place::atEnd},
    secretWord{"secret", place::atEnd},      secretWord{"apikey", place::atEnd},
    secretWord{"privatekey", place::atEnd},  secretWord{"accesskey", place::atEnd},
    secretWord{"accesstoken", place::atEnd}, secretWord{"authtoken", place::atEnd},
    secretWord{"cookie", place::atEnd},      secretWord{"authorization", place::atEnd},
    secretWord{"cvv", place::whole},         secretWord{"cvc", place::whole},
    secretWord{"ssn", place::whole},         secretWord{"otp", place::whole},
    secretWord{"pincode", place::whole},     secretWord{"creditcard", place::atEnd},
    secretWord{"cardnumber", place::atEnd},  secretWord{"cardno", place::atEnd},
};

constexpr std::array kOfLines{
    secretWord{"cookie", place::atEnd},
    secretWord{"authorization", place::atEnd},
};

constexpr std::array kOfClasses{
    secretWord{"password", place::anywhere},
    secretWord{"secret", place::atEnd},
    secretWord{"credential", place::atEnd},
    secretWord{"privatekey", place::atEnd},
};

constexpr std::array kCards{secretWord{"card", place::atEnd}};

constexpr std::array<std::string_view, 25> kCounts{
    "count",   "counts", "size", "length",   "len",     "index",  "limit",   "max",  "min",
    "number",  "total",  "ttl",  "timeout",  "seconds", "millis", "minutes", "days", "hours",
    "expires", "expiry", "age",  "attempts", "tokens",  "cards",  "cookies"};

// One of a longer name is hidden without being read.
constexpr std::size_t kLongestName = 512;

bool isLower(char c) {
  // Letters beyond ASCII have no case here.
  return (c >= 'a' && c <= 'z') || static_cast<unsigned char>(c) >= 0x80U;
}

bool isUpper(char c) {
  return c >= 'A' && c <= 'Z';
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool isPart(char c) {
  return isLower(c) || isUpper(c) || isDigit(c);
}

char lower(char c) {
  return isUpper(c) ? static_cast<char>(c - 'A' + 'a') : c;
}

// Whether a word begins or ends before `at`.
bool isBorder(std::string_view name, std::size_t at) {
  if (at == 0 || at >= name.size()) {
    return true;
  }
  const char before = name[at - 1];
  const char after = name[at];
  if (!isPart(before) || !isPart(after) || isDigit(before) != isDigit(after)) {
    return true;
  }
  if (!isUpper(after)) {
    return false;
  }
  return isLower(before) || (at + 1 < name.size() && isLower(name[at + 1]));
}

// The end of a word that stands at `at`, whatever separates its letters in the name.
std::optional<std::size_t> endOf(std::string_view name, std::size_t at, const secretWord& word) {
  std::size_t end = at;
  for (const char wanted : word.text) {
    while (end < name.size() && end > at && !isPart(name[end])) {
      ++end;
    }
    if (end == name.size() || lower(name[end]) != wanted) {
      return std::nullopt;
    }
    ++end;
  }
  const bool isPlural = end < name.size() && lower(name[end]) == 's' && isBorder(name, end + 1);
  if (word.where == place::anywhere || isBorder(name, end) || isPlural) {
    return end;
  }
  return std::nullopt;
}

bool isShown(std::string_view name, std::size_t begin, std::size_t end, const words& shown) {
  for (const std::string& word : shown) {
    for (std::size_t at = 0; at <= begin; ++at) {
      if (isBorder(name, at) && endOf(name, at, {word, place::whole}).value_or(0) >= end) {
        return true;
      }
    }
  }
  return false;
}

// What a character is to the words of a list: the number of a letter of any case, or one of these.
constexpr unsigned char kSeparator = 26;
constexpr unsigned char kNoLetter = 27;  // a digit, or beyond ASCII
constexpr std::size_t kKinds = 28;

constexpr std::array<unsigned char, 256> kindTable() {
  std::array<unsigned char, 256> table{};
  for (std::size_t c = 0; c < table.size(); ++c) {
    const bool isNumber = c >= '0' && c <= '9';
    table[c] = isNumber || c >= 0x80 ? kNoLetter : kSeparator;
  }
  for (unsigned char i = 0; i < kSeparator; ++i) {
    table[std::size_t{'a'} + i] = table[std::size_t{'A'} + i] = i;
  }
  return table;
}
constexpr std::array<unsigned char, 256> kKindOf = kindTable();

std::uint32_t kindOf(char c) {
  return kKindOf[static_cast<unsigned char>(c)];
}

// How the words of a list begin: a row for their first letter, and a bit in it for the second one,
// which a separator may keep from the first.
template <typename List>
constexpr std::array<std::uint32_t, kKinds> beginningsOf(const List& list) {
  std::array<std::uint32_t, kKinds> rows{};
  for (const secretWord& word : list) {
    const auto number = [&word](std::size_t at) {
      return static_cast<unsigned>(word.text[at] - 'a');
    };
    rows[number(0)] |= std::uint32_t{1} << number(1) | std::uint32_t{1} << kSeparator;
  }
  return rows;
}

// Whether one of the words stands at `at`, and is not shown.
bool isAt(std::string_view name, std::size_t at, const secretWord& word, const words& shown) {
  if (lower(name[at]) != word.text.front() || name.size() - at < word.text.size()) {
    return false;
  }
  if (word.where == place::alone && at != 0) {
    return false;
  }
  if (word.where <= place::whole && !isBorder(name, at)) {
    return false;
  }
  const std::optional<std::size_t> end = endOf(name, at, word);
  const bool isThere = end && (word.where != place::alone || *end == name.size());
  return isThere && !isShown(name, at, *end, shown);
}

// Built-in words, of which each has two letters at least. Most letters of most names begin none.
template <const auto& List>
bool hasOneOf(std::string_view name, const words& shown = {}) {
  static constexpr std::array kBeginnings = beginningsOf(List);
  for (std::size_t at = 0; at + 1 < name.size(); ++at) {
    if ((kBeginnings[kindOf(name[at])] >> kindOf(name[at + 1]) & 1U) == 0) {
      continue;
    }
    const char first = lower(name[at]);
    for (const secretWord& word : List) {
      if (word.text.front() == first && isAt(name, at, word, shown)) {
        return true;
      }
    }
  }
  return false;
}

// What a signature is of: "com/example/Vault", "C"; the elements of an array.
std::string_view elementOf(std::string_view type) {
  type.remove_prefix(std::min(type.find_first_not_of('['), type.size()));
  if (type.size() >= 2 && type.front() == 'L' && type.back() == ';') {
    return type.substr(1, type.size() - 2);
  }
  return type;
}

std::string_view afterLastDot(std::string_view name) {
  std::size_t begin = name.size();
  while (begin > 0 && name[begin - 1] != '/' && name[begin - 1] != '.') {
    --begin;
  }
  return name.substr(begin);
}

// With "/" and "." the same.
bool isSameLetter(char a, char b) {
  return a == b || (a == '/' && b == '.');
}

bool isPrefixOf(std::string_view prefix, std::string_view text) {
  return text.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), text.begin(),
                    [](char b, char a) { return isSameLetter(a, b); });
}

}  // namespace

std::string plainWord(std::string_view text) {
  std::string word;
  for (const char c : text) {
    if (isPart(c)) {
      word += lower(c);
    }
  }
  return word;
}

bool isSecretName(std::string_view name, const words& own, const words& shown) {
  return name.size() > kLongestName || hasOneOf<kSecretWords>(name, shown) ||
         isOwnName(name, own, shown);
}

bool isOwnName(std::string_view name, const words& own, const words& shown) {
  return std::any_of(own.begin(), own.end(), [&](const std::string& word) {
    for (std::size_t at = 0; at < name.size(); ++at) {
      if (isAt(name, at, {word, place::whole}, shown)) {
        return true;
      }
    }
    return false;
  });
}

bool isNameOfCount(std::string_view name) {
  std::size_t end = name.size();
  while (end > 0 && !isPart(name[end - 1])) {
    --end;
  }
  std::size_t begin = end;
  while (begin > 0 && (begin == end || !isBorder(name.substr(0, end), begin))) {
    --begin;
  }
  const std::string last = plainWord(name.substr(begin, end - begin));
  // A card's "number" is the card.
  if (last == "number" && hasOneOf<kCards>(name)) {
    return false;
  }
  return std::find(kCounts.begin(), kCounts.end(), last) != kCounts.end();
}

bool isSecretInSentence(std::string_view name) {
  return name.size() <= kLongestName && hasOneOf<kInSentences>(name);
}

bool isSecretLine(std::string_view name) {
  return hasOneOf<kOfLines>(name);
}

bool isLike(std::string_view text, std::string_view pattern) {
  std::size_t at = 0;
  std::size_t inPattern = 0;
  std::size_t star = std::string_view::npos;
  std::size_t afterStar = 0;
  while (at < text.size()) {
    if (inPattern < pattern.size() && pattern[inPattern] == '*') {
      star = inPattern++;
      afterStar = at;
    } else if (inPattern < pattern.size() &&
               (pattern[inPattern] == '?' || isSameLetter(text[at], pattern[inPattern]))) {
      ++at;
      ++inPattern;
    } else if (star != std::string_view::npos) {
      inPattern = star + 1;
      at = ++afterStar;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', inPattern) == std::string_view::npos;
}

bool isSecretType(std::string_view type, const words& own) {
  if (type == "[C" || type.ends_with("[[C")) {
    return true;
  }
  const std::string_view name = elementOf(type);
  const std::string_view simple = afterLastDot(name);
  if (isPrefixOf("javax.security.auth.", name) || hasOneOf<kOfClasses>(simple) ||
      simple.ends_with("Cookie")) {
    return true;
  }
  const bool isOfKeys = isPrefixOf("java.security.", name) || isPrefixOf("sun.security.", name);
  if (isOfKeys && simple.find("Key") != std::string_view::npos) {
    return true;
  }
  return std::any_of(own.begin(), own.end(), [&](const std::string& pattern) {
    return isLike(pattern.find('.') == std::string::npos ? simple : name, pattern);
  });
}

}  // namespace agent::redacted
