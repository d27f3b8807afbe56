#include "attachment.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "attachSocket.h"
#include "failure.h"
#include "results.h"
#include "targetFiles.h"

namespace control {

namespace {

// What the agent's entry returns.
constexpr int kLoaded = 0;
constexpr int kAlreadyLoaded = 2;

// What that of the JVM's own library for Java agents returns.
constexpr int kBadJar = 100;
constexpr int kNotOnClassPath = 101;

std::string jvm(const process& target) {
  return "JVM " + std::to_string(target.number());
}

descriptor opened(const std::string& path) {
  descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) {
    throw failure("cannot read '" + path + "': " + reasonOf(errno));
  }
  return file;
}

// Library and jar where the JVM can read them: where they are, or copied into a folder of their
// own.
class placedFiles {
 public:
  placedFiles(const process& target, const targetFiles& files) : target_(target), files_(files) {}

  // The path that the JVM has the file at.
  std::string place(const std::string& path, const std::string& name, const descriptor& content,
                    bool hasToBeExecutable) {
    if (files_.isShared(path) && files_.open(path, O_RDONLY)) {
      return path;
    }
    if (!folder_) {
      makeFolder(hasToBeExecutable);
    }
    folder_->copy(name, content, path);
    return folder_->path() + '/' + name;
  }

  // Whether what was copied stays.
  void keep(bool isKept) {
    if (folder_) {
      folder_->keep(isKept);
    }
  }

 private:
  void makeFolder(bool hasToBeExecutable) {
    std::string refusals;
    for (const char* const parent : {"/tmp", "/var/tmp", "/dev/shm"}) {
      std::optional<privateFolder> made = privateFolder::in(files_, parent);
      const int error = errno;
      if (made && (!hasToBeExecutable || made->isExecutable())) {
        folder_.emplace(std::move(*made));
        return;
      }
      refusals += std::string(refusals.empty() ? "" : ", ") + parent + " (" +
                  (made ? "mounted noexec" : reasonOf(error)) + ')';
    }
    throw failure("cannot copy the agent to a folder of " + jvm(target_) + ": " + refusals);
  }

  const process& target_;
  const targetFiles& files_;
  std::optional<privateFolder> folder_;
};

// An agent that is set up already, as by an attempt that was interrupted, is as good.
void loadAgent(const process& target, const attachSocket& socket, const std::string& library,
               const std::string& options, results& results, placedFiles& placed) {
  const auto keep = [&](bool isKept) {
    results.keep(isKept);
    placed.keep(isKept);
  };
  const attachSocket::loadResult loaded = socket.load(library, options, [&] { keep(true); });
  if (!loaded.code) {
    keep(false);
    throw notLoaded(target, library, loaded.text);
  }
  if (*loaded.code != kLoaded && *loaded.code != kAlreadyLoaded) {
    throw failure("the agent cannot be set up in " + jvm(target) + " (return code " +
                  std::to_string(*loaded.code) + "); see its standard error and the log in '" +
                  results.path() + "/logs'");
  }
}

void loadCompanion(const process& target, const attachSocket& socket, const std::string& jar,
                   const std::string& options) {
  const attachSocket::loadResult loaded = socket.load("instrument", jar + '=' + options);
  if (!loaded.code) {
    throw failure(jvm(target) + " cannot load the companion: its Java lacks the module" +
                  " java.instrument or refuses it (" +
                  loaded.text.substr(0, loaded.text.find('\n')) + ')');
  }
  if (*loaded.code == kBadJar) {
    throw failure(jvm(target) + " cannot read '" + jar + '\'');
  }
  if (*loaded.code == kNotOnClassPath) {
    throw failure(jvm(target) +
                  " cannot load the companion: its system class loader does not accept" +
                  " jars at run time");
  }
  if (*loaded.code != 0) {
    throw failure("the companion cannot be started in " + jvm(target) + " (return code " +
                  std::to_string(*loaded.code) + "); see its standard error");
  }
}

std::string escaped(const std::string& text) {
  std::string escaped;
  for (const char each : text) {
    escaped += each == '\\' || each == ',' ? "\\" : "";
    escaped += each;
  }
  return escaped;
}

// A JVM that has the agent already, by its library's path.
void requireDetached(const process& target, const targetFiles& files, const attachSocket& socket,
                     const std::string& library) {
  const result asked = askWhenThere(target, files, socket, library, {"status", {}, {}});
  // A companion that could not be started answers that it does not run.
  if (asked.how == outcome::answered && asked.said.exitCode == 0) {
    throw failure(jvm(target) + " has the agent already; see: twprofile status " +
                  std::to_string(target.number()) +
                  "; to start more profilers: twprofile help start");
  }
}

void addPlace(answer& answer, const targetFiles& files, const results& results) {
  for (const std::string& remark : results.remarks()) {
    answer.lines.push_back({false, remark});
  }
  answer.lines.push_back({false, "results: " + files.shown(results.path())});
}

}  // namespace

std::string obstacle(const process& target) {
  if (target.mapsNameLike("ld-musl-") || target.mapsNameLike("libc.musl-")) {
    return "it uses the C library musl, and the agent needs glibc";
  }
  Elf64_Ehdr theirs = {};
  Elf64_Ehdr ours = {};
  const descriptor program = target.program();
  const descriptor self(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  const bool areRead =
      ::pread(program.get(), &theirs, sizeof(theirs), 0) == static_cast<ssize_t>(sizeof(theirs)) &&
      ::pread(self.get(), &ours, sizeof(ours), 0) == static_cast<ssize_t>(sizeof(ours));
  const bool differ =
      theirs.e_machine != ours.e_machine || theirs.e_ident[EI_CLASS] != ours.e_ident[EI_CLASS];
  return areRead && differ ? "it was built for another processor than the agent" : "";
}

answer attach(const process& target, const attachWords& words) {
  const std::optional<std::string> present = target.mapped(kLibraryName);
  if (!present) {
    if (const std::string reason = obstacle(target); !reason.empty()) {
      throw failure(jvm(target) + " cannot load the agent: " + reason);
    }
  }
  const descriptor library = opened(words.library);
  const descriptor jar = opened(words.jar);
  const targetFiles files(target);
  results results(target, files, words.output);
  const bool hasJar = target.hasOpen(kJarName);  // its user may not be allowed to see
  actAs(target.owner());
  const attachSocket socket(target, files);
  if (present) {
    requireDetached(target, files, socket, *present);
  }
  results.settle();
  const std::string home = results.home();

  placedFiles placed(target, files);
  const std::string libraryThere =
      present ? *present : placed.place(words.library, kLibraryName, library, true);
  const auto placeJar = [&] { return placed.place(words.jar, kJarName, jar, !present); };
  // Both before the first is loaded: the agent alone would be of no use.
  std::string jarThere = hasJar ? "" : placeJar();
  const std::string config = "config=" + escaped(results.writeSettings(words.settings));
  loadAgent(target, socket, libraryThere, "twHome=" + home + ',' + words.options, results, placed);
  const request request{"attach", words.profilers, {config}};
  result asked = ask(target, files, socket, libraryThere, request);
  if (asked.how == outcome::noCompanion) {
    jarThere = jarThere.empty() ? placeJar() : jarThere;
    placed.keep(true);
    loadCompanion(target, socket, jarThere, config);
    asked = ask(target, files, socket, libraryThere, request);
  }
  if (asked.how != outcome::answered) {
    throw failure("the companion is missing in " + jvm(target) + "; see its standard error");
  }
  addPlace(asked.said, files, results);
  return std::move(asked.said);
}

}  // namespace control
