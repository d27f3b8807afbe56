#include "checks.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>

#include "contentionChecks.h"
#include "contentionGaps.h"
#include "gaps.h"

namespace viewer {
namespace {

template <typename number>
std::optional<number> parsed(std::string_view text) {
  number value{};
  const char* end = text.data() + text.size();
  const auto [stop, problem] = std::from_chars(text.data(), end, value);
  return problem == std::errc() && stop == end ? std::optional(value) : std::nullopt;
}

// The pattern and what follows the last "=".
std::pair<std::string, std::string> atLastEquals(const std::string& text) {
  const std::size_t equals = text.rfind('=');
  return equals == text.npos ? std::pair(std::string(), std::string())
                             : std::pair(text.substr(0, equals), text.substr(equals + 1));
}

// What `reasons` name is not covered by the run, so that a limit does not hold.
void addReasons(verdict& found, const std::string& limit, const std::vector<std::string>& reasons) {
  for (const std::string& reason : reasons) {
    found.broken.push_back(limit + ": " + reason);
  }
}

void checkBlocked(const profile& all, const blockedLimit& limit, verdict& found) {
  const std::string name = fmt::format("{}={}", limit.lockClass, limit.seconds);
  addReasons(found, name, lockGaps(all));
  bool isThere = false;
  for (const lockReport& report : all.lockReports) {
    for (const lockEntry& lock : report.locks) {
      if (!matches(limit.lockClass, classOf(lock.name))) {
        continue;
      }
      isThere = true;
      if (lock.blockedSeconds > limit.seconds) {
        found.broken.push_back(fmt::format("{}: {} s blocked in session {}, {} s allowed",
                                           lock.name, lock.blockedSeconds, report.sessionId,
                                           limit.seconds));
      }
    }
  }
  if (!isThere && !all.lockReports.empty()) {
    found.notes.push_back(name + ": no lock of a matching class was recorded");
  }
}

// The live objects that have outlived at least so many collections.
std::uint64_t survivorsOf(const classEntry& one, std::uint64_t newest, std::uint64_t collections) {
  std::uint64_t objects = 0;
  for (const generationEntry& generation : one.generations) {
    if (newest - generation.generation + 1 >= collections) {
      objects += generation.objects;
    }
  }
  return objects;
}

void checkSurvivors(const profile& all, const survivorLimit& limit, verdict& found) {
  const std::string name =
      fmt::format("{}={}@{}", limit.className, limit.objects, limit.collections);
  addReasons(found, name, survivorGaps(all, limit.className));
  bool isThere = false;
  for (const memoryReport& report : all.memoryReports) {
    const std::vector<std::uint32_t> generations = generationsOf(report);
    for (const classEntry& one : report.classes) {
      if (!matches(limit.className, one.name)) {
        continue;
      }
      isThere = true;
      const std::uint64_t objects =
          generations.empty() ? 0 : survivorsOf(one, generations.back(), limit.collections);
      if (objects > limit.objects) {
        found.broken.push_back(
            fmt::format("{}: {} objects outlived {} collections or more in session {}, {} allowed",
                        one.name, objects, limit.collections, report.sessionId, limit.objects));
      }
    }
  }
  if (!isThere && !all.memoryReports.empty()) {
    found.notes.push_back(name + ": no object of a matching class is in a report");
  }
}

void checkExceptions(const profile& all, const std::string& pattern, verdict& found) {
  addReasons(found, pattern, exceptionGaps(all, pattern));
  const exceptionCounts* counts = countsOf(all);
  const char* done = counts != nullptr && counts->isOfMade ? "made" : "thrown";
  for (const exceptionGroup& group : groupsOf(all, thrownIn::outsideJdk)) {
    if (matches(pattern, group.className) && group.known() > 0) {
      found.broken.push_back(fmt::format("{}: {} {}{} times in {}, first at {}", group.className,
                                         done, group.counts ? "" : "at least ", group.known(),
                                         placeOf(group), group.first));
    }
  }
}

std::pair<std::string, double> parseTimeLimit(const std::string& text, const char* form,
                                              const char* example) {
  const auto [pattern, limit] = atLastEquals(text);
  const std::optional<double> number = parsed<double>(limit);
  if (pattern.empty() || !number || !std::isfinite(*number) || *number < 0) {
    throw inputError(fmt::format("expected {}, as in '{}', found '{}'", form, example, text));
  }
  return {pattern, *number};
}

}  // namespace

blockedLimit parseBlockedLimit(const std::string& text) {
  const auto [pattern, seconds] = parseTimeLimit(text, "CLASSES=SECONDS", "com.example.*=2");
  return {pattern, seconds};
}

contentionLimit parseContentionLimit(const std::string& text) {
  const auto [pattern, millis] = parseTimeLimit(text, "CLASSES=MILLISECONDS", "com.example.*=200");
  return {pattern, millis};
}

survivorLimit parseSurvivorLimit(const std::string& text) {
  const auto [pattern, limit] = atLastEquals(text);
  const std::size_t at = limit.find('@');
  const auto objects = parsed<std::uint64_t>(std::string_view(limit).substr(0, at));
  const auto collections = at == limit.npos
                               ? std::optional<std::uint64_t>(1)
                               : parsed<std::uint64_t>(std::string_view(limit).substr(at + 1));
  if (pattern.empty() || !objects || !collections) {
    throw inputError(fmt::format(
        "expected CLASSES=OBJECTS@COLLECTIONS, as in 'com.example.Session=0@3', found '{}'", text));
  }
  return {pattern, *objects, *collections};
}

std::string parseExceptionLimit(const std::string& text) {
  if (text.empty()) {
    throw inputError("expected CLASSES, as in 'java.io.*', found nothing");
  }
  return text;
}

verdict check(const profile& all, const checkedLimits& limits) {
  verdict found;
  for (const blockedLimit& limit : limits.blocked) {
    checkBlocked(all, limit, found);
  }
  for (const contentionLimit& limit : limits.contention) {
    checkContention(all, limit, found);
  }
  if (limits.noDeadlock) {
    checkDeadlocks(all, found);
  }
  for (const allocationLimit& limit : limits.growth) {
    checkGrowth(all, limit, found);
  }
  for (const allocationLimit& limit : limits.alive) {
    checkAlive(all, limit, found);
  }
  for (const survivorLimit& limit : limits.survivors) {
    checkSurvivors(all, limit, found);
  }
  for (const std::string& pattern : limits.exceptions) {
    checkExceptions(all, pattern, found);
  }
  const auto addNote = [&found](bool isAsked, const std::optional<std::string>& note) {
    if (isAsked && note) {
      found.notes.push_back(*note);
    }
  };
  if (!limits.contention.empty() || limits.noDeadlock) {
    for (const std::string& note : contentionNotes(all)) {
      found.notes.push_back(note);
    }
  }
  addNote(!limits.blocked.empty(), locksNotCovered(all));
  if (!limits.exceptions.empty()) {
    for (const std::string& note : exceptionsNotCovered(all)) {
      found.notes.push_back(note);
    }
  }
  return found;
}

}  // namespace viewer
