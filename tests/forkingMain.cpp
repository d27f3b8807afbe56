// The main of test programs that are expensive to start, as those with sanitizers are. With
// TW_FORKED_JOBS=<number> each case runs in a process of its own all the same, that many at a time,
// forked from this one, which has started once. Without it, GoogleTest's own main.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr const char* kJobs = "TW_FORKED_JOBS";
constexpr unsigned kSecondsPerCase = 120;
constexpr std::size_t kShownBytes = 6000;

struct runningCase {
  std::string name;
  std::FILE* output;
};

std::vector<std::string> allCases() {
  std::vector<std::string> names;
  const ::testing::UnitTest& all = *::testing::UnitTest::GetInstance();
  for (int i = 0; i < all.total_test_suite_count(); ++i) {
    const ::testing::TestSuite& suite = *all.GetTestSuite(i);
    for (int j = 0; j < suite.total_test_count(); ++j) {
      names.push_back(std::string(suite.name()) + "." + suite.GetTestInfo(j)->name());
    }
  }
  return names;
}

// In the child: does not come back. Ends like a program of one case, so that leaks are looked for.
[[noreturn]] void runOne(const runningCase& one) {
  ::dup2(::fileno(one.output), STDOUT_FILENO);
  ::dup2(::fileno(one.output), STDERR_FILENO);
  ::unsetenv(kJobs);
  ::alarm(kSecondsPerCase);
  GTEST_FLAG_SET(filter, one.name);
  std::exit(RUN_ALL_TESTS());
}

// The end of what a case has printed.
std::string outputOf(std::FILE* output) {
  std::fseek(output, 0, SEEK_END);
  const long size = std::ftell(output);
  const long from =
      size > static_cast<long>(kShownBytes) ? size - static_cast<long>(kShownBytes) : 0;
  std::string text(static_cast<std::size_t>(size - from), '\0');
  std::fseek(output, from, SEEK_SET);
  text.resize(std::fread(text.data(), 1, text.size(), output));
  return text;
}

class forkedCases {
 public:
  explicit forkedCases(std::size_t mostAtATime) : jobs(mostAtATime) {}

  // Returns the exit code of the program: 0 when each case has passed, and there was one.
  int run() {
    for (const std::string& name : allCases()) {
      while (running.size() >= jobs) {
        awaitOne();
      }
      start(name);
    }
    while (!running.empty()) {
      awaitOne();
    }
    std::printf("%sforked cases: %d passed, %d failed\n", failures.c_str(), passed, failed);
    return failed == 0 && passed > 0 ? 0 : 1;
  }

 private:
  void start(const std::string& name) {
    const runningCase one{name, std::tmpfile()};
    std::fflush(nullptr);
    const pid_t child = one.output == nullptr ? -1 : ::fork();
    if (child < 0) {
      std::perror(name.c_str());
      std::exit(1);
    }
    if (child == 0) {
      runOne(one);
    }
    running[child] = one;
  }

  void awaitOne() {
    int status = 0;
    const auto ended = running.find(::wait(&status));
    if (ended == running.end()) {
      return;
    }
    if (status == 0) {
      ++passed;
    } else {
      ++failed;
      const std::string how = WIFSIGNALED(status)
                                  ? "signal " + std::to_string(WTERMSIG(status))
                                  : "exit code " + std::to_string(WEXITSTATUS(status));
      failures += "--- failed: " + ended->second.name + " (" + how + ")\n" +
                  outputOf(ended->second.output) + "\n";
    }
    std::fclose(ended->second.output);
    running.erase(ended);
  }

  const std::size_t jobs;
  std::map<pid_t, runningCase> running;
  std::string failures;
  int passed = 0;
  int failed = 0;
};

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleMock(&argc, argv);
  const char* const jobs = std::getenv(kJobs);
  return jobs == nullptr ? RUN_ALL_TESTS() : forkedCases(std::stoul(jobs)).run();
}
