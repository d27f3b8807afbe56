// A streaming JSON writer: members are appended to one text in the order of the calls. It puts the
// commas and, for people who open the file, line breaks and indentation; the caller opens and
// closes what it nests.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace support {

class jsonWriter {
 public:
  // Whether each value has a line of its own; what is within one line stays in it.
  enum class layout { lines, oneLine };

  // A value at the current place: in an array, or after key().
  jsonWriter& beginObject(layout values = layout::lines);
  jsonWriter& endObject();
  jsonWriter& beginArray(layout values = layout::oneLine);
  jsonWriter& endArray();
  jsonWriter& key(std::string_view name);
  jsonWriter& string(std::string_view text);
  jsonWriter& number(std::int32_t value);
  jsonWriter& number(std::uint64_t value);
  jsonWriter& boolean(bool value);
  jsonWriter& null();

  // Members of the current object.
  jsonWriter& member(std::string_view name, std::string_view text) {
    return key(name).string(text);
  }
  jsonWriter& member(std::string_view name, std::int32_t value) { return key(name).number(value); }
  jsonWriter& member(std::string_view name, std::uint64_t value) { return key(name).number(value); }

  jsonWriter& nullMember(std::string_view name) { return key(name).null(); }

  // The text written so far.
  const std::string& text() const { return text_; }

 private:
  struct level {
    bool hasValues = false;
    bool onOneLine = false;
  };

  void open(char bracket, layout values);
  void close(char bracket);
  void separate();
  void lineBreak();
  void quote(std::string_view text);
  jsonWriter& word(std::string_view text);
  template <typename Number>
  jsonWriter& decimal(Number value);

  std::string text_;
  std::vector<level> levels_;
  bool afterKey_ = false;
};

// Appends `text` as a JSON string writes it, without the quotes, up to its first NUL. Quote,
// backslash, line feed, carriage return and tab are escaped by a backslash, other bytes from 1 to
// 31 and 127 as \u00XX. Everything else is unchanged.
void appendEscaped(std::string& out, std::string_view text);

}  // namespace support
