// The command as a shell starts it: output, exit codes, and the samples in documents.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string kRun = DATA_FOLDER "/shop-run";
const std::string kReport = kRun + "/locks-1.json";
const std::string kSample = kReport + " " + kRun + "/locks-1.stacks";

struct outcome {
  int exitCode;
  std::string output;  // standard output and standard error
};

outcome run(const std::string& command) {
  FILE* pipe = popen(("exec 2>&1; " + command).c_str(), "r");
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

outcome twreport(const std::string& arguments) {
  return run("'" TWREPORT "' " + arguments);
}

TEST(twreport, printsTheRecordedSession) {
  const outcome result = twreport(kSample);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, StartsWith("Lock session 2 \"shop\": "));
  EXPECT_THAT(result.output, HasSubstr("\n1  com.example.shop.Inventory@"));
  EXPECT_THAT(result.output, HasSubstr("at com.example.shop.Inventory."));
  EXPECT_THAT(result.output, HasSubstr("\nBlockers ("));
}

TEST(twreport, canLeaveOutWhatTheProgramHadInItsVariables) {
  const std::string page = testing::TempDir() + "without-values.html";
  ASSERT_EQ(twreport(kRun + " --no-values -o " + page).exitCode, 0);
  const outcome written = run("cat " + page);
  const outcome json = twreport(kRun + " --no-values --json");
  for (const std::string& text : {written.output, json.output}) {
    EXPECT_THAT(text, HasSubstr("com.example.shop.FailedPayments$PaymentGateway.charge"));
    for (const char* value : {"payments.example.com", "A. Customer", "4000 ****",
                              "http-worker-9\",\"class", "com.example.shop.Main\""}) {
      EXPECT_THAT(text, Not(HasSubstr(value))) << value;
    }
  }
  EXPECT_THAT(twreport(kRun + " --json").output, HasSubstr("payments.example.com"));
}

TEST(twreport, worksWithoutAStackFile) {
  const outcome result = twreport(kReport);
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
  const outcome missing = twreport(kReport + " /nowhere/stacks.txt");
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_THAT(missing.output,
              HasSubstr("twreport: /nowhere/stacks.txt: cannot be read: No such file"));
  EXPECT_THAT(missing.output, HasSubstr("Lock session 2")) << "what can be read is shown";
}

TEST(twreport, failsWhenItsOutputIsLost) {
  const outcome result = twreport(kSample + " >/dev/full");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output, "twreport: the output cannot be written: No space left on device\n");
  EXPECT_EQ(twreport(kSample + " >/dev/full 2>&1").exitCode, 1) << "its message is lost too";
}

TEST(twreport, saysWhyAPageCannotBeWritten) {
  const std::string page = testing::TempDir() + "page-too-large.html";
  const outcome large = run("trap '' XFSZ; ulimit -f 8; '" TWREPORT "' " + kSample + " -o " + page);
  EXPECT_EQ(large.exitCode, 1);
  EXPECT_EQ(large.output, "twreport: " + page + " cannot be written: File too large\n");
  EXPECT_FALSE(std::filesystem::exists(page));
  EXPECT_EQ(twreport(kSample + " -o /nowhere/page.html").output,
            "twreport: /nowhere/page.html cannot be written: No such file or directory\n");
}

TEST(twreport, keepsAGoodPageWhenNothingCouldBeRead) {
  const std::string page = testing::TempDir() + "good-page.html";
  std::ofstream(page) << "good";
  for (const std::string& inputs :
       {std::string("/nowhere"), "diff " + kRun + " /nowhere", "diff /nowhere " + kRun}) {
    EXPECT_EQ(twreport(inputs + " -o " + page).exitCode, 1) << inputs;
    EXPECT_EQ(std::filesystem::file_size(page), 4U) << inputs;
  }
  std::filesystem::remove(page);
}

TEST(twreport, saysThatATextIsNowhere) {
  const outcome result = twreport(kRun + " --grep nowhere-in-it");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output,
              HasSubstr("twreport: --grep nowhere-in-it: nothing contains this text"));
  EXPECT_THAT(twreport(kRun + " --grep PriceCache").output,
              testing::Not(HasSubstr("nothing holds")));
}

