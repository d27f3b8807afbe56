// Opening files without ever waiting for somebody at the other end.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <memory>
#include <string>

namespace support {

struct openedFile {
  int descriptor = -1;  // the caller's to close
  int error = 0;        // without a descriptor: an errno, or kNotRegular
};

inline constexpr int kNotRegular = -1;

// Opens the file at `path` as ::open does with `flags` and `mode`; the programs that the process
// starts do not inherit it. What is not a regular file is refused, /dev/null apart: a FIFO would
// hold the caller up until somebody reads from it.
openedFile openRegularFile(const std::string& path, int flags, mode_t mode = 0);

// A stream of `mode`, as of ::fdopen, on an opened file; it takes the descriptor over. None when
// there is no descriptor or the system refuses.
std::shared_ptr<std::FILE> streamOf(const openedFile& file, const char* mode);

// What `error` of an openedFile, or an errno, means.
std::string reasonOf(int error);

}  // namespace support
