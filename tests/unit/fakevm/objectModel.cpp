#include "objectModel.h"

#include <algorithm>

namespace fake {

namespace {

// Where the type that starts at `at` ends.
std::size_t typeEnd(std::string_view signature, std::size_t at) {
  while (at < signature.size() && signature[at] == '[') {
    ++at;
  }
  if (at < signature.size() && signature[at] == 'L') {
    at = signature.find(';', at);
  }
  return at == std::string_view::npos ? signature.size() : at + 1;
}

bool isContinuation(std::string_view text, std::size_t at) {
  return at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U;
}

// Length of the sequence that starts at `at`; 0 when it is malformed.
std::size_t sequenceLength(std::string_view text, std::size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  if (lead != 0 && lead < 0x80) {
    return 1;
  }
  if ((lead & 0xE0U) == 0xC0U) {
    return isContinuation(text, at + 1) ? 2 : 0;
  }
  if ((lead & 0xF0U) == 0xE0U) {
    return isContinuation(text, at + 1) && isContinuation(text, at + 2) ? 3 : 0;
  }
  return 0;
}

// Where the UTF-16 unit with this number begins, or the end of the text.
std::size_t unitStart(std::string_view text, jsize number) {
  std::size_t at = 0;
  for (; number > 0 && at < text.size(); --number) {
    at += std::max<std::size_t>(1, sequenceLength(text, at));
  }
  return at;
}

}  // namespace

value zeroOf(char type) {
  switch (type) {
    case 'Z':
      return jboolean{0};
    case 'B':
      return jbyte{0};
    case 'C':
      return jchar{0};
    case 'S':
      return jshort{0};
    case 'I':
      return jint{0};
    case 'J':
      return jlong{0};
    case 'F':
      return jfloat{0};
    case 'D':
      return jdouble{0};
    case 'V':
      return std::monostate{};
    default:
      return static_cast<object*>(nullptr);
  }
}

std::size_t alternativeOf(char type) {
  return zeroOf(type).index();
}

std::string argumentTypes(std::string_view signature) {
  std::string types;
  for (std::size_t at = 1; at < signature.size() && signature[at] != ')';
       at = typeEnd(signature, at)) {
    types += signature[at];
  }
  return types;
}

char returnType(std::string_view signature) {
  const std::size_t close = signature.find(')');
  return close == std::string_view::npos || close + 1 >= signature.size() ? 'V'
                                                                          : signature[close + 1];
}

jint argumentSlots(std::string_view signature, bool isStatic) {
  const std::string types = argumentTypes(signature);
  const auto wide =
      std::count(types.begin(), types.end(), 'J') + std::count(types.begin(), types.end(), 'D');
  return static_cast<jint>(types.size()) + static_cast<jint>(wide) + (isStatic ? 0 : 1);
}

std::string signatureOf(std::string_view className) {
  std::string slashed(className);
  std::replace(slashed.begin(), slashed.end(), '.', '/');
  return slashed.starts_with('[') ? slashed : "L" + slashed + ";";
}

bool isModifiedUtf8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = sequenceLength(text, at);
    if (length == 0) {
      return false;
    }
    at += length;
  }
  return true;
}

jsize utf16Length(std::string_view text) {
  return static_cast<jsize>(std::count_if(text.begin(), text.end(), [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
  }));
}

std::string_view utf16Part(std::string_view text, jsize start, jsize length) {
  const std::size_t from = unitStart(text, start);
  return text.substr(from, unitStart(text.substr(from), length));
}

}  // namespace fake
