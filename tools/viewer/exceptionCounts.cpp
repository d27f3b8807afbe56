#include "exceptionCounts.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <string_view>
#include <utility>

#include "jsonReader.h"

namespace viewer {
namespace {

void assignCount(void* target, std::int64_t value) {
  *static_cast<std::uint64_t*>(target) = static_cast<std::uint64_t>(value);
}

void assignKnownCount(void* target, std::int64_t value) {
  *static_cast<std::optional<std::uint64_t>*>(target) = static_cast<std::uint64_t>(value);
}

const shape& countShape(bool mayBeNull) {
  static const shape number = {.expected = "a count",
                               .number = assignCount,
                               .least = 0,
                               .most = std::numeric_limits<std::int64_t>::max()};
  static const shape numberOrNull = {.expected = "a count or null",
                                     .nullable = true,
                                     .number = assignKnownCount,
                                     .least = 0,
                                     .most = std::numeric_limits<std::int64_t>::max()};
  return mayBeNull ? numberOrNull : number;
}

place countIn(std::uint64_t& count) {
  return {&countShape(false), &count};
}

place countIn(std::optional<std::uint64_t>& count) {
  return {&countShape(true), &count};
}

throwCounts& countsOf(throwCounts& counts) {
  return counts;
}

template <typename entry>
throwCounts& countsOf(entry& one) {
  return one.counts;
}

template <typename owner, auto member>
place countAt(void* target) {
  return countIn(countsOf(*static_cast<owner*>(target)).*member);
}

// The members of an object that has counts, after its own ones.
template <typename owner>
std::vector<memberShape> withCounts(std::vector<memberShape> members) {
  const std::vector<memberShape> counts = {
      {"thrown", countAt<owner, &throwCounts::thrown>},
      {"caught", countAt<owner, &throwCounts::caught>, false},
      {"uncaught", countAt<owner, &throwCounts::uncaught>, false},
      {"recorded", countAt<owner, &throwCounts::recorded>, false},
      {"rethrown", countAt<owner, &throwCounts::rethrown>, false},
      {"filtered", countAt<owner, &throwCounts::filtered>, false},
      {"blackListed", countAt<owner, &throwCounts::blackListed>, false},
      {"overRate", countAt<owner, &throwCounts::overRate>, false},
      {"failed", countAt<owner, &throwCounts::failed>, false},
      {"cut", countAt<owner, &throwCounts::cut>, false}};
  members.insert(members.end(), counts.begin(), counts.end());
  return members;
}

template <auto member>
place placeAt(void* site) {
  auto& field = static_cast<countedSite*>(site)->place.*member;
  return {&shapeOf<std::remove_reference_t<decltype(field)>>(), &field};
}

place lineInRecordAt(void* site) {
  return {&shapeOf<std::int32_t>(), &static_cast<countedSite*>(site)->lineInRecord.emplace()};
}

place modeAt(void* counts) {
  static const shape result = {
      .expected = "\"thrown\" or \"made\"", .text = [](void* target, std::string& value) {
        if (value != "thrown" && value != "made") {
          throw misfit("expected \"thrown\" or \"made\", found another text");
        }
        *static_cast<bool*>(target) = value == "made";
      }};
  return {&result, &static_cast<exceptionCounts*>(counts)->isOfMade};
}

template <auto member>
place numberAt(void* counts) {
  return countIn(static_cast<exceptionCounts*>(counts)->*member);
}

}  // namespace

template <>
const shape& shapeOf<throwCounts>() {
  static const shape result = {.expected = "an object", .members = withCounts<throwCounts>({})};
  return result;
}

template <>
const shape& shapeOf<countedSite>() {
  static const shape result = {
      .expected = "an object",
      .members = withCounts<countedSite>({{"class", at<&countedSite::className>},
                                          {"method", placeAt<&sourcePlace::method>},
                                          {"file", placeAt<&sourcePlace::file>, false},
                                          {"line", placeAt<&sourcePlace::line>, false},
                                          {"lineInRecord", lineInRecordAt, false},
                                          {"first", at<&countedSite::first>, false},
                                          {"last", at<&countedSite::last>, false}})};
  return result;
}

template <>
const shape& shapeOf<countedClass>() {
  static const shape result = {
      .expected = "an object",
      .members = withCounts<countedClass>({{"class", at<&countedClass::className>},
                                           {"first", at<&countedClass::first>, false},
                                           {"last", at<&countedClass::last>, false}})};
  return result;
}

template <>
const shape& shapeOf<std::vector<countedSite>>() {
  static const shape result = {.expected = "an array", .element = appended<countedSite>};
  return result;
}

template <>
const shape& shapeOf<std::vector<countedClass>>() {
  static const shape result = {.expected = "an array", .element = appended<countedClass>};
  return result;
}

template <>
const shape& shapeOf<exceptionCounts>() {
  static const shape result = {
      .expected = "an object",
      .members = {{"mode", modeAt},
                  {"begin", at<&exceptionCounts::begin>},
                  {"end", at<&exceptionCounts::end>},
                  {"maxSites", numberAt<&exceptionCounts::maxSites>, false},
                  {"total", at<&exceptionCounts::total>},
                  {"sites", at<&exceptionCounts::sites>},
                  {"classes", at<&exceptionCounts::classes>, false},
                  {"other", at<&exceptionCounts::other>, false}}};
  return result;
}

void addTo(throwCounts& sum, const throwCounts& more) {
  const auto addKnown = [](std::optional<std::uint64_t>& to, const auto& count) {
    to = to && count ? std::optional(*to + *count) : std::nullopt;
  };
  sum.thrown += more.thrown;
  addKnown(sum.caught, more.caught);
  addKnown(sum.uncaught, more.uncaught);
  sum.recorded += more.recorded;
  sum.rethrown += more.rethrown;
  sum.filtered += more.filtered;
  sum.blackListed += more.blackListed;
  sum.overRate += more.overRate;
  sum.failed += more.failed;
  sum.cut += more.cut;
}

std::string textOf(const sourcePlace& place) {
  if (!place.file) {
    return place.method;
  }
  return place.line < 0 ? fmt::format("{}({})", place.method, *place.file)
                        : fmt::format("{}({}:{})", place.method, *place.file, place.line);
}

bool isOfJdk(const std::string& name) {
  constexpr std::array<std::string_view, 5> kBeginnings = {"java.", "javax.", "jdk.", "sun.",
                                                           "com.sun."};
  return std::any_of(kBeginnings.begin(), kBeginnings.end(),
                     [&](std::string_view start) { return name.starts_with(start); });
}

exceptionCounts readExceptionCounts(byteSource bytes, const std::string& source) {
  exceptionCounts counts;
  readJson(std::move(bytes), source, {&shapeOf<exceptionCounts>(), &counts});
  return counts;
}

namespace {

void widen(std::string& first, std::string& last, const std::string& from, const std::string& to) {
  first = first.empty() || (!from.empty() && from < first) ? from : first;
  last = std::max(last, to);
}

template <typename key, typename entry>
void addEntry(std::map<key, entry>& sums, const key& name, const entry& one) {
  const auto [found, isNew] = sums.emplace(name, one);
  if (!isNew) {
    addTo(found->second.counts, one.counts);
    widen(found->second.first, found->second.last, one.first, one.last);
  }
}

template <typename key, typename entry>
std::vector<entry> valuesOf(std::map<key, entry> sums) {
  std::vector<entry> values;
  values.reserve(sums.size());
  for (auto& [name, one] : sums) {
    values.push_back(std::move(one));
  }
  return values;
}

}  // namespace

exceptionCounts sumOf(const std::vector<exceptionCounts>& files) {
  using run = std::pair<std::size_t, std::string>;  // the JVM and the begin
  std::map<run, const exceptionCounts*> latest;
  for (const exceptionCounts& one : files) {
    const exceptionCounts*& known = latest[run(one.jvm, one.begin)];
    known = known == nullptr || known->end <= one.end ? &one : known;
  }
  exceptionCounts sum;
  std::map<std::pair<siteKey, std::int32_t>, countedSite> sites;
  std::map<std::string, countedClass> classes;
  sum.runs = 0;
  for (const auto& [begin, one] : latest) {
    const bool isFirst = sum.runs++ == 0;
    widen(sum.begin, sum.end, one->begin, one->end);
    sum.isOfMade = sum.isOfMade || one->isOfMade;
    sum.maxSites = std::max(sum.maxSites, one->maxSites);
    if (isFirst) {
      sum.total = one->total;
      sum.other = one->other;
    } else {
      addTo(sum.total, one->total);
      addTo(sum.other, one->other);
    }
    for (const countedSite& site : one->sites) {
      addEntry(sites, std::pair(site.keyInRecord(), site.place.line), site);
    }
    for (const countedClass& ofClass : one->classes) {
      addEntry(classes, ofClass.className, ofClass);
    }
  }
  sum.sites = valuesOf(std::move(sites));
  sum.classes = valuesOf(std::move(classes));
  return sum;
}

void keepIf(exceptionCounts& counts, const std::function<bool(const countedSite&)>& site,
            const std::function<bool(const countedClass&)>& ofClass) {
  std::erase_if(counts.sites, std::not_fn(site));
  std::erase_if(counts.classes, std::not_fn(ofClass));
  counts.isFiltered = true;
  // The sum of nothing has caught ones where those are counted.
  const auto none = [](const std::optional<std::uint64_t>& known) {
    return known ? std::optional<std::uint64_t>(0) : std::nullopt;
  };
  throwCounts sum;
  sum.caught = none(counts.total.caught);
  sum.uncaught = none(counts.total.uncaught);
  for (const countedSite& one : counts.sites) {
    addTo(sum, one.counts);
  }
  for (const countedClass& one : counts.classes) {
    addTo(sum, one.counts);
  }
  counts.total = sum;
}

}  // namespace viewer
