#include "process.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <memory>
#include <sstream>

#include "failure.h"

namespace control {

namespace {

constexpr std::string_view kDeleted = " (deleted)";

struct closeFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};
using openFolder = std::unique_ptr<DIR, closeFolder>;

std::string_view nameIn(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

std::string_view withoutDeleted(std::string_view path) {
  return path.ends_with(kDeleted) ? path.substr(0, path.size() - kDeleted.size()) : path;
}

// The path in a line of `maps`; empty for none.
std::string_view pathIn(std::string_view line) {
  const std::size_t start = line.find('/');
  return start == std::string_view::npos ? std::string_view() : line.substr(start);
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  std::istringstream in(text);
  for (std::string piece; std::getline(in, piece, separator);) {
    pieces.push_back(piece);
  }
  return pieces;
}

template <typename Number>
std::vector<Number> numbersIn(const std::string& text) {
  std::vector<Number> numbers;
  std::istringstream in(text);
  for (Number number; in >> number;) {
    numbers.push_back(number);
  }
  return numbers;
}

bool isAdded(std::string_view word, std::string_view option, const std::string& file) {
  if (!word.starts_with(option)) {
    return false;
  }
  const std::string_view path = word.substr(option.size(), word.find('=') - option.size());
  return path.ends_with('/' + file);
}

}  // namespace

std::vector<pid_t> process::all(const std::string& folder) {
  std::vector<pid_t> numbers;
  const openFolder processes(::opendir(folder.c_str()));
  if (!processes) {
    throw failure("cannot read " + folder + ": " + reasonOf(errno));
  }
  while (const dirent* const entry = ::readdir(processes.get())) {
    const std::string_view name = entry->d_name;
    pid_t number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (error == std::errc() && end == name.data() + name.size()) {
      numbers.push_back(number);
    }
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

process::process(pid_t number, std::string folder)
    : number_(number), folder_(std::move(folder) + '/' + std::to_string(number)) {
  open_ = descriptor(::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::string status = open_ ? read("status") : std::string();
  const std::vector<uid_t> users = numbersIn<uid_t>(statusLine(status, "Uid:"));
  const std::vector<gid_t> groups = numbersIn<gid_t>(statusLine(status, "Gid:"));
  if (users.size() < 2 || groups.size() < 2) {
    throw failure("no such process: " + std::to_string(number) + "; see: twprofile list");
  }
  owner_.user = users[1];  // the effective one, as in the group
  owner_.group = groups[1];
  owner_.groups = numbersIn<gid_t>(statusLine(status, "Groups:"));
  const std::vector<pid_t> numbers = numbersIn<pid_t>(statusLine(status, "NSpid:"));
  innerNumber_ = numbers.empty() ? number : numbers.back();
}

bool process::isAlive() const {
  const std::string state = statusLine(read("status"), "State:");
  return !state.empty() && state[0] != 'Z' && state[0] != 'X';
}

bool process::isStopped() const {
  const std::string state = statusLine(read("status"), "State:");
  return !state.empty() && (state[0] == 'T' || state[0] == 't');
}

bool process::catchesQuit() const {
  const std::string mask = statusLine(read("status"), "SigCgt:");
  unsigned long long caught = 0;
  std::from_chars(mask.data(), mask.data() + mask.size(), caught, 16);
  return (caught >> (SIGQUIT - 1) & 1U) == 1;
}

std::string printable(std::string text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool isSecondOfC1 = i > 0 && text[i - 1] == '\xc2' && byte >= 0x80 && byte < 0xa0;
    if (isSecondOfC1) {
      text[i - 1] = '?';
    }
    if (byte < 0x20 || byte == 0x7f || isSecondOfC1) {
      text[i] = '?';
    }
  }
  return text;
}

std::vector<std::string> process::words() const {
  return split(read("cmdline"), '\0');
}

std::string process::command() const {
  std::string command;
  for (const std::string& word : words()) {
    if (!isAdded(word, "-agentpath:", kLibraryName) && !isAdded(word, "-javaagent:", kJarName)) {
      command += command.empty() ? "" : " ";
      command += word;
    }
  }
  return printable(command);
}

std::string process::variable(std::string_view name) const {
  for (const std::string& each : split(read("environ"), '\0')) {
    if (each.size() > name.size() && each.starts_with(name) && each[name.size()] == '=') {
      return each.substr(name.size() + 1);
    }
  }
  return {};
}

std::optional<std::string> process::mapped(std::string_view name) const {
  const descriptor isReadable = openIn("maps", O_RDONLY);
  for (const std::string& line : split(read("maps"), '\n')) {
    const std::string_view path = withoutDeleted(pathIn(line));
    if (!path.empty() && nameIn(path) == name) {
      return withoutRoot(std::string(path));
    }
  }
  return std::nullopt;
}

bool process::mapsNameLike(std::string_view start) const {
  const std::vector<std::string> lines = split(read("maps"), '\n');
  return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
    return nameIn(pathIn(line)).starts_with(start);
  });
}

// A JVM keeps the jars that it has loaded classes from open.
bool process::hasOpen(std::string_view name) const {
  const openFolder files(
      ::fdopendir(::openat(open_.get(), "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  while (const dirent* const entry = files ? ::readdir(files.get()) : nullptr) {
    const std::string path = linkOf((std::string("fd/") + entry->d_name).c_str());
    if (path.starts_with('/') && nameIn(withoutDeleted(path)) == name) {
      return true;
    }
  }
  return false;
}

descriptor process::root() const {
  return openIn("root", O_PATH | O_DIRECTORY);
}

descriptor process::workingDirectory() const {
  return openIn("cwd", O_PATH | O_DIRECTORY);
}

descriptor process::program() const {
  return openIn("exe", O_RDONLY);
}

bool process::signal(int signal) const {
#ifdef SYS_pidfd_send_signal
  if (::syscall(SYS_pidfd_send_signal, open_.get(), signal, nullptr, 0) == 0) {
    return true;
  }
  if (errno != ENOSYS && errno != EBADF) {
    return false;
  }
#endif
  return ::kill(number_, signal) == 0;
}

// Empty for what cannot be read.
std::string process::read(const char* file) const {
  std::string text;
  const descriptor in(::openat(open_.get(), file, O_RDONLY | O_CLOEXEC));
  std::array<char, 16384> piece;
  while (in) {
    const ssize_t count = ::read(in.get(), piece.data(), piece.size());
    if (count > 0) {
      text.append(piece.data(), static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      break;
    }
  }
  return text;
}

std::string process::statusLine(const std::string& status, std::string_view key) const {
  for (const std::string& line : split(status, '\n')) {
    if (line.starts_with(key)) {
      const std::size_t start = line.find_first_not_of(" \t", key.size());
      return start == std::string::npos ? std::string() : line.substr(start);
    }
  }
  return {};
}

std::string process::linkOf(const char* file) const {
  std::array<char, 4096> path;
  const ssize_t length = ::readlinkat(open_.get(), file, path.data(), path.size());
  return length < 0 ? std::string() : std::string(path.data(), static_cast<std::size_t>(length));
}

descriptor process::openIn(const char* file, int flags) const {
  descriptor opened(::openat(open_.get(), file, flags | O_CLOEXEC));
  if (!opened && (errno == ENOENT || errno == ESRCH)) {
    throw failure("no such process: " + std::to_string(number_) + "; see: twprofile list");
  }
  if (!opened) {
    throw failure("cannot inspect process " + std::to_string(number_) + ": " + reasonOf(errno));
  }
  return opened;
}

// The system shows paths as they are from here, with what stands before the root that was changed.
std::string process::withoutRoot(std::string path) const {
  const std::string root = linkOf("root");
  const bool isBelow = root.size() > 1 && path.starts_with(root + '/');
  return isBelow ? path.substr(root.size()) : path;
}

}  // namespace control