TEST(twreport, replacesNothingButFilesByItsPage) {
  namespace fs = std::filesystem;
  std::string folder = testing::TempDir() + "pageXXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  const fs::path in = folder;
  ASSERT_EQ(mkfifo((in / "pipe").c_str(), 0600), 0);
  std::ofstream(in / "good.html") << "good";
  fs::create_symlink(in / "good.html", in / "link");
  fs::create_symlink(in / "nothing", in / "loose");
  fs::create_directory(in / "folder");
  for (const char* name : {"pipe", "link", "loose", "folder"}) {
    const outcome result = twreport(kSample + " -o " + (in / name).string());
    EXPECT_EQ(result.exitCode, 1) << name;
    EXPECT_THAT(result.output, HasSubstr("expected a file or a new name, found a")) << name;
  }
  EXPECT_TRUE(fs::is_fifo(in / "pipe"));
  EXPECT_TRUE(fs::is_symlink(in / "link"));
  EXPECT_EQ(fs::file_size(in / "good.html"), 4U);
  for (const char* name : {"-", "''"}) {
    const outcome result = run("cd " + folder + " && '" TWREPORT "' " + kSample + " -o " + name);
    EXPECT_THAT(result.output, HasSubstr("expected the name of a file")) << name;
    EXPECT_GT(result.exitCode, 1);
  }
  EXPECT_EQ(twreport(kSample + " -o " + (in / "good.html").string()).exitCode, 0);
  EXPECT_GT(fs::file_size(in / "good.html"), 4U);
  EXPECT_EQ(fs::status(in / "good.html").permissions(),
            fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(std::distance(fs::directory_iterator(in), fs::directory_iterator()), 5)
      << "nothing unfinished is left";
  fs::remove_all(in);
}

TEST(twreport, refusesWrongArguments) {
  EXPECT_EQ(twreport("").exitCode, 2);
  EXPECT_EQ(twreport("--no-such").exitCode, 2);
  EXPECT_EQ(twreport("--help").exitCode, 0);
  const outcome by = twreport(kSample + " --by weight");
  EXPECT_EQ(by.exitCode, 2);
  EXPECT_THAT(by.output,
              HasSubstr("--by: expected blocker|class|lock|owner|site|thread, found 'weight'"));
  const std::string diff = "diff " + kRun + " " + kRun;
  for (const std::string& misplaced : {kRun + " " + diff, "--top 3 " + diff, "--json " + diff,
                                       "--grep x check --no-exception x " + kRun}) {
    const outcome result = twreport(misplaced);
    EXPECT_EQ(result.exitCode, 2) << misplaced;
    EXPECT_THAT(result.output, HasSubstr(" before all options and inputs, found "));
  }
  for (const char* both : {"--show 1 --json", "--show 1 -o x.html", "--json -o x.html"}) {
    EXPECT_EQ(twreport(kRun + " " + both).exitCode, 2) << both;
  }
  for (const char* top : {"0", "-1", "x", "1.5", ""}) {
    const outcome result = twreport(kSample + " --top '" + top + "'");
    EXPECT_NE(result.exitCode, 0) << top;
    EXPECT_THAT(result.output, HasSubstr("--top")) << top;
  }
}

TEST(twreport, ranksByWhatItIsAskedFor) {
  EXPECT_THAT(twreport(kSample + " --by site").output, HasSubstr("Top sites (5 of 7)"));
  EXPECT_THAT(twreport(kSample + " --by thread").output, HasSubstr("Top threads (5 of 13)"));
  EXPECT_THAT(twreport(kSample + " --by class").output, HasSubstr("Top classes of locks ("));
  EXPECT_EQ(twreport(kSample + " --by owner").output, twreport(kSample + " --by blocker").output);
}

TEST(twreport, showsOneRecord) {
  const outcome result = twreport(kRun + " --show 3");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, StartsWith("Record 3 of 6: java.lang.NullPointerException\n"));
  EXPECT_THAT(result.output,
              HasSubstr("note: StringBuilder = \"refund \U0001F600 for A. Customer"));
  EXPECT_EQ(twreport(kRun + " --show 7").output,
            "twreport: --show 7: expected the number of a record from 1 to 6, found 7\n");
}

