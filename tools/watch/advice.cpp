#include "advice.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>

#include "processes.h"

namespace watch {
namespace {

constexpr const char* kVariable = "JAVA_TOOL_OPTIONS";

// Commands that start others in an environment of their own, what they do with ours, and how to
// have twprofile behind them.
struct wrapper {
  const char* name;
  const char* cause;
  const char* remedy;
};
constexpr const char* kNotPassed = "does not pass on the environment";
constexpr const char* kOtherUser =
    "does not pass on the environment, or\n    starts it as a user who cannot write to this output "
    "folder";
constexpr const char* kContainer =
    "starts it in a container, which\n    has neither the environment nor the agent; add twprofile "
    "to the image";
constexpr const char* kService = "lets a service manager start it, in another environment";
constexpr std::array kWrappers = {
    wrapper{"sudo", kOtherUser, "sudo twprofile run -o DIR -- COMMAND"},
    wrapper{"doas", kOtherUser, "doas twprofile run -o DIR -- COMMAND"},
    wrapper{"su", kOtherUser, "su - USER -c 'twprofile run -o DIR -- COMMAND'"},
    wrapper{"runuser", kOtherUser, "runuser -u USER -- twprofile run -o DIR -- COMMAND"},
    wrapper{"env", kNotPassed, "env -i PATH=\"$PATH\" twprofile run -- COMMAND"},
    wrapper{"ssh", kNotPassed, "ssh HOST twprofile run -o DIR -- COMMAND"},
    wrapper{"docker", kContainer, "docker run IMAGE twprofile run -o DIR -- COMMAND"},
    wrapper{"podman", kContainer, "podman run IMAGE twprofile run -o DIR -- COMMAND"},
    wrapper{"systemctl", kService, "ExecStart=/PATH/twprofile run -o DIR -- COMMAND (in the unit)"},
    wrapper{"service", kService, "ExecStart=/PATH/twprofile run -o DIR -- COMMAND (in the unit)"},
    wrapper{"systemd-run", kService, "systemd-run /PATH/twprofile run -o DIR -- COMMAND"}};

std::string userName(uid_t user) {
  const passwd* found = getpwuid(user);
  return found == nullptr ? std::to_string(user) : found->pw_name;
}

std::string causes(const setup& given) {
  const std::string name = given.command.substr(given.command.rfind('/') + 1);
  const auto found = std::find_if(kWrappers.begin(), kWrappers.end(),
                                  [&](const wrapper& one) { return name == one.name; });
  const std::string none =
      "  - The command starts no Java: use \"twprofile run\" for the one that does.\n";
  if (found != kWrappers.end()) {
    return none + "  - It starts Java, but " + name + ' ' + found->cause +
           ". Put twprofile after it:\n      " + found->remedy + '\n';
  }
  return none +
         "  - Its JVM does not get JAVA_TOOL_OPTIONS from the environment: sudo, su -, env -i, "
         "ssh,\n"
         "    service managers, containers and scripts that set the variable do not pass it on. "
         "Put\n"
         "    twprofile after them: sudo twprofile run -o DIR -- COMMAND\n"
         "  - Its JVM runs as another user than " +
         userName(getuid()) +
         ", who cannot write to the output folder or\n"
         "    read the agent. Run twprofile as that user, with -o and a folder of that user.\n";
}

std::string listOf(const std::vector<pid_t>& processes) {
  constexpr std::size_t kMost = 3;
  std::string text;
  for (std::size_t i = 0; i < std::min(kMost, processes.size()); i++) {
    text += "  " + std::to_string(processes[i]) + "  " + commandOf(processes[i]) + '\n';
  }
  return processes.size() > kMost
             ? text + "  and " + std::to_string(processes.size() - kMost) + " more\n"
             : text;
}

std::string linesOf(const std::vector<lostJvm>& lost) {
  constexpr std::size_t kMost = 5;
  std::string text;
  for (std::size_t i = 0; i < std::min(kMost, lost.size()); i++) {
    text += "  " + std::to_string(lost[i].process) + "  " + lost[i].command + "\n    " +
            lost[i].reason + '\n';
  }
  return lost.size() > kMost ? text + "  and " + std::to_string(lost.size() - kMost) + " more\n"
                             : text;
}

}  // namespace

std::vector<pid_t> setup::startedJvms() const {
  std::vector<pid_t> result;
  std::ifstream in(settings + ".jvms");
  for (std::string line; std::getline(in, line);) {
    result.push_back(static_cast<pid_t>(std::strtol(line.c_str(), nullptr, 10)));
  }
  return result;
}

lostJvm lostJvm::of(pid_t process, const setup& given) {
  lostJvm result = {process, commandOf(process), ""};
  const uid_t user = userOf(process);
  const std::string otherUser =
      user == getuid() ? ""
                       : "it runs as " + userName(user) +
                             "; run twprofile as that user, with -o and a folder of that user: ";
  switch (searchEnvironment(process, given.settings)) {
    case environment::unreadable:
      result.reason = otherUser + "its environment cannot be read";
      break;
    case environment::hasText:
      result.reason = otherUser + kVariable +
                      " is in its environment, but the JVM ignores it; "
                      "is its program set-user-ID?";
      break;
    case environment::lacksText:
      result.reason = otherUser + (searchEnvironment(process, std::string(kVariable) + '=') ==
                                           environment::hasText
                                       ? std::string("its environment has another ") + kVariable
                                       : std::string("its environment lacks ") + kVariable);
      break;
  }
  return result;
}

std::string advice(const setup& given, bool hasOthers, const std::vector<lostJvm>& lost,
                   const std::vector<pid_t>& left) {
  std::string text = "twprofile: run: ";
  if (!lost.empty()) {
    text += hasOthers ? "not all JVMs of the command were profiled. These ran without the agent:\n"
                      : "nothing was profiled. These JVMs ran without the agent:\n";
    return text + linesOf(lost) +
           "  Put twprofile after the command that starts them, as in: sudo twprofile run -o DIR "
           "-- "
           "COMMAND\n";
  }
  if (!left.empty()) {
    return text +
           "no JVM has started so far. These processes of the command are still running, and may\n"
           "  start one, which is then profiled into '" +
           given.output + "':\n" + listOf(left);
  }
  return text + "no JVM has started with the agent: there are no results in '" + given.output +
         "'.\n" + causes(given);
}

}  // namespace watch
