#include "pprof/wireFormat.h"

#include <algorithm>
#include <cstddef>

namespace pprof {

namespace {

constexpr std::uint32_t kVarint = 0;
constexpr std::uint32_t kLengthDelimited = 2;

void appendTag(std::string& out, std::uint32_t field, std::uint32_t type) {
  appendVarint(out, std::uint64_t{field} << 3U | type);
}

unsigned char at(std::string_view text, std::size_t index) {
  return static_cast<unsigned char>(text[index]);
}

// The bytes of the character that the text begins with; 0 when that is none.
std::size_t characterLength(std::string_view text) {
  const unsigned char first = at(text, 0);
  if (first < 0x80) {
    return 1;
  }
  const std::size_t length = first >= 0xC2 && first <= 0xDF   ? 2
                             : first >= 0xE0 && first <= 0xEF ? 3
                             : first >= 0xF0 && first <= 0xF4 ? 4
                                                              : 0;
  if (length == 0 || text.size() < length) {
    return 0;
  }
  // Too long a form, a half of a surrogate pair, beyond the last character.
  const unsigned char least = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
  const unsigned char most = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
  const bool isSecond = at(text, 1) >= least && at(text, 1) <= most;
  const std::string_view others = text.substr(2, length - 2);
  return isSecond &&
                 std::all_of(others.begin(), others.end(),
                             [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80; })
             ? length
             : 0;
}

}  // namespace

void appendVarint(std::string& out, std::uint64_t value) {
  constexpr std::uint64_t kMore = 0x80;
  constexpr unsigned kBits = 7;
  for (; value >= kMore; value >>= kBits) {
    out.push_back(static_cast<char>(value | kMore));
  }
  out.push_back(static_cast<char>(value));
}

void appendNumber(std::string& out, std::uint32_t field, std::uint64_t value) {
  if (value != 0) {
    appendTag(out, field, kVarint);
    appendVarint(out, value);
  }
}

void appendBytes(std::string& out, std::uint32_t field, std::string_view bytes) {
  appendTag(out, field, kLengthDelimited);
  appendVarint(out, bytes.size());
  out += bytes;
}

std::string validUtf8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    if (length == 0) {
      result.push_back('?');
      text.remove_prefix(1);
    } else {
      result += text.substr(0, length);
      text.remove_prefix(length);
    }
  }
  return result;
}

}  // namespace pprof
