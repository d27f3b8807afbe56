// What tests of the lock profiler share: stacks, waits, and a look into the records.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/twAprLib.h"
#include "agentTest.h"

namespace test {

inline constexpr jlong kSecond = 1'000'000'000;
inline constexpr jlong kMinute = 60 * kSecond;

class lockTest : public agentTest {
 protected:
  // Gives the thread a stack with one frame for each "package.Class.method", top first.
  void setStack(fake::javaThread* thread, const std::vector<std::string>& frames);
  // A stack of `depth` frames, "deep.C.m<first>" on top and the numbers rising below.
  void setDeepStack(fake::javaThread* thread, int depth, int first = 0);

  // A whole wait of `thread`: wait, `waiting` nanoseconds, waited.
  void wait(fake::javaThread* thread, fake::object* lock, jlong waiting = 0);

  // A detail session with `lock` selected and `owner` owning it, known as its owner because
  // `other` has contended for it once.
  void beginDetailWithOwner(fake::object* lock, fake::javaThread* owner, fake::javaThread* other,
                            const lockSession& session = {});

  // The record of a thread on a lock, or null.
  agent::threadBean* threadOf(fake::object* lock, std::string_view threadName);
  // The traces recorded for a thread on a lock; none without a record.
  agent::stackTraceBeans tracesOf(fake::object* lock, std::string_view threadName);
  // Contended entries in a minute slot of a lock.
  std::uint32_t minuteOf(fake::object* lock, std::size_t slot);
  // What is recorded of an owner of a selected lock, or nothing.
  std::optional<agent::blockingThreadBean> ownerOf(fake::object* lock, std::string_view owner);
  // The owner last found of a selected lock.
  std::string ownerNameOf(fake::object* lock);

  std::vector<std::string> errors() const { return messages("Error"); }
  std::vector<std::string> warnings() const { return messages("warn"); }
  std::vector<std::string> debugLines() const { return messages("Debug"); }
};

// "at package.Class.method()" and a line feed for each frame: what a stack's hash is made of.
std::string textOfStack(const std::vector<std::string>& frames);
// The 64-bit FNV-1a hash.
std::uint64_t fnv1a(std::string_view text);

}  // namespace test
