// The command: `twcontrol list`, `twcontrol status|start|stop|detach PID WORD...` and `twcontrol
// attach PID LIBRARY JAR OUTPUT OPTIONS PROFILER...`, which reads the companion's settings from
// standard input. A shell script, twprofile, has checked the words of the user. Exit code 1 for a
// failure, which standard error names.

#include <sys/stat.h>

#include <charconv>
#include <csignal>
#include <exception>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "failure.h"
#include "interruption.h"
#include "verbs.h"

namespace {

using namespace control;

constexpr mode_t kMask = 077;  // what is made is for its owner alone

pid_t pidIn(const std::string& word) {
  pid_t pid = 0;
  const char* const end = word.data() + word.size();
  const auto [parsed, error] = std::from_chars(word.data(), end, pid);
  if (error != std::errc() || parsed != end || pid <= 0) {
    throw failure("'" + word + "' is not a process id; see: twprofile list");
  }
  return pid;
}

int attachBy(const std::vector<std::string>& words) {
  constexpr std::size_t kProfilers = 6;  // where they begin
  if (words.size() < kProfilers) {
    throw failure("expected PID LIBRARY JAR OUTPUT OPTIONS PROFILER...");
  }
  attachWords given{words[2], words[3], words[4], words[5], {}, {}};
  given.profilers.assign(words.begin() + kProfilers, words.end());
  given.settings.assign(std::istreambuf_iterator<char>(std::cin), {});
  return attachTo(pidIn(words[1]), given, std::cout, std::cerr);
}

int controlBy(const std::vector<std::string>& words) {
  request request{words[0], {}, {}};
  for (std::size_t i = 2; i < words.size(); ++i) {
    const bool isSetting = words[i].find('=') != std::string::npos;
    (isSetting ? request.settings : request.profilers).push_back(words[i]);
  }
  return control::control(pidIn(words.size() > 1 ? words[1] : ""), request, std::cout, std::cerr);
}

int run(const std::vector<std::string>& words) {
  const std::string verb = words.empty() ? "" : words[0];
  if (verb == "list") {
    list(std::cout);
    return 0;
  }
  if (verb == "attach") {
    return attachBy(words);
  }
  for (const std::string_view known : {"status", "start", "stop", "detach"}) {
    if (verb == known) {
      return controlBy(words);
    }
  }
  throw failure("expected list, status, start, stop, attach or detach");
}

}  // namespace

int main(int count, char** words) {
  ::umask(kMask);
  std::signal(SIGPIPE, SIG_IGN);
  noteInterruptions();
  const std::vector<std::string> given(words + (count > 0 ? 1 : 0), words + count);
  try {
    return run(given);
  } catch (const interruption& cause) {
    endBy(cause);
    return 1;
  } catch (const std::exception& error) {
    std::cerr << "twprofile: " << (given.empty() ? "" : given[0] + ": ") << error.what() << '\n';
    return 1;
  }
}
