#include "agent/oldLogs.h"

#include <sys/stat.h>
#include <unistd.h>

namespace agent {

namespace {

constexpr const char* kLogNamePrefix = "tw_NativeAgent_";

int daysIn(int month, int year) {
  switch (month) {
    case 2:
      return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0) ? 29 : 28;
    case 4:
    case 6:
    case 9:
    case 11:
      return 30;
    default:
      return 31;
  }
}

}  // namespace

std::optional<logDate> parseLogDate(std::string_view digits) {
  constexpr std::size_t kDigits = 8;
  if (digits.size() < kDigits) {
    return std::nullopt;
  }
  const auto number = [&](std::size_t from, std::size_t length) {
    int value = 0;
    for (const char digit : digits.substr(from, length)) {
      value = value * 10 + (digit - '0');
    }
    return value;
  };
  if (digits.substr(0, kDigits).find_first_not_of("0123456789") != std::string_view::npos) {
    return std::nullopt;
  }
  return logDate{number(0, 4), number(4, 2), number(6, 2)};
}

bool isOldLog(const logDate& file, const logDate& today) {
  constexpr int kOldDays = 5;
  int years = today.year - file.year;
  int months = today.month - file.month;
  int days = today.day - file.day;
  if (days < 0) {
    days += daysIn(today.month == 1 ? 12 : today.month - 1, today.year);
    --months;
  }
  if (months < 0) {
    months += 12;
    --years;
  }
  return days >= kOldDays || months != 0 || years != 0;
}

void cleanUpOldLogs(const std::string& directory, const std::string& timeStamp) {
  // Deliberate: the entry itself is looked up, without a wildcard; "logs" does not name a log.
  struct stat status {};
  if (::lstat(directory.c_str(), &status) != 0) {
    return;  // no such entry: nothing is listed
  }
  const std::size_t separator = directory.find_last_of("/\\");
  const std::string name =
      separator == std::string::npos ? directory : directory.substr(separator + 1);
  if (name == "." || name == ".." || !name.starts_with(kLogNamePrefix)) {
    return;
  }
  const std::optional<logDate> date =
      parseLogDate(std::string_view(name).substr(std::string_view(kLogNamePrefix).size()));
  const std::optional<logDate> today = parseLogDate(timeStamp);
  if (!date || !today || !isOldLog(*date, *today)) {
    return;
  }
  const std::string path = directory + "/" + name;
  if (::stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode)) {
    ::unlink(path.c_str());
  }
}

}  // namespace agent
