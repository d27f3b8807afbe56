// The clean-up of old log files at start-up.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace agent {

// A date as log file names carry it.
struct logDate {
  int year = 0;
  int month = 0;  // 1 to 12
  int day = 0;    // 1 to 31
};

// The date at the start of `digits` (YYYYMMDD...), or none when these are not eight digits.
std::optional<logDate> parseLogDate(std::string_view digits);

// Whether a log file of `file`'s date is old on the day `today`: the dates differ by five days or
// more, or by whole months or years. When days are borrowed, they are counted with the length of
// the month before `today`'s.
bool isOldLog(const logDate& file, const logDate& today);

// Deletes the file "<directory>/<its last component>" when that component is the name of a log that
// is old at `timeStamp` (YYYYMMDDhhmmss). `directory` is looked up as it stands, nothing below it.
void cleanUpOldLogs(const std::string& directory, const std::string& timeStamp);

}  // namespace agent
