// Gives any bytes to what reads and writes text in the agent without a VM: the JSON writer, whose
// output another parser reads back, names of classes and types, filters and black list, numbers and
// dates, the version file, the folder maker and records of the log.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "../check.h"
#include "agent/oldLogs.h"
#include "agent/twAprLib.h"
#include "agent/twAprUtility.h"
#include "exceptions/exceptionRecord.h"
#include "exceptions/exceptionprofiler.h"
#include "memory/heapScan.h"
#include "support/jsonWriter.h"
#include "support/text.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

// A folder with `logs`, where the log is set up, and `work`.
class home {
 public:
  home() {
    std::string name = (fs::temp_directory_path() / "textFuzzXXXXXX").string();
    path_ = ::mkdtemp(name.data());
    fs::create_directories(path_ / "logs");
    static agent::twAprContext context;
    check(agent::twAprLib::createContext(context), "APR starts");
    inWork([&] { agent::twAprLib::tw_apr_log_initialize(context, path_); });
  }
  ~home() { fs::remove_all(path_); }

  // Runs `body` with `work` as the working directory, and takes away what it leaves there.
  template <typename action>
  void inWork(action body) const {
    const fs::path before = fs::current_path();
    fs::create_directory(path_ / "work");
    fs::current_path(path_ / "work");
    body();
    fs::current_path(before);
    fs::remove_all(path_ / "work");
  }

  // What was logged since the last time.
  std::string takeLog() const {
    std::string text;
    for (const auto& each : fs::directory_iterator(path_ / "logs")) {
      std::ifstream file(each.path(), std::ios::binary);
      text.append(std::istreambuf_iterator<char>(file), {});
      fs::resize_file(each.path(), 0);
    }
    return text;
  }

 private:
  fs::path path_;
};

const home& theHome() {
  static const home made;
  return made;
}

// Each byte as a character of its own, so that any bytes make valid UTF-8.
std::string asCharacters(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80U) {
      text += c;
    } else {
      text += static_cast<char>(0xC0U | (byte >> 6U));
      text += static_cast<char>(0x80U | (byte & 0x3FU));
    }
  }
  return text;
}

// Builds one document with the writer and with the other library, as the bytes say.
class documents {
 public:
  explicit documents(std::string_view steps) : left_(steps) {}

  void compare() {
    const ordered_json expected = value(0);
    const ordered_json read = ordered_json::parse(writer_.text(), nullptr, false);
    check(!read.is_discarded(), "the output is JSON");
    check(read == expected, "the output is read back as what was written");
  }

 private:
  std::uint8_t next() {
    if (left_.empty()) {
      return 0;
    }
    const auto byte = static_cast<std::uint8_t>(left_.front());
    left_.remove_prefix(1);
    return byte;
  }
  // Some of the bytes; what a reader gets ends at the first NUL.
  std::string text() {
    const std::size_t wanted = next();
    const std::string_view bytes = left_.substr(0, wanted);
    const std::string taken = asCharacters(bytes);
    left_.remove_prefix(bytes.size());
    return taken;
  }
  static std::string shown(const std::string& text) { return text.substr(0, text.find('\0')); }

  ordered_json value(int depth) {
    constexpr int kDeepest = 60;
    switch (depth < kDeepest ? next() % 4 : 2) {
      case 0:
        return object(depth);
      case 1:
        return array(depth);
      case 2: {
        const std::string written = text();
        writer_.string(written);
        return shown(written);
      }
      default: {
        std::uint32_t bits = 0;
        for (int i = 0; i < 4; ++i) {
          bits = (bits << 8U) | next();
        }
        writer_.number(static_cast<std::int32_t>(bits));
        return static_cast<std::int32_t>(bits);
      }
    }
  }
  ordered_json object(int depth) {
    ordered_json made = ordered_json::object();
    writer_.beginObject();
    for (int n = next() % 8; n > 0 && !left_.empty(); --n) {
      // Numbered, for the writer leaves it to its caller that keys differ.
      const std::string key = std::to_string(n) + text();
      writer_.key(key);
      made[shown(key)] = value(depth + 1);
    }
    writer_.endObject();
    return made;
  }
  ordered_json array(int depth) {
    ordered_json made = ordered_json::array();
    writer_.beginArray();
    for (int n = next() % 8; n > 0 && !left_.empty(); --n) {
      made.push_back(value(depth + 1));
    }
    writer_.endArray();
    return made;
  }

  std::string_view left_;
  support::jsonWriter writer_;
};

void escapes(std::string_view text) {
  std::string escaped;
  support::appendEscaped(escaped, text);
  check(std::none_of(escaped.begin(), escaped.end(),
                     [](char c) { return (c >= 0 && c < ' ') || c == 127; }),
        "control characters are escaped");
}

