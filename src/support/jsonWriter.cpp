#include "support/jsonWriter.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>

namespace support {

namespace {

// Whether a JSON string has a byte as it is; the NUL, which ends a text, is not one of them.
constexpr std::array<bool, 256> kPlainBytes = [] {
  std::array<bool, 256> plain{};
  for (std::size_t byte = ' '; byte < plain.size(); ++byte) {
    plain[byte] = true;
  }
  plain['"'] = plain['\\'] = plain[127] = false;
  return plain;
}();

}  // namespace

jsonWriter& jsonWriter::beginObject(layout values) {
  open('{', values);
  return *this;
}

jsonWriter& jsonWriter::endObject() {
  close('}');
  return *this;
}

jsonWriter& jsonWriter::beginArray(layout values) {
  open('[', values);
  return *this;
}

jsonWriter& jsonWriter::endArray() {
  close(']');
  return *this;
}

jsonWriter& jsonWriter::key(std::string_view name) {
  separate();
  quote(name);
  text_ += ": ";
  afterKey_ = true;
  return *this;
}

jsonWriter& jsonWriter::string(std::string_view text) {
  separate();
  quote(text);
  return *this;
}

jsonWriter& jsonWriter::number(std::int32_t value) {
  return decimal(value);
}

jsonWriter& jsonWriter::number(std::uint64_t value) {
  return decimal(value);
}

jsonWriter& jsonWriter::boolean(bool value) {
  return word(value ? "true" : "false");
}

jsonWriter& jsonWriter::null() {
  return word("null");
}

jsonWriter& jsonWriter::word(std::string_view text) {
  separate();
  text_ += text;
  return *this;
}

template <typename Number>
jsonWriter& jsonWriter::decimal(Number value) {
  separate();
  std::array<char, std::numeric_limits<Number>::digits10 + 2> digits;  // and a sign
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  text_.append(digits.data(), end);
  return *this;
}

void jsonWriter::open(char bracket, layout values) {
  separate();
  text_ += bracket;
  const bool onOneLine = values == layout::oneLine;
  levels_.push_back({false, onOneLine || (!levels_.empty() && levels_.back().onOneLine)});
}

void jsonWriter::close(char bracket) {
  const level closed = levels_.back();
  levels_.pop_back();
  if (closed.hasValues && !closed.onOneLine) {
    lineBreak();
  }
  text_ += bracket;
}

void jsonWriter::separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (levels_.empty()) {
    return;
  }
  level& current = levels_.back();
  if (current.hasValues) {
    text_ += current.onOneLine ? ", " : ",";
  }
  current.hasValues = true;
  if (!current.onOneLine) {
    lineBreak();
  }
}

void jsonWriter::lineBreak() {
  text_ += '\n';
  text_.append(levels_.size(), ' ');
}

void jsonWriter::quote(std::string_view text) {
  text_ += '"';
  appendEscaped(text_, text);
  text_ += '"';
}

void appendEscaped(std::string& out, std::string_view text) {
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  const auto isPlain = [](char c) { return kPlainBytes[static_cast<unsigned char>(c)]; };
  while (true) {
    const auto plainEnd = std::find_if_not(text.begin(), text.end(), isPlain);
    out.append(text.begin(), plainEnd);
    if (plainEnd == text.end() || *plainEnd == 0) {
      return;
    }
    const char special = *plainEnd;
    text.remove_prefix(static_cast<std::size_t>(plainEnd - text.begin()) + 1);
    switch (special) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        const auto byte = static_cast<unsigned char>(special);
        out += "\\u00";
        out += kHexDigits[byte >> 4U];
        out += kHexDigits[byte & 0xFU];
    }
  }
}

}  // namespace support
