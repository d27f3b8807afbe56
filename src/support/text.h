// Plain functions on text: class-name forms, hashing, option numbers, file names.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace support {

// Appends a class signature ("Ljava/lang/Object;") in its dotted form: first and last character
// dropped, every "/" a ".". A signature shorter than two characters adds nothing.
void appendDottedClass(std::string& out, std::string_view signature);

// The name that Class.getName gives for a signature: "com.example.Lock", "[I",
// "a.Shop$$Lambda/0x1f".
std::string classNameOf(std::string_view signature);

// The name or signature of a class up to what differs between runs: the address of a hidden class
// or the number that a lambda's class has before JDK 15. For "La/Shop$$Lambda.0x0001;" it is
// "La/Shop$$Lambda"; for "La/Shop$$Lambda$14/158;" it is "La/Shop$$Lambda$14". Without one it is
// complete.
std::string_view withoutAddress(std::string_view name);

// 64-bit FNV-1a hash.
std::uint64_t fnv1a64(std::string_view text);

// `text` with the letters A to Z in lower case.
std::string lowerCase(std::string_view text);

// Whether `text` begins with `prefix`, without regard to the case of the letters A to Z.
bool startsWithIgnoringCase(std::string_view text, std::string_view prefix);

// Reads a signed 32-bit decimal number as std::stoi does: leading blanks and a sign are accepted,
// what follows the digits is ignored. Throws std::invalid_argument "invalid stoi argument" when
// there is no number and std::out_of_range "stoi argument out of range" when it does not fit.
std::int32_t toInt(const std::string& text);

// The pieces of `text` between `separator`s, as std::getline reads them: empty pieces count, but
// nothing follows a separator at the end, and an empty text has no piece.
template <typename Visit>
void forEachPiece(std::string_view text, char separator, Visit&& visit) {
  while (!text.empty()) {
    const std::size_t end = text.find(separator);
    visit(text.substr(0, end));
    if (end == std::string_view::npos) {
      return;
    }
    text.remove_prefix(end + 1);
  }
}

// What follows the last "/" of a path, or the whole path.
std::string_view baseName(std::string_view path);

// A file name given by Java, from modified UTF-8 to the UTF-8 that the file system is asked with:
// a surrogate pair of two three-byte sequences becomes one sequence of four bytes. Everything else
// stays as it is.
std::string fileSystemPath(std::string_view modifiedUtf8);

}  // namespace support
