#include "exceptions/redactedValues.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "exceptions/redactedNumbers.h"
#include "exceptions/redactedPatterns.h"
#include "support/text.h"

namespace agent::redacted {

namespace {

// Of a longer text, so many bytes at the end of what was searched are hidden: a secret that begins
// in them may end after them.
constexpr std::size_t kMargin = 1024;

constexpr std::size_t kMostPatterns = 32;
constexpr std::size_t kLongestPattern = 128;
constexpr std::size_t kLookBack = 128;   // for the name of a pair
constexpr std::size_t kLookAhead = 512;  // for the end of a part of a URL

constexpr auto kNone = std::string_view::npos;

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isAlphanumeric(char c) {
  return isDigit(c) || isLetter(c);
}

bool isBlank(char c) {
  return static_cast<unsigned char>(c) <= ' ';
}

bool isQuote(char c) {
  return c == '"' || c == '\'';
}

bool isOneOf(char c, std::string_view list) {
  return list.find(c) != kNone;
}

bool isOfName(char c) {
  return isAlphanumeric(c) || isOneOf(c, "_.$-") || static_cast<unsigned char>(c) >= 0x80U;
}

// Letters, digits and signs of base64 in all its forms.
bool isOfToken(char c) {
  return isAlphanumeric(c) || isOneOf(c, "_-+/=.~");
}

bool beginsCharacter(char c) {
  return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U;
}

struct hit {
  std::size_t begin = kNone;
  std::size_t end = kNone;
  reason why = reason::password;

  bool isNone() const { return begin == kNone; }
};

// Tokens that tell by their beginning what they are.
constexpr std::array<std::string_view, 26> kTokens{
    "AKIA",     "ASIA",  "AROA",  "AIDA",   "AIza",  "SG.",   "dop_v1_", "ghp_",       "gho_",
    "ghu_",     "ghs_",  "ghr_",  "glpat-", "hvs.",  "npm_",  "sk-",     "sk_live_",   "sk_test_",
    "rk_live_", "xoxa-", "xoxb-", "xoxp-",  "xoxr-", "xoxs-", "ya29.",   "github_pat_"};
constexpr std::size_t kLeastOfToken = 16;

constexpr std::array<bool, 256> tokenStarts() {
  std::array<bool, 256> table{};
  for (const std::string_view token : kTokens) {
    table[static_cast<unsigned char>(token.front())] = true;
  }
  return table;
}
constexpr std::array<bool, 256> kTokenStarts = tokenStarts();

// What a byte may begin.
enum class start : unsigned char { nothing, pair, colon, tag, dash, digit, letter, percent, slash };

constexpr std::array<start, 256> startTable() {
  std::array<start, 256> table{};
  table['='] = start::pair;
  table[':'] = start::colon;
  table['>'] = start::tag;
  table['-'] = start::dash;
  table['%'] = start::percent;
  table['/'] = start::slash;
  for (std::size_t c = '0'; c <= '9'; ++c) {
    table[c] = start::digit;
  }
  for (std::size_t c = 'A'; c <= 'Z'; ++c) {
    table[c] = start::letter;
    table[c - 'A' + 'a'] = start::letter;
  }
  return table;
}
constexpr std::array<start, 256> kStarts = startTable();

// Finds secrets by the built-in rules.
class finder {
 public:
  finder(std::string_view text, bool isWhole, const valueRules& rules)
      : text_(text), isWhole_(isWhole), rules_(rules) {}

  // The first one that ends after `from`.
  hit next(std::size_t from) const {
    for (std::size_t at = from; at < text_.size(); ++at) {
      const start what = kStarts[static_cast<unsigned char>(text_[at])];
      if (what == start::nothing) {
        continue;
      }
      const hit found = hitAt(at, what);
      if (!found.isNone() && found.end > from) {
        return found;
      }
    }
    return {};
  }

 private:
  struct name {
    std::string_view text;
    bool isQuoted = false;
    char quoteBefore = '\0';  // the quote that the text before the name ends with
  };

