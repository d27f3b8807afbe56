#include "profile.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <system_error>
#include <utility>

#include "jsonReader.h"
#include "runFolders.h"
#include "utf8.h"

namespace viewer {

template <>
const shape& shapeOf<std::map<std::string, std::string>>();
template <>
const shape& shapeOf<std::vector<std::string>>();

namespace {

namespace fs = std::filesystem;

enum class kind {
  unknown,
  empty,
  lockReport,
  stackFile,
  exceptionLog,
  exceptionCounts,
  memoryReport,
  contentionReport,
  allocationReport,
  growthReport,
  pathReport,
  run,
  sweeps
};

// Its value names the kind of a report.
constexpr std::string_view kReportMember = "report";
constexpr std::string_view kKindMember = "kind";

// The other members that identify documents.
const std::map<std::string, kind, std::less<>>& identifyingMembers() {
  static const std::map<std::string, kind, std::less<>> members = {
      {"lockmap", kind::lockReport},
      {"stacktracemap", kind::lockReport},
      {"blockingThreads", kind::lockReport},
      {"topNMemoryleakClass", kind::memoryReport},
      {"thread", kind::exceptionLog},
      {"class", kind::exceptionLog},
      {"frames", kind::exceptionLog},
      {"recorded", kind::exceptionLog},
      {"dropped", kind::exceptionLog},
      {"pid", kind::run},
      {"java", kind::run},
      {"command", kind::run},
      {"sweep", kind::sweeps}};
  return members;
}

// As it is shown: a name in a file system may be any bytes.
std::string nameOf(const fs::path& file) {
  return toUtf8(file.string());
}

kind kindOfReport(std::string_view name) {
  return name == kContention    ? kind::contentionReport
         : name == kAllocations ? kind::allocationReport
         : name == kGrowth      ? kind::growthReport
         : name == kPaths       ? kind::pathReport
                                : kind::unknown;
}

kind kindOfDocument(byteSource bytes, const std::string& source) {
  const foundMember member = firstMember(std::move(bytes), source, [](std::string_view name) {
    return name == kReportMember || name == kKindMember || identifyingMembers().contains(name);
  });
  if (member.name == kKindMember) {
    return member.text == kExceptionCounts ? kind::exceptionCounts : kind::unknown;
  }
  if (member.name == kReportMember) {
    return kindOfReport(member.text);
  }
  return member.name.empty() ? kind::unknown : identifyingMembers().find(member.name)->second;
}

// The kind of a file whose lines stand for themselves, by one of them.
kind kindOfLine(const std::string& line) {
  if (isStackLine(line)) {
    return kind::stackFile;
  }
  try {
    const kind what = kindOfDocument(bytesOfText(line), "line");
    return what == kind::exceptionLog || what == kind::sweeps ? what : kind::unknown;
  } catch (const inputError&) {
    return kind::unknown;
  }
}

// By the first line that shows it, so that a damaged one before it costs no more than itself.
kind kindOfLines(const inputFile& file) {
  constexpr std::size_t kSearched = 1024 * 1024;  // bytes
  std::size_t seen = 0;
  lineReader lines([&seen, bytes = file.bytes()] {
    const std::string_view block = seen < kSearched ? bytes() : std::string_view();
    seen += block.size();
    return block;
  });
  for (std::string line; lines.next(line);) {
    if (const kind what = kindOfLine(line); what != kind::unknown) {
      return what;
    }
  }
  return kind::unknown;
}

// Throws inputError when the file cannot be read, or ends or goes wrong before its kind is clear.
kind kindOf(const inputFile& file) {
  const byteSource bytes = file.bytes();
  const std::string_view start = bytes();
  if (start.empty()) {
    return kind::empty;
  }
  kind what = kind::unknown;
  std::optional<inputError> problem;
  const std::size_t first = start.find_first_not_of(" \t\r\n");
  if (first != start.npos && start[first] == '{') {
    try {
      what = kindOfDocument(
          [first = start, &bytes]() mutable {
            return first.empty() ? bytes() : std::exchange(first, std::string_view());
          },
          nameOf(file.path));
    } catch (const inputError& e) {
      problem = e;
    }
  }
  what = what == kind::unknown ? kindOfLines(file) : what;
  if (what == kind::unknown && problem) {
    throw *problem;
  }
  return what;
}

// Whatever type an option has, it is shown as a text.
const shape& optionShape() {
  static const shape result = {
      .expected = "a string, number or boolean",
      .nullable = true,
      .text = [](void* target, std::string& value) { *static_cast<std::string*>(target) = value; },
      .number =
          [](void* target, std::int64_t value) {
            *static_cast<std::string*>(target) = std::to_string(value);
          },
      .boolean = [](void* target,
                    bool value) { *static_cast<std::string*>(target) = value ? "true" : "false"; },
      .least = std::numeric_limits<std::int64_t>::min(),
      .most = std::numeric_limits<std::int64_t>::max()};
  return result;
}

place addedOption(void* target, std::string& name) {
  auto& options = *static_cast<std::map<std::string, std::string>*>(target);
  return {&optionShape(), &options[name]};
}

place removedAt(void* run) {
  static const shape result = {.expected = "an object",
                               .members = {{"reports", at<&runInfo::removedReports>}}};
  return {&result, run};
}

const shape& runShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"pid", at<&runInfo::pid>, false},
                                           {"started", at<&runInfo::started>, false},
                                           {"agent", at<&runInfo::agent>, false},
                                           {"host", at<&runInfo::host>, false},
                                           {"java", at<&runInfo::java>, false},
                                           {"vm", at<&runInfo::vm>, false},
                                           {"command", at<&runInfo::command>, false},
                                           {"options", at<&runInfo::options>, false},
                                           {"removed", removedAt, false}}};
  return result;
}

