// What the system shows of a process that may be a JVM. One thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"

namespace control {

inline constexpr const char* kLibraryName = "libjavanativeagent.so";
inline constexpr const char* kJarName = "javanativeagent.jar";

// As whom a process acts.
struct identity {
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> groups;  // supplementary
};

// A text of another process for the terminal: "?" in place of each control character.
std::string printable(std::string text);

// The process keeps its folder open: once it has ended nothing can be read any more, even when
// another one gets its number.
class process {
 public:
  // Every process that there is at the moment, by number; `folder` is that of the kernel.
  static std::vector<pid_t> all(const std::string& folder = "/proc");

  // Throws a failure when there is no such process, or not to be seen.
  explicit process(pid_t number, std::string folder = "/proc");

  pid_t number() const { return number_; }
  // As itself and others in its container see it.
  pid_t innerNumber() const { return innerNumber_; }
  const identity& owner() const { return owner_; }

  // Whether it has not ended.
  bool isAlive() const;
  // Whether it was stopped by a signal or a debugger, so that it does nothing at the moment.
  bool isStopped() const;
  // Whether it catches SIGQUIT, which ends a process that does not.
  bool catchesQuit() const;

  // The words that it was started with.
  std::vector<std::string> words() const;
  // The same in one printable text, without those that profiling has added.
  std::string command() const;
  // A variable of the environment that it was started with; empty for none, or when it is secret.
  std::string variable(std::string_view name) const;

  // The path of the mapped file with this name, as the process itself has it; without "(deleted)".
  // Throws a failure when its files may not be seen.
  std::optional<std::string> mapped(std::string_view name) const;
  // Whether a mapped file's name begins so.
  bool mapsNameLike(std::string_view start) const;
  // Whether it has a file with this name open, which may be deleted.
  bool hasOpen(std::string_view name) const;

  // Its folder for /, relative to which its paths are meant; its working directory; the program
  // that runs. Throw a failure when they cannot be opened.
  descriptor root() const;
  descriptor workingDirectory() const;
  descriptor program() const;
  // The path that leads to its root, as in /proc/12/root.
  std::string rootPath() const { return folder_ + "/root"; }

  // Sends a signal; false with errno when that cannot be done.
  bool signal(int signal) const;

 private:
  std::string read(const char* file) const;
  std::string statusLine(const std::string& status, std::string_view key) const;
  std::string linkOf(const char* file) const;
  descriptor openIn(const char* file, int flags) const;
  std::string withoutRoot(std::string path) const;

  pid_t number_;
  std::string folder_;
  descriptor open_;
  pid_t innerNumber_ = 0;
  identity owner_;
};

}  // namespace control