TEST(twreport, showsMoreOfARecordOnDemand) {
  const std::string folded = "1 frame of the JDK (--jdk-frames shows it)\n";
  const std::string frame = "at jdk.internal.reflect.NativeMethodAccessorImpl.invoke0";
  const std::string raw = "as the agent wrote it: com.example.shop.";
  const std::string shown = twreport(kRun + " --show 1").output;
  EXPECT_THAT(shown, AllOf(HasSubstr(folded), Not(HasSubstr(frame)), Not(HasSubstr(raw))));
  const std::string more = twreport(kRun + " --show 1 --jdk-frames --raw --statics").output;
  EXPECT_THAT(more, AllOf(HasSubstr(frame), HasSubstr(raw), Not(HasSubstr(folded))));
  EXPECT_EQ(twreport(kRun + " --raw").exitCode, 2) << "only with --show";
  for (const std::string option : {"--jdk-sites", "--jdk-frames", "--statics", "--raw"}) {
    EXPECT_THAT(twreport("--help").output, HasSubstr("\n  " + option + " ")) << option;
  }
}

TEST(twreport, findsText) {
  const outcome result = twreport(kRun + " --grep PriceCache");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("Top locks (1)"));
  EXPECT_THAT(result.output, HasSubstr("Exceptions: 0 records"));
}

TEST(twreport, drawsWithWhatTheTerminalHas) {
  const std::string memory = " " DATA_FOLDER "/memory-report.json";
  EXPECT_THAT(run("LC_ALL=C.UTF-8 '" TWREPORT "'" + memory).output, HasSubstr("\u2588"));
  EXPECT_THAT(run("LC_ALL=C '" TWREPORT "'" + memory).output, HasSubstr("#"));
  EXPECT_EQ(run("LC_ALL=C '" TWREPORT "'" + memory).output.find("\u2588"), std::string::npos);
}

TEST(twreport, comparesTwoRuns) {
  // The recording, as if one lock had been blocked on for a minute longer.
  std::ifstream recorded(kReport);
  nlohmann::json slower = nlohmann::json::parse(recorded);
  for (auto& [name, lock] : slower["lockmap"].items()) {
    if (name.starts_with("com.example.shop.Inventory@")) {
      lock["totalBlockTime"] = lock["totalBlockTime"].get<int>() + 60;
    }
  }
  const std::string before = ::testing::TempDir() + "slower.json";
  std::ofstream(before) << slower;
  const outcome result = twreport("diff " + before + " " + kRun);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, StartsWith("A difference counts from 10 % and 1 on.\n"));
  EXPECT_THAT(result.output, HasSubstr("better  com.example.shop.Inventory "));
  EXPECT_EQ(twreport("diff " + kRun + " /nowhere").exitCode, 1);
  for (const char* option : {"--least", "--threshold"}) {
    const outcome negative = twreport("diff " + kRun + " " + kRun + " " + option + "=-1");
    EXPECT_GT(negative.exitCode, 1) << option;
    EXPECT_THAT(negative.output, HasSubstr(option));
  }
  EXPECT_NE(twreport("diff " + kRun).exitCode, 0);
}

TEST(twreport, exportsWhatItIsAskedFor) {
  EXPECT_THAT(twreport("export --format collapsed " + kRun).output,
              HasSubstr(";http-worker-1;java.lang.Thread.run;"));
  EXPECT_THAT(twreport("export --format csv --table classes " + kRun).output,
              StartsWith("session,class,generation,objects,bytes\r\n"));
  EXPECT_NE(twreport("export " + kRun).exitCode, 0);
  EXPECT_NE(twreport("export --format xml " + kRun).exitCode, 0);
}

// A folder with two runs: the recorded one, with an end line as the companion writes it today, and
// one whose JVM was killed while it recorded exceptions.
class runs : public testing::Test {
 protected:
  runs() {
    namespace fs = std::filesystem;
    std::string folder = testing::TempDir() + "runsXXXXXX";
    folder_ = mkdtemp(folder.data());
    fs::copy(kRun, whole(), fs::copy_options::recursive);
    std::ifstream in(kRun + "/exceptions.jsonl");
    std::ofstream out(whole() + "/exceptions.jsonl");
    for (std::string line; std::getline(in, line);) {
      out << (line.starts_with("{\"recorded\"") ? kEnd : line) << '\n';
    }
    fs::create_directory(killed());
    std::ofstream(killed() + "/run.json")
        << R"({"pid":2,"java":"17","options":{"exceptions":"true","locks":"true"}})";
    fs::copy(kRun + "/locks-1.json", killed());
  }
  ~runs() override { std::filesystem::remove_all(folder_); }

  std::string whole() const { return folder_ + "/run-1"; }
  std::string killed() const { return folder_ + "/run-2"; }