  hit hitAt(std::size_t at, start what) const {
    switch (what) {
      case start::pair:
        return pairAt(at, at + 1);
      case start::percent:
        return has(at, "%3D") || has(at, "%3d") ? pairAt(at, at + 3) : hit{};
      case start::colon:
        return afterColon(at);
      case start::tag:
        return inTag(at);
      case start::dash:
        return afterDash(at);
      case start::digit:
        return numberAt(at);
      case start::letter:
        return beginsWord(at) ? wordAt(at) : hit{};
      case start::slash:  // what a URL has behind its scheme
        return at == 0 && has(0, "//") ? inAuthority(2) : hit{};
      case start::nothing:
        break;
    }
    return {};
  }

  bool has(std::size_t at, std::string_view wanted) const {
    return text_.substr(at, wanted.size()) == wanted;
  }
  bool beginsWord(std::size_t at) const { return at == 0 || !isAlphanumeric(text_[at - 1]); }
  char charAt(std::size_t at) const { return at < text_.size() ? text_[at] : '\0'; }
  bool endsAt(std::size_t at) const { return at >= text_.size(); }

  template <typename Is>
  std::size_t skip(std::size_t at, Is&& is) const {
    while (at < text_.size() && is(text_[at])) {
      ++at;
    }
    return at;
  }
  std::size_t skipBlanks(std::size_t at) const {
    return skip(at, [](char c) { return c == ' ' || c == '\t'; });
  }

  // The name that stands before a "=" or ":".
  name nameBefore(std::size_t at) const {
    const std::size_t least = at > kLookBack ? at - kLookBack : 0;
    std::size_t end = at;
    while (end > least && (text_[end - 1] == ' ' || text_[end - 1] == '\t')) {
      --end;
    }
    name found;
    if (end > least && isQuote(text_[end - 1])) {
      found.isQuoted = true;
      --end;
      while (end > least && text_[end - 1] == '\\') {
        --end;
      }
    } else if (end > least && text_[end - 1] == ']') {
      const std::size_t open = text_.substr(least, end - least).rfind('[');
      end = open == kNone ? end : least + open;
    }
    std::size_t begin = end;
    while (begin > least && isOfName(text_[begin - 1])) {
      --begin;
    }
    found.quoteBefore = begin > 0 && isQuote(text_[begin - 1]) ? text_[begin - 1] : '\0';
    found.text = text_.substr(begin, end - begin);
    if (found.text.starts_with("-D")) {
      found.text.remove_prefix(2);
    }
    return found;
  }

  bool isSecret(std::string_view named) const {
    named.remove_prefix(std::min(named.find_first_not_of('-'), named.size()));
    return !named.empty() && isSecretName(named, rules_.names, rules_.shown);
  }

  // The value that a secret name has.
  hit valueOf(const name& named, std::size_t begin, bool isAfterColon) const {
    begin = skipBlanks(begin);
    if (isMarkAt(begin)) {
      return {};
    }
    std::size_t end = 0;
    if (isSecretLine(named.text) && !named.isQuoted) {
      end = isAfterColon ? endOfLine(begin, named.quoteBefore) : endOfHeader(begin);
    } else {
      end = endOfValue(begin);
    }
    std::size_t contentBegin = begin;
    std::size_t contentEnd = end;
    const std::size_t quote = begin + (charAt(begin) == '\\' ? 1 : 0);
    if (isQuote(charAt(quote))) {
      contentBegin = std::min(quote + 1, end);
      contentEnd = endOfQuoted(quote) - (quote - begin);
      contentEnd = std::max(contentEnd, contentBegin);
    }
    const std::string_view value = text_.substr(contentBegin, contentEnd - contentBegin);
    if (isHarmless(named.text, value)) {
      return {};
    }
    return {contentBegin, contentEnd, reason::password};
  }

  // Values that hide nothing.
  static bool isHarmless(std::string_view named, std::string_view value) {
    if (value.find_first_not_of("*?") == kNone) {
      return true;
    }
    constexpr std::array<std::string_view, 3> kWords{"null", "true", "false"};
    const std::string word = value.size() > 5 ? std::string() : support::lowerCase(value);
    if (std::find(kWords.begin(), kWords.end(), word) != kWords.end()) {
      return true;
    }
    return value.find_first_not_of("0123456789") == kNone && isNameOfCount(named);
  }

