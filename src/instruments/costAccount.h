// What an instrument's own thread costs, and how often it may work to stay within its budget.
#pragma once

#include <cstddef>
#include <cstdint>

namespace instruments {

// Nanoseconds of the steady clock.
std::int64_t steadyNanos();
// Nanoseconds of processor time of the calling thread; 0 when the system gives none.
std::int64_t threadNanos();
// Milliseconds since 1970 of a time of the steady clock, by what the system's clock shows now.
std::int64_t epochMillisOf(std::int64_t steady);

struct cost {
  std::uint64_t ticks = 0;
  std::uint64_t ticksLeftOut = 0;
  std::uint64_t safepoints = 0;
  std::uint64_t safepointNanos = 0;
  std::uint64_t handshakes = 0;
  std::uint64_t handshakeNanos = 0;
  std::uint64_t processorNanos = 0;
};

// Used by the instrument's thread; read under the instrument's lock.
class costAccount {
 public:
  // At most `percent` of one processor, counting processor time and safepoints.
  void setBudget(std::int32_t percent) { percent_ = percent; }
  void clear();

  // Runs a VM call that waits for all threads, or for one, and books its time.
  template <typename Call>
  auto safepoint(Call&& call) {
    const entry booked(total_.safepoints, total_.safepointNanos);
    counted_ += kPerSafepoint;
    return call();
  }
  template <typename Call>
  auto handshake(Call&& call) {
    const entry booked(total_.handshakes, total_.handshakeNanos);
    return call();
  }

  // Whether a tick at `now` is within the budget; one that is not is counted as skipped.
  bool takeTick(std::int64_t now);
  // How many safepoints are within the budget now.
  std::size_t affordable() const {
    return counted_ < 0 ? static_cast<std::size_t>(-counted_ / kPerSafepoint) : 0;
  }
  // The tick is over; books the processor time since the last call.
  void endTick();

  const cost& total() const { return total_; }

 private:
  // What a safepoint takes from a program that keeps the processors busy, its threads' stop and
  // start included: less than what 8 and 64 threads on few monitors lost in bench/run. The call's
  // own time does not show that: most of it may be a wait for a processor.
  static constexpr std::int64_t kPerSafepoint = 500'000;

  class entry {
   public:
    entry(std::uint64_t& number, std::uint64_t& nanos);
    ~entry();
    entry(const entry&) = delete;
    entry& operator=(const entry&) = delete;

   private:
    std::uint64_t& nanos_;
    std::int64_t begin_;
  };

  cost total_;
  std::int32_t percent_ = 1;
  std::int64_t counted_ = 0;    // nanoseconds that were not paid for yet
  std::int64_t paidUntil_ = 0;  // the time up to which the budget was given
  std::int64_t processor_ = 0;  // of the thread, at the last call
};

}  // namespace instruments
