#include "targetFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <memory>
#include <utility>
#include <vector>

#include "failure.h"

namespace control {

namespace {

constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr mode_t kCopyMode = 0500;

constexpr int kMostLinks = 40;  // as the kernel has it

// What a link names; empty when it is none.
std::string linkOf(const descriptor& link) {
  std::array<char, PATH_MAX> target;
  const ssize_t length = ::readlinkat(link.get(), "", target.data(), target.size());
  return length < 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(length));
}

// Opens a path as a process with this root does: name by name, as absolute links and ".." would
// lead elsewhere from here. Empty, with errno, when that cannot be done.
descriptor openInRoot(int root, const std::string& path, int flags) {
  std::vector<descriptor> above;  // the folders on the way, without the root
  std::string rest = path;
  int links = 0;
  for (;;) {
    const int folder = above.empty() ? root : above.back().get();
    const std::size_t start = std::min(rest.find_first_not_of('/'), rest.size());
    const std::size_t end = std::min(rest.find('/', start), rest.size());
    const std::string name = rest.substr(start, end - start);
    rest.erase(0, end);
    if (name.empty()) {
      return descriptor(::openat(folder, ".", flags | O_CLOEXEC));
    }
    if (name == "." || name == "..") {
      if (name == ".." && !above.empty()) {
        above.pop_back();
      }
      continue;
    }
    descriptor next(::openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat now = {};
    if (!next || ::fstat(next.get(), &now) != 0) {
      return {};
    }
    if (S_ISLNK(now.st_mode)) {
      const std::string target = linkOf(next);
      if (target.empty() || ++links > kMostLinks) {
        errno = ELOOP;
        return {};
      }
      if (target[0] == '/') {
        above.clear();
      }
      rest.insert(0, target);
    } else if (rest.find_first_not_of('/') == std::string::npos && !S_ISDIR(now.st_mode)) {
      return descriptor(::openat(folder, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
    } else {
      above.push_back(std::move(next));
    }
  }
}

bool areSame(int one, int other) {
  struct stat a = {};
  struct stat b = {};
  return ::fstat(one, &a) == 0 && ::fstat(other, &b) == 0 && a.st_dev == b.st_dev &&
         a.st_ino == b.st_ino;
}

std::string randomLetters() {
  constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyz012345";
  std::array<unsigned char, 10> random{};
  if (::getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) {
    throw failure("cannot get random numbers: " + reasonOf(errno));
  }
  std::string letters;
  for (const unsigned char each : random) {
    letters += kLetters[each % kLetters.size()];
  }
  return letters;
}

bool writeAll(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(file, text.data(), text.size());
    if (count < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(count < 0 ? 0 : static_cast<std::size_t>(count));
  }
  return true;
}

std::string parentOf(const std::string& path) {
  const std::size_t end = path.rfind('/');
  return end == 0 ? "/" : path.substr(0, end);
}

}  // namespace

void actAs(const identity& user) {
  if (::geteuid() != 0 || (user.user == 0 && user.group == ::getegid())) {
    return;
  }
  if (::setgroups(user.groups.size(), user.groups.data()) != 0 || ::setegid(user.group) != 0 ||
      ::seteuid(user.user) != 0) {
    throw failure("cannot act as user " + std::to_string(user.user) + ": " + reasonOf(errno));
  }
}

targetFiles::targetFiles(const process& target)
    : root_(target.root()), rootPath_(target.rootPath()) {}

descriptor targetFiles::open(const std::string& path, int flags) const {
  return openInRoot(root_.get(), path, flags);
}

descriptor targetFiles::openItself(const std::string& path, int flags) const {
  const descriptor parent = open(parentOf(path), O_PATH | O_DIRECTORY);
  const std::string name = path.substr(path.rfind('/') + 1);
  return descriptor(parent ? ::openat(parent.get(), name.empty() ? "." : name.c_str(),
                                      flags | O_NOFOLLOW | O_CLOEXEC)
                           : -1);
}

bool targetFiles::isShared(const std::string& path) const {
  const descriptor theirs = open(path, O_PATH);
  const descriptor ours(::open(path.c_str(), O_PATH | O_CLOEXEC));
  return theirs && ours && areSame(theirs.get(), ours.get());
}

std::string targetFiles::seenFromOutside(const std::string& path) const {
  return isShared(path) ? path : rootPath_ + path;
}

std::string targetFiles::shown(const std::string& path) const {
  const std::string outside = seenFromOutside(path);
  return outside == path ? path : outside + ", which the JVM sees as " + path;
}

bool targetFiles::makeFolders(const std::string& path) const {
  if (open(path, O_PATH | O_DIRECTORY)) {
    return true;
  }
  if (errno != ENOENT || path == "/" || !makeFolders(parentOf(path))) {
    return false;
  }
  const descriptor parent = open(parentOf(path), O_PATH | O_DIRECTORY);
  return parent &&
         (::mkdirat(parent.get(), path.substr(path.rfind('/') + 1).c_str(), kFolderMode) == 0 ||
          errno == EEXIST);
}

std::optional<privateFolder> privateFolder::in(const targetFiles& target, const std::string& parent,
                                               std::string_view prefix) {
  descriptor above = target.open(parent, O_PATH | O_DIRECTORY);
  std::string name = std::string(prefix) + randomLetters();
  if (!above || ::mkdirat(above.get(), name.c_str(), kFolderMode) != 0) {
    return std::nullopt;
  }
  descriptor made(
      ::openat(above.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat now = {};
  if (!made || ::fstat(made.get(), &now) != 0 || now.st_uid != ::geteuid()) {
    return std::nullopt;
  }
  std::string path = (parent == "/" ? "" : parent) + '/' + name;
  return privateFolder(std::move(above), std::move(name), std::move(made), std::move(path));
}

privateFolder::privateFolder(descriptor parent, std::string name, descriptor open, std::string path)
    : parent_(std::move(parent)),
      name_(std::move(name)),
      open_(std::move(open)),
      path_(std::move(path)) {}

privateFolder::privateFolder(privateFolder&& other) noexcept
    : parent_(std::move(other.parent_)),
      name_(std::move(other.name_)),
      open_(std::move(other.open_)),
      path_(std::move(other.path_)),
      isKept_(std::exchange(other.isKept_, true)) {}

privateFolder::~privateFolder() {
  if (isKept_) {
    return;
  }
  const int copy = ::dup(open_.get());
  DIR* const files = copy < 0 ? nullptr : ::fdopendir(copy);
  if (files != nullptr) {
    ::rewinddir(files);
  }
  while (const dirent* const entry = files == nullptr ? nullptr : ::readdir(files)) {
    ::unlinkat(open_.get(), entry->d_name, 0);  // fails for "." and ".."
  }
  if (files != nullptr) {
    ::closedir(files);
  }
  ::unlinkat(parent_.get(), name_.c_str(), AT_REMOVEDIR);
}

void privateFolder::write(const std::string& name, std::string_view text) const {
  const descriptor file = make(name);
  if (!writeAll(file.get(), text)) {
    throw cannotWrite(name);
  }
}

void privateFolder::copy(const std::string& name, const descriptor& in,
                         const std::string& from) const {
  const descriptor out = make(name);
  std::vector<char> piece(1 << 16);
  for (;;) {
    const ssize_t count = ::read(in.get(), piece.data(), piece.size());
    if (count < 0 && errno != EINTR) {
      throw failure("cannot read '" + from + "': " + reasonOf(errno));
    }
    if (count == 0) {
      break;
    }
    if (count > 0 && !writeAll(out.get(), {piece.data(), static_cast<std::size_t>(count)})) {
      throw cannotWrite(name);
    }
  }
  ::fchmod(out.get(), kCopyMode);
}

std::optional<std::string> privateFolder::read(const std::string& name, std::size_t most) const {
  const descriptor file(
      ::openat(open_.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat now = {};
  if (!file || ::fstat(file.get(), &now) != 0 || !S_ISREG(now.st_mode)) {
    return std::nullopt;
  }
  std::string text(most, '\0');
  std::size_t length = 0;
  while (length < most) {
    const ssize_t count = ::read(file.get(), text.data() + length, most - length);
    if (count == 0 || (count < 0 && errno != EINTR)) {
      break;
    }
    length += count < 0 ? 0 : static_cast<std::size_t>(count);
  }
  text.resize(length);
  return text;
}

bool privateFolder::isExecutable() const {
  struct statvfs system = {};
  return ::fstatvfs(open_.get(), &system) != 0 || (system.f_flag & ST_NOEXEC) == 0;
}

descriptor privateFolder::make(const std::string& name) const {
  descriptor file(::openat(open_.get(), name.c_str(),
                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (!file) {
    throw cannotWrite(name);
  }
  return file;
}

failure privateFolder::cannotWrite(const std::string& name) const {
  return failure("cannot write '" + path_ + '/' + name + "': " + reasonOf(errno));
}

}  // namespace control
