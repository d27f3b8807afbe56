// The agent log from many threads: records stay whole, each once, and a file gets one header.
#include <algorithm>
#include <cstring>
#include <latch>
#include <map>
#include <regex>
#include <thread>

#include "logFixture.h"

using test::kLogHeader;
using test::kMaxLogBytes;
using test::lines;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

namespace fs = std::filesystem;

class agentLog : public test::logTest {
 protected:
  // Fills the file in use with records until less than another one's length is missing to `bytes`.
  void fillTo(std::size_t bytes) {
    const std::string message(3900, '.');
    write(message);
    for (const fs::path file = logFiles()[0]; fs::file_size(file) + 4000 < bytes;) {
      write(message);
    }
  }
};

TEST_F(agentLog, recordsOfManyThreadsStayWholeOverARotation) {
  constexpr std::size_t kThreads = 32;
  constexpr std::size_t kRecords = 100;
  open();
  fillTo(kMaxLogBytes - kThreads * kRecords * 100);  // about half of the records go to each file

  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      for (std::size_t r = 0; r < kRecords; ++r) {
        const std::string name = std::to_string(t) + "." + std::to_string(r);
        write("<" + name + std::string(100, '-') + name + ">");
      }
    });
  }
  for (std::thread& each : threads) {
    each.join();
  }

  ASSERT_THAT(logFiles(), SizeIs(2));
  const std::regex whole("<([0-9.]+)-{100}([0-9.]+)>");
  std::map<std::string, int> seen;
  for (const fs::path& file : logFiles()) {
    EXPECT_THAT(test::readFile(file), StartsWith(kLogHeader));
    for (const std::string& line : lines(test::readFile(file))) {
      const std::size_t message = line.rfind("|<");
      if (message == std::string::npos) {
        continue;
      }
      const std::string text = line.substr(message + 1);
      std::smatch parts;
      EXPECT_TRUE(std::regex_match(text, parts, whole)) << text;
      EXPECT_EQ(parts[1], parts[2]);
      ++seen[parts[1]];
    }
  }
  EXPECT_EQ(seen.size(), kThreads * kRecords);
  for (const auto& [name, times] : seen) {
    EXPECT_EQ(times, 1) << name;
  }
}

TEST_F(agentLog, aFreshFileGetsOneHeaderFromManyThreads) {
  open();
  std::latch start(16);
  std::vector<std::thread> threads;
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      write("one");
    });
  }
  for (std::thread& each : threads) {
    each.join();
  }
  ASSERT_THAT(logFiles(), SizeIs(1));
  const std::vector<std::string> all = lines(test::readFile(logFiles()[0]));
  EXPECT_EQ(
      std::count(all.begin(), all.end(), std::string(kLogHeader, std::strlen(kLogHeader) - 1)), 1);
  EXPECT_THAT(messages("Error"), SizeIs(16));
}

}  // namespace
