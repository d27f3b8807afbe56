#include "exceptions/siteCounts.h"

#include <cstdint>
#include <ctime>

#include "exceptions/frameCapture.h"
#include "exceptions/throwEvent.h"
#include "support/jvmtiPtr.h"

namespace agent {

namespace {

// The source line of a place in a method; -1 when it has none.
jint lineAt(jlocation location, const jvmtiLineNumberEntry* table, jint count) {
  jint line = -1;
  jlocation nearest = -1;
  for (jint i = 0; i < count; ++i) {
    if (table[i].start_location <= location && table[i].start_location > nearest) {
      nearest = table[i].start_location;
      line = table[i].line_number;
    }
  }
  return line;
}

// Neither loads a class nor calls Java. None when the VM does not give the method's name.
std::optional<siteName> nameOf(const throwEvent& event, const knownClass& thrower,
                               jclass declaring) {
  jvmtiEnv* const jvmti = event.jvmti;
  support::jvmtiText method(jvmti);
  method.fill(
      [&](char** out) { return jvmti->GetMethodName(event.method, out, nullptr, nullptr); });
  if (!method) {
    return std::nullopt;
  }
  siteName name;
  name.exceptionClass = event.info->value.name;
  name.method = thrower.name;
  name.method += '.';
  name.method += method.view();
  support::jvmtiText file(jvmti);
  file.fill([&](char** out) { return jvmti->GetSourceFileName(declaring, out); });
  name.file = file.view();
  jint count = 0;
  support::jvmtiPtr<jvmtiLineNumberEntry> lines(jvmti);
  lines.fill([&](jvmtiLineNumberEntry** out) {
    return jvmti->GetLineNumberTable(event.method, &count, out);
  });
  if (lines) {
    name.line = lineAt(event.location, lines.get(), count);
    name.lineInRecord = lineOf(event.location, lines.get(), count);
  }
  return name;
}

std::uint64_t wordOf(jmethodID method) {
  return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(method));
}

}  // namespace

std::int64_t coarseMillis() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// --- A row -------------------------------------------------------------------------------------

void siteRow::thrown(std::optional<bool> isCaught, std::int64_t now) {
  if (first() == 0) {
    std::int64_t none = 0;
    first_.compare_exchange_strong(none, now, std::memory_order_relaxed);
  }
  last_.store(now, std::memory_order_relaxed);
  add(!isCaught ? siteCount::unknown : *isCaught ? siteCount::caught : siteCount::uncaught);
}

siteRow::totals siteRow::read() const {
  totals result{};
  for (std::size_t i = kSiteCounts; i > 0; --i) {
    result[i - 1] = counts_[i - 1].load(std::memory_order_acquire);
  }
  return result;
}

// --- The table ---------------------------------------------------------------------------------

siteCounts& siteCounts::ofProcess() {
  static siteCounts& counts = *new siteCounts;
  return counts;
}

void siteCounts::begin(std::int64_t now) {
  std::int64_t never = 0;
  began_.compare_exchange_strong(never, now);
}

siteRow& siteCounts::thrown(const throwEvent& event, const knownClass& thrower,
                            jclass declaring) noexcept {
  const siteKey key{{event.info->value.id, thrower.id, wordOf(event.method),
                     static_cast<std::uint64_t>(event.location)}};
  siteRow* known = find(key);
  siteRow& row = known == nullptr ? meet(event, thrower, declaring, key) : *known;
  row.thrown(event.isCaught, coarseMillis());
  return row;
}

siteRow& siteCounts::thrownSomewhere(const throwEvent& event) noexcept {
  siteRow* row = &other_;
  if (event.info) {
    const siteKey key{{event.info->value.id, 0, 0, 0}};  // no site has this key
    siteRow* const known = find(key);
    row = known == nullptr ? &meetClass(event.info->value.name, key) : known;
  }
  row->thrown(event.isCaught, coarseMillis());
  return *row;
}