void readAbout(profile& all, const inputFile& file) {
  if (all.run) {
    throw inputError(
        fmt::format("{}: expected the files of one run, found those of a second one; twreport diff "
                    "compares two, twreport merge adds up any number",
                    nameOf(file.path)));
  }
  runInfo run;
  readJson(file.bytes(), nameOf(file.path), {&runShape(), &run});
  all.run = std::move(run);
}

struct sweepLine {
  std::int32_t classes = 0;
  std::vector<std::string> full;
  std::optional<std::string> leftOut;
};

const shape& sweepShape() {
  static const shape result = {.expected = "an object",
                               .members = {{"classes", at<&sweepLine::classes>, false},
                                           {"full", at<&sweepLine::full>, false},
                                           {"leftOut", at<&sweepLine::leftOut>, false}}};
  return result;
}

// A line of another form costs only itself.
void readSweeps(profile& all, const inputFile& file) {
  sweepSum& sum = all.sweeps ? *all.sweeps : all.sweeps.emplace();
  std::vector<std::string> ignored;
  readLines(file.bytes(), nameOf(file.path), "sweeps", ignored,
            [&](const std::string& text, const std::string& place) {
              sweepLine line;
              readJson(bytesOfText(text), place, {&sweepShape(), &line});
              const auto classes = static_cast<std::uint64_t>(std::max(line.classes, 0));
              sum.classes = std::max(sum.classes, classes);
              sum.full.insert(sum.full.end(), line.full.begin(), line.full.end());
              sum.isCut = sum.isCut || line.leftOut;
            });
}

// The session that the files "allocations-1.json", ".growth" and ".paths" of a folder are of: found
// by what their names have in common.
allocationSession& sessionOf(profile& all, const inputFile& file) {
  const std::string name = nameOf(fs::path(file.path).replace_extension());
  const auto found = std::find_if(all.allocations.begin(), all.allocations.end(),
                                  [&](const allocationSession& one) { return one.name == name; });
  if (found != all.allocations.end()) {
    return *found;
  }
  allocationSession& added = all.allocations.emplace_back();
  added.name = name;
  return added;
}

void readAllocations(profile& all, const inputFile& file, kind what) {
  const std::string name = nameOf(file.path);
  if (what == kind::allocationReport) {
    auto report = readAllocationReport(file.bytes(), name, all.problems);
    sessionOf(all, file).samples = std::move(report);
  } else if (what == kind::growthReport) {
    auto report = readGrowthReport(file.bytes(), name);
    sessionOf(all, file).growth = std::move(report);
  } else {
    auto report = readPathReport(file.bytes(), name);
    sessionOf(all, file).paths = std::move(report);
  }
}

