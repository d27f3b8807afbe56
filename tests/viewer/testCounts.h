// Files of exception counts, and of records that belong to them, for the viewer's tests.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <vector>

#include "exceptionLog.h"

namespace viewer {

// COUNTS of so many that were thrown; caught and uncaught as JSON.
inline std::string countMembers(int thrown, const std::string& caught = "null",
                                const std::string& uncaught = "null", int rethrown = 0) {
  return fmt::format(
      R"("thrown":{},"caught":{},"uncaught":{},"recorded":1,"rethrown":{},"filtered":0,)"
      R"("blackListed":0,"overRate":{},"failed":0,"cut":0)",
      thrown, caught, uncaught, rethrown, std::max(thrown - 1, 0));
}

inline std::string siteEntry(const std::string& className, const std::string& method, int line,
                             const std::string& counts) {
  return fmt::format(
      R"({{"class":"{}","method":"{}","file":"F.java","line":{},{},"first":"2026-11-21T14:00:00.000Z",)"
      R"("last":"2026-11-21T15:00:00.000Z"}})",
      className, method, line, counts);
}

struct countsParts {
  std::string mode = "thrown";
  std::string begin = "2026-11-21T13:00:00.000Z";
  std::string end = "2026-11-21T16:00:00.000Z";
  std::string total = "";
  std::string sites = "";
  std::string classes = "";
  std::string other = countMembers(0);
};

inline std::string countsText(const countsParts& parts) {
  return fmt::format(
      R"({{"kind":"exceptionCounts","version":1,"mode":"{}","begin":"{}","end":"{}","maxSites":1000,)"
      R"("total":{{{}}},"sites":[{}],"classes":[{}],"other":{{{}}}}})",
      parts.mode, parts.begin, parts.end, parts.total, parts.sites, parts.classes, parts.other);
}

inline exceptionCounts countsOf(const countsParts& parts) {
  return readExceptionCounts(bytesOfText(countsText(parts)), "c.json");
}

// A record of one or more frames, each a place "a.B.c:42" in F.java.
inline std::string recordLine(const std::string& className, const std::vector<std::string>& places,
                              const std::string& message = "m") {
  std::string frames;
  for (const std::string& place : places) {
    const std::size_t colon = place.rfind(':');
    frames +=
        fmt::format(R"({}{{"method":"{}","file":"F.java","line":{}}})", frames.empty() ? "" : ",",
                    place.substr(0, colon), place.substr(colon + 1));
  }
  return fmt::format(
      R"({{"time":"2026-11-21T14:30:00.000Z","thread":"t","class":"{}","message":"{}","caught":true,)"
      R"("frames":[{}]}})"
      "\n",
      className, message, frames);
}

inline exceptionLog logOf(const std::string& lines, const std::vector<countsParts>& counts = {}) {
  exceptionLog log;
  std::vector<std::string> problems;
  log.add(bytesOfText(lines), "run-1/exceptions.jsonl", problems);
  for (const countsParts& one : counts) {
    log.add(countsOf(one));
  }
  EXPECT_THAT(problems, testing::IsEmpty());
  return log;
}

}  // namespace viewer
