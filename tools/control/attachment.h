// Puts agent and companion into a running JVM. One thread.
#pragma once

#include <string>
#include <vector>

#include "command.h"
#include "process.h"

namespace control {

struct attachWords {
  std::string library;  // of the agent, from here
  std::string jar;      // of the companion, from here
  std::string output;   // folder for the results; empty for the default
  std::string options;  // of the agent, besides its home
  std::vector<std::string> profilers;
  std::string settings;  // of the companion, lines of a properties file
};

// Gives what the companion has to tell of the profilers that were chosen, and then where results
// go. Throws a failure when agent and companion are not both there afterwards.
answer attach(const process& target, const attachWords& words);

// Why a library for glibc and this processor cannot be loaded there; empty when it can.
std::string obstacle(const process& target);

}  // namespace control
