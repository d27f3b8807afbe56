#include "lockExports.h"

#include <fmt/format.h>

#include <algorithm>

#include "exportParts.h"

namespace viewer {
namespace {

// What stands in a stack for what the report omits.
constexpr const char* kOtherThreads = "(threads beyond the limit)";

// The entries of `whole` that are not among `part`: more than there are in no case.
std::uint64_t rest(std::uint64_t whole, std::uint64_t part) {
  return whole - std::min(whole, part);
}

}  // namespace

void forEachEntryStack(
    const lockReport& report, const stackTable& stacks,
    const std::function<void(const lockEntry& lock, const std::string& thread,
                             const std::vector<std::string>& frames, std::uint64_t count)>& visit) {
  const auto visitIfAny = [&](const lockEntry& lock, const std::string& thread,
                              const std::vector<std::string>& frames, std::uint64_t count) {
    if (count > 0) {
      visit(lock, thread, frames, count);
    }
  };
  for (const lockEntry& lock : report.locks) {
    std::uint64_t ofThreads = 0;
    for (const threadEntry& thread : lock.threads) {
      std::uint64_t ofStacks = 0;
      for (const stackUse& use : thread.stacks) {
        std::vector<std::string> frames;
        if (const std::vector<frameId>* known = stacks.find(use.hash)) {
          std::for_each(known->rbegin(), known->rend(),
                        [&](frameId frame) { frames.push_back(stacks.method(frame)); });
        } else {
          frames = {fmt::format("(stack {})", use.hash)};
        }
        visitIfAny(lock, thread.name, frames, use.count);
        ofStacks += use.count;
      }
      visitIfAny(lock, thread.name, {kNoStack}, rest(thread.entries, ofStacks));
      ofThreads += std::max<std::uint64_t>(thread.entries, ofStacks);
    }
    visitIfAny(lock, kOtherThreads, {kNoStack}, rest(lock.entries, ofThreads));
  }
}

}  // namespace viewer
