#include "processes.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>

namespace watch {
namespace {

std::string pathOf(pid_t process, const char* file) {
  return "/proc/" + std::to_string(process) + '/' + file;
}

// None when it cannot be read.
std::optional<std::string> contentOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    return {};
  }
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return in.bad() ? std::nullopt : std::optional(std::move(text));
}

std::vector<pid_t> allProcesses() {
  std::vector<pid_t> result;
  for (const int number : numbersIn("/proc")) {
    if (number > 0) {
      result.push_back(number);
    }
  }
  return result;
}

struct processStat {
  char state = 'X';
  pid_t parent = 0;
  std::uint64_t start = 0;
};

// The name of the command, which comes before, may have blanks and brackets of its own.
processStat statOf(pid_t process) {
  constexpr int kBetween = 17;  // fields between the parent and the start
  const std::string text = contentOf(pathOf(process, "stat")).value_or("");
  const std::size_t end = text.rfind(')');
  processStat result;
  if (end == text.npos) {
    return result;
  }
  std::istringstream fields(text.substr(end + 1));
  fields >> result.state >> result.parent;
  std::string skipped;
  for (int i = 0; i < kBetween; i++) {
    fields >> skipped;
  }
  fields >> result.start;
  return result;
}

}  // namespace

std::vector<int> numbersIn(const char* path) {
  std::vector<int> result;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path), closedir);
  if (folder == nullptr) {
    return result;
  }
  while (const dirent* entry = readdir(folder.get())) {
    if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') {
      result.push_back(static_cast<int>(std::strtol(entry->d_name, nullptr, 10)));
    }
  }
  return result;
}

std::vector<pid_t> familyOf(pid_t ancestor) {
  std::vector<std::pair<pid_t, pid_t>> others;  // with their parents
  for (const pid_t process : allProcesses()) {
    others.emplace_back(process, statOf(process).parent);
  }
  std::vector<pid_t> family = {ancestor};
  for (std::size_t i = 0; i < family.size(); i++) {
    for (const auto& [process, parent] : others) {
      const bool isIn = std::find(family.begin(), family.end(), process) != family.end();
      if (parent == family[i] && !isIn) {
        family.push_back(process);
      }
    }
  }
  return family;
}

bool hasEnded(pid_t process) {
  const char state = statOf(process).state;
  return state == 'X' || state == 'Z';
}

std::uint64_t startOf(pid_t process) {
  return statOf(process).start;
}

std::string commandOf(pid_t process) {
  constexpr std::size_t kStart = 40;  // class paths are long, and what comes after them counts
  constexpr std::size_t kEnd = 50;
  std::string words = contentOf(pathOf(process, "cmdline")).value_or("");
  while (!words.empty() && words.back() == '\0') {
    words.pop_back();
  }
  std::replace_if(
      words.begin(), words.end(), [](unsigned char c) { return c < ' ' || c == 127; }, ' ');
  return words.size() <= kStart + kEnd
             ? words
             : words.substr(0, kStart) + "..." + words.substr(words.size() - kEnd);
}

environment searchEnvironment(pid_t process, const std::string& text) {
  const std::optional<std::string> all = contentOf(pathOf(process, "environ"));
  if (!all) {
    return environment::unreadable;
  }
  return all->find(text) == all->npos ? environment::lacksText : environment::hasText;
}

std::vector<pid_t> processesWith(const std::string& text) {
  std::vector<pid_t> result = allProcesses();
  std::erase_if(result, [&](pid_t process) {
    return process == getpid() || hasEnded(process) ||
           searchEnvironment(process, text) != environment::hasText;
  });
  return result;
}

bool isJvmWithout(pid_t process, const std::string& library) {
  const std::optional<std::string> mapped = contentOf(pathOf(process, "maps"));
  if (mapped && !mapped->empty()) {
    return mapped->find("/libjvm.so") != mapped->npos && mapped->find(library) == mapped->npos;
  }
  const std::string words = contentOf(pathOf(process, "cmdline")).value_or("");
  const std::string program = words.substr(0, words.find('\0'));
  return program.substr(program.rfind('/') + 1) == "java";
}

uid_t userOf(pid_t process) {
  struct stat found {};
  return stat(pathOf(process, "").c_str(), &found) == 0 ? found.st_uid : getuid();
}

}  // namespace watch
