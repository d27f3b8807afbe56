// twwatch: waits for the end of a command that `twprofile run` has become, and prints on standard
// error when none of its JVMs, or not all of them, had the agent. It is not a child of the command,
// which may wait for all of its children, and holds nothing of it open but standard error. Of the
// command's life it takes a few looks at the processes that it has started.
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "advice.h"
#include "processes.h"
#include "stay.h"

namespace {

using namespace std::chrono_literals;
using milliseconds = std::chrono::milliseconds;

constexpr milliseconds kFirstLook = 1s;
constexpr milliseconds kUntilConfirmed = 1s;  // a JVM that starts gets its agents meanwhile
constexpr milliseconds kPatience = 1s;        // for a JVM that the command has left behind
constexpr milliseconds kStep = 50ms;
constexpr milliseconds kStepWithoutEvent = 200ms;
constexpr std::size_t kMostJvms = 20;

// -1 where the kernel does not have such descriptors: before Linux 5.3.
int processDescriptor(pid_t process) {
#ifdef SYS_pidfd_open
  constexpr long kNumber = SYS_pidfd_open;
#else
  constexpr long kNumber = 434;  // on all architectures
#endif
  return static_cast<int>(syscall(kNumber, process, 0));
}

// The process that had this id at first.
class watchedProcess {
 public:
  explicit watchedProcess(pid_t id)
      : id_(id), descriptor_(processDescriptor(id)), start_(watch::startOf(id)) {}

  pid_t id() const { return id_; }
  int descriptor() const { return descriptor_; }

  // Waits until it has ended or the time is over; whether it has ended.
  bool waitForEnd(milliseconds time) const {
    if (descriptor_ >= 0) {
      pollfd waited = {descriptor_, POLLIN, 0};
      return poll(&waited, 1, static_cast<int>(std::min(time, milliseconds(1h)).count())) > 0;
    }
    for (milliseconds passed = 0ms; passed < time; passed += kStepWithoutEvent) {
      if (watch::startOf(id_) != start_ || watch::hasEnded(id_)) {
        return true;
      }
      poll(nullptr, 0, static_cast<int>(kStepWithoutEvent.count()));
    }
    return false;
  }

 private:
  const pid_t id_;
  const int descriptor_;
  const std::uint64_t start_;
};

// What a terminal or a service manager sends to the group is meant for the command.
void ignoreSignals() {
  for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGTSTP, SIGTTOU, SIGPIPE}) {
    std::signal(signal, SIG_IGN);
  }
}

// Keeps standard error and the watched process.
void letGo(int kept) {
  for (const int descriptor : watch::numbersIn("/proc/self/fd")) {
    if (descriptor != STDERR_FILENO && descriptor != kept) {
      close(descriptor);
    }
  }
  const int nothing = open("/dev/null", O_RDWR);  // gets the number of standard input
  if (nothing == STDIN_FILENO && kept != STDOUT_FILENO) {
    dup2(nothing, STDOUT_FILENO);
  }
  if (chdir("/") != 0) {
    return;  // it stays, and its file system is in use
  }
}

// JVMs of the command without the agent, by process, as they are met.
class lostJvms {
 public:
  explicit lostJvms(const watch::setup& given) : given_(given) {}

  // Whether there is one that must be checked again soon.
  bool look(pid_t command) {
    std::vector<pid_t> now = watch::familyOf(command);
    std::erase_if(now, [&](pid_t process) {
      return confirmed_.contains(process) || !watch::isJvmWithout(process, given_.library);
    });
    for (const pid_t process : now) {
      if (std::find(met_.begin(), met_.end(), process) != met_.end() &&
          confirmed_.size() < kMostJvms) {
        confirmed_.emplace(process, watch::lostJvm::of(process, given_));
      }
    }
    met_ = std::move(now);
    return std::any_of(met_.begin(), met_.end(),
                       [&](pid_t process) { return !confirmed_.contains(process); });
  }

  // Without those that have reported to have the agent.
  std::vector<watch::lostJvm> without(const std::vector<pid_t>& reported) const {
    std::vector<watch::lostJvm> result;
    for (const auto& [process, jvm] : confirmed_) {
      if (std::find(reported.begin(), reported.end(), process) == reported.end()) {
        result.push_back(jvm);
      }
    }
    return result;
  }

 private:
  const watch::setup& given_;
  std::vector<pid_t> met_;  // at the last look
  std::map<pid_t, watch::lostJvm> confirmed_;
};

// Processes that the command has left behind and that may still start a JVM, after some patience;
// none when one has started. One that is just being executed has no environment to see, so none are
// there only when two looks find none.
std::vector<pid_t> leftBehind(const watch::setup& given) {
  bool wereNone = false;
  for (milliseconds passed = 0ms;; passed += kStep) {
    if (!given.startedJvms().empty()) {
      return {};
    }
    std::vector<pid_t> left = watch::processesWith(given.settings);
    if ((left.empty() && wereNone) || passed >= kPatience) {
      return left;
    }
    wereNone = left.empty();
    poll(nullptr, 0, static_cast<int>(kStep.count()));
  }
}

void print(const std::string& text) {
  if (write(STDERR_FILENO, text.data(), text.size()) < 0) {
    return;  // the terminal is gone
  }
}

void watchOver(const watchedProcess& command, const watch::setup& given) {
  lostJvms lost(given);
  milliseconds pause = kFirstLook;
  milliseconds next = pause;
  while (!command.waitForEnd(next)) {
    const bool isUnclear = lost.look(command.id());
    pause = std::min(2 * pause, milliseconds(1h));
    next = isUnclear ? kUntilConfirmed : pause;
  }
  const std::vector<pid_t> left = leftBehind(given);
  const std::vector<pid_t> reported = given.startedJvms();
  const std::vector<watch::lostJvm> without = lost.without(reported);
  if (reported.empty() || !without.empty()) {
    print(watch::advice(given, !reported.empty(), without, left));
  }
}

}  // namespace

// Arguments: the process, the settings file without ".properties", the library, the output folder,
// the command's first word. Or "stay", a number, so many words of what to call at the end,
// and the command: see stay.h.
int main(int argc, char** argv) {
  if (argc > 4 && std::strcmp(argv[1], "stay") == 0) {
    const long words = std::strtol(argv[2], nullptr, 10);
    if (words < 1 || words > argc - 4) {
      return 2;
    }
    std::vector<char*> conclusion(argv + 3, argv + 3 + words);
    conclusion.push_back(nullptr);
    watch::stayWith(argv + 3 + words, conclusion.data());
  }
  constexpr int kArguments = 6;
  if (argc != kArguments) {
    return 2;
  }
  try {
    const watchedProcess command(static_cast<pid_t>(std::strtol(argv[1], nullptr, 10)));
    const watch::setup given = {argv[2], argv[3], argv[4], argv[5]};
    ignoreSignals();  // before the launcher goes on: the command may be interrupted at once
    if (fork() != 0) {
      _exit(0);  // the launcher waits for this one only
    }
    letGo(command.descriptor());
    watchOver(command, given);
  } catch (const std::exception&) {
    return 1;
  }
  return 0;
}
