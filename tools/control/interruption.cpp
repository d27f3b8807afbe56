#include "interruption.h"

#include <csignal>
#include <initializer_list>

namespace control {

namespace {

volatile std::sig_atomic_t noted = 0;

void note(int signal) {
  noted = signal;
}

}  // namespace

void noteInterruptions() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction before = {};
    struct sigaction after = {};
    after.sa_handler = note;  // without SA_RESTART: what waits is to notice
    if (::sigaction(signal, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) {
      ::sigaction(signal, &after, nullptr);
    }
  }
}

void requireUninterrupted() {
  if (noted != 0) {
    throw interruption(noted);
  }
}

void endBy(const interruption& cause) {
  std::signal(cause.signal(), SIG_DFL);
  std::raise(cause.signal());
}

}  // namespace control
