#include "runInputs.h"

#include <glob.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <system_error>
#include <utility>

#include "archive.h"
#include "runFolders.h"
#include "utf8.h"

namespace viewer {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRun = "run.json";

std::string nameOf(const fs::path& file) {
  return toUtf8(file.string());
}

// What the pattern stands for; none when nothing has such a name.
std::vector<fs::path> matchesOf(const fs::path& pattern) {
  std::vector<fs::path> result;
  if (pattern.string().find_first_of("*?[") == std::string::npos) {
    return result;
  }
  glob_t found{};
  if (::glob(pattern.c_str(), 0, nullptr, &found) == 0) {
    result.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
  }
  globfree(&found);
  return result;
}

bool hasReports(const fs::path& folder) {
  const auto entries = fs::directory_iterator(folder);
  return std::any_of(begin(entries), end(entries), [](const fs::directory_entry& entry) {
    const std::string name = entry.path().filename();
    return entry.is_regular_file() && !isArchive(entry.path()) &&
           (name.ends_with(".json") || name.ends_with(".jsonl"));
  });
}

// The runs and archives in a folder that is not a run itself.
std::vector<runPlace> placesIn(const fs::path& folder) {
  std::vector<runPlace> result;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    if (isLinkOfOthers(entry)) {
      continue;
    }
    if (entry.is_directory() && isRun(entry.path())) {
      result.push_back({entry.path()});
    } else if (entry.is_regular_file() && isArchive(entry.path())) {
      result.push_back({entry.path(), true});
    }
  }
  if (result.empty() && hasReports(folder)) {
    result.push_back({folder});
  }
  return result;
}

std::vector<runPlace> placesOfOne(const fs::path& input) {
  if (!fs::is_directory(input)) {
    if (!fs::exists(input)) {
      throw inputError(nameOf(input) + ": cannot be read: No such file or directory");
    }
    if (!isArchive(input)) {
      throw inputError(nameOf(input) + ": expected the folder of a run or a .tar.gz");
    }
    return {{input, true}};
  }
  if (isRun(input)) {
    return {{input}};
  }
  std::vector<runPlace> places = placesIn(input);
  if (places.empty()) {
    throw inputError(nameOf(input) +
                     ": expected runs in the folder (run-* or *.tar.gz), found none");
  }
  return places;
}

// The run that a file of an archive is of: its folder.
fs::path runOf(const fs::path& file) {
  return file.lexically_normal().parent_path();
}

// Whether a file of an archive may belong to a run: lists and logs lie beside the runs, too.
bool mayBeOfRun(const fs::path& file) {
  const std::string name = file.filename();
  const fs::path ending = file.extension() == ".part" ? file.stem().extension() : file.extension();
  return !name.starts_with('.') &&
         (ending == ".json" || ending == ".jsonl" || ending == ".stacks" || ending == ".growth" ||
          ending == ".paths" || ending == ".sweeps");
}

std::string runName(const fs::path& archive, const fs::path& folder) {
  return nameOf(folder.empty() ? archive.filename() : folder);
}

// Hands over the files of an archive as runs.
class archivedRuns {
 public:
  archivedRuns(const fs::path& archive, const std::function<void(profile run)>& visit)
      : archive_(archive), visit_(visit) {}

  void add(const fs::path& file, std::string text) {
    const fs::path folder = runOf(file);
    if (!run_ || folder != folder_) {
      finish();
      begin(folder);
    }
    addFile(*run_, {archive_ / file.lexically_normal(),
                    std::make_shared<const std::string>(std::move(text))});
  }

  // After the last file, with what is wrong with the archive.
  void end(const std::vector<std::string>& problems) {
    if (!problems.empty() && !run_) {
      begin(archive_.filename());
    }
    if (run_) {
      run_->problems.insert(run_->problems.end(), problems.begin(), problems.end());
    }
    finish();
  }

