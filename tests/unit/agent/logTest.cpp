// The agent log: what its files and records look like, when they change, and the folder maker.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <limits>
#include <regex>

#include "agent/setUp.h"
#include "agent/twAprLib.h"
#include "agent/twAprUtility.h"
#include "logFixture.h"

using agent::kLogDebug;
using agent::kLogError;
using agent::kLogTrace;
using agent::kLogWarn;
using agent::kSeverityDebug;
using agent::kSeverityError;
using agent::kSeverityTrace;
using agent::kSeverityWarn;
using agent::twAprLib;
using agent::twAprUtility;
using test::kLogHeader;
using test::kMaxLogBytes;
using test::lines;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLongestRecord = 4095;  // of 4096, one for the terminator

class agentLog : public test::logTest {
 protected:
  // The length of a record without its message; its columns do not change in length here.
  std::size_t fixedBytes() {
    if (fixed_ == 0) {
      const std::uintmax_t before = logFiles().empty() ? 0 : fs::file_size(logFiles().back());
      write("");
      fixed_ = fs::file_size(logFiles().back()) -
               (before == 0 ? std::string(kLogHeader).size() : before);
    }
    return fixed_;
  }

  // Writes a record of `length` bytes in all.
  void writeRecord(std::size_t length) { write(std::string(length - fixedBytes(), '.')); }

  // Adds records to the file in use, which now holds `held` bytes, until it holds `wanted`.
  void fillTo(std::size_t held, std::size_t wanted) {
    constexpr std::size_t kStep = 4000;
    for (; wanted - held >= 2 * kStep; held += kStep) {
      writeRecord(kStep);
    }
    const std::size_t half = (wanted - held) / 2;  // both fit and hold at least a fixed part
    writeRecord(half);
    writeRecord(wanted - held - half);
  }

 private:
  std::size_t fixed_ = 0;
};

// --- Files -----------------------------------------------------------------------------------

TEST_F(agentLog, isNamedAfterItsStartAndProcess) {
  const auto before = twAprLib::timeStamp(std::time(nullptr));
  open();
  const auto after = twAprLib::timeStamp(std::time(nullptr));
  write("one");
  ASSERT_THAT(logFiles(), SizeIs(1));
  std::smatch parts;
  const std::string name = logFiles()[0].filename();
  ASSERT_TRUE(
      std::regex_match(name, parts, std::regex("tw_NativeAgent_([0-9]{14})_([0-9]+)\\.log_0")))
      << name;
  EXPECT_GE(parts[1], before.data());
  EXPECT_LE(parts[1], after.data());
  EXPECT_EQ(parts[2], std::to_string(::getpid()));
}

TEST_F(agentLog, opensItsFileWithTheFirstRecord) {
  open();
  EXPECT_THAT(logFiles(), IsEmpty());
  write("one");
  EXPECT_THAT(logFiles(), SizeIs(1));
}

TEST_F(agentLog, levelZeroWritesNothingAndCreatesNoFile) {
  load("logLevel=0");
  EXPECT_EQ(startProfiling(), 1);
  startDetail();
  stopProfiling("/nowhere/report.json");
  EXPECT_THAT(logFiles(), IsEmpty());
}

TEST_F(agentLog, startsWithItsHeader) {
  open();
  write("one");
  const std::string text = test::readFile(logFiles()[0]);
  EXPECT_THAT(text, StartsWith(std::string(kLogHeader) + "\n"));  // the version is empty
  EXPECT_THAT(text, EndsWith("|one"));
}

TEST_F(agentLog, hasTheVersionAfterItsHeader) {
  test::writeFile(folder() / "etc" / "version", "# product\nTracing 4.2\nbuild 17\n");
  open();
  write("one");
  EXPECT_THAT(test::readFile(logFiles()[0]),
              StartsWith(std::string(kLogHeader) + "Tracing 4.2 build 17 \n"));
}

