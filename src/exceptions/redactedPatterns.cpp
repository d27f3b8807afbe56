#include "exceptions/redactedPatterns.h"

#include <algorithm>
#include <optional>

namespace agent::redacted {

namespace {

constexpr auto kNone = std::string_view::npos;

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool isBlank(char c) {
  return static_cast<unsigned char>(c) <= ' ';
}

bool isOfWord(char c) {
  return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         static_cast<unsigned char>(c) >= 0x80U;
}

// Whether two words, or a word and something else, meet before `at`.
bool isEdge(std::string_view text, std::size_t at) {
  return at == 0 || at == text.size() || !isOfWord(text[at - 1]) || !isOfWord(text[at]);
}

// A piece of a pattern, without "*", at this place of the text.
bool isAt(std::string_view text, std::size_t at, std::string_view piece) {
  if (piece.size() > text.size() - at) {
    return false;
  }
  for (std::size_t i = 0; i < piece.size(); ++i) {
    const char c = text[at + i];
    const char wanted = piece[i];
    if (wanted != '?' && !(wanted == '#' && isDigit(c)) && (wanted == '#' || wanted != c)) {
      return false;
    }
  }
  return true;
}

std::size_t endOfRun(std::string_view text, std::size_t at) {
  while (at < text.size() && !isBlank(text[at])) {
    ++at;
  }
  return at;
}

// The first place of a piece, or the last one, from `from` on and within the run.
std::size_t placeIn(std::string_view text, std::size_t from, std::size_t runEnd,
                    std::string_view piece, bool isLast) {
  std::size_t found = kNone;
  for (std::size_t at = from; at + piece.size() <= text.size() && at <= runEnd; ++at) {
    if (isAt(text, at, piece) && (!isLast || isEdge(text, at + piece.size()))) {
      found = at;
      if (!isLast) {
        break;
      }
    }
  }
  return found;
}

struct outcome {
  std::optional<std::size_t> end;
  std::size_t next = 0;  // where to look on when there is no end
};

// What comes after the first "*" of a pattern, in the run that goes on at `at`. When it is not
// there, it is not there for any later beginning in the run either.
outcome endAfterStar(std::string_view text, bool isWhole, std::size_t at,
                     std::string_view pattern) {
  const std::size_t runEnd = endOfRun(text, at);
  while (true) {
    pattern.remove_prefix(std::min(pattern.find_first_not_of('*'), pattern.size()));
    if (pattern.empty()) {
      return {runEnd, runEnd};
    }
    const std::size_t star = pattern.find('*');
    const std::string_view piece = pattern.substr(0, star);
    const std::size_t found = placeIn(text, at, runEnd, piece, star == kNone);
    if (found == kNone && !isWhole && runEnd == text.size()) {
      return {runEnd, runEnd};  // it may be in what is not seen
    }
    if (found == kNone) {
      return {std::nullopt, std::max(runEnd, at)};
    }
    at = found + piece.size();
    if (star == kNone) {
      return {at, at};
    }
    pattern.remove_prefix(star);
  }
}

}  // namespace

span findLike(std::string_view text, bool isWhole, std::size_t from, std::string_view pattern) {
  const std::size_t star = pattern.find('*');
  const std::string_view first = pattern.substr(0, star);
  std::size_t at = from;
  while (at < text.size()) {
    const bool mayBegin = first.empty()
                              ? (at == from || isBlank(text[at - 1])) && !isBlank(text[at])
                              : isEdge(text, at) && isAt(text, at, first);
    if (!mayBegin) {
      ++at;
      continue;
    }
    const std::size_t afterFirst = at + first.size();
    if (star == kNone) {
      if (isEdge(text, afterFirst)) {
        return {at, afterFirst};
      }
      ++at;
      continue;
    }
    const outcome rest = endAfterStar(text, isWhole, afterFirst, pattern.substr(star));
    if (rest.end) {
      return {at, *rest.end};
    }
    at = std::max(at + 1, rest.next);
  }
  return {};
}

}  // namespace agent::redacted
