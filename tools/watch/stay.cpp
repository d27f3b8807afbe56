#include "stay.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace watch {
namespace {

constexpr int kPassedOn[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2};

sigset_t signalsToWaitFor() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : kPassedOn) {
    sigaddset(&signals, signal);
  }
  sigaddset(&signals, SIGCHLD);
  return signals;
}

// Whether it has ended; `status` is then how.
bool hasEnded(pid_t process, int& status) {
  return waitpid(process, &status, WNOHANG) == process;
}

int waitPassingSignalsOn(pid_t process, const sigset_t& signals) {
  int status = 0;
  while (!hasEnded(process, status)) {
    siginfo_t received = {};
    const int signal = sigwaitinfo(&signals, &received);
    // The terminal sends these two to the group, and so to the command.
    const bool isOfTerminal =
        received.si_code == SI_KERNEL && (signal == SIGINT || signal == SIGQUIT);
    if (signal > 0 && signal != SIGCHLD && !isOfTerminal) {
      kill(process, signal);
    }
  }
  return status;
}

// Has this process end with its parent, also when that one cannot pass on how it ends.
void endWith(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    raise(SIGKILL);
  }
}

[[noreturn]] void become(char** command, const sigset_t& mask) {
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  execvp(command[0], command);
  const int error = errno;
  std::fprintf(stderr, "twprofile: run: %s: %s\n", command[0], std::strerror(error));
  _exit(error == ENOENT ? 127 : 126);
}

void conclude(char** conclusion, const sigset_t& mask) {
  const pid_t process = fork();
  if (process == 0) {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    become(conclusion, mask);
  }
  int status = 0;
  while (process > 0 && waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
}

[[noreturn]] void endAs(int status) {
  if (WIFSIGNALED(status)) {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);  // the command has left one if one was wanted
    const int signal = WTERMSIG(status);
    std::signal(signal, SIG_DFL);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signal);
    sigprocmask(SIG_UNBLOCK, &only, nullptr);
    raise(signal);
    _exit(128 + signal);
  }
  _exit(WEXITSTATUS(status));
}

}  // namespace

void stayWith(char** command, char** conclusion) {
  const sigset_t signals = signalsToWaitFor();
  sigset_t before;
  sigprocmask(SIG_BLOCK, &signals, &before);
  const auto atChildren = std::signal(SIGCHLD, SIG_DFL);
  const pid_t self = getpid();
  const pid_t process = fork();
  if (process <= 0) {  // where there is no child, nothing is shown at the end
    std::signal(SIGCHLD, atChildren);
    if (process == 0) {
      endWith(self);
    }
    become(command, before);
  }
  const int status = waitPassingSignalsOn(process, signals);
  conclude(conclusion, before);
  endAs(status);
}

}  // namespace watch
