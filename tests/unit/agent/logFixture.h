// What tests of the agent log share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "agent/twAprLib.h"
#include "agentTest.h"

namespace test {

inline constexpr const char* kLogHeader =
    "#TimeStamp|TestRun|Thread Name|Thread ID|Module Name|Src file name|Line number|Function|"
    "Severity|Message\n";
inline constexpr std::size_t kMaxLogBytes = 10485760;

inline std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> all;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    all.push_back(line);
  }
  return all;
}

class logTest : public agentTest {
 protected:
  // The log as start-up opens it, without a record so far.
  void open(std::int32_t level = 1) {
    ASSERT_EQ(load("logLevel=0"), 0);
    agent::twAprLib::setLevel(level);
  }

  static void write(const std::string& message) {
    agent::twAprLib::write(nullptr, 0, "NATIVE_AGENT", "Error", "logTest.cpp", 7, "agentLog", "%s",
                           message.c_str());
  }
};

}  // namespace test