  // Whether it goes on with what is wrong with a value, as "password: must not be empty".
  static bool saysMore(std::string_view word) {
    constexpr std::array<std::string_view, 16> kWords{
        "must", "may",  "should", "cannot",  "is",       "was",     "has",      "not",
        "too",  "size", "length", "missing", "required", "invalid", "rejected", "expired"};
    return std::find(kWords.begin(), kWords.end(), word) != kWords.end();
  }

  // Whether the value is what an earlier look has left of one.
  bool isMarkAt(std::size_t at) const {
    constexpr std::string_view kBegin = "<redacted:";
    if (!has(at, kBegin)) {
      return false;
    }
    const std::size_t end = skip(at + kBegin.size(), isLetter);
    return charAt(end) == '>' && (endsAt(end + 1) || isEndOfPlain(end + 1));
  }

  hit pairAt(std::size_t sign, std::size_t value) const {
    const char next = charAt(value);
    const bool isComparison = next == '=' || (sign > 0 && isOneOf(text_[sign - 1], "=!<>"));
    if (isComparison) {
      return {};
    }
    const name named = nameBefore(sign);
    if (!isSecret(named.text)) {
      return {};
    }
    return valueOf(named, next == '>' ? value + 1 : value, false);
  }

  hit afterColon(std::size_t at) const {
    if (has(at, "://")) {
      return inAuthority(at + 3);
    }
    if (charAt(at + 1) == ':' || (at > 0 && text_[at - 1] == ':')) {
      return {};
    }
    const name named = nameBefore(at);
    if (named.text.ends_with("thin") || named.text.ends_with("oci")) {
      return inOracleName(at + 1);
    }
    const bool isSecretHere =
        named.isQuoted || rules_.isStrict
            ? isSecret(named.text)
            : isSecretInSentence(named.text) || isOwnName(named.text, rules_.names, rules_.shown);
    if (!isSecretHere) {
      return {};
    }
    const hit found = valueOf(named, charAt(at + 1) == '=' ? at + 2 : at + 1, true);
    const bool isPlain = !named.isQuoted && !found.isNone() && !isQuote(text_[found.begin - 1]);
    return isPlain && saysMore(text_.substr(found.begin, found.end - found.begin)) ? hit{} : found;
  }

  // user:password@ of a URL; a user that is as long as a token, with what comes after it.
  hit inAuthority(std::size_t begin) const {
    const std::string_view rest = text_.substr(begin, kLookAhead);
    const std::string_view all = rest.substr(0, rest.find_first_of(" \t\r\n\"'<>"));
    const std::string_view host = all.substr(0, all.find_first_of("/?#"));
    std::size_t at = host.rfind('@');
    const std::size_t colon = host.find(':');
    if (at == kNone && colon != kNone) {
      // A password may have a "/" in it. A port has digits only.
      const std::string_view port = host.substr(colon + 1);
      at = port.find_first_not_of("0123456789") == kNone ? kNone : all.rfind('@');
    }
    if (at == kNone) {
      return {};
    }
    constexpr std::size_t kLeastOfUser = 20;
    if (std::min(colon, at) >= kLeastOfUser) {
      return {begin, begin + at, reason::token};
    }
    if (colon == kNone || colon > at) {
      return {};
    }
    const std::string_view secret = all.substr(colon + 1, at - colon - 1);
    return isHarmless({}, secret) ? hit{} : hit{begin + colon + 1, begin + at, reason::password};
  }

  // user/password@ of a name of a database.
  hit inOracleName(std::size_t begin) const {
    const std::string_view rest = text_.substr(begin, kLookAhead);
    constexpr std::string_view kEnds = " \t\r\n\"'<>";
    std::size_t end = rest.find_first_of(kEnds);
    if (end != kNone && end > 0 && rest[end] == '"' && rest[end - 1] == '/') {
      const std::size_t close = rest.find('"', end + 1);  // user/"password"@
      end = close == kNone ? end : rest.find_first_of(kEnds, close + 1);
    }
    const std::string_view all = rest.substr(0, end);
    const std::size_t slash = all.find('/');
    const std::size_t at = all.rfind('@');
    const bool isThere = slash != kNone && at != kNone && slash + 1 < at;
    return isThere ? hit{begin + slash + 1, begin + at, reason::password} : hit{};
  }