// A class that is not in the cache, as with sites.
siteRow& siteCounts::meetClass(const std::string& name, const siteKey& key) noexcept {
  try {
    const support::lockGuard guard(mutex_);
    siteRow& row = ofClass(name);
    remember(key, row);
    return row;
  } catch (...) {
    return other_;  // no memory, or no lock
  }
}

std::size_t siteCounts::siteKey::place() const {
  constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15U;
  std::uint64_t hash = 0;
  for (const std::uint64_t each : words) {
    hash = (hash ^ each) * kSpread;
    hash ^= hash >> 32U;
  }
  return static_cast<std::size_t>(hash);
}

siteRow* siteCounts::find(const siteKey& key) const {
  const std::size_t place = key.place();
  for (std::size_t i = 0; i < kProbes; ++i) {
    const slot& each = slots_[(place + i) % kSlots];
    const std::uint32_t version = each.version.load(std::memory_order_acquire);
    if (version == 0) {
      return nullptr;
    }
    bool isSame = version % 2 == 0;
    for (std::size_t word = 0; isSame && word < key.words.size(); ++word) {
      isSame = each.words[word].load(std::memory_order_acquire) == key.words[word];
    }
    if (isSame) {
      siteRow* const row = each.row.load(std::memory_order_acquire);
      if (each.version.load(std::memory_order_relaxed) == version) {
        return row;
      }
    }
  }
  return nullptr;
}

// A site that is not in the cache: new, or crowded out.
siteRow& siteCounts::meet(const throwEvent& event, const knownClass& thrower, jclass declaring,
                          const siteKey& key) noexcept {
  try {
    const std::optional<siteName> name = nameOf(event, thrower, declaring);
    const support::lockGuard guard(mutex_);
    if (!name) {
      return ofClass(event.info->value.name);  // the VM may give it the next time
    }
    siteRow* const site = ofSite(*name);
    siteRow& row = site == nullptr ? ofClass(name->exceptionClass) : *site;
    remember(key, row);
    return row;
  } catch (...) {
    return other_;  // no memory, or no lock
  }
}

siteRow* siteCounts::ofSite(const siteName& name) {
  const auto known = sites_.find(name);
  if (known != sites_.end()) {
    return &known->second;
  }
  if (sites_.size() >= kSites ||
      name.exceptionClass.size() + name.method.size() + name.file.size() > kLongestName) {
    return nullptr;
  }
  return &sites_[name];
}

siteRow& siteCounts::ofClass(const std::string& name) {
  const auto known = classes_.find(name);
  if (known != classes_.end()) {
    return known->second;
  }
  return classes_.size() >= kClasses || name.size() > kLongestName ? other_ : classes_[name];
}

void siteCounts::remember(const siteKey& key, siteRow& row) {
  if (find(key) != nullptr) {
    return;  // by another thread
  }
  const std::size_t place = key.place();
  slot* taken = &slots_[(place + turn_++ % kProbes) % kSlots];
  for (std::size_t i = kProbes; i > 0; --i) {
    slot& each = slots_[(place + i - 1) % kSlots];
    if (each.version.load(std::memory_order_relaxed) == 0) {
      taken = &each;
    }
  }
  const std::uint32_t version = taken->version.load(std::memory_order_relaxed);
  taken->version.store(version + 1, std::memory_order_relaxed);
  for (std::size_t word = 0; word < key.words.size(); ++word) {
    taken->words[word].store(key.words[word], std::memory_order_release);
  }
  taken->row.store(&row, std::memory_order_release);
  taken->version.store(version + 2, std::memory_order_release);
}

siteCounts::rows siteCounts::all() const {
  rows result;
  const support::lockGuard guard(mutex_);
  for (const auto& [name, row] : sites_) {
    result.sites.emplace_back(&name, &row);
  }
  for (const auto& [name, row] : classes_) {
    result.classes.emplace_back(&name, &row);
  }
  return result;
}

}  // namespace agent
