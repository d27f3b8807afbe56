#include "command.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <sstream>
#include <string_view>
#include <thread>

#include "failure.h"
#include "interruption.h"

namespace control {

namespace {

constexpr const char* kRequest = "request";
constexpr const char* kAnswer = "request.answer";
constexpr std::size_t kLongestAnswer = 1U << 20;  // bytes

// What the entry of the library returns.
constexpr int kAnswered = 0;
constexpr int kNoCompanion = 3;
constexpr int kNotSetUp = 5;

// The JVM is not kept from serving other tools for longer than a few seconds: then the answer comes
// later.
constexpr std::chrono::seconds kPatience{120};
constexpr std::chrono::milliseconds kPause{50};

// One line each, whatever a setting holds.
std::string escaped(const std::string& text) {
  std::string escaped;
  for (const char each : text) {
    escaped += each == '\\' || each == '\n' ? "\\" : "";
    escaped += each == '\n' ? 'n' : each;
  }
  return escaped;
}

answer awaitAnswer(const process& target, const privateFolder& folder, const std::string& verb) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    const bool isAlive = target.isAlive();
    if (const std::optional<std::string> text = folder.read(kAnswer, kLongestAnswer)) {
      return answerIn(*text);
    }
    const std::string jvm = "JVM " + std::to_string(target.number());
    if (!isAlive) {
      throw failure(jvm + " ended in the meantime");
    }
    if (std::chrono::steady_clock::now() >= end) {
      throw failure(jvm + " needs more than " + std::to_string(kPatience.count()) + " s for " +
                    verb + " and is still working on it; see: twprofile status " +
                    std::to_string(target.number()));
    }
    requireUninterrupted();
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace

bool expectsCompanion(const process& target) {
  std::vector<std::string> words = target.words();
  words.push_back(target.variable("JAVA_TOOL_OPTIONS"));
  words.push_back(target.variable("JDK_JAVA_OPTIONS"));
  return std::any_of(words.begin(), words.end(), [](const std::string& word) {
    return word.find(std::string("/") + kJarName) != std::string::npos ||
           (word.find(std::string("/") + kLibraryName + '=') != std::string::npos &&
            word.find(",companion=") != std::string::npos);
  });
}

std::string textOf(const request& request, pid_t pid) {
  std::string text = "verb=" + request.verb + "\npid=" + std::to_string(pid) + '\n';
  for (const std::string& each : request.profilers) {
    text += "profiler=" + escaped(each) + '\n';
  }
  for (const std::string& each : request.settings) {
    text += "setting=" + escaped(each) + '\n';
  }
  return text;
}

answer answerIn(const std::string& text) {
  constexpr std::string_view kExit = "exit ";
  answer answer;
  bool isComplete = false;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    const bool isOut = line.starts_with("1 ");
    if (isComplete) {
      isComplete = false;  // there is more after the end
      break;
    }
    if (isOut || line.starts_with("2 ")) {
      answer.lines.push_back({!isOut, line.substr(2)});
      continue;
    }
    const char* const end = line.data() + line.size();
    const bool isExit = line.starts_with(kExit);
    const auto [parsed, error] =
        std::from_chars(line.data() + (isExit ? kExit.size() : 0), end, answer.exitCode);
    isComplete = isExit && error == std::errc() && parsed == end;
    if (!isComplete) {
      break;
    }
  }
  if (!isComplete) {
    throw failure("unexpected answer from the companion");
  }
  return answer;
}

void nameFromOutside(answer& answer, const targetFiles& files) {
  for (answer::line& each : answer.lines) {
    const std::size_t start = each.text.find(" /");
    if (each.isError || start == std::string::npos) {
      continue;
    }
    const std::string path = each.text.substr(start + 1);
    if (files.open(path, O_PATH)) {
      each.text.replace(start + 1, path.size(), files.shown(path));
    }
  }
}

failure notLoaded(const process& target, const std::string& library, const std::string& text) {
  const std::string jvm = "JVM " + std::to_string(target.number());
  if (text.find("Dynamic agent loading is not enabled") != std::string::npos) {
    return failure(jvm + " was started with -XX:-EnableDynamicAgentLoading, and refuses" +
                   " agents and commands for them; restart it without that option");
  }
  if (text.find("Agent_OnAttach") != std::string::npos) {
    return failure(jvm + " has an agent of an earlier version, '" + library +
                   "', which takes no commands; restart it");
  }
  std::string reason = text.substr(0, text.find_last_not_of('\n') + 1);
  for (char& each : reason) {
    each = each == '\n' ? ' ' : each;
  }
  return failure(jvm + " cannot load '" + library + "': " + reason);
}

result ask(const process& target, const targetFiles& files, const attachSocket& socket,
           const std::string& library, const request& request) {
  const std::optional<privateFolder> folder = privateFolder::in(files, "/tmp");
  if (!folder) {
    throw failure("cannot write to the folder /tmp of JVM " + std::to_string(target.number()) +
                  ": " + reasonOf(errno));
  }
  folder->write(kRequest, textOf(request, target.number()));
  const attachSocket::loadResult loaded =
      socket.load(library, "command=" + folder->path() + '/' + kRequest);
  if (!loaded.code) {
    throw notLoaded(target, library, loaded.text);
  }
  switch (*loaded.code) {
    case kAnswered:
      return {outcome::answered, awaitAnswer(target, *folder, request.verb)};
    case kNoCompanion:
      return {outcome::noCompanion, {}};
    case kNotSetUp:
      return {outcome::notSetUp, {}};
    default:
      throw failure("the companion in JVM " + std::to_string(target.number()) +
                    " failed; see the standard error of the JVM (return code " +
                    std::to_string(*loaded.code) + ")");
  }
}

result askWhenThere(const process& target, const targetFiles& files, const attachSocket& socket,
                    const std::string& library, const request& request) {
  constexpr std::chrono::seconds kPatience{10};
  constexpr std::chrono::milliseconds kPause{100};
  const auto end = std::chrono::steady_clock::now() + kPatience;
  const bool isExpected = expectsCompanion(target);
  for (;;) {
    result asked = ask(target, files, socket, library, request);
    if (asked.how != outcome::noCompanion || !isExpected) {
      return asked;
    }
    if (std::chrono::steady_clock::now() >= end) {
      throw failure("the companion does not answer; see the standard error of the JVM");
    }
    requireUninterrupted();
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace control
