// What is printed about a command whose JVMs did not have the agent. Plain functions.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace watch {

// What a command was started with.
struct setup {
  std::string settings;  // the settings file, without ".properties"
  std::string library;
  std::string output;  // folder
  std::string command;

  // The JVMs that have started with the agent so far: their companions list themselves.
  std::vector<pid_t> startedJvms() const;
};

// A JVM that was seen without the agent.
struct lostJvm {
  pid_t process = 0;
  std::string command;
  std::string reason;

  static lostJvm of(pid_t process, const setup& given);
};

// Why there are no results, or not those of all JVMs, and what helps; lines for a terminal.
//
// hasOthers: JVMs with the agent have started
// left: processes that the command has left behind with the agent in their environment
std::string advice(const setup& given, bool hasOthers, const std::vector<lostJvm>& lost,
                   const std::vector<pid_t>& left);

}  // namespace watch
