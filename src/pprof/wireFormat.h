// The wire format of protocol buffers, as far as profiles need it. Plain functions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace pprof {

void appendVarint(std::string& out, std::uint64_t value);

// A field with a number; nothing for 0, which is the default.
void appendNumber(std::string& out, std::uint32_t field, std::uint64_t value);

// A field with bytes, a text or a message.
void appendBytes(std::string& out, std::uint32_t field, std::string_view bytes);

// The text with a "?" in place of each byte that belongs to no character: readers refuse these.
std::string validUtf8(std::string_view text);

}  // namespace pprof