void readFile(profile& all, const inputFile& file, kind what) {
  const std::string name = nameOf(file.path);
  if (what == kind::sweeps) {
    readSweeps(all, file);
    return;  // of how the memory report came about, not of what is in it
  }
  all.inputs.push_back(name);
  switch (what) {
    case kind::lockReport:
      all.lockReports.push_back(readLockReport(file.bytes(), name));
      break;
    case kind::stackFile:
      readStackFile(file.bytes(), name, all.stacks, all.problems);
      break;
    case kind::exceptionLog:
      if (!all.exceptions) {
        all.exceptions.emplace();
      }
      all.exceptions->add(file.bytes(), name, all.problems);
      break;
    case kind::exceptionCounts: {
      exceptionCounts counts = readExceptionCounts(file.bytes(), name);
      if (!all.exceptions) {
        all.exceptions.emplace();
      }
      all.exceptions->add(std::move(counts));
      break;
    }
    case kind::memoryReport:
      all.memoryReports.push_back(readMemoryReport(file.bytes(), name));
      break;
    case kind::contentionReport:
      all.contentionReports.push_back(readContentionReport(file.bytes(), name, all.problems));
      break;
    case kind::allocationReport:
    case kind::growthReport:
    case kind::pathReport:
      readAllocations(all, file, what);
      break;
    case kind::run:
      readAbout(all, file);
      break;
    case kind::empty:
      throw inputError(name + ": expected a report, found an empty file");
    case kind::sweeps:
    case kind::unknown:
      throw inputError(name +
                       ": expected a contention report, lock report, stack file, memory report, "
                       "allocation report, exception file, file of exception counts or run.json, "
                       "found none of them");
  }
}

// Runs `read`, reporting what goes wrong in the profile's problems.
template <typename action>
void noting(profile& all, action read) {
  try {
    read();
  } catch (const inputError& e) {
    all.problems.push_back(e.what());
  } catch (const fs::filesystem_error& e) {
    all.problems.push_back(
        fmt::format("{}: cannot be read: {}", nameOf(e.path1()), e.code().message()));
  }
}

// The entries of a folder that `wanted` accepts, numbers in names in their order.
template <typename predicate>
std::vector<fs::path> listed(const fs::path& folder, predicate wanted) {
  std::vector<fs::path> result;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    if (wanted(entry)) {
      result.push_back(entry.path());
    }
  }
  std::sort(result.begin(), result.end(), [](const fs::path& left, const fs::path& right) {
    return strverscmp(left.c_str(), right.c_str()) < 0;
  });
  return result;
}

constexpr const char* kPart = ".part";

bool mayBeReport(const fs::directory_entry& entry) {
  const std::string name = entry.path().filename();
  return entry.is_regular_file() && !name.starts_with('.') && !isLinkOfOthers(entry);
}

// An exception file and a stack file may be empty before the first line is written; a report that
// is empty was lost.
bool isLost(const fs::path& file) {
  return file.extension() == ".json";
}

// Whether the agent or its companion uses this name for files: one that is nothing they write was
// damaged.
bool isOwnName(const fs::path& file) {
  const std::string name = file.filename();
  const auto fits = [&name](const char* pattern) { return matches(pattern, name); };
  return fits("allocations-*.json") || fits("allocations-*.growth") ||
         fits("allocations-*.paths") || fits("contention-*.json") || fits("locks-*.json") ||
         fits("memory-*.json") || fits("*.stacks") || fits("exceptions*.jsonl") ||
         fits("exception-counts*.json") || fits("run.json");
}

// Whether a file in a folder is not a report, so that nothing is lost with it.
bool isOther(const fs::path& file, kind what) {
  return (what == kind::empty && !isLost(file)) || (what == kind::unknown && !isOwnName(file));
}

// False when the folder holds none of these files.
bool readFilesOf(profile& all, const fs::path& folder) {
  bool any = false;
  for (const fs::path& file : listed(folder, mayBeReport)) {
    any = addFile(all, {file}) || any;
  }
  return any;
}

[[noreturn]] void failForNothing(const fs::path& folder) {
  throw inputError(fmt::format("{}: expected reports in the folder, found none", nameOf(folder)));
}