  static constexpr const char* kEnd =
      R"({"recorded":6,"dropped":0,"agent":{"seen":14,"filtered":8,"blackListed":0,"overRate":0,)"
      R"("delivered":6,"cut":0,"failed":{"stack":0,"callback":0,"memory":0,"vm":0}}})";
  std::string folder_;
};

TEST_F(runs, areCheckedOneByOne) {
  const std::string limits = "check --no-exception 'java.io.*' --max-blocked-seconds '*=1000' ";
  EXPECT_EQ(twreport(limits + whole()).exitCode, 0);
  const outcome both = twreport(limits + folder_);
  EXPECT_EQ(both.exitCode, 1);
  EXPECT_THAT(
      both.output,
      HasSubstr("run-2: java.io.*: no exception file: the JVM was killed or is still running\n"));
  EXPECT_THAT(both.output, testing::Not(HasSubstr("\nrun-1")));
  EXPECT_THAT(both.output, HasSubstr("note: run-1: 8 exceptions were not covered"));
  EXPECT_EQ(twreport("check --max-blocked-seconds '*=1000' " + folder_).exitCode, 0)
      << "locks were recorded in both";
}

TEST_F(runs, holdALimitWithNotesOnly) {
  const outcome result = twreport(
      "check --max-blocked-seconds 'com.example.*=1000' --max-survivors "
      "'com.example.shop.Session=0@9' --no-exception 'java.io.*' " +
      whole());
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output.find("note: at most 20 locks of a session were recorded"), 0U);
  EXPECT_THAT(result.output, HasSubstr("\nnote: 8 exceptions were not covered: "));
}

TEST(twreport, checksLimits) {
  const outcome broken = twreport("check --no-exception java.lang.NullPointerException " + kRun);
  EXPECT_EQ(broken.exitCode, 1);
  EXPECT_THAT(broken.output,
              HasSubstr("java.lang.NullPointerException: thrown at least 2 times in "));
  EXPECT_THAT(broken.output, HasSubstr("an older version wrote it\n"));
  EXPECT_EQ(twreport("check --grep x --no-exception java.io.* " + kRun).exitCode, 2)
      << "what is filtered out is not checked";
  EXPECT_EQ(twreport("check --max-blocked-seconds 'com.*=0' --max-blocked-seconds 'x=0' " + kRun)
                .exitCode,
            1)
      << "each of several limits is checked";
  EXPECT_EQ(twreport("check --max-blocked-seconds x " + kRun).exitCode, 2);
  EXPECT_EQ(twreport("check --no-exception '' " + kRun).exitCode, 2);
  const outcome nothing = twreport("check " + kRun);
  EXPECT_EQ(nothing.exitCode, 2);
  EXPECT_THAT(nothing.output, HasSubstr("expected a limit to check"));
  EXPECT_EQ(twreport("check --no-exception java.io.* " + kRun + " /nowhere").exitCode, 1)
      << "what was not read was not checked";
}

// Nothing that a report says reaches the terminal as a control character.
TEST(twreport, sendsNoControlCharacters) {
  const std::string report = testing::TempDir() + "hostile.json";
  std::ofstream(report)
      << R"({"sessionname": "\u001b]0;x\u0007", "sessionid": 1, "stacktracemap": {},
      "lockmap": {"\u001b[2J\u009b@1": {"id": "", "count": 1, "graph": [], "totalBlockTime": 1,
        "totalWaitTime": 0, "threadbean": {"\r": {"name": "\r\u001b", "count": 1,
        "totalBlockTime": 1, "totalWaitTime": 0, "stacktracebean": {"1": {"count": 1}}}}}},
      "blockingThreads": {"\u001b": {"name": "\u001b", "blockingCount": 1, "blockCount": 1,
        "totalBlockingTime": 1, "stacktracebean": {}}}, "\u001b[1m": 1})";
  std::ofstream(report + ".bad") << "{\"lockmap\": {\"\x1b[1m\\u001b\\u009b\": 1}}";
  for (const std::string& arguments :
       {report, "--by thread " + report, "--by site " + report, "--by blocker " + report,
        "--json " + report, "diff /dev/null " + report, "export --format collapsed " + report,
        "export --format speedscope " + report, "export --format csv " + report,
        "export --format prometheus " + report, "check --max-blocked-seconds '*=0' " + report,
        report + ".bad", std::string("$(printf '\\033[1m')")}) {
    for (unsigned char c : twreport(arguments).output) {
      EXPECT_TRUE(c >= 0x20 || c == '\n' || c == '\r') << int(c) << " of " << arguments;
    }
    EXPECT_EQ(twreport(arguments).output.find("\xC2\x9B"), std::string::npos) << arguments;
  }
}

