#include "exceptions/exceptionPush.h"

#include <algorithm>
#include <string_view>

#include "pprof/profileWriter.h"

namespace agent {

namespace {

constexpr std::string_view kFurtherSites = "(further sites)";

std::uint64_t thrownOf(const siteRow& row) {
  const siteRow::totals totals = row.read();
  const auto of = [&](siteCount which) { return totals.at(static_cast<std::size_t>(which)); };
  return of(siteCount::caught) + of(siteCount::uncaught) + of(siteCount::unknown);
}

// As in stacks.
std::string frameOf(const siteName& site) {
  std::string text = site.method + '(' + (site.file.empty() ? "Unknown Source" : site.file);
  if (!site.file.empty() && site.line >= 0) {
    text += ':' + std::to_string(site.line);
  }
  return text + ')';
}

}  // namespace

exceptionPush& exceptionPush::ofProcess() {
  static exceptionPush& push = *new exceptionPush(siteCounts::ofProcess());
  return push;
}

std::uint64_t exceptionPush::newThrows(const siteRow& row) {
  std::uint64_t& given = given_[&row];
  const std::uint64_t thrown = std::max(thrownOf(row), given);
  const std::uint64_t rest = thrown - given;
  given = thrown;
  return rest;
}

std::string exceptionPush::take(std::int64_t now) {
  constexpr pprof::valueType kExceptions{"exceptions", "count"};
  constexpr std::int64_t kNanosPerMilli = 1'000'000;
  const support::lockGuard guard(mutex_);
  const std::int64_t start = last_ == 0 ? counts_.began() : last_;
  if (start == 0) {
    return {};
  }
  last_ = now;
  pprof::profileWriter to({kExceptions});
  to.setPeriod(kExceptions, 1);
  to.setTime(start * kNanosPerMilli, std::max<std::int64_t>(now - start, 0) * kNanosPerMilli);
  const siteCounts::rows all = counts_.all();
  for (const auto& [name, row] : all.sites) {
    to.add({frameOf(*name)}, {newThrows(*row)}, {{"exception", name->exceptionClass}});
  }
  for (const auto& [name, row] : all.classes) {
    to.add({kFurtherSites}, {newThrows(*row)}, {{"exception", *name}});
  }
  to.add({kFurtherSites}, {newThrows(counts_.other())}, {{"exception", "(further classes)"}});
  return to.hasSamples() ? to.finish() : std::string();
}

}  // namespace agent
