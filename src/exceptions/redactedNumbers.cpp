#include "exceptions/redactedNumbers.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace agent::redacted {

namespace {

constexpr std::size_t kFewestDigits = 13;
constexpr std::size_t kMostDigits = 19;

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

char upper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool isLetter(char c) {
  return upper(c) >= 'A' && upper(c) <= 'Z';
}

// Digits that were found one after the other.
struct digits {
  std::array<char, kMostDigits> text{};
  std::size_t count = 0;

  std::string_view view() const { return {text.data(), count}; }
};

bool hasCheckDigit(std::string_view number) {
  int sum = 0;
  bool isDoubled = false;
  for (auto each = number.rbegin(); each != number.rend(); ++each) {
    int value = *each - '0';
    if (isDoubled) {
      value = value * 2 > 9 ? value * 2 - 9 : value * 2;
    }
    sum += value;
    isDoubled = !isDoubled;
  }
  return sum % 10 == 0;
}

// Numbers that begin with 1 are times since the epoch, except for 15 digits.
bool isCard(std::string_view number) {
  if (number.size() < kFewestDigits || number.size() > kMostDigits || number.front() == '0' ||
      (number.front() == '1' && number.size() != 15)) {
    return false;
  }
  return number.find_first_not_of(number.front()) != std::string_view::npos &&
         hasCheckDigit(number);
}

// With this length, numbers of all issuers begin with one of `from` to `to`.
struct range {
  std::string_view from;
  std::string_view to;
  std::size_t length;
};

constexpr std::array kIssuers{
    range{"4", "4", 13},       range{"4", "4", 16},       range{"4", "4", 19},
    range{"51", "55", 16},     range{"2221", "2720", 16}, range{"34", "34", 15},
    range{"37", "37", 15},     range{"6011", "6011", 16}, range{"644", "659", 16},
    range{"3528", "3589", 16}, range{"300", "305", 14},   range{"36", "36", 14},
    range{"38", "39", 14},     range{"62", "62", 16},
};

// Two letters and how long the numbers of the country are.
constexpr std::string_view kCountries =
    "AD24AE23AL28AT20AZ28BA20BE16BG22BH22BR29BY28CH21CR22CY28CZ24DE22DJ27DK18DO28EE20EG29ES24"
    "FI18FK18FO18FR27GB22GE22GI23GL18GR27GT28HN28HR21HU28IE22IL23IQ23IS26IT27JO30KW30KZ20LB28"
    "LC32LI21LT20LU20LV21LY25MC27MD24ME22MK19MN20MR27MT31MU30NI28NL18NO15OM23PK24PL28PS29PT25"
    "QA29RO24RS22RU33SA24SC31SD18SE24SI19SK24SM27SO23ST25SV28TL23TN24TR26UA29VA22VG24XK20YE30";

std::size_t lengthOfIban(char first, char second) {
  for (std::size_t i = 0; i + 4 <= kCountries.size(); i += 4) {
    if (kCountries[i] == first && kCountries[i + 1] == second) {
      return static_cast<std::size_t>((kCountries[i + 2] - '0') * 10 + kCountries[i + 3] - '0');
    }
  }
  return 0;
}

// The rest of the division by 97 goes on with one more character.
int restWith(int rest, char c) {
  return isDigit(c) ? (rest * 10 + (c - '0')) % 97 : (rest * 100 + (upper(c) - 'A' + 10)) % 97;
}

bool isEndOfNumber(std::string_view text, std::size_t at) {
  return at >= text.size() || (!isDigit(text[at]) && !isLetter(text[at]));
}

}  // namespace

std::size_t endOfCard(std::string_view text, std::size_t at) {
  constexpr std::size_t kFewestInGroup = 3;
  digits found;
  std::size_t end = at;
  std::size_t best = at;
  char separator = '\0';
  while (true) {
    const std::size_t begin = end;
    while (end < text.size() && isDigit(text[end]) && found.count < kMostDigits) {
      found.text[found.count++] = text[end++];
    }
    const bool isGroup = separator == '\0' || end - begin >= kFewestInGroup;
    if (!isGroup || !isEndOfNumber(text, end)) {
      return best;
    }
    if (isCard(found.view())) {
      best = end;
    }
    const bool goesOn = end + 1 < text.size() && (text[end] == ' ' || text[end] == '-') &&
                        isDigit(text[end + 1]) && end - begin >= kFewestInGroup &&
                        end - begin < kFewestDigits &&
                        (separator == '\0' ? end - begin == 4 : text[end] == separator);
    if (!goesOn) {
      return best;
    }
    separator = text[end++];
  }
}

std::size_t endOfIban(std::string_view text, std::size_t at) {
  if (text.size() - at < 15 || !isLetter(text[at]) || !isLetter(text[at + 1]) ||
      !isDigit(text[at + 2]) || !isDigit(text[at + 3])) {
    return at;
  }
  const std::size_t length = lengthOfIban(upper(text[at]), upper(text[at + 1]));
  std::size_t count = 0;
  std::size_t end = at;
  int rest = 0;
  for (; count < length && end < text.size(); ++end) {
    const char c = text[end];
    if (c == ' ' && count > 0 && text[end - 1] != ' ') {
      continue;
    }
    if (!isDigit(c) && !isLetter(c)) {
      return at;
    }
    if (++count > 4) {
      rest = restWith(rest, c);
    }
  }
  if (length == 0 || count < length || !isEndOfNumber(text, end)) {
    return at;
  }
  for (std::size_t i = at; i < at + 4; ++i) {
    rest = restWith(rest, text[i]);
  }
  return rest == 1 ? end : at;
}

bool isCardNumber(std::int64_t value) {
  std::array<char, 24> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
  const std::string_view number(text.data(), static_cast<std::size_t>(end - text.data()));
  if (value <= 0 || number.size() < kFewestDigits || !hasCheckDigit(number)) {
    return false;
  }
  return std::any_of(kIssuers.begin(), kIssuers.end(), [&](const range& issuer) {
    const std::string_view begin = number.substr(0, issuer.from.size());
    return number.size() == issuer.length && begin >= issuer.from && begin <= issuer.to;
  });
}

}  // namespace agent::redacted