  // The content of <password>...
  hit inTag(std::size_t at) const {
    const std::size_t least = at > kLookBack ? at - kLookBack : 0;
    const std::size_t opened = text_.substr(least, at - least).rfind('<');
    if (opened == kNone) {
      return {};
    }
    const std::size_t open = least + opened;
    const std::size_t tagEnd = skip(open + 1, [](char c) { return isOfName(c) || c == ':'; });
    const std::string_view tag = text_.substr(open + 1, tagEnd - open - 1);
    constexpr std::string_view kRaw = "<![CDATA[";
    const bool isRaw = has(at + 1, kRaw);
    const std::size_t end = isRaw && isSecret(tag) ? text_.find("]]>", at) : at + 1;
    const std::size_t close = std::min(text_.find('<', end), text_.size());
    const std::string_view value = text_.substr(at + 1, close - at - 1);
    const bool isContent = isRaw || !endsAt(close) || !isWhole_;
    if (!isContent || !isSecret(tag) || isHarmless(tag, value)) {
      return {};
    }
    return {at + 1, close, reason::password};
  }

  hit afterDash(std::size_t at) const {
    if (has(at, "-----BEGIN ")) {
      return keyAt(at);
    }
    if (at > 0 && !isBlank(text_[at - 1]) && !isQuote(text_[at - 1])) {
      return {};
    }
    // --password VALUE
    const std::size_t end = skip(at, isOfName);
    const std::size_t value = skipBlanks(end);
    const std::string_view option = text_.substr(at, std::min(end - at, kLookBack));
    if (value == end || endsAt(value) || text_[value] == '-' || !isSecret(option)) {
      return {};
    }
    const name named{option};
    return valueOf(named, value, false);
  }

  hit keyAt(std::size_t at) const {
    constexpr std::size_t kLongestHead = 80;
    const std::string_view head = text_.substr(at, kLongestHead);
    const std::size_t word = head.find("PRIVATE KEY");
    if (word == kNone || word > head.find("-----", 5)) {
      return {};
    }
    constexpr std::string_view kEnd = "-----END ";
    const std::size_t end = text_.find(kEnd, at);
    if (end == kNone) {
      return {at, text_.size(), reason::key};
    }
    const std::size_t dashes = text_.find("-----", end + kEnd.size());
    return {at, dashes == kNone ? text_.size() : dashes + 5, reason::key};
  }

  hit numberAt(std::size_t at) const {
    if (at > 0 && (isAlphanumeric(text_[at - 1]) || isFractionAt(at))) {
      return {};
    }
    const std::size_t end = endOfCard(text_, at);
    return end > at ? hit{at, end, reason::card} : hit{};
  }
  bool isFractionAt(std::size_t at) const {
    return at > 1 && text_[at - 1] == '.' && isDigit(text_[at - 2]);
  }

  hit wordAt(std::size_t at) const {
    switch (text_[at]) {
      case 'e':
        if (has(at, "eyJ")) {
          return jwtAt(at);
        }
        break;
      case 'B':
      case 'b':
        if (const hit found = schemeAt(at); !found.isNone()) {
          return found;
        }
        break;
      default:
        break;
    }
    if (isLetter(charAt(at + 1)) && isDigit(charAt(at + 2)) && isDigit(charAt(at + 3))) {
      const std::size_t end = endOfIban(text_, at);
      if (end > at) {
        return {at, end, reason::iban};
      }
    }
    return tokenAt(at);
  }

  hit jwtAt(std::size_t at) const {
    if (at < noJwtBefore_) {
      return {};
    }
    constexpr std::size_t kLeastOfHead = 12;
    const auto isOfPart = [](char c) { return isAlphanumeric(c) || c == '_' || c == '-'; };
    const std::size_t dot = skip(at, isOfPart);
    if (endsAt(dot) && !isWhole_) {
      return {at, dot, reason::jwt};
    }
    const bool isHead = dot - at >= kLeastOfHead && charAt(dot) == '.';
    const std::size_t end = skip(dot, [&](char c) { return isOfPart(c) || c == '.' || c == '='; });
    if (isHead && end - dot > 4) {
      return {at, end, reason::jwt};
    }
    noJwtBefore_ = dot;  // what begins later in the same run is none either
    return {};
  }

