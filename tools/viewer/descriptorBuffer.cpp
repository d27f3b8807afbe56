#include "descriptorBuffer.h"

#include <unistd.h>

#include <cerrno>

namespace viewer {

descriptorBuffer::descriptorBuffer(int descriptor) : descriptor_(descriptor) {
  setp(bytes_.begin(), bytes_.end());
}

descriptorBuffer::int_type descriptorBuffer::overflow(int_type next) {
  if (!writeAll()) {
    return traits_type::eof();
  }
  return traits_type::eq_int_type(next, traits_type::eof())
             ? traits_type::not_eof(next)
             : sputc(traits_type::to_char_type(next));
}

int descriptorBuffer::sync() {
  return writeAll() ? 0 : -1;
}

bool descriptorBuffer::writeAll() {
  const char* from = pbase();
  while (problem_ == 0 && from < pptr()) {
    const ssize_t written = write(descriptor_, from, static_cast<std::size_t>(pptr() - from));
    if (written >= 0) {
      from += written;
    } else if (errno != EINTR) {
      problem_ = errno;
    }
  }
  setp(bytes_.begin(), bytes_.end());
  return problem_ == 0;
}

}  // namespace viewer
