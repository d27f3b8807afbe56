// Text from the VM as a terminal shows it. Plain functions without state, callable on any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace viewer {

// The VM's modified UTF-8 as UTF-8: surrogate pairs become one character, and every byte that
// belongs to no character becomes U+FFFD. UTF-8 passes unchanged.
std::string toUtf8(std::string_view modified);

// As toUtf8() for a text that comes in pieces: appends the characters of a piece and gives how many
// of its bytes that took. The bytes that are left, unless it is the last piece, begin a character
// that the next piece may end: they go before it.
std::size_t appendUtf8(std::string_view modified, bool isLast, std::string& utf8);

// UTF-8 text with U+FFFD in place of each control character, so that a name can neither break a
// line nor steer the terminal, and of those that hide or reverse what is next to them.
std::string printable(std::string_view utf8);

// UTF-8 text from its first character on that is neither a blank nor one that printable() replaces.
std::string_view afterBlanks(std::string_view utf8);

// How many terminal columns printable UTF-8 text fills.
std::size_t displayColumns(std::string_view utf8);

// The text cut to at most `columns`, with "..." in place of its end or its start where it was
// longer.
std::string cutEnd(std::string_view utf8, std::size_t columns);
std::string cutStart(std::string_view utf8, std::size_t columns);

// The same with "..." in the middle: the end of a name tells threads apart.
std::string cutMiddle(std::string_view utf8, std::size_t columns);

// The name of a class, method, lock or thread in at most `columns`. What says least is cut first: a
// source that is named like the class ("a.b.Cart.add(Cart.java:7)" becomes "a.b.Cart.add:7"), then
// the end of the packages ("com...Cart.add:7"), then all packages, then the middle of what is left.
std::string cutName(std::string_view utf8, std::size_t columns);

}  // namespace viewer
