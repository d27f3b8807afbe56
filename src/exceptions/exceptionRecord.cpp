#include "exceptions/exceptionRecord.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "exceptions/redactionCount.h"

namespace agent::record {

namespace {

// What a text grows beyond the limit before it is cut to it.
constexpr std::size_t kSlack = 4096;
// Of a record: at first, and up to which length it grows as it comes.
constexpr std::size_t kFirstRoom = 4096;
constexpr std::size_t kFirstPlaces = 512;
constexpr std::size_t kShortText = std::size_t{32} << 10U;

// How long a name and a code are in an entry.
std::size_t lengthOfHead(std::string_view name, typeCode code) {
  constexpr int kFirstOfTwoDigits = 10;
  return name.size() + 2 * kJoin.size() + (static_cast<int>(code) < kFirstOfTwoDigits ? 1 : 2);
}

bool isContinuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// Whether a surrogate stands at `at`, with its second byte in the range.
bool isSurrogate(std::string_view text, std::size_t at, unsigned char first, unsigned char last) {
  if (at + 1 >= text.size() || static_cast<unsigned char>(text[at]) != 0xED) {
    return false;
  }
  const auto second = static_cast<unsigned char>(text[at + 1]);
  return second >= first && second <= last;
}

constexpr std::size_t kSurrogateBytes = 3;

bool isHighSurrogate(std::string_view text, std::size_t at) {
  return isSurrogate(text, at, 0xA0, 0xAF);
}

bool isLowSurrogate(std::string_view text, std::size_t at) {
  return isSurrogate(text, at, 0xB0, 0xBF);
}

}  // namespace

typeCode codeOf(std::string_view signature) {
  switch (signature.empty() ? '\0' : signature.front()) {
    case 'Z':
      return typeCode::boolean;
    case 'C':
      return typeCode::character;
    case 'B':
      return typeCode::byte;
    case 'S':
      return typeCode::shortInt;
    case 'I':
      return typeCode::integer;
    case 'J':
      return typeCode::longInt;
    case 'D':
      return typeCode::doubleFloat;
    case 'F':
      return typeCode::singleFloat;
    default:
      break;
  }
  if (signature == "Ljava/lang/String;") {
    return typeCode::string;
  }
  if (signature == "Ljava/lang/StringBuilder;") {
    return typeCode::stringBuilder;
  }
  return typeCode::object;
}

std::string withoutValues(std::string_view text) {
  const std::size_t end = text.find(kEndHeader);
  if (end == std::string_view::npos) {
    return {};
  }
  std::string first(text.substr(0, end + kEndHeader.size()));
  for (const std::string_view mark : {kEndClassVariables, kEndArguments, kEndLocals}) {
    first += mark;
  }
  return first;
}

builder::builder(std::size_t limit, bool wantsPlaces) : limit_(limit), wantsPlaces_(wantsPlaces) {
  text_.reserve(kFirstRoom);
  if (wantsPlaces_) {
    places_.reserve(kFirstPlaces);
  }
}

// Every byte of the text but one that continues a character begins a UTF-16 unit.
std::vector<std::int32_t> builder::takePlaces() {
  std::uint32_t units = 0;
  auto done = text_.begin();
  for (std::int32_t& each : places_) {
    const auto given = static_cast<std::uint32_t>(each);
    const auto next = text_.begin() + static_cast<std::ptrdiff_t>(given & kOffsetMask);
    units += static_cast<std::uint32_t>(
        std::count_if(done, next, [](char byte) { return !isContinuation(byte); }));
    done = next;
    each = static_cast<std::int32_t>((given & ~kOffsetMask) | units);
  }
  return std::move(places_);
}

// No text pays for these places: they are bounded here.
void builder::noteUnavailable() {
  if (places_.size() < limit_ / kSeparatorLength) {
    notePlace(text_.size(), flagsOf(valueState::notAvailable, false));
  }
}

bool builder::fits(std::size_t bytes) {
  if (text_.size() + reserved_ + bytes > limit_) {
    isCut_ = true;
    return false;
  }
  makeRoom(bytes);
  return true;
}

// A long text gets all the room that it may need at once: where it grew step by step, it would for
// a moment be in memory twice.
void builder::makeRoom(std::size_t bytes) {
  const std::size_t most = limit_ + kSlack;
  if (text_.size() + bytes > kShortText && text_.capacity() < most) {
    text_.reserve(most);
  }
}

void builder::goBack(place to) {
  text_.resize(to.size);
  reserved_ = to.reserved;
  places_.resize(to.places);
}

bool builder::openFrame(std::string_view header, std::initializer_list<std::size_t> inner) {
  constexpr std::size_t kClosing =
      kEndClassVariables.size() + kEndArguments.size() + kEndLocals.size() + kEndFrame.size();
  if (!fits(header.size() + kClosing)) {
    return false;
  }
  for (const std::size_t each : inner) {
    notePlace(text_.size() + each);
  }
  text_ += header.substr(0, header.size() - kEndHeader.size());
  separate(kEndHeader);
  reserved_ += kClosing;
  return true;
}

void builder::endSection(std::string_view mark) {
  separate(mark);
  reserved_ -= mark.size();
}

void builder::appendHead(std::string_view name, typeCode code) {
  text_ += name;
  separate(kJoin);
  text_ += std::to_string(static_cast<int>(code));
  separate(kJoin);
}

void builder::appendEntry(std::string_view name, typeCode code, std::string_view value,
                          bool isStatic) {
  appendValue(name, code, value, flagsOf(valueState::value, isStatic));
}

void builder::appendValue(std::string_view name, typeCode code, std::string_view value,
                          std::uint32_t flags) {
  if (!fits(lengthOfHead(name, code) + value.size() + kEnd.size())) {
    return;
  }
  appendHead(name, code);
  text_ += value;
  separate(kEnd, flags);
}

void builder::appendNumber(std::string_view name, typeCode code, std::int64_t value,
                           bool isStatic) {
  std::array<char, 24> text;
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value).ptr;
  appendEntry(name, code,
              std::string_view(text.data(), static_cast<std::size_t>(end - text.data())), isStatic);
}

