// Small reports and stack files for the viewer's tests, and what they must give.
#pragma once

#include <string>
#include <vector>

#include "lockReport.h"
#include "stackTable.h"

namespace viewer {

// Two locks in the order of the agent: the lesser one first.
inline const std::string kReport = R"({
  "sessionname": "checkout", "sessionid": 42,
  "lockmap": {
    "a.Cart@7": {
      "id": "a.Cart@7", "count": 3, "graph": [], "totalBlockTime": 1, "totalWaitTime": 0,
      "threadbean": {
        "worker-1": {"name": "worker-1", "count": 3, "totalBlockTime": 1, "totalWaitTime": 0,
                     "stacktracebean": {"11": {"count": 3, "hashcode": "11"}}}}},
    "a.Stock@9": {
      "id": "a.Stock@9", "count": 12, "graph": [5, 7], "totalBlockTime": 3, "totalWaitTime": 2,
      "threadbean": {
        "worker-1": {"name": "worker-1", "count": 4, "totalBlockTime": 1, "totalWaitTime": 2,
                     "stacktracebean": {"11": {"count": 1, "hashcode": "0"},
                                        "22": {"count": 3, "hashcode": "22"}}},
        "worker-2": {"name": "worker-2", "count": 8, "totalBlockTime": 2, "totalWaitTime": 0,
                     "stacktracebean": {"11": {"count": 5, "hashcode": "11"},
                                        "22": {"count": 2, "hashcode": "22"}}}}}},
  "stacktracemap": {"11": "", "22": ""},
  "blockingThreads": {
    "worker-1": {"name": "worker-1", "blockingCount": 9, "blockCount": 4, "totalBlockingTime": 1,
                 "stacktracebean": {}},
    "worker-2": {"name": "worker-2", "blockingCount": 3, "blockCount": 2, "totalBlockingTime": 5,
                 "stacktracebean": {"22": {"count": 1, "hashcode": "0"}}}}
})";

inline const std::string kStacks =
    "11=[at a.Stock.take(),at a.Worker.run()]\n"
    "22=[at a.Stock.put(),at a.Worker.run()]\n";

inline lockReport parsedReport(const std::string& text = kReport) {
  return readLockReport(bytesOfText(text), "r.json");
}

inline stackTable parsedStacks(const std::string& text = kStacks) {
  stackTable stacks;
  std::vector<std::string> problems;
  readStackFile(bytesOfText(text), "s.txt", stacks, problems);
  return stacks;
}

// What `read` says is wrong with its input.
template <typename action>
std::string problemOf(action read) {
  try {
    read();
  } catch (const inputError& e) {
    return e.what();
  }
  return "no problem";
}

// `text` with the first `from` replaced by `to`; the test that asks for another text is wrong.
inline std::string replaced(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

// The same of an agent that skipped three of four owner lookups, and found one owner once, the
// other twice.
inline const std::string kSampledReport =
    replaced(replaced(kReport.substr(0, kReport.size() - 1), "Count\": 9", "Count\": 2"),
             "Count\": 3, \"blockC", "Count\": 1, \"blockC") +
    R"(, "ownerLookups": {"perSecond": 100, "made": 812, "leftOut": 2436}})";

}  // namespace viewer
