#include "utf8.h"

#include <algorithm>
#include <array>
#include <utility>

namespace viewer {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr std::string_view kReplacementText = "\xEF\xBF\xBD";
constexpr std::string_view kEllipsis = "...";

struct character {
  char32_t code;
  std::size_t bytes;
};

using codeRange = std::pair<char32_t, char32_t>;

constexpr std::array<codeRange, 3> kNoColumn = {
    {{0x0300, 0x036F}, {0x200B, 0x200F}, {0xFE00, 0xFE0F}}};

constexpr std::array<codeRange, 11> kTwoColumns = {{{0x1100, 0x115F},
                                                    {0x2E80, 0x303E},
                                                    {0x3041, 0xA4CF},
                                                    {0xAC00, 0xD7A3},
                                                    {0xF900, 0xFAFF},
                                                    {0xFE30, 0xFE6F},
                                                    {0xFF00, 0xFF60},
                                                    {0xFFE0, 0xFFE6},
                                                    {0x1F300, 0x1F64F},
                                                    {0x1F900, 0x1F9FF},
                                                    {0x20000, 0x3FFFD}}};

template <std::size_t n>
bool within(const std::array<codeRange, n>& ranges, char32_t code) {
  return std::any_of(ranges.begin(), ranges.end(), [code](const codeRange& range) {
    return range.first <= code && code <= range.second;
  });
}

unsigned byteAt(std::string_view text, std::size_t index) {
  return static_cast<unsigned char>(text[index]);
}

// The character at the front of a text that is not empty; halves of surrogate pairs are taken as
// characters of their own. A byte that begins no character is taken alone, as U+FFFD.
character front(std::string_view text) {
  constexpr std::array<char32_t, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
  const unsigned lead = byteAt(text, 0);
  if (lead < 0x80) {
    return {lead, 1};
  }
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC0 || lead > 0xF7 || text.size() < length) {
    return {kReplacement, 1};
  }
  char32_t code = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; i++) {
    if ((byteAt(text, i) & 0xC0) != 0x80) {
      return {kReplacement, 1};
    }
    code = code << 6 | (byteAt(text, i) & 0x3F);
  }
  return code < kSmallest[length] || code > 0x10FFFF ? character{kReplacement, 1}
                                                     : character{code, length};
}

bool isHighSurrogate(char32_t code) {
  return code >= 0xD800 && code <= 0xDBFF;
}
bool isLowSurrogate(char32_t code) {
  return code >= 0xDC00 && code <= 0xDFFF;
}

// As front(), with a surrogate pair taken as the one character that it stands for.
character frontOfModified(std::string_view text) {
  const character first = front(text);
  if (isHighSurrogate(first.code) && text.size() > first.bytes) {
    const character second = front(text.substr(first.bytes));
    if (isLowSurrogate(second.code)) {
      return {0x10000 + ((first.code - 0xD800) << 10 | (second.code - 0xDC00)),
              first.bytes + second.bytes};
    }
  }
  const bool half = isHighSurrogate(first.code) || isLowSurrogate(first.code);
  return half ? character{kReplacement, first.bytes} : first;
}

std::string fourBytes(char32_t code) {
  const auto tail = [code](int shift) { return static_cast<char>(0x80 | (code >> shift & 0x3F)); };
  return {static_cast<char>(0xF0 | code >> 18), tail(12), tail(6), tail(0)};
}

// Also what breaks lines, has no width or turns the direction of the text around it.
constexpr std::array<codeRange, 7> kControls = {{{0x00, 0x1F},
                                                 {0x7F, 0x9F},
                                                 {0x061C, 0x061C},
                                                 {0x200B, 0x200F},
                                                 {0x2028, 0x2029},
                                                 {0x202A, 0x202E},
                                                 {0x2066, 0x2069}}};

// Those that are not controls.
constexpr std::array<codeRange, 9> kBlanks = {{{0x20, 0x20},
                                               {0xA0, 0xA0},
                                               {0xAD, 0xAD},
                                               {0x1680, 0x1680},
                                               {0x180E, 0x180E},
                                               {0x2000, 0x200A},
                                               {0x202F, 0x202F},
                                               {0x205F, 0x2064},
                                               {0x3000, 0x3000}}};
constexpr char32_t kByteOrderMark = 0xFEFF;

// "a.b.Cart$Item.add(Cart.java:7)" as "a.b.Cart$Item.add:7", where the source tells nothing that
// the class does not; any other text as it is.
std::string withoutSource(std::string_view name) {
  const std::size_t open = name.find('(');
  const std::size_t colon = name.find(':', open == std::string_view::npos ? name.size() : open);
  if (colon == std::string_view::npos || !name.ends_with(')')) {
    return std::string(name);
  }
  const std::string_view source = name.substr(open + 1, colon - open - 1);
  const std::string_view stem = source.substr(0, source.find('.'));
  const std::string_view method = name.substr(0, open);
  const std::size_t dot = method.rfind('.');
  const std::string_view type = method.substr(0, dot == std::string_view::npos ? 0 : dot);
  const std::size_t at = type.rfind('.');
  const std::string_view simple = type.substr(at == std::string_view::npos ? 0 : at + 1);
  if (stem.empty() || simple.substr(0, simple.find('$')) != stem) {
    return std::string(name);
  }
  return std::string(method).append(name.substr(colon, name.size() - colon - 1));
}

