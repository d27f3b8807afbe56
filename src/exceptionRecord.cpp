#include "exceptionRecord.h"

#include <array>
#include <charconv>

namespace agent::record {

namespace {

void appendHead(std::string& out, std::string_view name, typeCode code) {
  out += name;
  out += kJoin;
  out += std::to_string(static_cast<int>(code));
  out += kJoin;
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
  if (signature == "Ljava/lang/String;") return typeCode::string;
  if (signature == "Ljava/lang/StringBuilder;") return typeCode::stringBuilder;
  return typeCode::object;
}

void appendEntry(std::string& out, std::string_view name, typeCode code, std::string_view value) {
  appendHead(out, name, code);
  out += value;
  out += kEnd;
}

void appendNumber(std::string& out, std::string_view name, typeCode code, std::int64_t value) {
  appendEntry(out, name, code, std::to_string(value));
}

void appendFloat(std::string& out, std::string_view name, typeCode code, double value) {
  constexpr int kDigits = 6;
  std::array<char, 400> text;  // the largest double has 309 digits before the point
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value,
                                 std::chars_format::fixed, kDigits)
                       .ptr;
  appendEntry(out, name, code,
              std::string_view(text.data(), static_cast<std::size_t>(end - text.data())));
}

void appendObject(std::string& out, std::string_view name, std::string_view captured) {
  out += kOpenObject;
  appendHead(out, name, typeCode::object);
  out += captured;
  out += kEndObject;
}

void appendNullObject(std::string& out, std::string_view name) {
  appendObject(out, name, kNull);
}

void appendNullField(std::string& out, std::string_view name) {
  appendEntry(out, name, typeCode::object, kNull);
}

void dropLastSeparator(std::string& section) {
  if (section.size() > kSeparatorLength) section.resize(section.size() - kSeparatorLength);
}

}  // namespace agent::record
