#include "runFolders.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string_view>
#include <system_error>

#include "input.h"
#include "tableParts.h"
#include "utf8.h"

namespace viewer {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostNames = 100'000;
constexpr std::size_t kShown = 5;  // runs that are named one by one

// The names of runs in a list, up to what cannot be read as one.
std::set<std::string> namesIn(const fs::path& list) {
  std::set<std::string> names;
  try {
    lineReader lines(bytesOfFile(list));
    for (std::string line; names.size() < kMostNames && lines.next(line);) {
      const std::string name = line.substr(std::min(line.find(' '), line.size() - 1) + 1);
      if (name.starts_with("run-") && name.find('/') == name.npos) {
        names.insert(name);
      }
    }
  } catch (const inputError&) {
    // It may be anything in a folder of somebody else.
  }
  return names;
}

// By name, numbers in their order.
void sort(std::vector<fs::path>& runs) {
  std::sort(runs.begin(), runs.end(), [](const fs::path& left, const fs::path& right) {
    return strverscmp(left.c_str(), right.c_str()) < 0;
  });
}

std::string quoted(const fs::path& path) {
  std::string text = toUtf8(path.string());
  if (text.find_first_of(" \t'\"\\$&;()<>|*?[]#~!`") == text.npos) {
    return text;
  }
  constexpr std::string_view kQuote = "'\\''";  // ends the text, has one, and begins it again
  for (std::size_t i = text.find('\''); i != text.npos; i = text.find('\'', i + kQuote.size())) {
    text.replace(i, 1, kQuote);
  }
  return '\'' + text + '\'';
}

std::string shownRuns(std::vector<fs::path> runs) {
  std::string text;
  std::reverse(runs.begin(), runs.end());
  for (const fs::path& one : first(runs, kShown)) {
    text += "\n  twprofile report " + quoted(one);
  }
  return text + (runs.size() > kShown ? fmt::format("\n  and {} more", runs.size() - kShown) : "");
}

}  // namespace

bool isLinkOfOthers(const fs::directory_entry& entry) {
  struct stat link {};
  return ::lstat(entry.path().c_str(), &link) == 0 && S_ISLNK(link.st_mode) &&
         link.st_uid != ::geteuid();
}

bool isRunFolder(const fs::directory_entry& entry) {
  return entry.is_directory() && !isLinkOfOthers(entry) &&
         entry.path().filename().string().starts_with("run-");
}

bool isRun(const fs::path& folder) {
  return fs::exists(folder / "run.json") || isRunFolder(fs::directory_entry(folder));
}

std::vector<fs::path> runFoldersIn(const fs::path& output) {
  std::vector<fs::path> runs;
  std::error_code problem;
  for (const fs::directory_entry& entry : fs::directory_iterator(output, problem)) {
    if (isRunFolder(entry)) {
      runs.push_back(entry.path());
    }
  }
  sort(runs);
  return runs;
}

std::vector<fs::path> runsOfCommand(const fs::path& run) {
  const fs::path folder = fs::absolute(run).lexically_normal();
  const std::string name = (folder.has_filename() ? folder : folder.parent_path()).filename();
  const fs::path output = run.has_filename() ? run.parent_path() : run.parent_path().parent_path();
  std::vector<fs::path> result = {run};
  std::error_code problem;
  const fs::path searched = output.empty() ? fs::path(".") : output;
  for (const fs::directory_entry& entry : fs::directory_iterator(searched, problem)) {
    if (entry.path().extension() != ".jvms") {
      continue;
    }
    const std::set<std::string> names = namesIn(entry.path());
    if (names.contains(name)) {
      for (const std::string& other : names) {
        if (other != name && isRunFolder(fs::directory_entry(output / other))) {
          result.push_back(output / other);
        }
      }
      break;
    }
  }
  sort(result);
  return result;
}

std::vector<std::string> otherRuns(const fs::path& output, const fs::path& shown) {
  const std::vector<fs::path> ofCommand = runsOfCommand(shown);
  std::vector<fs::path> others = ofCommand;
  std::erase(others, shown);
  std::vector<std::string> lines;
  if (!others.empty()) {
    lines.push_back(fmt::format(
        "Only 1 of the {} JVMs of this command is shown, the one that started last. All "
        "of them together:\n  twprofile report {} --all\nThe others:{}",
        ofCommand.size(), quoted(output), shownRuns(others)));
  }
  std::vector<fs::path> older = runFoldersIn(output);
  std::erase_if(older, [&](const fs::path& one) {
    return std::find(ofCommand.begin(), ofCommand.end(), one) != ofCommand.end();
  });
  if (!older.empty()) {
    lines.push_back(
        fmt::format("{} in the folder {} not shown:{}",
                    older.size() == 1 ? "1 older run" : fmt::format("{} older runs", older.size()),
                    older.size() == 1 ? "is" : "are", shownRuns(older)));
  }
  return lines;
}

jvmState stateOf(const std::optional<std::int64_t>& pid) {
  if (!pid || *pid <= 0) {
    return jvmState::unknown;
  }
  const std::string process = fmt::format("/proc/{}", *pid);
  std::error_code problem;
  if (!fs::exists("/proc/self", problem) || (!fs::exists(process, problem) && problem)) {
    return jvmState::unknown;
  }
  if (!fs::exists(process, problem)) {
    return jvmState::gone;
  }
  std::ifstream in(process + "/maps", std::ios::binary);
  const std::string mapped((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return mapped.empty()                                     ? jvmState::unknown
         : mapped.find("libjavanativeagent") == mapped.npos ? jvmState::gone
                                                            : jvmState::running;
}

std::string reasonForNoEnd(const std::optional<std::int64_t>& pid) {
  switch (stateOf(pid)) {
    case jvmState::running:
      return fmt::format("the JVM is still running (process {})", *pid);
    case jvmState::gone:
      return fmt::format(
          "the JVM was killed: process {} is gone, unless it is one of a container or another "
          "machine",
          *pid);
    case jvmState::unknown:
      break;
  }
  return "the JVM was killed or is still running";
}

}  // namespace viewer