  // Bearer TOKEN, Basic TOKEN
  hit schemeAt(std::size_t at) const {
    const std::size_t end = endOfScheme(at);
    const std::size_t begin = skipBlanks(end);
    if (end == at || begin == end) {
      return {};
    }
    const std::size_t tokenEnd = skip(begin, isOfToken);
    const std::string_view token = text_.substr(begin, tokenEnd - begin);
    constexpr std::size_t kLeast = 8;
    if (token.size() < kLeast || isWord(token)) {
      return {};
    }
    return {begin, tokenEnd, reason::token};
  }
  std::size_t endOfScheme(std::size_t at) const {
    for (const std::string_view scheme : {"bearer", "basic"}) {
      if (support::startsWithIgnoringCase(text_.substr(at, scheme.size()), scheme) &&
          text_.size() - at >= scheme.size()) {
        return at + scheme.size();
      }
    }
    return at;
  }
  // One of a language: in lower case except for its first letter.
  static bool isWord(std::string_view token) {
    while (!token.empty() && isOneOf(token.back(), ".=-")) {
      token.remove_suffix(1);
    }
    return std::all_of(token.begin(), token.end(), [&](const char& c) {
      return (c >= 'a' && c <= 'z') || c == '-' || (&c == token.data() && isLetter(c));
    });
  }

  hit tokenAt(std::size_t at) const {
    if (!kTokenStarts[static_cast<unsigned char>(text_[at])]) {
      return {};
    }
    for (const std::string_view prefix : kTokens) {
      if (text_[at] != prefix.front() || !has(at, prefix)) {
        continue;
      }
      const std::size_t end = skip(at + prefix.size(), [](char c) {
        return isAlphanumeric(c) || c == '_' || c == '-' || c == '.';
      });
      if (end - at - prefix.size() >= kLeastOfToken) {
        return {at, end, reason::token};
      }
    }
    return {};
  }

  // --- Where the value of a pair ends ---

  std::size_t endOfLine(std::size_t at, char quote) const {
    return skip(at,
                [&](char c) { return c != '\n' && c != '\r' && (quote == '\0' || c != quote); });
  }

  // Of a header in the text of a map.
  std::size_t endOfHeader(std::size_t at) const {
    while (at < text_.size() && text_[at] != '\n' && text_[at] != '\r') {
      const bool isNext = text_[at] == ',' && isPairAhead(skipBlanks(at + 1));
      if (isNext || (text_[at] == '}' && isEndAfter(at))) {
        break;
      }
      ++at;
    }
    return at;
  }

  std::size_t endOfValue(std::size_t begin) const {
    if (endsAt(begin)) {
      return begin;
    }
    const char first = text_[begin];
    if (isQuote(first)) {
      return std::min(endOfQuoted(begin) + 1, text_.size());
    }
    if (first == '\\' && isQuote(charAt(begin + 1))) {
      return std::min(endOfQuoted(begin + 1) + 1, text_.size());
    }
    if (first == '[' || first == '{') {
      return endOfPlain(endOfBrackets(begin));  // "{bcrypt}$2a$..."
    }
    std::size_t end = endOfPlain(begin);
    const std::size_t scheme = endOfScheme(begin);
    if (scheme == end && end > begin && charAt(end) == ' ') {
      end = endOfPlain(skipBlanks(end));
    }
    return end;
  }

  // The closing quote of the one at `open`, or the end. A quote after a backslash closes one after
  // a backslash.
  std::size_t endOfQuoted(std::size_t open) const {
    const bool isEscaped = open > 0 && text_[open - 1] == '\\';
    for (std::size_t at = open + 1; at < text_.size(); ++at) {
      if (text_[at] == text_[open] && (text_[at - 1] == '\\') == isEscaped) {
        return at;
      }
    }
    return text_.size();
  }

  std::size_t endOfBrackets(std::size_t at) const {
    std::size_t depth = 0;
    for (; at < text_.size(); ++at) {
      if (isOneOf(text_[at], "[{")) {
        ++depth;
      } else if (isOneOf(text_[at], "]}") && --depth == 0) {
        return at + 1;
      }
    }
    return at;
  }

