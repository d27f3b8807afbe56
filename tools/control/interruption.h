// Signals that end this program. What waits gives up first, so that none of its files stays behind.
// One thread.
#pragma once

#include <exception>

namespace control {

class interruption : public std::exception {
 public:
  explicit interruption(int signal) : signal_(signal) {}
  const char* what() const noexcept override { return "interrupted"; }
  int signal() const { return signal_; }

 private:
  int signal_;
};

// From now on SIGINT, SIGTERM and SIGHUP are only noted, those that are not ignored.
void noteInterruptions();

// Throws an interruption when one of these signals has come. Called wherever this program waits.
void requireUninterrupted();

// Ends this program as the signal does by itself.
void endBy(const interruption& cause);

}  // namespace control
