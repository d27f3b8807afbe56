#include "support/regularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace support {

namespace {

bool isNullDevice(const struct stat& file) {
  struct stat null {};
  return S_ISCHR(file.st_mode) && ::stat("/dev/null", &null) == 0 && file.st_rdev == null.st_rdev;
}

}  // namespace

openedFile openRegularFile(const std::string& path, int flags, mode_t mode) {
  const int descriptor = ::open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode);
  // No regular file gives ENXIO: it is of a FIFO that nobody reads from, a socket or a device.
  if (descriptor < 0) {
    return {-1, errno == ENXIO ? kNotRegular : errno};
  }
  struct stat file {};
  int error = 0;
  if (::fstat(descriptor, &file) != 0) {
    error = errno;
  } else if (!S_ISREG(file.st_mode) && !isNullDevice(file)) {
    error = kNotRegular;
  }
  if (error == 0) {
    return {descriptor, 0};
  }
  ::close(descriptor);
  return {-1, error};
}

std::shared_ptr<std::FILE> streamOf(const openedFile& file, const char* mode) {
  if (file.descriptor < 0) {
    return nullptr;
  }
  std::FILE* stream = ::fdopen(file.descriptor, mode);
  if (stream == nullptr) {
    ::close(file.descriptor);
    return nullptr;
  }
  return {stream, [](std::FILE* opened) { std::fclose(opened); }};
}

std::string reasonOf(int error) {
  if (error == kNotRegular) {
    return "Not a regular file; a regular file or /dev/null is expected";
  }
  return std::generic_category().message(error);
}

}  // namespace support
