// What the companion in a JVM is asked to do, and its answer. One thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "attachSocket.h"
#include "process.h"
#include "targetFiles.h"

namespace control {

// As the user gave it.
struct request {
  std::string verb;
  std::vector<std::string> profilers;
  std::vector<std::string> settings;  // as profiler.key=value
};

// Lines for standard output and standard error, in their order, and the exit code.
struct answer {
  struct line {
    bool isError = false;
    std::string text;
  };
  std::vector<line> lines;
  int exitCode = 1;
};

// What the agent's library says to a request, in the words of its entry.
enum class outcome { answered, noCompanion, notSetUp };

struct result {
  outcome how = outcome::answered;
  answer said;  // when answered
};

// Asks the companion by the agent's library at this path, which is loaded already. Throws a failure
// when there is no answer.
result ask(const process& target, const targetFiles& files, const attachSocket& socket,
           const std::string& library, const request& request);

// Whether the JVM was started with the companion, which then comes a moment later.
bool expectsCompanion(const process& target);

// The same as the first; where a companion is expected, it is asked until it is there. Throws a
// failure when it has not come after some seconds.
result askWhenThere(const process& target, const targetFiles& files, const attachSocket& socket,
                    const std::string& library, const request& request);

// The form in which they travel; the second throws a failure for another form.
std::string textOf(const request& request, pid_t pid);
answer answerIn(const std::string& text);

// Has files of the JVM, which are at the ends of lines for standard output, as they are seen from
// here.
void nameFromOutside(answer& answer, const targetFiles& files);

// The sentence for a library that was not loaded.
failure notLoaded(const process& target, const std::string& library, const std::string& text);

}  // namespace control
