// How much of its stack a thread has left.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <limits>

namespace support {

// Bytes between here and the end of the calling thread's stack, what the VM guards at its end
// included; the largest number when the system does not tell. The first call of a thread allocates.
inline std::size_t stackLeft() {
  thread_local std::uintptr_t end = 0;
  thread_local bool isKnown = false;
  if (!isKnown) {
    isKnown = true;
    pthread_attr_t attributes;
    if (::pthread_getattr_np(::pthread_self(), &attributes) == 0) {
      void* address = nullptr;
      std::size_t size = 0;
      if (::pthread_attr_getstack(&attributes, &address, &size) == 0) {
        end = reinterpret_cast<std::uintptr_t>(address);
      }
      ::pthread_attr_destroy(&attributes);
    }
  }
  const char here = 0;
  const auto place = reinterpret_cast<std::uintptr_t>(&here);
  return end == 0 || place < end ? std::numeric_limits<std::size_t>::max() : place - end;
}

}  // namespace support