void classNames(std::string_view text) {
  std::string dotted;
  support::appendDottedClass(dotted, text);
  check(dotted.size() == (text.size() < 2 ? 0 : text.size() - 2), "the dotted form has two less");
  check(dotted.find('/') == std::string::npos, "the dotted form has no slash");
  const std::string name = agent::classNameOf(text);
  check(name.find('/') == std::string::npos, "class names have no slash");
  const int code = static_cast<int>(agent::record::codeOf(text));
  check(code >= 0 && code <= 10, "there are eleven type codes");
  constexpr std::size_t kLimit = 64;
  agent::record::builder built(kLimit);
  built.appendEntry("name", agent::record::codeOf(text), text);
  check(built.size() <= kLimit && (built.size() > 0) != built.isCut(), "what fits is appended");
  const std::size_t before = built.size();
  built.dropLastSeparator(0);
  check(before - built.size() == (before > 0 ? 3 : 0), "a section loses its end");
}

void filters(std::string_view text) {
  const std::size_t half = text.find('\n');
  const std::string names(text.substr(0, half));
  const std::string cls(half == std::string_view::npos ? "" : text.substr(half + 1));
  const bool inText = names.find(cls) != std::string::npos;
  const std::size_t dot = cls.rfind('.');
  const bool packageInText =
      dot != std::string::npos && names.find(cls.substr(0, dot)) != std::string::npos;
  agent::classFilters all;
  all.excludeClasses = names;
  // The empty package of a name that begins with a dot occurs in any text.
  check(all.excludes(cls) == (inText || dot == 0), "a class is excluded by its name");
  all.includePackages = names;
  check(all.includes(cls) == (cls.empty() || packageInText), "a class is included by its package");
}

void blackList(const std::string& text) {
  try {
    const std::vector<std::string> list = agent::parseBlackList(text);
    std::size_t characters = 0;
    for (const std::string& each : list) {
      characters += each.size() + 1;
      check(each.find(',') == std::string::npos, "a comma separates names");
      check(each == support::lowerCase(each), "names are in lower case");
    }
    check(characters < text.size() + 1, "names are made of the text");
  } catch (const std::out_of_range&) {
    check(text.empty(), "only an empty black list is refused");
  }
}

// The value or the text of what was thrown.
template <typename convert>
std::string resultOf(convert number) {
  try {
    return std::to_string(number());
  } catch (const std::invalid_argument&) {
    return "no number";
  } catch (const std::out_of_range&) {
    return "out of range";
  }
}

void numbers(const std::string& text) {
  check(resultOf([&] { return support::toInt(text); }) == resultOf([&] { return std::stoi(text); }),
        "numbers are read as std::stoi does");
}

void pieces(const std::string& text) {
  std::vector<std::string> found;
  support::forEachPiece(text, ',', [&](std::string_view piece) { found.emplace_back(piece); });
  std::vector<std::string> expected;
  std::istringstream stream(text);
  for (std::string piece; std::getline(stream, piece, ',');) {
    expected.push_back(piece);
  }
  check(found == expected, "pieces are those of std::getline");
  const std::string key = text.substr(0, text.find(','));
  check(support::startsWithIgnoringCase(text, support::lowerCase(key)), "case does not count");
}

void paths(const std::string& text) {
  check(text.ends_with(support::baseName(text)), "a base name is the path's end");
  const std::string asked = support::fileSystemPath(text);
  check((text.size() - asked.size()) % 2 == 0, "each surrogate pair loses two bytes");
  theHome().inWork([&] { agent::twAprUtility::mkdir_ex(text); });
}

void dates(std::string_view text) {
  const auto date = agent::parseLogDate(text);
  if (!date) {
    return;
  }
  check(!agent::isOldLog(*date, *date), "a log is not old on its own day");
  const agent::logDate today{2026, 3, 1};
  agent::isOldLog(*date, today);
  agent::isOldLog(today, *date);
}

void versionFile(std::string_view text) {
  const int file = ::memfd_create("version", MFD_CLOEXEC);
  check(file >= 0, "there is memory for a file");
  check(::write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "is written");
  const std::string version = agent::twAprLib::readVersion("/proc/self/fd/" + std::to_string(file));
  ::close(file);
  check(version.size() <= text.size(), "a version is made of its file");
  check(version.find('\0') == std::string::npos, "a version has no NUL");
}

// A message is in the file up to its first NUL, or to the 4095 bytes that a record may have.
void logRecord(const std::string& text) {
  constexpr std::size_t kLongest = 4095;
  const std::string message = text.c_str();
  theHome().takeLog();
  agent::twAprLib::write(nullptr, 0, "M", "Error", "a/b.cpp", 7, "f", "%s", message.c_str());
  const std::string logged = theHome().takeLog();
  constexpr std::string_view kColumns = "|M|b.cpp|7|f|Error|";
  const std::size_t columns = logged.find(kColumns);
  check(columns != std::string::npos, "there is a record");
  const std::string kept = logged.substr(columns + kColumns.size());
  check(message.starts_with(kept), "the message is in it");
  const std::size_t length = logged.size() - logged.rfind('\n', columns);
  check(kept.size() == message.size() || length == kLongest, "only long ones are cut");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  theHome();
  documents(text).compare();
  escapes(text);
  classNames(text);
  filters(text);
  blackList(text);
  numbers(text);
  pieces(text);
  paths(text);
  dates(text);
  versionFile(text);
  logRecord(text);
  return 0;
}