void readFolder(profile& all, const fs::path& folder) {
  const std::size_t problems = all.problems.size();
  if (readFilesOf(all, folder)) {
    return;
  }
  const std::vector<fs::path> runs = runFoldersIn(folder);
  const fs::path& searched = runs.empty() ? folder : runs.back();
  const bool found = !runs.empty() && readFilesOf(all, searched);
  if (runs.size() > 1) {
    all.notes = otherRuns(folder, searched);
  }
  if (!found && all.problems.size() == problems) {
    failForNothing(searched);
  }
}

bool contains(const std::string& in, const std::string& text) {
  return std::search(in.begin(), in.end(), text.begin(), text.end(), [](char left, char right) {
           const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; };
           return lower(left) == lower(right);
         }) != in.end();
}

bool contains(const std::vector<capturedValue>& values, const std::string& text) {
  return std::any_of(values.begin(), values.end(), [&](const capturedValue& one) {
    return contains(one.name, text) || contains(one.value.value_or(""), text) ||
           (one.fields && contains(*one.fields, text));
  });
}

bool contains(const exceptionRecord& one, const std::string& text) {
  return contains(one.className, text) || contains(one.message.value_or(""), text) ||
         contains(one.thread, text) || contains(one.time, text) ||
         std::any_of(one.frames.begin(), one.frames.end(), [&](const exceptionFrame& frame) {
           return contains(placeOf(frame), text) || contains(frame.fields, text) ||
                  contains(frame.arguments, text) || contains(frame.locals, text) ||
                  contains(frame.threadLocals, text);
         });
}

bool contains(std::uint64_t stack, const stackTable& stacks, const std::string& text) {
  const std::vector<frameId>* frames = stacks.find(stack);
  return frames != nullptr && std::any_of(frames->begin(), frames->end(), [&](frameId frame) {
           return contains(stacks.method(frame), text);
         });
}

bool contains(const std::vector<stackUse>& uses, const stackTable& stacks,
              const std::string& text) {
  return std::any_of(uses.begin(), uses.end(),
                     [&](const stackUse& use) { return contains(use.hash, stacks, text); });
}

}  // namespace

template <>
const shape& shapeOf<std::map<std::string, std::string>>() {
  static const shape result = {.expected = "an object", .member = addedOption};
  return result;
}

profile readProfile(const std::vector<fs::path>& inputs) {
  profile all;
  for (const fs::path& input : inputs) {
    noting(all, [&] {
      if (fs::is_directory(input)) {
        readFolder(all, input);
      } else {
        readFile(all, {input}, kindOf({input}));
      }
    });
  }
  return all;
}

bool addFile(profile& all, const inputFile& file) {
  if (file.path.extension() == kPart) {
    const fs::path complete = fs::path(file.path).replace_extension();
    if (isLost(complete) && isOwnName(complete)) {
      all.unfinished.push_back(nameOf(file.path));
    }
    return false;
  }
  bool isReport = false;
  noting(all, [&] {
    const kind what = kindOf(file);
    if (!isOther(file.path, what)) {
      isReport = what != kind::sweeps;
      readFile(all, file, what);
    }
  });
  return isReport;
}

profile readRun(const fs::path& folder) {
  profile all;
  all.name = nameOf(fs::canonical(folder).filename());
  noting(all, [&] { readFilesOf(all, folder); });
  return all;
}

std::vector<profile> readJvms(const std::vector<fs::path>& inputs) {
  std::vector<profile> jvms;
  profile others;
  for (const fs::path& input : inputs) {
    noting(others, [&] {
      if (!fs::is_directory(input)) {
        throw inputError(nameOf(input) + ": expected a folder");
      }
      const std::vector<fs::path> runs = runFoldersIn(input);
      const std::vector<fs::path> chosen = isRun(input)   ? runsOfCommand(input)
                                           : runs.empty() ? std::vector<fs::path>{input}
                                                          : runsOfCommand(runs.back());
      std::transform(chosen.begin(), chosen.end(), std::back_inserter(jvms), readRun);
    });
  }
  return others.problems.empty() ? std::move(jvms) : std::vector<profile>();
}