TEST(twreport, readsAContentionProfile) {
  const std::string profile = DATA_FOLDER "/contention-run";
  EXPECT_THAT(twreport(profile).output, HasSubstr("\nSTUCK at 12:05:00 UTC"));
  const outcome check = twreport("check --no-deadlock --max-blocked-ms '*=1' " + profile);
  EXPECT_EQ(check.exitCode, 1);
  EXPECT_THAT(check.output, HasSubstr("deadlock in contention-1.json: "));
  EXPECT_EQ(twreport("check --max-blocked-ms 'a.*=1' " + profile).exitCode, 0);
  EXPECT_EQ(twreport("check --max-blocked-ms 'a.*=x' " + profile).exitCode, 2);
  EXPECT_EQ(twreport("check --no-deadlock " + kRun).exitCode, 1) << "it has no such report";
  EXPECT_THAT(twreport("export --format csv " + profile).output, StartsWith("report,lock,class,"))
      << "the table that there is";
  EXPECT_THAT(twreport("export --format csv --table locks " + profile).output,
              StartsWith("session,lock,"));
  const outcome both = twreport("export --format collapsed " + kReport + " " + profile);
  EXPECT_THAT(both.output, HasSubstr("twreport: only contention reports are in this output"));
  EXPECT_EQ(both.exitCode, 0);
}

TEST(twreport, sendsNoControlCharactersOfAContentionProfile) {
  std::ifstream recorded(DATA_FOLDER "/contention-run/contention-1.json");
  nlohmann::json hostile = nlohmann::json::parse(recorded);
  const nlohmann::json values = hostile.flatten();
  for (const auto& [path, value] : values.items()) {
    const bool isFixed = path.ends_with("/kind") || path == "/report" || path == "/parks";
    if (value.is_string() && !isFixed) {
      hostile[nlohmann::json::json_pointer(path)] = "\x1b[2J\xC2\x9B" + value.get<std::string>();
    }
  }
  const std::string report = testing::TempDir() + "hostile-contention.json";
  std::ofstream(report) << hostile;
  for (const std::string& arguments :
       {report, "--by class " + report, "--by site " + report, "--by owner " + report,
        "--by thread " + report, "--json " + report, "diff " + report + " " + report,
        "diff /dev/null " + report, "export --format collapsed " + report,
        "export --format speedscope " + report, "export --format csv " + report,
        "export --format csv --table pairs " + report, "export --format prometheus " + report,
        "check --max-blocked-ms '*=0' --no-deadlock " + report}) {
    const std::string output = twreport(arguments).output;
    for (unsigned char c : output) {
      EXPECT_TRUE(c >= 0x20 || c == '\n' || c == '\r') << int(c) << " of " << arguments;
    }
    EXPECT_EQ(output.find("\xC2\x9B"), std::string::npos) << arguments;
  }
}

std::string document(const std::string& name) {
  std::ostringstream text;
  text << std::ifstream(std::string(SOURCE_FOLDER) + "/" + name).rdbuf();
  return text.str();
}

TEST(twreport, printsTheSampleOfItsDocument) {
  const outcome result = twreport(kSample + " --top 2 --width 100");
  EXPECT_THAT(document("docs/twreport.md"), HasSubstr("```\n" + result.output + "```\n"))
      << "scripts/record-sample brings it up to date";
}

TEST(twreport, beginsWithTheSampleOfTheReadme) {
  const std::string readme = document("README.md");
  const std::string begin = "<!-- sample: written by scripts/record-sample -->\n```\n";
  const std::size_t start = readme.find(begin);
  ASSERT_NE(start, std::string::npos);
  const std::size_t from = start + begin.size();
  const std::string sample = readme.substr(from, readme.find("```", from) - from);
  EXPECT_GT(std::count(sample.begin(), sample.end(), '\n'), 8);
  const outcome result =
      twreport(std::string(DATA_FOLDER) + "/contention-run/contention-1.json --width 100");
  EXPECT_THAT(result.output, HasSubstr(sample)) << "scripts/record-sample brings it up to date";
}

}  // namespace
