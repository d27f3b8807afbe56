// Files where another process sees them, in a container or not. What this program does there it
// does as the process's user, and links lead nowhere outside of the process's root. One thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "descriptor.h"
#include "failure.h"
#include "process.h"

namespace control {

// Has this program act as that user from now on, when it is root's. Throws a failure when that
// cannot be.
void actAs(const identity& user);

class targetFiles {
 public:
  // Throws a failure when its files may not be seen.
  explicit targetFiles(const process& target);

  // Opens what the process has at this absolute path; empty, with errno, when that cannot be done.
  descriptor open(const std::string& path, int flags) const;
  // The same, but a link at the end of the path is not followed.
  descriptor openItself(const std::string& path, int flags) const;
  // Whether the process has the same file or folder there as this program.
  bool isShared(const std::string& path) const;
  // The path from here of what the process has at `path`.
  std::string seenFromOutside(const std::string& path) const;
  // For the user: the path from here, with that of the process if it is another one.
  std::string shown(const std::string& path) const;
  // Makes the folder and those above it as far as they are missing, for this user alone. False,
  // with errno, when that cannot be done.
  bool makeFolders(const std::string& path) const;

 private:
  descriptor root_;
  std::string rootPath_;
};

// A new folder for this user alone, which is deleted with what it holds at the end of its owner.
class privateFolder {
 public:
  // In the folder `parent` of the process, with a name that begins with `prefix`; empty, with
  // errno, when that cannot be done.
  static std::optional<privateFolder> in(const targetFiles& target, const std::string& parent,
                                         std::string_view prefix = kPrefix);

  privateFolder(privateFolder&& other) noexcept;
  privateFolder& operator=(privateFolder&& other) = delete;
  ~privateFolder();

  // As the process sees it, absolute.
  const std::string& path() const { return path_; }
  // Whether it stays.
  void keep(bool isKept = true) { isKept_ = isKept; }

  // Throw a failure when the file cannot be made. What is copied stands in `in`, named `from`.
  void write(const std::string& name, std::string_view text) const;
  void copy(const std::string& name, const descriptor& in, const std::string& from) const;
  // The file, if there is one; no more than `most` bytes.
  std::optional<std::string> read(const std::string& name, std::size_t most) const;

  // Whether its files can be executed, as a library has to be.
  bool isExecutable() const;

  // What its name begins with.
  static constexpr std::string_view kPrefix = "twprofile-";

 private:
  privateFolder(descriptor parent, std::string name, descriptor open, std::string path);
  descriptor make(const std::string& name) const;
  failure cannotWrite(const std::string& name) const;

  descriptor parent_;
  std::string name_;
  descriptor open_;
  std::string path_;
  bool isKept_ = false;
};

}  // namespace control
