#include "instruments/lastReport.h"

#include <cerrno>
#include <cstdio>

#include "agent/twAprLib.h"
#include "support/fileWriter.h"
#include "support/regularFile.h"
#include "support/text.h"

namespace instruments {

std::string writeReport(const std::string& path, std::string_view text) {
  support::fileWriter file(support::fileSystemPath(path), support::fileWriter::mode::truncate);
  file.write(text);
  const std::string reason = file.close();
  return reason.empty() ? reason : path + ": " + reason;
}

void lastReport::order(const std::string& path, bool isEnding) {
  const support::lockGuard guard(mutex_);
  path_ = path;
  isEnding_ = isEnding;
}

bool lastReport::takeBack() {
  const support::lockGuard guard(mutex_);
  if (!isEnding_) {
    path_.clear();
  }
  return !isEnding_;
}

std::string lastReport::path() const {
  const support::lockGuard guard(mutex_);
  return path_;
}

void lastReport::write(const std::string& path, std::string_view text, const char* function) {
  using namespace agent;
  const std::string name = support::fileSystemPath(path);
  const std::string part = name + ".end";
  support::fileWriter file(part, support::fileWriter::mode::truncate,
                           support::fileWriter::readers::owner);
  file.write(text);
  std::string reason = file.close();
  if (reason.empty() && std::rename(part.c_str(), name.c_str()) != 0) {
    reason = support::reasonOf(errno);
  }
  if (!reason.empty()) {
    TW_LOG(kLogError, kSeverityError, function, "%s was not written at the end: %s", path.c_str(),
           reason.c_str());
  }
}

}  // namespace instruments