void builder::appendFloat(std::string_view name, typeCode code, double value, bool isStatic) {
  constexpr int kDigits = 6;
  std::array<char, 400> text;  // the largest double has 309 digits before the point
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value,
                                 std::chars_format::fixed, kDigits)
                       .ptr;
  appendEntry(name, code,
              std::string_view(text.data(), static_cast<std::size_t>(end - text.data())), isStatic);
}

void builder::appendNullObject(std::string_view name, valueState state) {
  if (openObject(name) == kNotOpen) {
    return;
  }
  text_ += kNull;
  endObject(flagsOf(state, false));
}

void builder::appendNullField(std::string_view name, valueState state, bool isStatic) {
  appendValue(name, typeCode::object, kNull, flagsOf(state, isStatic));
}

void builder::appendRedacted(std::string_view name, std::string_view reason, bool isStatic) {
  const std::string value = "<redacted:" + std::string(reason) + ">";
  redacted::countHidden();
  appendValue(name, typeCode::string, value, flagsOf(valueState::redacted, isStatic));
}

std::size_t builder::openObject(std::string_view name) {
  constexpr std::size_t kClosing = kNull.size() + kEndObject.size();
  if (!fits(kOpenObject.size() + lengthOfHead(name, typeCode::object) + kClosing)) {
    return kNotOpen;
  }
  separate(kOpenObject, kOpensObject);
  appendHead(name, typeCode::object);
  reserved_ += kClosing;
  return text_.size();
}

void builder::closeObject(std::size_t opened, bool isStatic) {
  valueState state = valueState::value;
  if (isCut_ && text_.size() == opened) {
    text_ += kNull;  // none of it did fit
    state = valueState::notRead;
  }
  endObject(flagsOf(state, isStatic));
}

void builder::endObject(std::uint32_t flags) {
  separate(kEndObject, flags);
  reserved_ -= kNull.size() + kEndObject.size();
}

void builder::dropLastSeparator(std::size_t start) {
  if (text_.size() - start > kSeparatorLength) {
    text_.resize(text_.size() - kSeparatorLength);
    const auto size = static_cast<std::uint32_t>(text_.size());
    for (auto each = places_.rbegin(); each != places_.rend(); ++each) {
      const auto given = static_cast<std::uint32_t>(*each);
      if ((given & kOffsetMask) <= size) {
        break;
      }
      *each = static_cast<std::int32_t>((given & ~kOffsetMask) | size);
    }
  }
}

bool builder::openText(std::string_view name, typeCode code, std::size_t units) {
  if (!fits(lengthOfHead(name, code) + std::min(units, kBytesOfPair) + kEnd.size())) {
    return false;
  }
  appendHead(name, code);
  reserved_ += kEnd.size();
  return true;
}

void builder::closeText(bool isStatic) {
  separate(kEnd, flagsOf(valueState::value, isStatic));
  reserved_ -= kEnd.size();
}

void builder::shortenText(std::size_t start, std::size_t bytes) {
  std::size_t end = start + bytes;
  while (end > start && isContinuation(text_[end])) {
    --end;
  }
  const bool isSecondHalf = isLowSurrogate(text_, end) && end >= start + kSurrogateBytes &&
                            isHighSurrogate(text_, end - kSurrogateBytes);
  text_.resize(isSecondHalf ? end - kSurrogateBytes : end);
}

}  // namespace agent::record
