// The contention report in tests/data, to be changed and read again.
#pragma once

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "contentionReport.h"

namespace viewer {

inline nlohmann::json recordedContention() {
  return nlohmann::json::parse(std::ifstream(DATA_FOLDER "/contention-run/contention-1.json"));
}

// Where there must be no problems.
inline contentionReport parsedContention(const nlohmann::json& document) {
  std::vector<std::string> problems;
  contentionReport report = readContentionReport(bytesOfText(document.dump()), "c.json", problems);
  if (!problems.empty()) {
    throw inputError(problems.front());
  }
  return report;
}

inline contentionReport parsedContention() {
  return parsedContention(recordedContention());
}

// The lock of this id in a document.
inline nlohmann::json& lockIn(nlohmann::json& document, int id) {
  for (nlohmann::json& lock : document["locks"]) {
    if (lock["id"] == id) {
      return lock;
    }
  }
  throw inputError("the report does not have the lock");
}

}  // namespace viewer
