// What is known of a record besides its text, in the form that Java gets it in: the places of its
// separators, one number each, and one number of facts. No VM is needed here.
//
// Values are not escaped in the text. With the places nobody has to guess where they end.
#pragma once

#include <cstdint>
#include <optional>

namespace agent::record {

// What became of a value.
enum class valueState : std::uint32_t {
  value = 0,
  null = 1,
  notRead = 2,       // an object beyond the depth, or something that the record had no room for
  notAvailable = 3,  // the VM has no value now; the entry is not in the text
  redacted = 4,
  unreadable = 5,  // reading it failed
};

// A place has the offset of a separator in the low bits, in UTF-16 units of the text. Above are the
// state of the value that ends there, whether that is a static field, and whether an object entry
// begins there. It is never negative.
//
// There is a place for each separator, in their order, and before the end of a frame's header one
// each for the dot before the method, the parenthesis and the colon before the line. A separator
// that was dropped at the end of a section or of the record has its place where it would stand. A
// variable that is not available has a place of its own, where its entry would begin.
inline constexpr unsigned kOffsetBits = 26;  // a record has at most 64 MiB
inline constexpr unsigned kStateBits = 3;
inline constexpr std::uint32_t kOffsetMask = (std::uint32_t{1} << kOffsetBits) - 1;
inline constexpr std::uint32_t kStateMask = ((std::uint32_t{1} << kStateBits) - 1) << kOffsetBits;
inline constexpr std::uint32_t kIsStatic = std::uint32_t{1} << (kOffsetBits + kStateBits);
inline constexpr std::uint32_t kOpensObject = kIsStatic << 1U;

constexpr std::uint32_t flagsOf(valueState state, bool isStatic) {
  return (static_cast<std::uint32_t>(state) << kOffsetBits) | (isStatic ? kIsStatic : 0U);
}

// Bits of the facts.
inline constexpr std::uint32_t kIsCaughtKnown = 1;
inline constexpr std::uint32_t kIsCaught = 2;   // by Java code
inline constexpr std::uint32_t kIsCut = 4;      // the record
inline constexpr std::uint32_t kIsVirtual = 8;  // the thread
inline constexpr std::uint32_t kIsMade = 16;    // seen where it was made, not where it was thrown
inline constexpr unsigned kObjectDepthShift = 8;
inline constexpr unsigned kObjectTypeShift = 12;
inline constexpr unsigned kStackDepthShift = 16;

struct recordFacts {
  std::optional<bool> isCaught{};
  bool isCut = false;
  bool isVirtual = false;
  bool isMade = false;
  std::int32_t objectDepth = 0;  // 0 to 5, see captureDepths
  std::int32_t objectType = 0;   // 0 to 7
  std::int32_t stackDepth = 0;   // 0 to 20
};

constexpr std::uint32_t packed(const recordFacts& facts) {
  const auto bit = [](bool isSet, std::uint32_t value) { return isSet ? value : 0U; };
  return bit(facts.isCaught.has_value(), kIsCaughtKnown) |
         bit(facts.isCaught.value_or(false), kIsCaught) | bit(facts.isCut, kIsCut) |
         bit(facts.isVirtual, kIsVirtual) | bit(facts.isMade, kIsMade) |
         (static_cast<std::uint32_t>(facts.objectDepth) << kObjectDepthShift) |
         (static_cast<std::uint32_t>(facts.objectType) << kObjectTypeShift) |
         (static_cast<std::uint32_t>(facts.stackDepth) << kStackDepthShift);
}

}  // namespace agent::record
