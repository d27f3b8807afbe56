#include "sites.h"

#include <algorithm>
#include <map>
#include <unordered_map>

namespace viewer {
namespace {

// What is summed over the threads of a report, whose locks are visited in ascending order.
struct parts {
  std::uint64_t entries = 0;
  std::vector<std::size_t> locks;
};

std::unordered_map<std::uint64_t, parts> partsByStack(const lockReport& report) {
  std::unordered_map<std::uint64_t, parts> result;
  for (std::size_t i = 0; i < report.locks.size(); i++) {
    for (const threadEntry& thread : report.locks[i].threads) {
      for (const stackUse& use : thread.stacks) {
        parts& stack = result[use.hash];
        stack.entries += use.count;
        if (stack.locks.empty() || stack.locks.back() != i) {
          stack.locks.push_back(i);
        }
      }
    }
  }
  return result;
}

void sortOnce(std::vector<std::size_t>& numbers) {
  std::sort(numbers.begin(), numbers.end());
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
}

}  // namespace

std::vector<siteSum> sitesOf(const lockReport& report, const stackTable& stacks) {
  std::map<std::optional<std::string>, siteSum> byMethod;
  for (const auto& [hash, stack] : partsByStack(report)) {
    const std::vector<frameId>* frames = stacks.find(hash);
    const bool known = frames != nullptr && !frames->empty();
    const auto method = known ? std::optional(stacks.method(frames->front())) : std::nullopt;
    siteSum& site = byMethod[method];
    site.method = method;
    site.entries += stack.entries;
    site.stacks++;
    site.locks.insert(site.locks.end(), stack.locks.begin(), stack.locks.end());
  }
  std::vector<siteSum> result;
  for (auto& [method, site] : byMethod) {
    sortOnce(site.locks);
    result.push_back(std::move(site));
  }
  std::stable_sort(result.begin(), result.end(), [](const siteSum& left, const siteSum& right) {
    return left.entries > right.entries;
  });
  return result;
}

}  // namespace viewer
