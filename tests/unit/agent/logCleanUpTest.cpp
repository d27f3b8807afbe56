// The clean-up of old logs at start-up.
#include "agent/oldLogs.h"
#include "agentTest.h"

using agent::cleanUpOldLogs;
using agent::isOldLog;
using agent::parseLogDate;

namespace {

namespace fs = std::filesystem;

// --- Dates -----------------------------------------------------------------------------------

TEST(logDates, areReadFromTheirDigits) {
  const auto date = parseLogDate("20261116031500");
  ASSERT_TRUE(date);
  EXPECT_EQ(date->year, 2026);
  EXPECT_EQ(date->month, 11);
  EXPECT_EQ(date->day, 16);
  EXPECT_TRUE(parseLogDate("20261116"));
}

TEST(logDates, needEightDigits) {
  for (const char* text : {"", "2026111", "Error", "2026-11-16", "2026111x", " 20261116"}) {
    EXPECT_FALSE(parseLogDate(text)) << text;
  }
}

struct agesCase {
  const char* file;
  const char* today;
  bool old;
};
void PrintTo(const agesCase& one, std::ostream* out) {
  *out << one.file << " on " << one.today;
}

class logAges : public ::testing::TestWithParam<agesCase> {};

TEST_P(logAges, decide) {
  EXPECT_EQ(isOldLog(*parseLogDate(GetParam().file), *parseLogDate(GetParam().today)),
            GetParam().old);
}

INSTANTIATE_TEST_SUITE_P(withinAMonth, logAges,
                         ::testing::Values(agesCase{"20260315", "20260315", false},
                                           agesCase{"20260311", "20260315", false},
                                           agesCase{"20260310", "20260315", true},
                                           agesCase{"20260301", "20260331", true}));

// Days are borrowed from the month before today's.
INSTANTIATE_TEST_SUITE_P(
    overAMonth, logAges,
    ::testing::Values(
        agesCase{"20260128", "20260201", false}, agesCase{"20260127", "20260201", true},
        agesCase{"20260225", "20260301", false}, agesCase{"20260224", "20260301", true},
        agesCase{"20260328", "20260401", false}, agesCase{"20260327", "20260401", true},
        agesCase{"20260427", "20260501", false}, agesCase{"20260426", "20260501", true},
        agesCase{"20260528", "20260601", false}, agesCase{"20260527", "20260601", true},
        agesCase{"20260627", "20260701", false}, agesCase{"20260626", "20260701", true},
        agesCase{"20260728", "20260801", false}, agesCase{"20260727", "20260801", true},
        agesCase{"20260828", "20260901", false}, agesCase{"20260827", "20260901", true},
        agesCase{"20260927", "20261001", false}, agesCase{"20260926", "20261001", true},
        agesCase{"20261028", "20261101", false}, agesCase{"20261027", "20261101", true},
        agesCase{"20261127", "20261201", false}, agesCase{"20261126", "20261201", true}));

INSTANTIATE_TEST_SUITE_P(overLeapFebruaries, logAges,
                         ::testing::Values(agesCase{"20240226", "20240301", false},
                                           agesCase{"20240225", "20240301", true},
                                           agesCase{"20000226", "20000301", false},
                                           agesCase{"20000225", "20000301", true},
                                           agesCase{"21000225", "21000301", false},
                                           agesCase{"21000224", "21000301", true}));

INSTANTIATE_TEST_SUITE_P(overAYear, logAges,
                         ::testing::Values(agesCase{"20251229", "20260102", false},
                                           agesCase{"20251228", "20260102", true},
                                           agesCase{"20251230", "20260103", false}));

INSTANTIATE_TEST_SUITE_P(byMonthsOrYears, logAges,
                         ::testing::Values(agesCase{"20260215", "20260315", true},
                                           agesCase{"20260214", "20260315", true},
                                           agesCase{"20250315", "20260315", true},
                                           agesCase{"20250314", "20260315", true},
                                           // Any difference counts, a date to come included.
                                           agesCase{"20260415", "20260315", true},
                                           agesCase{"20270315", "20260315", true},
                                           agesCase{"20260316", "20260315", true}));

// --- Files -----------------------------------------------------------------------------------

constexpr const char* kToday = "20260315120000";
constexpr const char* kOld = "tw_NativeAgent_20260301000000_1.log_0";
constexpr const char* kNew = "tw_NativeAgent_20260314000000_1.log_0";

class logCleanUp : public test::agentTest {
 protected:
  // The entry called `name`: a folder that holds a file of the same name.
  fs::path entry(const std::string& name) {
    test::writeFile(folder() / name / name, "log");
    return folder() / name;
  }
  static bool survives(const fs::path& entry, const std::string& now = kToday) {
    cleanUpOldLogs(entry, now);
    return fs::exists(entry / entry.filename());
  }
};

TEST_F(logCleanUp, deletesTheOldLogOfTheEntry) {
  EXPECT_FALSE(survives(entry(kOld)));
}

TEST_F(logCleanUp, keepsWhatIsNotOld) {
  EXPECT_TRUE(survives(entry(kNew)));
}

TEST_F(logCleanUp, keepsOtherNames) {
  for (const char* name :
       {"tw_nativeagent_20260301", "NativeAgent_20260301", "logs", "xtw_NativeAgent_20260301",
        "tw_NativeAgent_", "tw_NativeAgent_none", "tw_NativeAgent"}) {
    EXPECT_TRUE(survives(entry(name))) << name;
  }
}

TEST_F(logCleanUp, keepsAFolderOfTheName) {
  fs::create_directories(folder() / kOld / kOld);
  EXPECT_TRUE(survives(folder() / kOld));
}

TEST_F(logCleanUp, keepsEverythingElseInTheEntry) {
  const fs::path old = entry(kOld);
  test::writeFile(old / "tw_NativeAgent_20260302000000_1.log_0", "log");
  cleanUpOldLogs(old, kToday);
  EXPECT_TRUE(fs::exists(old / "tw_NativeAgent_20260302000000_1.log_0"));
  EXPECT_FALSE(fs::exists(old / kOld));
}

TEST_F(logCleanUp, theNameFollowsTheLastBackslashToo) {
  const std::string directory = folder() / (std::string("home\\") + kOld);
  test::writeFile(fs::path(directory) / kOld, "log");
  cleanUpOldLogs(directory, kToday);
  EXPECT_FALSE(fs::exists(fs::path(directory) / kOld));
}

TEST_F(logCleanUp, aMissingEntryIsNothing) {
  cleanUpOldLogs(folder() / kOld, kToday);
  cleanUpOldLogs("", kToday);
  EXPECT_FALSE(fs::exists(folder() / kOld));
}

TEST_F(logCleanUp, theEntryItselfStaysWhenItIsAFile) {
  test::writeFile(folder() / kOld, "log");
  cleanUpOldLogs(folder() / kOld, kToday);
  EXPECT_TRUE(fs::exists(folder() / kOld));
}

TEST_F(logCleanUp, withoutATimeNothingIsDeleted) {
  EXPECT_TRUE(survives(entry(kOld), "Error"));
  EXPECT_TRUE(survives(entry(kOld), ""));
}

TEST_F(logCleanUp, dotEntriesAreSkipped) {
  EXPECT_TRUE(fs::exists(entry(kOld)));
  for (const char* dots : {"/.", "/..", "/./", "/../"}) {
    cleanUpOldLogs(entry(kOld).string() + dots, kToday);
    EXPECT_TRUE(fs::exists(folder() / kOld / kOld)) << dots;
  }
}

// The entry is "<home>\logs", which is not where the logs are.
TEST_F(logCleanUp, aLoadKeepsOldLogs) {
  test::writeFile(folder() / "logs" / "tw_NativeAgent_20010101000000_1.log_0", "log");
  test::writeFile(folder() / "logs" / "other", "log");
  test::writeFile(folder().string() + "\\logs/tw_NativeAgent_20010101000000_1.log_0", "log");
  EXPECT_EQ(load("logLevel=0"), 0);
  EXPECT_TRUE(fs::exists(folder() / "logs" / "tw_NativeAgent_20010101000000_1.log_0"));
  EXPECT_TRUE(fs::exists(folder().string() + "\\logs/tw_NativeAgent_20010101000000_1.log_0"));
  fs::remove_all(folder().string() + "\\logs");
}

}  // namespace
