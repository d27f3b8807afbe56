// The agent log when many threads write and the system refuses: what is in its files is whole
// records, each once, and nobody is held up.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <latch>
#include <map>
#include <thread>

#include "../agent/agentTest.h"
#include "agent/twAprLib.h"

using agent::twAprLib;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

namespace fs = std::filesystem;

constexpr const char* kHeader = "#TimeStamp|";
constexpr std::size_t kThreads = 32;

class logUnderStress : public test::agentTest {
 protected:
  void open() {
    ASSERT_EQ(load("logLevel=0"), 0);
    twAprLib::setLevel(1);
  }

  static std::string nameOf(std::size_t thread, std::size_t record) {
    return std::to_string(thread) + "." + std::to_string(record);
  }
  // A message that tells by its two ends whether it is whole.
  static std::string messageOf(const std::string& name, std::size_t filling) {
    return "<" + name + std::string(filling, '-') + name + ">";
  }
  static void write(const std::string& message) {
    twAprLib::write(nullptr, 0, "NATIVE_AGENT", "Error", "a.cpp", 7, "f", "%s", message.c_str());
  }

  // Each of 32 threads writes `records` records; `also` runs meanwhile, and they wait for it in
  // the middle.
  static void writeFromThreads(
      std::size_t records, std::size_t filling, const std::function<void()>& also = [] {}) {
    std::latch halfWay(kThreads);
    std::latch done(1);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (std::size_t r = 0; r < records; ++r) {
          if (r == records / 2) {
            halfWay.count_down();
            if (t % 2 == 0) {
              done.wait();  // the others go on meanwhile
            }
          }
          write(messageOf(nameOf(t, r), filling));
        }
      });
    }
    halfWay.wait();
    also();
    done.count_down();
    for (std::thread& each : threads) {
      each.join();
    }
  }

  // The records in the files by name, and what is neither a record nor the header.
  struct content {
    std::map<std::string, int> records{};
    std::vector<std::string> broken{};
  };
  content read() const {
    content all;
    for (const fs::path& file : logFiles()) {
      std::istringstream text(test::readFile(file));
      for (std::string line; std::getline(text, line);) {
        if (const std::string name = nameIn(line); !name.empty()) {
          ++all.records[name];
        } else if (!line.empty() && !line.starts_with(kHeader)) {
          all.broken.push_back(line);
        }
      }
    }
    return all;
  }
  // The name in the message of a line that is one whole record; else an empty text.
  static std::string nameIn(const std::string& line) {
    const std::size_t begin = line.find('<');
    if (begin == std::string::npos) {
      return "";
    }
    const std::string columns = line.substr(0, begin);
    const std::size_t timeBytes = std::string("11/21/26 16:00:00").size();
    if (columns.find("|******|(null)|") != timeBytes ||
        !columns.ends_with("|NATIVE_AGENT|a.cpp|7|f|Error|")) {
      return "";
    }
    const std::string message = line.substr(begin);
    const std::string name = message.substr(1, message.find('-') - 1);
    const bool whole = message.size() > 2 * name.size() + 2 &&
                       message == messageOf(name, message.size() - 2 * name.size() - 2);
    return whole ? name : "";
  }
  static void expectEachOnce(const content& all) {
    for (const auto& [name, times] : all.records) {
      EXPECT_EQ(times, 1) << name;
    }
  }
};

TEST_F(logUnderStress, recordsStayWholeOverManyRotations) {
  // Three files' worth of records of nearly full length; the last two files are there in the end.
  constexpr std::size_t kFilling = 3900;
  constexpr std::size_t kRecords =
      5 * std::size_t{agent::twLogger::kMaxFileBytes} / (kThreads * kFilling);
  open();
  writeFromThreads(kRecords, kFilling);
  ASSERT_THAT(logFiles(), SizeIs(2));
  for (const fs::path& file : logFiles()) {
    EXPECT_THAT(test::readFile(file), StartsWith(kHeader));
    // Threads that have the file when it is full may each add one record.
    EXPECT_LE(fs::file_size(file), agent::twLogger::kMaxFileBytes + kThreads * 4096);
  }
  const content all = read();
  EXPECT_THAT(all.broken, IsEmpty());
  EXPECT_THAT(all.records, SizeIs(Ge(agent::twLogger::kMaxFileBytes / 4096)));
  expectEachOnce(all);
}

// The folder goes away while 32 threads write over the end of the first file, and comes back.
TEST_F(logUnderStress, aFolderThatIsRemovedLosesOnlyWhatIsWrittenMeanwhile) {
  constexpr std::size_t kFilling = 3900;
  constexpr std::size_t kRecords =
      3 * std::size_t{agent::twLogger::kMaxFileBytes} / (kThreads * kFilling);
  open();
  writeFromThreads(kRecords, kFilling, [&] { fs::remove_all(folder() / "logs"); });
  fs::create_directory(folder() / "logs");
  // Whichever file is open by now is one without a name: as much again needs one with a name.
  writeFromThreads(kRecords, kFilling);
  write(messageOf("1000.1", 10));
  const content all = read();
  EXPECT_THAT(all.broken, IsEmpty());
  expectEachOnce(all);
  EXPECT_EQ(all.records.count("1000.1"), 1U);
}

