#include "jsonWriter.h"

#include <fmt/format.h>

namespace viewer {
namespace {

bool isPlain(unsigned char c) {
  return c >= 0x20 && c != '"' && c != '\\' && c != '<' && c != 0x7F && c != 0xC2;
}

}  // namespace

jsonWriter& jsonWriter::key(std::string_view name) {
  separate();
  writeText(name);
  out_.put(':');
  needsComma_ = false;
  return *this;
}

jsonWriter& jsonWriter::value(std::string_view text) {
  separate();
  writeText(text);
  return *this;
}

jsonWriter& jsonWriter::value(bool truth) {
  separate();
  out_ << (truth ? "true" : "false");
  return *this;
}

jsonWriter& jsonWriter::null() {
  separate();
  out_ << "null";
  return *this;
}

jsonWriter& jsonWriter::open(char bracket) {
  separate();
  out_.put(bracket);
  needsComma_ = false;
  return *this;
}

jsonWriter& jsonWriter::close(char bracket) {
  out_.put(bracket);
  needsComma_ = true;
  return *this;
}

void jsonWriter::separate() {
  if (needsComma_) {
    out_.put(',');
  }
  needsComma_ = true;
}

// The control characters from U+0080 on are the byte 0xC2 and one from 0x80 to 0x9F.
void jsonWriter::writeText(std::string_view text) {
  out_.put('"');
  std::size_t plain = 0;
  for (std::size_t i = 0; i < text.size(); i++) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (isPlain(c)) {
      continue;
    }
    const bool isTwoBytes = c == 0xC2 && i + 1 < text.size();
    const auto second = static_cast<unsigned char>(isTwoBytes ? text[i + 1] : 0);
    if (c == 0xC2 && !(second >= 0x80 && second < 0xA0)) {
      continue;
    }
    out_ << text.substr(plain, i - plain);
    if (c == '"' || c == '\\') {
      out_.put('\\').put(text[i]);
    } else {
      out_ << fmt::format("\\u{:04x}", isTwoBytes ? second : c);
    }
    i += isTwoBytes ? 1 : 0;
    plain = i + 1;
  }
  out_ << text.substr(plain);
  out_.put('"');
}

}  // namespace viewer
