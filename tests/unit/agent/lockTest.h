// What tests of the lock profiler share: stacks, waits, and a look into the records.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/twAprLib.h"
#include "agentTest.h"
#include "locks/lockRanking.h"

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

  // The session: its settings, and what is left of its budgets.
  const agent::LockSessionConfig& config() { return *locks()->store()->config; }
  std::int32_t locksLeft() { return config().maxLockCount.value(); }
  std::int32_t ownersLeft() { return config().maxThreadCountCopy.value(); }
  std::int32_t tracesLeft() { return config().maxStackTraceCount.value(); }

  // The locks recorded: how many, and their names in their order.
  std::size_t lockCount() { return locks()->store()->lockCount(); }
  std::vector<std::string> lockNames();

  // The stack traces met: their hashes, and the texts that wait for the stack file.
  std::vector<std::uint64_t> stackHashes() { return locks()->store()->stackTraces.hashes(); }
  std::map<std::uint64_t, std::string> stackTexts() {
    return locks()->store()->stackTraces.texts();
  }
  // Meets a trace under a hash.
  void addStack(std::uint64_t hash, std::string_view text = "at a()\n") {
    locks()->store()->stackTraces.add(hash, text);
  }

  // Takes what the ranking has queued for the report.
  static agent::rankedLocks takeRanked() {
    return agent::lockRanking::ofProcess().takeReportQueue();
  }
  bool isSelected(fake::object* lock) { return topOf(lock) != nullptr; }
  bool anySelected() { return !locks()->store()->topLockMap().empty(); }

  // Lookups for owners in the session so far: those made, and those skipped.
  std::pair<std::uint64_t, std::uint64_t> ownerLookups();
  // A lookup for the owner of a selected lock that has not begun: entries will wait for it.
  std::shared_ptr<agent::ownerLookup> pendingLookup(fake::object* lock);
  // How many events hold the newest lookup of a selected lock, or wait for it, while it has not
  // begun.
  long usersOfPendingLookup(fake::object* lock);

  // The record of a thread on a lock, or null.
  agent::threadBean* threadOf(fake::object* lock, std::string_view threadName);
  // The traces recorded for a thread on a lock; none without a record.
  agent::stackTraceBeans tracesOf(fake::object* lock, std::string_view threadName);
  // Contended entries in a minute slot of a lock.
  std::uint32_t minuteOf(fake::object* lock, std::size_t slot);
  // What is recorded of an owner of a selected lock, or nothing.
  std::optional<agent::blockingThreadBean> ownerOf(fake::object* lock, std::string_view owner);
  // How often a thread was found owning a selected lock.
  std::uint32_t blockingCountOf(fake::object* lock, std::string_view owner);
  // The owner last found of a selected lock.
  std::string ownerNameOf(fake::object* lock);
  // Whether an entry has looked for the owner of a selected lock.
  bool ownerSeen(fake::object* lock) { return topOf(lock)->snapshot().ownerSeen; }

  std::vector<std::string> errors() const { return messages("Error"); }
  std::vector<std::string> warnings() const { return messages("warn"); }
  std::vector<std::string> debugLines() const { return messages("Debug"); }

 private:
  // The owners of a selected lock, or null.
  agent::topLockBean* topOf(fake::object* lock) { return locks()->findTopLock(nameOf(lock)); }
};

// "at package.Class.method()" and a line feed for each frame: what a stack's hash is made of.
std::string textOfStack(const std::vector<std::string>& frames);
// The 64-bit FNV-1a hash.
std::uint64_t fnv1a(std::string_view text);

}  // namespace test
