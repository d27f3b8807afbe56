// Reads a record by the places of its separators, as whoever is handed them does.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "exceptions/recordPlaces.h"

namespace test {

using agent::record::valueState;

struct placedValue {
  std::u16string name{};
  std::u16string code{};
  std::u16string text{};  // none for objects
  valueState state = valueState::value;
  bool isStatic = false;
  bool isObject = false;
  std::vector<placedValue> fields{};

  bool operator==(const placedValue&) const = default;
};

struct placedFrame {
  std::array<std::u16string, 4> header;  // class, method, source, line
  // Fields of `this`, arguments, locals, thread locals. A variable that is not available has
  // nothing but its state.
  std::array<std::vector<placedValue>, 4> sections;

  bool operator==(const placedFrame&) const = default;
};

// What Java makes of modified UTF-8.
inline std::u16string utf16Of(std::string_view text) {
  std::u16string units;
  const auto low = [&](std::size_t at) { return static_cast<unsigned char>(text[at]) & 0x3FU; };
  for (std::size_t i = 0; i < text.size();) {
    const unsigned first = static_cast<unsigned char>(text[i]);
    if (first < 0x80) {
      units += static_cast<char16_t>(first);
      i += 1;
    } else if (first < 0xE0) {
      units += static_cast<char16_t>((first & 0x1FU) << 6U | low(i + 1));
      i += 2;
    } else {
      units += static_cast<char16_t>((first & 0xFU) << 12U | low(i + 1) << 6U | low(i + 2));
      i += 3;
    }
  }
  return units;
}

class placedReader {
 public:
  placedReader(std::string_view text, const std::vector<std::int32_t>& places)
      : text_(utf16Of(text)), places_(places) {}

  std::vector<placedFrame> read() {
    std::vector<placedFrame> frames;
    while (next_ < places_.size() && !::testing::Test::HasFailure()) {
      placedFrame& frame = frames.emplace_back();
      frame.header = {upTo(u"."), upTo(u"("), upTo(u":"), upTo(u"%40%41")};
      EXPECT_TRUE(frame.header[3].ends_with(u')'));
      frame.header[3].pop_back();
      for (std::size_t i = 0; i < kEnds.size(); ++i) {
        readValues(frame.sections[i]);
        upTo(kEnds[i]);
      }
    }
    EXPECT_EQ(at_, text_.size()) << "all of it is read";
    return frames;
  }

 private:
  static constexpr std::array<std::u16string_view, 4> kEnds = {u"%42", u"%43", u"%44", u"%7C"};

  std::uint32_t place() const {
    return next_ < places_.size() ? static_cast<std::uint32_t>(places_[next_]) : 0;
  }
  std::size_t offset() const { return place() & agent::record::kOffsetMask; }
  valueState state() const {
    return static_cast<valueState>((place() & agent::record::kStateMask) >>
                                   agent::record::kOffsetBits);
  }

  // What stands before the next place, and goes behind its separator; that may have been dropped.
  std::u16string upTo(std::u16string_view separator) {
    if (next_ == places_.size() || offset() < at_ || offset() > text_.size()) {
      ADD_FAILURE() << "no place " << next_ << " of " << places_.size() << " beyond " << at_;
      return {};
    }
    std::u16string before = text_.substr(at_, offset() - at_);
    at_ = offset();
    if (std::u16string_view(text_).substr(at_).starts_with(separator)) {
      at_ += separator.size();
    } else if (separator == u"!%23%2C") {
      EXPECT_EQ(text_.substr(at_, 4), u"!%23");
      at_ += 4;
    } else {
      const bool mayBeDropped = separator == u"%2C" || separator == u"%7C";
      EXPECT_TRUE(mayBeDropped) << "the separator of place " << next_ << " is not there";
    }
    ++next_;
    return before;
  }

  void readValues(std::vector<placedValue>& values) {
    while (next_ < places_.size() && !::testing::Test::HasFailure()) {
      const bool opens = (place() & agent::record::kOpensObject) != 0;
      const std::u16string_view here = std::u16string_view(text_).substr(offset());
      if (state() == valueState::notAvailable) {
        values.push_back({.state = valueState::notAvailable});
        ++next_;
      } else if (opens) {
        upTo(u"!%23");
        values.push_back(readObject());
      } else if (here.starts_with(u"%3A")) {
        values.push_back(readSimple());
      } else {
        return;
      }
    }
  }

  placedValue readSimple() {
    placedValue value{.name = upTo(u"%3A"), .code = upTo(u"%3A")};
    end(value);
    value.text = upTo(u"%2C");
    return value;
  }

  placedValue readObject() {
    placedValue value{.name = upTo(u"%3A"), .code = upTo(u"%3A"), .isObject = true};
    readValues(value.fields);
    end(value);
    const std::u16string rest = upTo(u"!%23%2C");
    EXPECT_EQ(rest, value.state == valueState::value ? u"" : u"NULL");
    return value;
  }

  void end(placedValue& value) {
    value.state = state();
    value.isStatic = (place() & agent::record::kIsStatic) != 0;
  }

  const std::u16string text_;
  const std::vector<std::int32_t>& places_;
  std::size_t at_ = 0;
  std::size_t next_ = 0;
};

inline std::vector<placedFrame> readPlaced(std::string_view text,
                                           const std::vector<std::int32_t>& places) {
  return placedReader(text, places).read();
}

}  // namespace test