 private:
  void begin(const fs::path& folder) {
    folder_ = folder;
    run_.emplace();
    run_->name = runName(archive_, folder);
    if (!folders_.insert(folder).second) {
      run_->problems.push_back(nameOf(archive_ / folder) +
                               ": expected the files of a run one after the other");
    }
  }

  void finish() {
    if (run_) {
      visit_(*std::exchange(run_, std::nullopt));
    }
  }

  const fs::path& archive_;
  const std::function<void(profile run)>& visit_;
  std::set<fs::path> folders_;
  fs::path folder_;
  std::optional<profile> run_;
};

}  // namespace

std::vector<runPlace> placesOf(const std::vector<fs::path>& inputs,
                               std::vector<std::string>& problems) {
  std::vector<runPlace> places;
  const auto add = [&](const fs::path& input) {
    try {
      const std::vector<runPlace> found = placesOfOne(input);
      places.insert(places.end(), found.begin(), found.end());
    } catch (const inputError& e) {
      problems.push_back(e.what());
    } catch (const fs::filesystem_error& e) {
      problems.push_back(nameOf(input) + ": cannot be read: " + e.code().message());
    }
  };
  for (const fs::path& input : inputs) {
    std::error_code problem;
    const std::vector<fs::path> matches =
        fs::exists(input, problem) ? std::vector<fs::path>() : matchesOf(input);
    if (matches.empty()) {
      add(input);
    }
    std::for_each(matches.begin(), matches.end(), add);
  }
  // A folder may come by more ways than one.
  std::set<fs::path> known;
  std::erase_if(places, [&](const runPlace& place) {
    std::error_code problem;
    const fs::path one = fs::canonical(place.path, problem);
    return !known.insert(problem ? place.path : one).second;
  });
  std::sort(places.begin(), places.end(), [](const runPlace& left, const runPlace& right) {
    return strverscmp(left.path.c_str(), right.path.c_str()) < 0;
  });
  return places;
}

std::vector<std::string> hostsIn(const runPlace& place) {
  std::vector<profile> runs;  // of which only run.json is read
  const auto addAbout = [&](const inputFile& file) { addFile(runs.back(), file); };
  if (!place.isArchive) {
    runs.emplace_back();
    std::error_code problem;
    if (fs::exists(place.path / kRun, problem)) {
      addAbout({place.path / kRun});
    }
  } else {
    fs::path folder;
    const auto isAbout = [&](const fs::path& file) {
      if (mayBeOfRun(file) && (runs.empty() || runOf(file) != folder)) {
        folder = runOf(file);
        runs.emplace_back().name = runName(place.path, folder);
      }
      return file.filename() == kRun;
    };
    try {
      readArchive(place.path, isAbout, [&](const fs::path& file, std::string text) {
        addAbout({file, std::make_shared<const std::string>(std::move(text))});
      });
    } catch (const inputError&) {
      // readRunsIn() reports it.
    }
  }
  std::vector<std::string> hosts;
  hosts.reserve(runs.size());
  for (const profile& run : runs) {
    hosts.push_back(hostOf(place, run).name);
  }
  return hosts;
}

void readRunsIn(const runPlace& place, const std::function<void(profile run)>& visit) {
  if (!place.isArchive) {
    profile run;
    try {
      run = readRun(place.path);
    } catch (const fs::filesystem_error& e) {
      run.problems.push_back(nameOf(place.path) + ": cannot be read: " + e.code().message());
    }
    visit(std::move(run));
    return;
  }
  archivedRuns runs(place.path, visit);
  std::vector<std::string> problems;
  try {
    readArchive(place.path, mayBeOfRun,
                [&](const fs::path& file, std::string text) { runs.add(file, std::move(text)); });
  } catch (const inputError& e) {
    problems.push_back(e.what());
  }
  runs.end(problems);
}

hostName hostOf(const runPlace& place, const profile& run) {
  if (run.run && !run.run->host.value_or("").empty()) {
    return {*run.run->host};
  }
  const std::string path = nameOf(place.path.lexically_normal());
  return {place.isArchive && !run.name.empty() ? path + '/' + run.name : path, false};
}

}  // namespace viewer
