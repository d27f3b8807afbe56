// Who is within an event handler. What handlers find without a lock may be freed once all that were
// inside when it was unlinked have left; and an instrument that stops can wait for its handlers.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace instruments {

class handlerGate {
 public:
  // Threads are spread over as many counters, so that two rarely meet at one.
  static constexpr std::size_t kStripes = 64;

  // Held by a handler from its first line to its last. Never waits.
  class pass {
   public:
    explicit pass(handlerGate& gate) noexcept : count_(gate.own()) { count_.fetch_add(1); }
    ~pass() { count_.fetch_sub(1); }
    pass(const pass&) = delete;
    pass& operator=(const pass&) = delete;

   private:
    std::atomic<std::uint32_t>& count_;
  };

  // Waits, without waiting: asked again and again, it is over when each counter was seen at 0 once
  // since it began. Everyone who was inside then has left. One thread.
  class departure {
   public:
    bool isOver(const handlerGate& gate) {
      for (std::size_t i = 0; i < kStripes; ++i) {
        const std::uint64_t bit = std::uint64_t{1} << i;
        if ((waitsFor_ & bit) != 0 && gate.stripes_[i].inside.load() == 0) {
          waitsFor_ &= ~bit;
        }
      }
      return waitsFor_ == 0;
    }

   private:
    std::uint64_t waitsFor_ = ~std::uint64_t{0};
  };

 private:
  static_assert(kStripes == 64, "a departure has a bit for each");
  static constexpr unsigned kPageBits = 12;

  struct alignas(64) stripe {
    std::atomic<std::uint32_t> inside{0};
  };

  // By the place of the caller's stack, which differs between threads.
  std::atomic<std::uint32_t>& own() noexcept {
    constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15U;
    constexpr unsigned kShift = 58;
    const char here = 0;
    const std::uint64_t page = reinterpret_cast<std::uintptr_t>(&here) >> kPageBits;
    return stripes_[(page * kSpread) >> kShift].inside;
  }

  std::array<stripe, kStripes> stripes_{};
};

}  // namespace instruments