std::vector<profile> readRuns(const std::vector<fs::path>& inputs) {
  std::vector<profile> runs;
  profile others;
  bool areOthers = false;
  for (const fs::path& input : inputs) {
    noting(others, [&] {
      if (!fs::is_directory(input)) {
        areOthers = true;
        readFile(others, {input}, kindOf({input}));
      } else if (isRun(input)) {
        runs.push_back(readRun(input));
      } else {
        const bool any = readFilesOf(others, input);
        areOthers = areOthers || any;
        const std::vector<fs::path> folders = runFoldersIn(input);
        std::transform(folders.begin(), folders.end(), std::back_inserter(runs), readRun);
        if (!any && folders.empty()) {
          failForNothing(input);
        }
      }
    });
  }
  if (areOthers || runs.empty() || !others.problems.empty()) {
    runs.push_back(std::move(others));
  }
  return runs;
}

std::vector<exceptionGroup> groupsOf(const profile& all, thrownIn where) {
  return all.exceptions ? groupsOf(*all.exceptions, where) : std::vector<exceptionGroup>();
}

const exceptionCounts* countsOf(const profile& all) {
  return all.exceptions && all.exceptions->counts() ? &*all.exceptions->counts() : nullptr;
}

std::optional<std::string> optionOf(const profile& all, const std::string& option) {
  if (!all.run) {
    return {};
  }
  const auto found = all.run->options.find(option);
  return found == all.run->options.end() ? std::nullopt : std::optional(found->second);
}

bool isOn(const profile& all, const std::string& option) {
  return strcasecmp(optionOf(all, option).value_or("").c_str(), "true") == 0;
}

void filter(profile& all, const std::string& text) {
  all.isFiltered = true;
  for (lockReport& report : all.lockReports) {
    std::erase_if(report.locks, [&](const lockEntry& lock) {
      return !contains(lock.name, text) &&
             std::none_of(lock.threads.begin(), lock.threads.end(), [&](const threadEntry& one) {
               return contains(one.name, text) || contains(one.stacks, all.stacks, text);
             });
    });
    std::erase_if(report.blockers, [&](const blockerEntry& one) {
      return !contains(one.name, text) && !contains(one.stacks, all.stacks, text);
    });
    std::erase_if(report.stacksOfNoLock,
                  [&](std::uint64_t stack) { return !contains(stack, all.stacks, text); });
  }
  for (contentionReport& report : all.contentionReports) {
    keepLocks(report, [&](const std::string& in) { return contains(in, text); });
  }
  for (allocationSession& session : all.allocations) {
    keepAllocations(session, [&](const std::string& in) { return contains(in, text); });
  }
  for (memoryReport& report : all.memoryReports) {
    std::erase_if(report.classes, [&](const classEntry& one) { return !contains(one.name, text); });
  }
  if (all.exceptions) {
    all.exceptions->keepIf([&](const exceptionRecord& one) { return contains(one, text); },
                           [&](const std::string& name) { return contains(name, text); });
  }
}

bool holdsAny(const profile& all) {
  const exceptionCounts* counts = countsOf(all);
  return (all.exceptions && all.exceptions->size() > 0) ||
         (counts != nullptr && !(counts->sites.empty() && counts->classes.empty())) ||
         std::any_of(all.lockReports.begin(), all.lockReports.end(),
                     [](const lockReport& one) {
                       return !one.locks.empty() || !one.blockers.empty() ||
                              !one.stacksOfNoLock.empty();
                     }) ||
         std::any_of(all.contentionReports.begin(), all.contentionReports.end(), holdsLocks) ||
         std::any_of(all.allocations.begin(), all.allocations.end(), holdsAllocations) ||
         std::any_of(all.memoryReports.begin(), all.memoryReports.end(),
                     [](const memoryReport& one) { return !one.classes.empty(); });
}

bool matches(std::string_view pattern, std::string_view name) {
  std::size_t star = pattern.npos;  // the last one that was met, and what it stands for so far
  std::size_t mark = 0;
  std::size_t p = 0;
  std::size_t n = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      mark = n;
    } else if (p < pattern.size() && pattern[p] == name[n]) {
      p++;
      n++;
    } else if (star != pattern.npos) {
      p = star + 1;
      n = ++mark;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', p) == pattern.npos;
}

}  // namespace viewer