  std::size_t endOfPlain(std::size_t at) const {
    while (at < text_.size() && !isEndOfPlain(at)) {
      ++at;
    }
    return at;
  }

  // A separator ends a value only where something follows that looks like it.
  bool isEndOfPlain(std::size_t at) const {
    const char c = text_[at];
    if (isBlank(c)) {
      return true;
    }
    switch (c) {
      case '"':
      case '\'':
        return !isAlphanumeric(charAt(at + 1));
      case '\\':
        return isQuote(charAt(at + 1));
      case '&':
      case ';':
      case ',':
        return isEndAfter(at) || isPairAhead(at + 1);
      case ')':
      case ']':
      case '}':
      case '>':
        return isEndAfter(at);
      case '<':
        return charAt(at + 1) == '/';
      case '%':
        return has(at, "%26");
      default:
        return false;
    }
  }

  bool isEndAfter(std::size_t at) const {
    return endsAt(at + 1) || isBlank(text_[at + 1]) || isOneOf(text_[at + 1], ",;&)]}>\"'<");
  }

  bool isPairAhead(std::size_t at) const {
    const std::string_view ahead = text_.substr(at, 64);
    std::size_t end = 0;
    while (end < ahead.size() && (isOfName(ahead[end]) || ahead[end] == ' ')) {
      ++end;
    }
    return end > 0 && end < ahead.size() && (ahead[end] == '=' || ahead[end] == ':');
  }

  std::string_view text_;
  bool isWhole_;
  const valueRules& rules_;
  mutable std::size_t noJwtBefore_ = 0;
};

// --- What looks random ---

bool isOfRandom(char c) {
  return isAlphanumeric(c) || isOneOf(c, "+/_=-");
}

// Bits for a character.
double entropyOf(std::string_view text) {
  std::array<std::uint16_t, 256> counts{};
  for (const char c : text) {
    ++counts[static_cast<unsigned char>(c)];
  }
  const auto all = static_cast<double>(text.size());
  double sum = 0;
  for (const std::uint16_t count : counts) {
    if (count != 0) {
      sum -= count / all * std::log2(count / all);
    }
  }
  return sum;
}

// How often digits, small and capital letters take turns: in names it is once a word.
std::size_t changesIn(std::string_view text) {
  enum class kind { none, digit, small, capital };
  kind last = kind::none;
  std::size_t changes = 0;
  for (const char c : text) {
    if (!isAlphanumeric(c)) {
      continue;
    }
    const kind now = isDigit(c) ? kind::digit : c >= 'a' ? kind::small : kind::capital;
    changes += last != kind::none && now != last ? 1 : 0;
    last = now;
  }
  return changes;
}

constexpr std::size_t kLeastRandom = 20;
constexpr std::size_t kMostRandom = 4096;  // of a run that is looked at

bool looksRandom(std::string_view run) {
  run = run.substr(0, kMostRandom);
  constexpr double kBits = 3.0;
  constexpr std::size_t kCharactersForChange = 4;
  const bool hasLetter = std::any_of(run.begin(), run.end(), isLetter);
  return hasLetter && changesIn(run) * kCharactersForChange >= run.size() &&
         entropyOf(run) >= kBits;
}

hit nextRandom(std::string_view text, std::size_t from) {
  std::size_t at = from;
  while (at < text.size()) {
    std::size_t end = at;
    while (end < text.size() && isOfRandom(text[end])) {
      ++end;
    }
    if (end - at >= kLeastRandom && looksRandom(text.substr(at, end - at))) {
      return {at, end, reason::entropy};
    }
    at = end + 1;
  }
  return {};
}

// All rules, in one walk over the text.
class hider {
 public:
  hider(std::string_view text, bool isWhole, const valueRules& rules)
      : text_(text), isWhole_(isWhole), rules_(rules), finder_(text, isWhole, rules) {
    for (std::size_t i = 0; i < count(); ++i) {
      next_[i] = find(i, 0);
    }
  }

