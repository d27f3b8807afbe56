// Writes JSON to a stream piece by piece. One thread at a time; the caller checks the stream's
// state.
#pragma once

#include <concepts>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace viewer {

class jsonWriter {
 public:
  explicit jsonWriter(std::ostream& out) : out_(out) {}

  jsonWriter& beginObject() { return open('{'); }
  jsonWriter& endObject() { return close('}'); }
  jsonWriter& beginArray() { return open('['); }
  jsonWriter& endArray() { return close(']'); }
  jsonWriter& key(std::string_view name);

  // UTF-8. Control characters are escaped, and "<", so that the document may stand in HTML.
  jsonWriter& value(std::string_view text);
  jsonWriter& value(const char* text) { return value(std::string_view(text)); }
  jsonWriter& value(const std::string& text) { return value(std::string_view(text)); }
  jsonWriter& value(bool truth);
  jsonWriter& value(std::integral auto number) {
    separate();
    out_ << number;
    return *this;
  }
  jsonWriter& null();

  // A value that another writer wrote.
  jsonWriter& raw(std::string_view json) {
    separate();
    out_ << json;
    return *this;
  }

  template <typename type>
  jsonWriter& value(const std::optional<type>& known) {
    return known ? value(*known) : null();
  }

  template <typename type>
  jsonWriter& member(std::string_view name, const type& content) {
    return key(name).value(content);
  }

 private:
  jsonWriter& open(char bracket);
  jsonWriter& close(char bracket);
  void separate();
  void writeText(std::string_view text);

  std::ostream& out_;
  bool needsComma_ = false;
};

// Calls `write` for each element, between the brackets of an array.
template <typename range, typename action>
void writeArray(jsonWriter& json, std::string_view name, const range& elements, action write) {
  json.key(name).beginArray();
  for (const auto& element : elements) {
    write(element);
  }
  json.endArray();
}

template <typename range>
void writeValues(jsonWriter& json, std::string_view name, const range& elements) {
  writeArray(json, name, elements, [&](const auto& element) { json.value(element); });
}

}  // namespace viewer
