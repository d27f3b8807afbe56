// Random numbers from the system, which glibc has under this name from 2.36 on. The C++ library
// asks for them on behalf of std::random_device.
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "portable/olderLibc.h"

namespace portable {

bool readRandomDevice(void* bytes, std::size_t count) noexcept {
  const int device = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (device < 0) {
    return false;
  }
  const bool isRead = ::read(device, bytes, count) == static_cast<ssize_t>(count);
  ::close(device);
  return isRead;
}

}  // namespace portable

extern "C" {
__attribute__((visibility("hidden"))) std::uint32_t arc4random() noexcept;

std::uint32_t arc4random() noexcept {
  std::uint32_t number = 0;
  // So few bytes come in one piece. A kernel before 3.17 and some sandboxes have no such call.
  if (::getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number) &&
      !portable::readRandomDevice(&number, sizeof number)) {
    std::abort();  // as in glibc
  }
  return number;
}
}