TEST_F(agentLog, aVersionOfCommentsAndBlankLinesIsEmpty) {
  test::writeFile(folder() / "etc" / "version", "# one\n\n#two\n \n\t3\n\r\n");
  open();
  write("one");
  EXPECT_THAT(test::readFile(logFiles()[0]), StartsWith(std::string(kLogHeader) + "\n"));
}

TEST_F(agentLog, aFileThatCannotBeOpenedIsTriedAgain) {
  open();
  fs::rename(folder() / "logs", folder() / "away");
  write("lost");
  fs::rename(folder() / "away", folder() / "logs");
  write("kept");
  ASSERT_THAT(logFiles(), SizeIs(1));
  EXPECT_THAT(test::readFile(logFiles()[0]), AllOf(StartsWith(kLogHeader), EndsWith("|kept")));
  EXPECT_THAT(messages("Error"), ElementsAre("kept"));
}

// At Debug it has what is in the program's objects.
// A thread may have got the logger just before.
TEST_F(agentLog, aClosedOneIsNotOpenedByALateRecord) {
  const agent::twAprContext* const context = agent::aprContext(stderr, false);
  ASSERT_NE(context, nullptr);
  agent::twLogger logger(context->pool, folder() / "logs", "late.log");
  EXPECT_NE(logger.stream(), nullptr);
  logger.close();
  EXPECT_EQ(logger.stream(), nullptr);
  logger.open();
  EXPECT_NE(logger.stream(), nullptr);
}

TEST_F(agentLog, onlyItsOwnerReadsIt) {
  const mode_t old = ::umask(0);
  open();
  write("one");
  fillTo(fs::file_size(logFiles()[0]), kMaxLogBytes);
  write("two");
  ::umask(old);
  ASSERT_THAT(logFiles(), SizeIs(2));
  for (const fs::path& each : logFiles()) {
    EXPECT_EQ(fs::status(each).permissions(), fs::perms(0600)) << each;
  }
}

