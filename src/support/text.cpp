#include "support/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <stdexcept>

namespace support {

namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The code unit in the three-byte sequence at `at`, when it is a surrogate in [first, first+0x3FF].
bool surrogateAt(std::string_view text, std::size_t at, unsigned first, unsigned& unit) {
  if (at + 3 > text.size()) {
    return false;
  }
  const auto byte = [&](std::size_t i) {
    return static_cast<unsigned>(static_cast<unsigned char>(text[at + i]));
  };
  if (byte(0) != 0xEDU || (byte(1) & 0xC0U) != 0x80U || (byte(2) & 0xC0U) != 0x80U) {
    return false;
  }
  unit = 0xD000U | ((byte(1) & 0x3FU) << 6U) | (byte(2) & 0x3FU);
  return unit >= first && unit <= first + 0x3FFU;
}

}  // namespace

void appendDottedClass(std::string& out, std::string_view signature) {
  if (signature.size() < 2) {
    return;
  }
  const std::size_t start = out.size();
  out.append(signature.substr(1, signature.size() - 2));
  std::replace(out.begin() + static_cast<std::ptrdiff_t>(start), out.end(), '/', '.');
}

std::string classNameOf(std::string_view signature) {
  if (!signature.empty() && signature.front() == 'L') {
    signature.remove_prefix(1);
    signature.remove_suffix(signature.empty() ? 0 : 1);
  }
  std::string name(signature);
  for (char& each : name) {
    if (each == '/') {
      each = '.';
    } else if (each == '.') {
      each = '/';  // of a hidden class
    }
  }
  return name;
}

namespace {

// Where the number begins that a lambda's class has in its name before JDK 15, which differs
// between runs as an address does: "/158" of "a/Shop$$Lambda$14/158". Other classes may be called
// so.
std::size_t lambdaNumber(std::string_view name) {
  constexpr std::string_view kDigits = "0123456789";
  const std::size_t last = name.find_last_not_of(';');
  if (last == std::string_view::npos || kDigits.find(name[last]) == std::string_view::npos) {
    return std::string_view::npos;
  }
  const std::size_t before = name.find_last_not_of(kDigits, last);
  if (before == std::string_view::npos || (name[before] != '/' && name[before] != '.')) {
    return std::string_view::npos;
  }
  const std::string_view host = name.substr(0, before);
  const bool isLambda =
      host.substr(host.find_last_of("/.") + 1).find("Lambda") != std::string_view::npos;
  return isLambda ? before : std::string_view::npos;
}

}  // namespace

std::string_view withoutAddress(std::string_view signature) {
  for (const std::string_view before : {"/0x", ".0x", "+0x"}) {
    const std::size_t found = signature.rfind(before);
    if (found != std::string_view::npos) {
      return signature.substr(0, found);
    }
  }
  return signature.substr(0, lambdaNumber(signature));
}

std::uint64_t fnv1a64(std::string_view text) {
  constexpr std::uint64_t kOffsetBasis = 0xcbf29ce484222325U;
  constexpr std::uint64_t kPrime = 0x100000001b3U;
  std::uint64_t hash = kOffsetBasis;
  for (const char c : text) {
    hash = (hash ^ static_cast<unsigned char>(c)) * kPrime;
  }
  return hash;
}

std::string lowerCase(std::string_view text) {
  std::string lowered(text);
  std::transform(lowered.begin(), lowered.end(), lowered.begin(), lower);
  return lowered;
}

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), text.begin(),
                    [](char a, char b) { return lower(a) == lower(b); });
}

std::int32_t toInt(const std::string& text) {
  const int savedErrno = errno;
  errno = 0;
  char* end = nullptr;
  constexpr int kDecimal = 10;
  const long value = std::strtol(text.c_str(), &end, kDecimal);
  const bool overflow = errno == ERANGE || value < std::numeric_limits<std::int32_t>::min() ||
                        value > std::numeric_limits<std::int32_t>::max();
  errno = savedErrno;
  if (end == text.c_str()) {
    throw std::invalid_argument("invalid stoi argument");
  }
  if (overflow) {
    throw std::out_of_range("stoi argument out of range");
  }
  return static_cast<std::int32_t>(value);
}

std::string_view baseName(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string fileSystemPath(std::string_view modifiedUtf8) {
  constexpr unsigned kHighSurrogates = 0xD800U;
  constexpr unsigned kLowSurrogates = 0xDC00U;
  std::string path;
  path.reserve(modifiedUtf8.size());
  for (std::size_t i = 0; i < modifiedUtf8.size();) {
    unsigned high = 0;
    unsigned low = 0;
    if (surrogateAt(modifiedUtf8, i, kHighSurrogates, high) &&
        surrogateAt(modifiedUtf8, i + 3, kLowSurrogates, low)) {
      const unsigned code = 0x10000U + ((high - kHighSurrogates) << 10U) + (low - kLowSurrogates);
      path += static_cast<char>(0xF0U | (code >> 18U));
      path += static_cast<char>(0x80U | ((code >> 12U) & 0x3FU));
      path += static_cast<char>(0x80U | ((code >> 6U) & 0x3FU));
      path += static_cast<char>(0x80U | (code & 0x3FU));
      i += 6;
    } else {
      path += modifiedUtf8[i++];
    }
  }
  return path;
}

}  // namespace support
