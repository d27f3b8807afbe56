#include "exceptionGroups.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <utility>

#include "ownNames.h"

namespace viewer {
namespace {

// Where the exceptions of a throwing site are shown.
struct shownPlaces {
  std::map<std::string, std::size_t> records;  // by the place
  bool areIndirect = false;                    // it is not the throwing site
};

// Finds the counted sites of records.
class siteFinder {
 public:
  explicit siteFinder(const std::vector<countedSite>& sites) {
    for (const countedSite& site : sites) {
      addOnly(sites_, site.keyInRecord(), site);
      addOnly(inMethod_, std::pair(site.className, site.place.method), site);
    }
  }

  // None when the site is not counted, or when it is not known which one it is.
  const countedSite* of(const recordOrigin& from) const {
    if (!from.method) {
      return nullptr;
    }
    const auto found = sites_.find({from.className, *from.method, from.line});
    if (found != sites_.end() || from.line >= 0) {
      return found == sites_.end() ? nullptr : found->second;
    }
    const auto only = inMethod_.find({from.className, *from.method});
    return only == inMethod_.end() ? nullptr : only->second;
  }

 private:
  // None where there are several: overloaded methods have the same name.
  template <typename key>
  using onlySites = std::map<key, const countedSite*>;

  template <typename key>
  static void addOnly(onlySites<key>& to, const key& name, const countedSite& site) {
    const auto [found, isNew] = to.emplace(name, &site);
    found->second = isNew ? &site : nullptr;
  }

  onlySites<siteKey> sites_;
  onlySites<std::pair<std::string, std::string>> inMethod_;
};

class grouping {
 public:
  grouping(const exceptionLog& log, thrownIn where) : log_(log), where_(where) {
    if (log.counts()) {
      finder_.emplace(log.counts()->sites);
    }
  }

  std::vector<exceptionGroup> groups() {
    findPlaces();
    for (std::size_t i = 0; i < log_.size(); i++) {
      addRecord(i);
    }
    if (log_.counts()) {
      addCounts(*log_.counts());
    }
    std::vector<exceptionGroup> result;
    result.reserve(groups_.size());
    for (auto& [identity, group] : groups_) {
      result.push_back(std::move(group));
    }
    std::stable_sort(result.begin(), result.end(),
                     [](const exceptionGroup& left, const exceptionGroup& right) {
                       return left.known() > right.known();
                     });
    return result;
  }

 private:
  const countedSite* siteOf(const recordOrigin& from) const {
    return finder_ ? finder_->of(from) : nullptr;
  }

  bool isIndirect(const recordOrigin& from) const {
    return where_ == thrownIn::outsideJdk && from.outside != from.site;
  }

  void findPlaces() {
    for (std::size_t i = 0; i < log_.size(); i++) {
      const recordOrigin& from = log_.origin(i);
      if (const countedSite* site = siteOf(from)) {
        shownPlaces& places = places_[site];
        places.records[isIndirect(from) ? *from.outside
                       : from.line < 0  ? textOf(site->place)
                                        : *from.site]++;
        places.areIndirect = places.areIndirect || isIndirect(from);
      }
    }
  }

  exceptionGroup& groupAt(const std::string& className, const shownPlaces& shown) {
    const std::map<std::string, std::size_t>& places = shown.records;
    std::vector<std::string> identity = {className};
    const std::string* most = nullptr;
    for (const auto& [place, records] : places) {
      identity.push_back(place);
      most = most == nullptr || records > places.at(*most) ? &place : most;
    }
    const auto [found, isNew] = groups_.try_emplace(std::move(identity));
    if (isNew) {
      found->second.className = className;
      found->second.site = most == nullptr ? std::nullopt : std::optional(*most);
      found->second.otherSites = places.size() - (places.empty() ? 0 : 1);
      found->second.isOfAgent =
          !places.empty() && std::all_of(places.begin(), places.end(), [](const auto& one) {
            return one.first.starts_with(kOwnPackage);
          });
    }
    found->second.isIndirect = found->second.isIndirect || shown.areIndirect;
    return found->second;
  }

  exceptionGroup& groupOf(const countedSite& site) {
    const auto found = places_.find(&site);
    return groupAt(site.className, found == places_.end()
                                       ? shownPlaces{.records = {{textOf(site.place), 0}}}
                                       : found->second);
  }

  exceptionGroup& groupOf(const recordOrigin& from) {
    if (const countedSite* site = siteOf(from)) {
      return groupOf(*site);
    }
    shownPlaces places;
    if (from.method) {
      places.records[isIndirect(from) ? *from.outside : *from.site] = 0;
    }
    return groupAt(from.className, places);
  }

  static void widen(exceptionGroup& group, const std::string& first, const std::string& last) {
    group.first =
        group.first.empty() || (!first.empty() && first < group.first) ? first : group.first;
    group.last = std::max(group.last, last);
  }

  void addRecord(std::size_t index) {
    exceptionGroup& group = groupOf(log_.origin(index));
    widen(group, log_.time(index), log_.time(index));
    group.caught += log_.caught(index) == true ? 1 : 0;
    group.uncaught += log_.caught(index) == false ? 1 : 0;
    group.records.push_back(index);
  }

  template <typename counted>
  static void addTo(exceptionGroup& group, const counted& one) {
    if (group.counts) {
      viewer::addTo(*group.counts, one.counts);
    } else {
      group.counts = one.counts;
    }
    widen(group, one.first, one.last);
  }

  void addCounts(const exceptionCounts& counts) {
    for (const countedSite& site : counts.sites) {
      exceptionGroup& group = groupOf(site);
      addTo(group, site);
      group.throwing.push_back(textOf(site.place));
    }
    for (const countedClass& one : counts.classes) {
      exceptionGroup& group = groups_[{one.className, "", "beyond"}];
      group.className = one.className;
      group.isBeyond = true;
      addTo(group, one);
    }
    if (counts.other.thrown > 0 && !counts.isFiltered) {
      exceptionGroup& group = groups_[{kOtherClasses, "", "beyond"}];
      group.className = kOtherClasses;
      group.isBeyond = true;
      group.counts = counts.other;
    }
  }

  const exceptionLog& log_;
  thrownIn where_;
  std::optional<siteFinder> finder_;
  std::map<const countedSite*, shownPlaces> places_;
  std::map<std::vector<std::string>, exceptionGroup> groups_;  // by class and places
};

}  // namespace

std::string placeOf(const exceptionGroup& group) {
  if (group.isBeyond) {
    return "(further sites)";
  }
  const std::string first = group.site.value_or("(no frames)");
  return group.otherSites == 0 ? first
                               : fmt::format("{} and {} other place{}", first, group.otherSites,
                                             group.otherSites == 1 ? "" : "s");
}

bool isOwn(const exceptionGroup& group) {
  return group.isOfAgent && (!group.isIndirect || 2 * group.records.size() >= group.known());
}

std::vector<exceptionGroup> groupsOf(const exceptionLog& log, thrownIn where) {
  return grouping(log, where).groups();
}

}  // namespace viewer
