// A place in the sources, as std::source_location gives it where the compiler has that (Clang 14
// has not): take one as a last argument that defaults to sourcePlace::current().
#pragma once

namespace support {

struct sourcePlace {
  const char* file;
  int line;

  static constexpr sourcePlace current(const char* file = __builtin_FILE(),
                                       int line = __builtin_LINE()) {
    return {file, line};
  }
};

}  // namespace support
