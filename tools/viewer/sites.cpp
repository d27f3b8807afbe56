#include "sites.h"

#include <algorithm>
#include <map>
#include <set>

namespace viewer {
namespace {

struct siteParts {
  std::uint64_t entries = 0;
  std::set<std::uint64_t> hashes;
  std::set<std::size_t> locks;
};

}  // namespace

std::vector<siteSum> sitesOf(const lockReport& report, const stackTable& stacks) {
  std::map<std::optional<std::string>, siteParts> byMethod;
  for (std::size_t i = 0; i < report.locks.size(); i++) {
    for (const threadEntry& thread : report.locks[i].threads) {
      for (const stackUse& use : thread.stacks) {
        const std::vector<frameId>* frames = stacks.find(use.hash);
        const bool known = frames != nullptr && !frames->empty();
        siteParts& parts = byMethod[known ? std::optional(stacks.method(frames->front()))
                                          : std::optional<std::string>()];
        parts.entries += use.count;
        parts.hashes.insert(use.hash);
        parts.locks.insert(i);
      }
    }
  }
  std::vector<siteSum> result;
  for (const auto& [method, parts] : byMethod) {
    result.push_back({method, parts.entries, parts.hashes.size(),
                      std::vector<std::size_t>(parts.locks.begin(), parts.locks.end())});
  }
  std::stable_sort(result.begin(), result.end(), [](const siteSum& left, const siteSum& right) {
    return left.entries > right.entries;
  });
  return result;
}

}  // namespace viewer