// Nobody reads from it, or somebody does: both would let the record's thread wait.
TEST_F(agentLog, aFifoInPlaceOfItsFileIsRefusedOnceAndTriedAgain) {
  open();
  write("first");
  fixedBytes();
  std::string other = logFiles()[0];
  other.back() = '1';
  fillTo(fs::file_size(logFiles()[0]), kMaxLogBytes);
  ASSERT_EQ(::mkfifo(other.c_str(), 0600), 0);
  CaptureStderr();
  write("lost");
  const int reader = ::open(other.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  write("lost as well");
  char byte = 0;
  EXPECT_EQ(::read(reader, &byte, 1), 0) << "nothing was written into it";
  ::close(reader);
  EXPECT_EQ(GetCapturedStderr(),
            "javanativeagent: nothing is logged to '" + other + "': expected a regular file\n");
  fs::remove(other);
  write("kept");
  EXPECT_THAT(test::readFile(other), AllOf(StartsWith(kLogHeader), EndsWith("|kept")));
}

TEST_F(agentLog, withoutASetUpNothingIsWritten) {
  write("nowhere");
  EXPECT_THAT(logFiles(), IsEmpty());
}

// --- Records ---------------------------------------------------------------------------------

TEST_F(agentLog, aRecordHasTenColumns) {
  open();
  write("hello");
  EXPECT_THAT(lines(test::readFile(logFiles()[0])).back(),
              MatchesRegex("[0-9][0-9]/[0-9][0-9]/[0-9]+ [0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\|"
                           "\\*\\*\\*\\*\\*\\*\\|\\(null\\)\\|" +
                           std::to_string(::gettid()) +
                           "\\|NATIVE_AGENT\\|logTest.cpp\\|7\\|agentLog\\|Error\\|hello"));
}

TEST_F(agentLog, aRecordStartsWithItsLineBreak) {
  open();
  write("one");
  write("two");
  const std::string text = test::readFile(logFiles()[0]);
  EXPECT_THAT(text, EndsWith("|two"));
  EXPECT_THAT(lines(text), SizeIs(4));  // header, version, and two records
}

TEST_F(agentLog, theTimeIsTheLocalTimeOfTheRecord) {
  open();
  const auto before = twAprLib::recordTime(std::time(nullptr));
  write("one");
  const auto after = twAprLib::recordTime(std::time(nullptr));
  const std::string line = lines(test::readFile(logFiles()[0])).back();
  const std::string time = line.substr(0, line.find('|'));
  EXPECT_THAT(time, ::testing::AnyOf(std::string(before.data()), std::string(after.data())));
}

TEST_F(agentLog, aThreadNameIsShownWhereOneIsGiven) {
  open();
  twAprLib::write("worker", 5, "NATIVE_AGENT", "Error", "a.cpp", 1, "f", "%d and %s", 3, "more");
  EXPECT_THAT(lines(test::readFile(logFiles()[0])).back(),
              AllOf(HasSubstr("|worker|" + std::to_string(::gettid()) + "|"),
                    EndsWith("|Error|3 and more")));
}

TEST_F(agentLog, theSourceIsNamedWithoutItsFolders) {
  open();
  for (const char* source : {"/a/b/one.cpp", "two.cpp", "c/", ""}) {
    twAprLib::write(nullptr, 0, "NATIVE_AGENT", "Error", source, 1, "f", "x");
  }
  std::vector<std::string> names;
  for (const test::logRecord& each : log()) {
    names.push_back(each.sourceFile);
  }
  EXPECT_THAT(names, ElementsAre("one.cpp", "two.cpp", "", ""));
}

TEST_F(agentLog, aMessageOfSeveralLinesStaysOneRecord) {
  open();
  write("a\n\tb|c");
  EXPECT_THAT(messages("Error"), ElementsAre("a\n\tb|c"));
}

TEST_F(agentLog, aRecordBeyond4096BytesIsCut) {
  open();
  const std::size_t fixed = fixedBytes();
  const std::uintmax_t before = fs::file_size(logFiles()[0]);
  write(std::string(10000, 'x'));
  EXPECT_EQ(fs::file_size(logFiles()[0]) - before, kLongestRecord);
  EXPECT_EQ(messages("Error").back(), std::string(kLongestRecord - fixed, 'x'));
}

TEST_F(agentLog, aRecordThatJustFitsIsWhole) {
  open();
  const std::size_t fixed = fixedBytes();
  for (const std::size_t length : {kLongestRecord - 1, kLongestRecord, kLongestRecord + 1}) {
    write(std::string(length - fixed - 1, 'x') + "!");
  }
  std::vector<char> ends;
  std::vector<std::size_t> lengths;
  for (const std::string& each : messages("Error")) {
    if (each.empty()) {
      continue;
    }
    ends.push_back(each.back());
    lengths.push_back(each.size() + fixed);
  }
  EXPECT_THAT(ends, ElementsAre('!', '!', 'x'));
  EXPECT_THAT(lengths, ElementsAre(kLongestRecord - 1, kLongestRecord, kLongestRecord));
}

TEST_F(agentLog, aRecordWhoseFixedPartFillsTheBufferIsDropped) {
  open();
  write("first");
  const std::string function(5000, 'f');
  twAprLib::write(nullptr, 0, "NATIVE_AGENT", "Error", "a.cpp", 1, function.c_str(), "lost");
  EXPECT_THAT(messages("Error"), ElementsAre("first"));
  EXPECT_THAT(test::readFile(logFiles()[0]), EndsWith("|first"));
}

TEST_F(agentLog, hostileMessagesAreWrittenAsTheyAre) {
  open();
  const std::string hostile = "%s%n%d \x01\x7f\xff|\"'\\ \xc3\xa4";
  write(hostile);
  EXPECT_THAT(messages("Error"), ElementsAre(hostile));
}

// --- Levels ----------------------------------------------------------------------------------

class logLevels : public agentLog, public ::testing::WithParamInterface<std::int32_t> {};

TEST_P(logLevels, decideWhatIsWritten) {
  open(GetParam());
  TW_LOG(kLogError, kSeverityError, "f", "an error");
  TW_LOG(kLogWarn, kSeverityWarn, "f", "a warning");
  TW_LOG(kLogTrace, kSeverityTrace, "f", "a trace");
  TW_LOG(kLogDebug, kSeverityDebug, "f", "a detail");
  EXPECT_EQ(messages("Error").size(), GetParam() >= 1 ? 1U : 0U);
  EXPECT_EQ(messages("warn").size(), GetParam() >= 1 ? 1U : 0U);
  EXPECT_EQ(messages("Trace").size(), GetParam() >= 3 ? 1U : 0U);
  EXPECT_EQ(messages("Debug").size(), GetParam() >= 4 ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(all, logLevels, ::testing::Values(-1, 0, 1, 2, 3, 4, 5),
                         [](const ::testing::TestParamInfo<std::int32_t>& one) {
                           return one.param < 0 ? "negative" : std::to_string(one.param);
                         });

TEST_F(agentLog, belowTheLevelNoArgumentIsEvaluated) {
  open(2);
  int evaluated = 0;
  TW_LOG(kLogTrace, kSeverityTrace, "f", "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
}

TEST(logLevel, isOneAtProcessStart) {
  EXPECT_EQ(twAprLib::level(), 1);
}

// --- Rotation --------------------------------------------------------------------------------

TEST_F(agentLog, staysInItsFileUpToTenMebibytes) {
  open();
  fixedBytes();
  fillTo(fs::file_size(logFiles()[0]), kMaxLogBytes - 1);
  ASSERT_EQ(fs::file_size(logFiles()[0]), kMaxLogBytes - 1);
  writeRecord(200);
  EXPECT_THAT(logFiles(), SizeIs(1));
  EXPECT_EQ(fs::file_size(logFiles()[0]), kMaxLogBytes + 199);
}

TEST_F(agentLog, tenMebibytesMoveItToTheOtherFile) {
  test::writeFile(folder() / "etc" / "version", "1.0\n");
  open();
  write("the first");
  fixedBytes();
  fillTo(fs::file_size(logFiles()[0]), kMaxLogBytes);
  ASSERT_THAT(logFiles(), SizeIs(1));
  ASSERT_EQ(fs::file_size(logFiles()[0]), kMaxLogBytes);
  write("the next");
  ASSERT_THAT(logFiles(), SizeIs(2));
  EXPECT_THAT(logFiles()[1].string(), EndsWith(".log_1"));
  EXPECT_EQ(fs::file_size(logFiles()[0]), kMaxLogBytes);
  EXPECT_THAT(test::readFile(logFiles()[1]),
              AllOf(StartsWith(std::string(kLogHeader) + "1.0 \n"), EndsWith("|the next")));
}

TEST_F(agentLog, afterTwentyMebibytesTheFirstFileStartsAfresh) {
  open();
  write("the first");
  fixedBytes();
  const fs::path first = logFiles()[0];
  fillTo(fs::file_size(first), kMaxLogBytes);
  write("of the second file");
  const fs::path second = logFiles()[1];
  fillTo(fs::file_size(second), kMaxLogBytes);
  ASSERT_EQ(fs::file_size(first), kMaxLogBytes);

  write("back in the first file");
  EXPECT_THAT(logFiles(), ElementsAre(first, second));
  EXPECT_EQ(fs::file_size(second), kMaxLogBytes);
  EXPECT_THAT(test::readFile(first),
              AllOf(StartsWith(kLogHeader), EndsWith("|back in the first file")));
  EXPECT_THAT(lines(test::readFile(first)), SizeIs(3));

  fillTo(fs::file_size(first), kMaxLogBytes);
  write("and in the second");
  EXPECT_THAT(logFiles(), ElementsAre(first, second));
  EXPECT_EQ(fs::file_size(first), kMaxLogBytes);
  EXPECT_THAT(lines(test::readFile(second)), SizeIs(3));
}

// A file deleted on the way back is deleted by its name: what took its place is a new one.
TEST_F(agentLog, theFileIsDeletedWhenItsTurnComesAgain) {
  open();
  write("the first");
  fixedBytes();
  const fs::path first = logFiles()[0];
  fs::create_hard_link(first, folder() / "kept");
  fillTo(fs::file_size(first), kMaxLogBytes);
  write("of the second file");
  fillTo(fs::file_size(logFiles()[1]), kMaxLogBytes);
  write("back");
  EXPECT_EQ(fs::file_size(folder() / "kept"), kMaxLogBytes);
  EXPECT_EQ(fs::hard_link_count(folder() / "kept"), 1U);
}

// An unusable second file loses records, but neither the process nor the records after it.
TEST_F(agentLog, aFileThatCannotBeSwitchedToIsTriedAgain) {
  open();
  write("the first");
  fixedBytes();
  const fs::path first = logFiles()[0];
  std::string other = first.string();
  other.back() = '1';
  fs::create_directory(other);
  fillTo(fs::file_size(first), kMaxLogBytes);
  write("lost");
  fs::remove(other);
  write("kept");
  EXPECT_THAT(test::readFile(other), AllOf(StartsWith(kLogHeader), EndsWith("|kept")));
}

// --- Times -----------------------------------------------------------------------------------

class logTimes : public ::testing::Test {
 protected:
  void SetUp() override { setZone("UTC"); }
  static void setZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  static std::time_t utc(int year, int month, int day, int hour, int minute, int second) {
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    return ::timegm(&parts);
  }
};

TEST_F(logTimes, aTimeStampHasFourteenDigits) {
  EXPECT_STREQ(twAprLib::timeStamp(utc(2026, 11, 16, 3, 15, 0)).data(), "20261116031500");
  EXPECT_STREQ(twAprLib::timeStamp(utc(2009, 1, 2, 3, 4, 5)).data(), "20090102030405");
}

TEST_F(logTimes, recordsOf2026Show26) {
  EXPECT_STREQ(twAprLib::recordTime(utc(2026, 11, 16, 3, 15, 59)).data(), "11/16/26 03:15:59");
}

TEST_F(logTimes, theYearOfARecordIsModulo2000) {
  EXPECT_STREQ(twAprLib::recordTime(utc(2000, 1, 1, 0, 0, 0)).data(), "01/01/00 00:00:00");
  EXPECT_STREQ(twAprLib::recordTime(utc(2009, 12, 31, 23, 59, 59)).data(), "12/31/09 23:59:59");
  EXPECT_STREQ(twAprLib::recordTime(utc(2100, 2, 3, 4, 5, 6)).data(), "02/03/100 04:05:06");
  EXPECT_STREQ(twAprLib::recordTime(utc(1999, 2, 3, 4, 5, 6)).data(), "02/03/1999 04:05:06");
}

TEST_F(logTimes, areLocal) {
  setZone("TST-5:30");
  EXPECT_STREQ(twAprLib::timeStamp(utc(2026, 12, 31, 20, 0, 0)).data(), "20270101013000");
  EXPECT_STREQ(twAprLib::recordTime(utc(2026, 12, 31, 20, 0, 0)).data(), "01/01/27 01:30:00");
}

TEST_F(logTimes, aTimeThatCannotBeHadIsCalledError) {
  constexpr std::time_t kFar = std::numeric_limits<std::time_t>::max();
  EXPECT_STREQ(twAprLib::timeStamp(kFar).data(), "Error");
  EXPECT_STREQ(twAprLib::recordTime(kFar).data(), "Error");
}

// --- The version file ------------------------------------------------------------------------

class versionFile : public test::agentTest {
 protected:
  std::string version(std::string_view text) {
    test::writeFile(folder() / "version", text);
    return twAprLib::readVersion(folder() / "version");
  }
};

TEST_F(versionFile, missingGivesNoVersion) {
  EXPECT_EQ(twAprLib::readVersion(folder() / "none"), "");
  EXPECT_EQ(twAprLib::readVersion(folder()), "");
}

TEST_F(versionFile, fifoGivesNoVersion) {
  const fs::path path = folder() / "fifo";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(twAprLib::readVersion(path), "");
}

TEST_F(versionFile, emptyGivesNoVersion) {
  EXPECT_EQ(version(""), "");
}

TEST_F(versionFile, linesAreJoinedByBlanks) {
  EXPECT_EQ(version("Product 4.2\nbuild 17\n"), "Product 4.2 build 17 ");
  EXPECT_EQ(version("Product 4.2\nbuild 17"), "Product 4.2 build 17");
}

TEST_F(versionFile, linesThatBeginWithABlankOrHashAreSkipped) {
  for (const char* skipped : {"#x", " x", "\tx", "\rx", "", "#"}) {
    EXPECT_EQ(version(std::string("a\n") + skipped + "\nb"), "a b") << skipped;
  }
  EXPECT_EQ(version("a #b\n"), "a #b ");
}

TEST_F(versionFile, aCarriageReturnBecomesTheBlankInsteadOfTheLineFeed) {
  EXPECT_EQ(version("a\r\nb\r\n"), "a \nb \n");
  EXPECT_EQ(version("a\rb\rc\n"), "a b\rc\n");
}

TEST_F(versionFile, linesBeyond1023BytesAreReadInPieces) {
  const std::string piece(1023, 'a');
  EXPECT_EQ(version(piece + "\nb"), piece + "b");  // the second piece is empty: skipped
  EXPECT_EQ(version(piece + "#b\nc"), piece + "c");
  EXPECT_EQ(version(piece + "b\nc"), piece + "b c");
}

// --- The folder maker ------------------------------------------------------------------------

class folderMaker : public agentLog {
 protected:
  // The folders in the working directory, which is the test's own.
  std::vector<std::string> made() {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(".")) {
      names.push_back(entry.path().lexically_normal());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
};

TEST_F(folderMaker, joinsThePiecesWithoutSeparators) {
  EXPECT_EQ(twAprUtility::mkdir_ex("a/b/c"), 1);
  EXPECT_THAT(made(), ElementsAre("a", "ab"));
}

TEST_F(folderMaker, countsTheLastPieceBeforeASlash) {
  EXPECT_EQ(twAprUtility::mkdir_ex("a/b/c/"), 1);
  EXPECT_THAT(made(), ElementsAre("a", "ab", "abc"));
}

TEST_F(folderMaker, makesNothingOfOnePiece) {
  for (const char* path : {"", "/", "a", "/a", "///"}) {
    EXPECT_EQ(twAprUtility::mkdir_ex(path), 1) << path;
  }
  EXPECT_THAT(made(), IsEmpty());
}

TEST_F(folderMaker, makesOnePieceBeforeASlash) {
  EXPECT_EQ(twAprUtility::mkdir_ex("a/"), 1);
  EXPECT_THAT(made(), ElementsAre("a"));
}

TEST_F(folderMaker, startsInTheWorkingDirectory) {
  EXPECT_EQ(twAprUtility::mkdir_ex("//a//b/c"), 1);
  EXPECT_THAT(made(), ElementsAre("a", "ab"));
}

TEST_F(folderMaker, acceptsFoldersThatExist) {
  fs::create_directory("a");
  EXPECT_EQ(twAprUtility::mkdir_ex("a/b/c"), 1);
  EXPECT_THAT(made(), ElementsAre("a", "ab"));
}

TEST_F(folderMaker, letsOnlyTheOwnerWriteWhateverTheUmask) {
  const mode_t old = ::umask(0);
  EXPECT_EQ(twAprUtility::mkdir_ex("a/b"), 1);
  ::umask(old);
  EXPECT_EQ(fs::status("a").permissions(), fs::perms(0755));
}

TEST_F(folderMaker, keepsThirtyPieces) {
  std::string path;
  std::string longest;
  for (int i = 0; i < 40; ++i) {
    path += static_cast<char>('A' + i);
    path += '/';
    if (i < 30) {
      longest += static_cast<char>('A' + i);
    }
  }
  EXPECT_EQ(twAprUtility::mkdir_ex(path), 1);
  EXPECT_THAT(made(), SizeIs(30));
  EXPECT_EQ(made().back(), longest);
}

TEST_F(folderMaker, thirtyPiecesWithoutASlashAtTheEndMake29) {
  std::string path;
  for (int i = 0; i < 40; ++i) {
    path += std::string(1, static_cast<char>('A' + i)) + "/";
  }
  path.pop_back();
  EXPECT_EQ(twAprUtility::mkdir_ex(path), 1);
  EXPECT_THAT(made(), SizeIs(29));
}

TEST_F(folderMaker, takesAPathOf8000Characters) {
  EXPECT_EQ(twAprUtility::mkdir_ex("a" + std::string(7999, '/')), 1);
  EXPECT_THAT(made(), ElementsAre("a"));
}

TEST_F(folderMaker, refusesAPathOf8001Characters) {
  open();
  fs::remove_all("x");
  const std::vector<std::string> before = made();
  const std::string path = "a" + std::string(8000, '/');
  const std::string text =
      "mkdir_ex() - Length of path (8001) is more than max allowed (8192). Path: '";
  CaptureStderr();
  EXPECT_EQ(twAprUtility::mkdir_ex(path), 0);
  EXPECT_EQ(GetCapturedStderr(), text + path + "'\n");
  EXPECT_EQ(made(), before);
  EXPECT_THAT(messages("Error"), ElementsAre(StartsWith(text + "a///")));  // cut as any record
}

TEST_F(folderMaker, refusesAtLevelZeroWithoutALogLine) {
  open(0);
  CaptureStderr();
  EXPECT_EQ(twAprUtility::mkdir_ex(std::string(8001, 'x')), 0);
  EXPECT_THAT(GetCapturedStderr(), StartsWith("mkdir_ex() - Length of path (8001)"));
  EXPECT_THAT(logFiles(), IsEmpty());
}

TEST_F(folderMaker, stopsWhereTheSystemRefuses) {
  open();
  const std::string name(256, 'n');  // one too long for a file name
  CaptureStderr();
  EXPECT_EQ(twAprUtility::mkdir_ex("a/" + name + "/b/"), 0);
  const std::string printed = GetCapturedStderr();
  EXPECT_THAT(printed, AllOf(StartsWith("Error in creating directory. Path: '"), HasSubstr(name),
                             EndsWith("'. Error = 'File name too long'\n")));
  EXPECT_TRUE(fs::is_directory("a"));
  EXPECT_FALSE(fs::exists("b"));
  EXPECT_THAT(messages("Error"), ElementsAre(printed.substr(0, printed.size() - 1)));
}

TEST_F(folderMaker, isRefusedAtLevelZeroWithoutALogLine) {
  open(0);
  CaptureStderr();
  EXPECT_EQ(twAprUtility::mkdir_ex(std::string(256, 'n') + "/"), 0);
  EXPECT_THAT(GetCapturedStderr(), HasSubstr("File name too long"));
  EXPECT_THAT(logFiles(), IsEmpty());
}

TEST_F(folderMaker, theLogGoesOnWithoutItsFolder) {
  fs::remove_all(folder() / "logs");
  open();
  write("lost");
  fs::create_directory(folder() / "logs");
  write("kept");
  EXPECT_THAT(messages("Error"), ElementsAre("kept"));
}

// --- Printing --------------------------------------------------------------------------------

TEST(printing, goesToTheStreamAtOnce) {
  ::testing::internal::CaptureStdout();
  CaptureStderr();
  twAprLib::print("%d ", 1);
  twAprLib::print(stdout, "%s", "two");
  twAprLib::print(stderr, "%s", "three");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "1 two");
  EXPECT_EQ(GetCapturedStderr(), "three");
}

}  // namespace
