// An array of a fixed size whose memory the system provides only where it is touched, so that a
// table can be as large as its largest setting and cost what is used of it.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

namespace instruments {

// Elements begin as all zeros, and need nothing else to be whole.
template <typename T>
class reservedArray {
  static_assert(std::is_trivially_destructible_v<T>);

 public:
  // Throws std::bad_alloc when the system refuses.
  explicit reservedArray(std::size_t size) : size_(size) {
    void* const place = ::mmap(nullptr, size * sizeof(T), PROT_READ | PROT_WRITE,
                               MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (place == MAP_FAILED) {
      throw std::bad_alloc();
    }
    elements_ = static_cast<T*>(place);
  }
  ~reservedArray() { ::munmap(elements_, size_ * sizeof(T)); }
  reservedArray(const reservedArray&) = delete;
  reservedArray& operator=(const reservedArray&) = delete;

  T& operator[](std::size_t index) { return elements_[index]; }
  const T& operator[](std::size_t index) const { return elements_[index]; }
  std::size_t size() const { return size_; }

  // All zeros again, and the memory back to the system. Nobody may use the array meanwhile.
  void clear() {
    // Memory that the program has locked stays.
    if (::madvise(elements_, size_ * sizeof(T), MADV_DONTNEED) != 0) {
      std::memset(static_cast<void*>(elements_), 0, size_ * sizeof(T));
    }
  }

 private:
  T* elements_;
  std::size_t size_;
};

}  // namespace instruments
