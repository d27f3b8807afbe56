// Where an attached JVM writes its results. One thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "descriptor.h"
#include "failure.h"
#include "process.h"
#include "targetFiles.h"

namespace control {

class results {
 public:
  // Prepares the folder as this program's user: makes it, if the JVM sees the same files there, and
  // hands it over to the JVM's user. `given` is relative to this program's working directory, or
  // empty for the default.
  results(const process& target, const targetFiles& files, const std::string& given);
  results(const results&) = delete;
  results& operator=(const results&) = delete;
  // Deletes the settings, and the folder if it was made here and nobody has written there.
  ~results();

  // Whether settings and folder stay.
  void keep(bool isKept) { isKept_ = isKept; }

  // As the JVM's user: settles on a folder that the JVM can write, and makes it where it is
  // missing. The default one is taken only when it is the JVM's user's own and nobody else can
  // write there; else there is a new one. Throws a failure when there is none.
  void settle();

  // Default folders that were there and are not used, and why; one sentence each.
  const std::vector<std::string>& remarks() const { return remarks_; }

  // As the JVM sees it, absolute.
  const std::string& path() const { return path_; }
  // The same as the agent's home. Throws a failure when its options cannot carry it.
  std::string home() const;
  // Writes the settings into the folder, in the form that the companion reads, after their first
  // one: the folder. Gives the path of the file, as the JVM sees it.
  std::string writeSettings(const std::string& lines);

 private:
  // A folder that this program has made as root.
  struct madeFolder {
    descriptor parent;
    std::string name;
    descriptor self;
  };

  void handOver(const std::string& existing, const std::vector<std::string>& missing);
  bool takeBack();
  std::string obstacleTo(const std::string& path);
  std::string obstacleOf(const descriptor& folder) const;
  std::string obstacleIn(const descriptor& folder, const char* name) const;
  bool isTrusted(uid_t user) const;
  void remark(const std::string& path, const std::string& reason);
  std::string runner() const;
  failure cannotUse(const std::string& path, const std::string& reason) const;

  const process& target_;
  const targetFiles& files_;
  const bool isGiven_;
  bool isShared_ = false;  // the JVM sees the same files there
  bool isAbsolute_ = false;
  std::vector<madeFolder> made_;  // from the outermost on
  bool isNew_ = false;            // made here
  bool isKept_ = false;
  std::string settings_;  // the file's name
  std::vector<std::string> remarks_;
  std::string path_;
};

// A text as the value of a Java properties file, which is read as UTF-8.
std::string propertyValue(const std::string& text);

}  // namespace control