  // The next part to hide, which ends after `from`; none after the last one.
  hit next(std::size_t from) {
    hit first;
    for (std::size_t i = 0; i < count(); ++i) {
      if (!next_[i].isNone() && next_[i].end <= from) {
        next_[i] = find(i, from);
      }
      if (!next_[i].isNone() && (first.isNone() || next_[i].begin < first.begin)) {
        first = next_[i];
      }
    }
    first.begin = first.isNone() ? kNone : std::max(first.begin, from);
    return first;
  }

 private:
  std::size_t patterns() const { return std::min(rules_.patterns.size(), kMostPatterns); }
  std::size_t count() const { return patterns() + (rules_.isStrict ? 2 : 1); }

  // The patterns come first: of two hits that begin together theirs counts.
  hit find(std::size_t rule, std::size_t from) const {
    if (rule < patterns()) {
      const span found = findLike(text_, isWhole_, from, rules_.patterns[rule]);
      return found.end > found.begin ? hit{found.begin, found.end, reason::pattern} : hit{};
    }
    return rule == patterns() ? finder_.next(from) : nextRandom(text_, from);
  }

  std::string_view text_;
  bool isWhole_;
  const valueRules& rules_;
  finder finder_;
  std::array<hit, kMostPatterns + 2> next_;
};

}  // namespace

std::string_view nameOf(reason why) {
  switch (why) {
    case reason::name:
      return "name";
    case reason::type:
      return "type";
    case reason::password:
      return "password";
    case reason::card:
      return "card";
    case reason::iban:
      return "iban";
    case reason::jwt:
      return "jwt";
    case reason::token:
      return "token";
    case reason::key:
      return "key";
    case reason::pattern:
      return "pattern";
    case reason::entropy:
      return "entropy";
    case reason::notScanned:
      return "notScanned";
  }
  return "name";
}

std::string markOf(reason why) {
  return "<redacted:" + std::string(nameOf(why)) + '>';
}

std::string_view hideIn(std::string_view text, bool isWhole, const valueRules& rules,
                        std::string& changed) {
  isWhole = isWhole && text.size() <= kScannedBytes;
  const std::string_view seen = text.substr(0, kScannedBytes);
  std::size_t end = seen.size();
  if (!isWhole) {
    end -= std::min(end, kMargin);
    while (end > 0 && !beginsCharacter(seen[end])) {
      --end;
    }
  }
  hider all(seen, isWhole, rules);
  hit found = all.next(0);
  if (isWhole && found.isNone()) {
    return text;
  }
  changed.clear();
  std::size_t done = 0;
  while (!found.isNone() && found.begin < end) {
    changed += seen.substr(done, found.begin - done);
    changed += markOf(found.why);
    done = found.end;
    found = all.next(done);
  }
  changed += seen.substr(std::min(done, end), end - std::min(done, end));
  if (!isWhole) {
    changed += markOf(reason::notScanned);
  }
  return changed;
}

bool isWithPassword(std::string_view name, std::string_view text) {
  constexpr std::string_view kUserInfo = "userinfo";
  constexpr std::string_view kAuthority = "authority";
  const auto isCalled = [&](std::string_view part) {
    return name.size() >= part.size() &&
           support::startsWithIgnoringCase(name.substr(name.size() - part.size()), part);
  };
  const std::size_t colon = text.find(':');
  if (isCalled(kUserInfo)) {
    return colon < text.size() - 1;
  }
  const std::size_t at = text.rfind('@');
  return isCalled(kAuthority) && at != kNone && colon < at;
}

std::optional<std::string_view> onlyMarkIn(std::string_view text) {
  constexpr std::string_view kBegin = "<redacted:";
  if (!text.starts_with(kBegin) || text.find('>') != text.size() - 1) {
    return std::nullopt;
  }
  return text.substr(kBegin.size(), text.size() - kBegin.size() - 1);
}

std::size_t unitsIn(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), beginsCharacter));
}

std::size_t endOfUnits(std::string_view text, std::size_t at, std::size_t units) {
  for (; at < text.size(); ++at) {
    if (beginsCharacter(text[at]) && units-- == 0) {
      break;
    }
  }
  return at;
}

bool isPattern(std::string_view pattern) {
  return pattern.size() <= kLongestPattern && pattern.find_first_not_of("*?") != kNone;
}

}  // namespace agent::redacted
