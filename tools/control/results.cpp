#include "results.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

namespace control {

namespace {

namespace fs = std::filesystem;

constexpr const char* kDefault = "twprofile-out";
constexpr const char* kElsewhere = "/tmp/twprofile-out";
constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;

constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;

fs::path withoutSlashAtEnd(const fs::path& path) {
  return path.has_filename() ? path : path.parent_path();
}

fs::path absolute(const std::string& path) {
  return withoutSlashAtEnd(fs::weakly_canonical(fs::absolute(path)));
}

// Whether no link is on the way to the path as it is written, which is then `full`.
bool isWithoutLinks(const std::string& path, const std::string& full) {
  return withoutSlashAtEnd(fs::absolute(path).lexically_normal()) == full;
}

// Whether none but root and its owner can replace what root makes in the folder.
bool isSafe(const struct stat& folder, uid_t target) {
  const bool isSticky = (folder.st_mode & S_ISVTX) != 0;
  return folder.st_uid != target && (isSticky || (folder.st_mode & kWritableByOthers) == 0);
}

// The folder, when it is reached from the root through folders alone that are safe, as it is
// itself.
descriptor openSafely(const fs::path& path, uid_t target) {
  descriptor folder(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  const auto requireSafe = [&] {
    struct stat now = {};
    if (!folder || ::fstat(folder.get(), &now) != 0 || !isSafe(now, target)) {
      folder = {};
    }
  };
  requireSafe();
  for (const fs::path& name : path.relative_path()) {
    if (folder) {
      folder = descriptor(
          ::openat(folder.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      requireSafe();
    }
  }
  return folder;
}

}  // namespace

results::results(const process& target, const targetFiles& files, const std::string& given)
    : target_(target), files_(files), isGiven_(!given.empty()) {
  const std::string wanted = isGiven_ ? given : kDefault;
  isAbsolute_ = wanted.starts_with('/');
  path_ = absolute(wanted).string();
  std::vector<std::string> missing;
  fs::path there = path_;
  std::error_code ignored;
  for (; !fs::exists(there, ignored) && there.has_relative_path(); there = there.parent_path()) {
    missing.insert(missing.begin(), there.filename().string());
  }
  struct stat link = {};
  const bool isLinkOfOthers = !isGiven_ && ::lstat(wanted.c_str(), &link) == 0 &&
                              S_ISLNK(link.st_mode) && !isTrusted(link.st_uid);
  isShared_ = !isLinkOfOthers && files_.isShared(there.string());
  if (isShared_ && ::geteuid() == 0 && target_.owner().user != 0 && isWithoutLinks(wanted, path_)) {
    handOver(there.string(), missing);
  }
}

results::~results() {
  if (isKept_) {
    return;
  }
  if (const descriptor folder = files_.openItself(path_, O_PATH | O_DIRECTORY)) {
    if (!settings_.empty()) {
      ::unlinkat(folder.get(), settings_.c_str(), 0);
    }
    if (isNew_ && ::unlinkat(folder.get(), "logs", AT_REMOVEDIR) == 0) {
      const std::size_t slash = path_.rfind('/');
      const descriptor parent =
          files_.open(slash == 0 ? "/" : path_.substr(0, slash), O_PATH | O_DIRECTORY);
      ::unlinkat(parent.get(), path_.substr(slash + 1).c_str(), AT_REMOVEDIR);
    }
  }
  takeBack();
}

// Makes the missing folders for the JVM's user alone, even where that one could not. This user may
// be up to something: the folders are its own only when all are there, and are never found again by
// their names. Where it could replace one on the way, or a link may be its own, it makes them
// itself, as it settles.
void results::handOver(const std::string& existing, const std::vector<std::string>& missing) {
  descriptor folder = openSafely(existing, target_.owner().user);
  if (!folder) {
    return;
  }
  struct stat now = {};
  for (const std::string& name : missing) {
    if (::mkdirat(folder.get(), name.c_str(), kFolderMode) != 0) {
      break;  // settling finds out
    }
    descriptor made(
        ::openat(folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!made || ::fstat(made.get(), &now) != 0 || now.st_uid != 0 ||
        (now.st_mode & ALLPERMS) != kFolderMode) {
      break;
    }
    descriptor next(::fcntl(made.get(), F_DUPFD_CLOEXEC, 0));
    made_.push_back({std::move(folder), name, std::move(made)});
    folder = std::move(next);
  }
  for (auto each = made_.rbegin(); each != made_.rend(); ++each) {
    if (::fchown(each->self.get(), target_.owner().user, target_.owner().group) != 0) {
      return;
    }
  }
}

// Only root can do this where the JVM's user could not have made them.
bool results::takeBack() {
  const uid_t user = ::geteuid();
  if (made_.empty() || ::seteuid(0) != 0) {
    return true;
  }
  for (auto each = made_.rbegin(); each != made_.rend(); ++each) {
    ::unlinkat(each->parent.get(), each->name.c_str(), AT_REMOVEDIR);
  }
  made_.clear();
  return ::seteuid(user) == 0;
}

void results::settle() {
  if (isShared_) {
    const std::string obstacle = obstacleTo(path_);
    if (obstacle.empty()) {
      return;
    }
    if (!takeBack()) {
      throw failure("cannot act as the JVM's user: " + reasonOf(errno));
    }
    if (isGiven_) {
      throw cannotUse(path_, obstacle);
    }
    remark(path_, obstacle);
  }
  if (isGiven_) {
    if (!isAbsolute_) {
      throw cannotUse(path_, "the JVM does not see it; name a path as the JVM sees it, such as " +
                                 std::string(kElsewhere));
    }
    if (const std::string obstacle = obstacleTo(path_); !obstacle.empty()) {
      throw cannotUse(path_, obstacle);
    }
    return;
  }
  path_ = kElsewhere;
  const std::string obstacle = obstacleTo(path_);
  if (obstacle.empty()) {
    return;
  }
  std::optional<privateFolder> fresh =
      privateFolder::in(files_, "/tmp", std::string(kDefault) + '-');
  if (!fresh) {
    throw cannotUse(path_, obstacle);
  }
  remark(path_, obstacle);
  fresh->keep();
  path_ = fresh->path();
  if (const std::string reason = obstacleTo(path_); !reason.empty()) {
    throw cannotUse(path_, reason);
  }
  isNew_ = true;
}

// Why the folder cannot be used, or that for the agent's log in it; makes both where they are
// missing.
std::string results::obstacleTo(const std::string& path) {
  isNew_ = !made_.empty() || !files_.open(path, O_PATH);
  if (!files_.makeFolders(path)) {
    return errno == EACCES ? runner() + " cannot write there" : reasonOf(errno);
  }
  const descriptor folder = isGiven_ ? files_.open(path, O_PATH | O_DIRECTORY)
                                     : files_.openItself(path, O_PATH | O_DIRECTORY);
  if (!folder) {
    return errno == ENOTDIR || errno == ELOOP ? "not a folder" : reasonOf(errno);
  }
  if (::faccessat(folder.get(), ".", W_OK | X_OK, AT_EACCESS) != 0) {
    return runner() + " cannot write there";
  }
  if (std::string obstacle = isGiven_ ? "" : obstacleOf(folder); !obstacle.empty()) {
    return obstacle;
  }
  if (::mkdirat(folder.get(), "logs", kFolderMode) != 0 && errno != EEXIST) {
    return runner() + " cannot write there";
  }
  for (const char* const name : {"logs", "etc"}) {
    if (const std::string obstacle = obstacleIn(folder, name); !obstacle.empty()) {
      return std::string("its ") + name + ": " + obstacle;
    }
  }
  return {};
}

// In a folder of somebody else the results would be theirs, unless the user has named it.
std::string results::obstacleOf(const descriptor& folder) const {
  struct stat now = {};
  if (::fstat(folder.get(), &now) != 0) {
    return reasonOf(errno);
  }
  if (now.st_uid != target_.owner().user) {
    return "it belongs to user " + std::to_string(now.st_uid);
  }
  return (now.st_mode & kWritableByOthers) != 0 ? "users other than its owner can write there" : "";
}

// The same for one that the agent writes to or reads from in the folder; nothing when there is
// none.
std::string results::obstacleIn(const descriptor& folder, const char* name) const {
  const descriptor inner(
      ::openat(folder.get(), name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!inner) {
    return errno == ENOENT                      ? ""
           : errno == ENOTDIR || errno == ELOOP ? "not a folder"
                                                : reasonOf(errno);
  }
  struct stat outer = {};
  struct stat now = {};
  if (::fstat(folder.get(), &outer) != 0 || ::fstat(inner.get(), &now) != 0) {
    return reasonOf(errno);
  }
  if (isGiven_) {
    return now.st_uid == outer.st_uid || isTrusted(now.st_uid)
               ? ""
               : "it belongs to user " + std::to_string(now.st_uid);
  }
  return obstacleOf(inner);
}

bool results::isTrusted(uid_t user) const {
  return user == 0 || user == ::getuid() || user == target_.owner().user;
}

void results::remark(const std::string& path, const std::string& reason) {
  remarks_.push_back("'" + path + "' is not used: " + reason);
}

std::string results::runner() const {
  return "user " + std::to_string(target_.owner().user) + ", who runs the JVM,";
}

std::string results::home() const {
  if (path_.find(',') != std::string::npos) {
    throw failure("the path '" + path_ +
                  "' contains a comma, which separates the agent's options;" +
                  " choose another with -o DIR");
  }
  return path_;
}

std::string results::writeSettings(const std::string& lines) {
  std::array<char, 32> time{};
  const std::time_t now = std::time(nullptr);
  std::tm local = {};
  std::strftime(time.data(), time.size(), "%Y%m%d-%H%M%S", ::localtime_r(&now, &local));
  const std::string name = std::string("settings-") + time.data() + '-' +
                           std::to_string(target_.number()) + ".properties";
  const std::string text = "output=" + propertyValue(path_) + '\n' + lines;
  const descriptor folder = files_.open(path_, O_PATH | O_DIRECTORY);
  if (folder) {
    ::unlinkat(folder.get(), name.c_str(), 0);  // of an attempt in the same second
  }
  const descriptor file(folder ? ::openat(folder.get(), name.c_str(),
                                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                          kFileMode)
                               : -1);
  const auto length = static_cast<ssize_t>(text.size());
  if (!file || ::write(file.get(), text.data(), text.size()) != length) {
    throw failure("cannot write '" + path_ + '/' + name +
                  "': check the free space and the permissions");
  }
  settings_ = name;
  return path_ + '/' + name;
}

failure results::cannotUse(const std::string& path, const std::string& reason) const {
  return failure("JVM " + std::to_string(target_.number()) + " cannot use the output folder '" +
                 path + "' (" + reason + "); choose another with -o DIR");
}

std::string propertyValue(const std::string& text) {
  std::string value;
  for (const char each : text) {
    if (each == '\\' || (each == ' ' && value.empty())) {
      value += '\\';
      value += each;
    } else if (static_cast<unsigned char>(each) < ' ') {
      constexpr std::string_view kDigits = "0123456789abcdef";
      value += "\\u00";
      value += kDigits[static_cast<unsigned char>(each) >> 4];
      value += kDigits[static_cast<unsigned char>(each) & 15];
    } else {
      value += each;
    }
  }
  return value;
}

}  // namespace control