// How many bytes of the name are packages: up to the first part that begins with a capital.
std::size_t packagesIn(std::string_view name) {
  const std::size_t end = std::min(name.find_first_of("(:@, "), name.size());
  for (std::size_t start = 0; start < end;) {
    if (name[start] >= 'A' && name[start] <= 'Z') {
      return start;
    }
    const std::size_t dot = name.find('.', start);
    start = dot == std::string_view::npos ? end : dot + 1;
  }
  return 0;
}

std::size_t columnsOf(char32_t code) {
  return within(kNoColumn, code) ? 0 : within(kTwoColumns, code) ? 2 : 1;
}

// How many bytes at the front of the text fit into `columns`.
std::size_t bytesWithin(std::string_view utf8, std::size_t columns) {
  std::size_t bytes = 0;
  while (bytes < utf8.size()) {
    const character next = front(utf8.substr(bytes));
    if (columnsOf(next.code) > columns) {
      break;
    }
    columns -= columnsOf(next.code);
    bytes += next.bytes;
  }
  return bytes;
}

}  // namespace

std::size_t appendUtf8(std::string_view modified, bool isLast, std::string& utf8) {
  constexpr std::size_t kLongest = 6;  // bytes of a character: a surrogate pair
  const std::size_t whole = modified.size();
  while (!modified.empty()) {
    const auto ascii = static_cast<std::size_t>(
        std::find_if(modified.begin(), modified.end(), [](char c) { return (c & 0x80) != 0; }) -
        modified.begin());
    utf8 += modified.substr(0, ascii);
    modified.remove_prefix(ascii);
    if (modified.empty() || (!isLast && modified.size() < kLongest)) {
      break;
    }
    const character next = frontOfModified(modified);
    if (next.bytes == kLongest) {
      utf8 += fourBytes(next.code);
    } else if (next.code == kReplacement) {
      utf8 += kReplacementText;
    } else {
      utf8 += modified.substr(0, next.bytes);
    }
    modified.remove_prefix(next.bytes);
  }
  return whole - modified.size();
}

std::string toUtf8(std::string_view modified) {
  std::string result;
  result.reserve(modified.size());
  appendUtf8(modified, true, result);
  return result;
}

std::string printable(std::string_view utf8) {
  std::string result;
  result.reserve(utf8.size());
  while (!utf8.empty()) {
    const character next = front(utf8);
    result += within(kControls, next.code) ? kReplacementText : utf8.substr(0, next.bytes);
    utf8.remove_prefix(next.bytes);
  }
  return result;
}

std::string_view afterBlanks(std::string_view utf8) {
  while (!utf8.empty()) {
    const character next = front(utf8);
    if (!within(kControls, next.code) && !within(kBlanks, next.code) &&
        next.code != kByteOrderMark) {
      break;
    }
    utf8.remove_prefix(next.bytes);
  }
  return utf8;
}

std::size_t displayColumns(std::string_view utf8) {
  std::size_t columns = 0;
  while (!utf8.empty()) {
    const character next = front(utf8);
    columns += columnsOf(next.code);
    utf8.remove_prefix(next.bytes);
  }
  return columns;
}

std::string cutEnd(std::string_view utf8, std::size_t columns) {
  if (displayColumns(utf8) <= columns) {
    return std::string(utf8);
  }
  const std::string_view mark = kEllipsis.substr(0, columns);
  return std::string(utf8.substr(0, bytesWithin(utf8, columns - mark.size()))).append(mark);
}

std::string cutStart(std::string_view utf8, std::size_t columns) {
  std::size_t left = displayColumns(utf8);
  if (left <= columns) {
    return std::string(utf8);
  }
  const std::string_view mark = kEllipsis.substr(0, columns);
  while (left > columns - mark.size()) {
    const character next = front(utf8);
    left -= columnsOf(next.code);
    utf8.remove_prefix(next.bytes);
  }
  return std::string(mark).append(utf8);
}

std::string cutMiddle(std::string_view utf8, std::size_t columns) {
  if (displayColumns(utf8) <= columns) {
    return std::string(utf8);
  }
  const std::size_t atStart = columns * 2 / 5;
  const std::string_view start = utf8.substr(0, bytesWithin(utf8, atStart));
  return std::string(start).append(
      cutStart(utf8.substr(start.size()), columns - displayColumns(start)));
}

std::string cutName(std::string_view utf8, std::size_t columns) {
  constexpr std::size_t kLeastOfStart = 3;  // columns of the packages that are worth their room
  if (displayColumns(utf8) <= columns) {
    return std::string(utf8);
  }
  const std::string name = withoutSource(utf8);
  const std::string_view simple = std::string_view(name).substr(packagesIn(name));
  const std::size_t taken = displayColumns(simple) + kEllipsis.size();
  if (displayColumns(name) <= columns || simple.size() == name.size() || taken > columns) {
    return cutMiddle(displayColumns(name) <= columns ? name : simple, columns);
  }
  const std::size_t room = columns - taken;
  const std::size_t kept = room < kLeastOfStart ? 0 : bytesWithin(name, room);
  return name.substr(0, kept).append(kEllipsis).append(simple);
}

}  // namespace viewer
