// How many exceptions were thrown, as the agent counts them before every filter: by class and by
// the place that throws. Values without state, for any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "input.h"

namespace viewer {

// Names the kind of the document.
constexpr std::string_view kExceptionCounts = "exceptionCounts";

struct throwCounts {
  std::uint64_t thrown = 0;             // all that were seen, those thrown again included
  std::optional<std::uint64_t> caught;  // none where the agent cannot know
  std::optional<std::uint64_t> uncaught;
  std::uint64_t recorded = 0;
  std::uint64_t rethrown = 0;
  std::uint64_t filtered = 0;     // thrown in packages that are never recorded
  std::uint64_t blackListed = 0;  // of classes that the user has excluded
  std::uint64_t overRate = 0;     // beyond the records that a class may have
  std::uint64_t failed = 0;
  std::uint64_t cut = 0;  // of the recorded ones, those that were too long
};

// What is not known in one of them is not known of the sum.
void addTo(throwCounts& sum, const throwCounts& more);

// What such counts do not have, in words: of exceptions that are counted where they are made.
constexpr std::string_view kOnlyMade =
    "exceptions were counted where they are made: those that were thrown again, that a program or "
    "the VM keeps ready, or that hot code throws by itself (null, index, division, cast) are not "
    "seen, and those that were made and never thrown are";

// A place in the source: a method "a.b.C.method", with a line of -1 where that is not known.
struct sourcePlace {
  std::string method;
  std::optional<std::string> file;
  std::int32_t line = -1;
};

// "a.b.C.method(C.java:42)"; without what is not known.
std::string textOf(const sourcePlace& place);

// Whether the class belongs to the JDK, by the beginning of its name or of one of its methods.
bool isOfJdk(const std::string& name);

// What identifies a throwing site in a record: the class that is thrown, the method and the line.
using siteKey = std::tuple<std::string, std::string, std::int32_t>;

struct countedSite {
  std::string className;
  sourcePlace place;
  std::optional<std::int32_t> lineInRecord;  // where records have another line than `place`
  throwCounts counts;
  std::string first;  // the times of the first and the last, ISO 8601 in UTC
  std::string last;

  siteKey keyInRecord() const {
    return {className, place.method, lineInRecord.value_or(place.line)};
  }
};

// Exceptions of a class at sites that the agent had no room for.
struct countedClass {
  std::string className;
  throwCounts counts;
  std::string first;
  std::string last;
};

struct exceptionCounts {
  std::string begin;  // of the time that was counted
  std::string end;
  bool isOfMade = false;  // counted where they are made, not where they are thrown
  std::uint64_t maxSites = 0;
  std::size_t runs = 1;  // that the counts are of
  std::size_t jvm = 0;   // of several JVMs, whose runs may begin at the same time
  throwCounts total;     // of the sites, the classes and the others
  std::vector<countedSite> sites;
  std::vector<countedClass> classes;
  throwCounts other;  // of neither: their classes are not known
  bool isFiltered = false;
};

// Reads one file of counts. Throws inputError.
exceptionCounts readExceptionCounts(byteSource bytes, const std::string& source);

// The sum over runs. Of files of one JVM with the same begin, which are of one run, the latest
// counts.
exceptionCounts sumOf(const std::vector<exceptionCounts>& files);

// Keeps what the predicates accept, and makes `total` the sum of that. The others, whose classes
// are not known, are not among it.
void keepIf(exceptionCounts& counts, const std::function<bool(const countedSite&)>& site,
            const std::function<bool(const countedClass&)>& ofClass);

}  // namespace viewer
