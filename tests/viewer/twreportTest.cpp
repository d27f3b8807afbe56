// The command as a shell starts it: output, exit codes, and the sample in the README.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

const std::string kSample = DATA_FOLDER "/lock-report.json " DATA_FOLDER "/lock-stacks.txt";

struct outcome {
  int exitCode;
  std::string output;  // standard output and standard error
};

outcome twreport(const std::string& arguments) {
  FILE* pipe = popen(("exec 2>&1; '" TWREPORT "' " + arguments).c_str(), "r");
  if (pipe == nullptr) {
    throw std::runtime_error("no shell");
  }
  std::string output;
  std::array<char, 4096> block;
  for (std::size_t size; (size = fread(block.data(), 1, block.size(), pipe)) > 0;) {
    output.append(block.data(), size);
  }
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

TEST(twreport, printsTheRecordedSession) {
  const outcome result = twreport(kSample);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, StartsWith("Lock session 1 \"shop under load\": "));
  EXPECT_THAT(result.output, HasSubstr("\n1  com.example.shop.Inventory@"));
  EXPECT_THAT(result.output, HasSubstr("at com.example.shop.Inventory."));
  EXPECT_THAT(result.output, HasSubstr("\nBlockers ("));
}

TEST(twreport, worksWithoutAStackFile) {
  const outcome result = twreport(DATA_FOLDER "/lock-report.json");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("not in a stack file that was given"));
}

TEST(twreport, obeysItsOptions) {
  const outcome result = twreport(kSample + " --top 1 --threads 2 --frames 1 --width 60");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("Top locks (1 of "));
  EXPECT_THAT(result.output, HasSubstr("Blockers (2 of "));
}

TEST(twreport, saysWhatIsWrongWithAnInput) {
  const outcome missing = twreport(DATA_FOLDER "/lock-report.json /nowhere/stacks.txt");
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_THAT(missing.output,
              HasSubstr("twreport: /nowhere/stacks.txt: cannot be read: No such file"));
  EXPECT_THAT(missing.output, HasSubstr("Lock session 1")) << "what can be read is shown";
}

TEST(twreport, failsWhenItsOutputIsLost) {
  const outcome result = twreport(kSample + " >/dev/full");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output, "twreport: the output cannot be written: No space left on device\n");
  EXPECT_EQ(twreport(kSample + " >/dev/full 2>&1").exitCode, 1) << "its message is lost too";
}

TEST(twreport, refusesWrongArguments) {
  EXPECT_NE(twreport("").exitCode, 0);
  EXPECT_NE(twreport(kSample + " --by weight").exitCode, 0);
  for (const char* top : {"0", "-1", "x", "1.5", ""}) {
    const outcome result = twreport(kSample + " --top '" + top + "'");
    EXPECT_NE(result.exitCode, 0) << top;
    EXPECT_THAT(result.output, HasSubstr("--top")) << top;
  }
}

TEST(twreport, printsTheSampleOfTheReadme) {
  std::ostringstream readme;
  readme << std::ifstream(README_FILE).rdbuf();
  const outcome result = twreport(kSample + " --top 2 --width 100");
  EXPECT_THAT(readme.str(), HasSubstr("```\n" + result.output + "```\n"))
      << "scripts/record-sample brings the README up to date";
}

}  // namespace