// --- A disk that takes no more -----------------------------------------------------------------

// Has the descriptor of the open log file lead elsewhere for its scope.
class redirected {
 public:
  redirected(const fs::path& file, const char* target) {
    for (const auto& each : fs::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      if (fs::read_symlink(each.path(), gone) == file) {
        descriptor_ = std::stoi(each.path().filename());
      }
    }
    kept_ = ::fcntl(descriptor_, F_DUPFD_CLOEXEC, 0);
    const int other = ::open(target, O_WRONLY | O_CLOEXEC);
    ::dup2(other, descriptor_);
    ::close(other);
  }
  ~redirected() {
    ::dup2(kept_, descriptor_);
    ::close(kept_);
  }
  redirected(const redirected&) = delete;
  redirected& operator=(const redirected&) = delete;

  bool works() const { return descriptor_ >= 0 && kept_ >= 0; }

 private:
  int descriptor_ = -1;
  int kept_ = -1;
};

TEST_F(logUnderStress, aFullDiskLosesOnlyWhatIsWrittenMeanwhile) {
  constexpr std::size_t kRecords = 100;
  open();
  write(messageOf("1000.0", 10));
  {
    const redirected disk(logFiles()[0], "/dev/full");
    ASSERT_TRUE(disk.works());
    writeFromThreads(kRecords, 200);
  }
  EXPECT_THAT(read().records, SizeIs(1));
  writeFromThreads(kRecords, 200);
  const content all = read();
  EXPECT_THAT(all.broken, IsEmpty());
  EXPECT_EQ(all.records.size(), 1 + kThreads * kRecords);
  expectEachOnce(all);
}

TEST_F(logUnderStress, aLimitOfTheFileSizeCutsAtMostOneRecord) {
  constexpr rlim_t kBytes = 100000;
  open();
  {
    const test::fileLimit limit(kBytes);
    writeFromThreads(100, 200);
  }
  EXPECT_EQ(fs::file_size(logFiles()[0]), kBytes);
  content all = read();
  EXPECT_THAT(all.records, Not(IsEmpty()));
  EXPECT_LE(all.broken.size(), 1U);
  // Whole ones again, on lines of their own, when there is room.
  const std::size_t before = all.records.size();
  write(messageOf("1000.1", 10));
  all = read();
  EXPECT_EQ(all.records.size(), before + 1);
  EXPECT_EQ(all.records.count("1000.1"), 1U);
  EXPECT_LE(all.broken.size(), 1U);
}

// --- Rights --------------------------------------------------------------------------------------

// For its scope not the superuser, who may write anything.
class ordinaryUser {
 public:
  ordinaryUser() {
    constexpr uid_t kNobody = 65534;
    if (before_ == 0) {
      changed_ = ::seteuid(kNobody) == 0;
    }
  }
  ~ordinaryUser() {
    if (changed_) {
      changed_ = ::seteuid(before_) != 0;
    }
  }
  ordinaryUser(const ordinaryUser&) = delete;
  ordinaryUser& operator=(const ordinaryUser&) = delete;

 private:
  uid_t before_ = ::geteuid();
  bool changed_ = false;
};

TEST_F(logUnderStress, aReadOnlyFileLosesOnlyWhatIsWrittenMeanwhile) {
  constexpr std::size_t kFilling = 3900;
  constexpr std::size_t kRecords =
      std::size_t{agent::twLogger::kMaxFileBytes} * 3 / 2 / (kThreads * kFilling);
  open();
  fs::permissions(folder(), fs::perms(0755));
  write(messageOf("1000.0", 10));
  std::string other = logFiles()[0];
  other.back() = '1';
  test::writeFile(other, "");
  fs::permissions(other, fs::perms(0444));
  {
    const ordinaryUser user;
    writeFromThreads(kRecords, kFilling);
  }
  EXPECT_EQ(fs::file_size(other), 0U);
  fs::permissions(other, fs::perms(0644));
  write(messageOf("1000.1", 10));
  const content all = read();
  EXPECT_THAT(all.broken, IsEmpty());
  expectEachOnce(all);
  EXPECT_EQ(all.records.count("1000.0"), 1U);
  EXPECT_EQ(all.records.count("1000.1"), 1U);
  EXPECT_THAT(test::readFile(other), StartsWith(kHeader));
}

TEST_F(logUnderStress, onlyTheOwnerMayReadItsFilesWhateverTheUmask) {
  const mode_t old = ::umask(0);
  open();
  write(messageOf("1000.0", 10));
  ::umask(old);
  EXPECT_EQ(fs::status(logFiles()[0]).permissions(), fs::perms(0600));
}

}  // namespace
