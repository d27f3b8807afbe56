#include "targetFiles.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <optional>

#include "attachment.h"
#include "failure.h"
#include "fakeProcess.h"
#include "results.h"

namespace control {
namespace {

using testing::fakeProcess;
namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class TargetFiles : public ::testing::Test {
 protected:
  fakeProcess fake_;
  process target_{fake_.number, fake_.processes()};
  targetFiles files_{target_};
};

TEST_F(TargetFiles, KeepsLinksWithinTheRootOfTheProcess) {
  fs::create_directories(fake_.root / "elsewhere");
  fs::create_directory_symlink("/elsewhere", fake_.root / "link");
  std::ofstream(fake_.root / "elsewhere" / "file") << "text";
  EXPECT_TRUE(files_.open("/link/file", O_RDONLY));
  fs::create_directory_symlink("/etc", fake_.root / "out");
  EXPECT_FALSE(files_.open("/out/passwd", O_RDONLY));
  EXPECT_FALSE(files_.open("/../../../../../etc/passwd", O_RDONLY));
  EXPECT_TRUE(files_.open("/../tmp/../link/./file", O_RDONLY));
  fs::create_symlink("round", fake_.root / "round");
  EXPECT_FALSE(files_.open("/round", O_RDONLY));
}

TEST_F(TargetFiles, KnowsWhichFilesAreTheSame) {
  EXPECT_FALSE(files_.isShared("/etc/passwd"));
  EXPECT_FALSE(files_.isShared("/tmp")) << "a folder of the same name";
  fs::create_directories(fake_.root / fake_.base.relative_path().parent_path());
  EXPECT_EQ(files_.seenFromOutside("/tmp/x"), (fake_.folder / "root/tmp/x").string());
}

TEST_F(TargetFiles, MakesFoldersInTheRoot) {
  EXPECT_TRUE(files_.makeFolders("/tmp/a/b"));
  EXPECT_TRUE(fs::is_directory(fake_.root / "tmp/a/b"));
  EXPECT_TRUE(files_.makeFolders("/tmp/a/b"));
  std::ofstream(fake_.root / "tmp/file") << "";
  EXPECT_FALSE(files_.makeFolders("/tmp/file/c"));
}

TEST_F(TargetFiles, PrivateFoldersGoWithTheirFiles) {
  fs::path made;
  {
    const std::optional<privateFolder> folder = privateFolder::in(files_, "/tmp");
    ASSERT_TRUE(folder);
    EXPECT_THAT(folder->path(), StartsWith("/tmp/twprofile-"));
    made = fake_.root / folder->path().substr(1);
    struct stat now = {};
    ASSERT_EQ(::stat(made.c_str(), &now), 0);
    EXPECT_EQ(now.st_mode & 0777U, 0700U);
    folder->write("request", "text");
    EXPECT_EQ(folder->read("request", 100), "text");
    EXPECT_EQ(folder->read("request", 2), "te");
    EXPECT_EQ(folder->read("none", 100), std::nullopt);
    EXPECT_THROW(folder->write("request", "again"), failure);
    fs::create_symlink("/etc/passwd", made / "link");
    EXPECT_EQ(folder->read("link", 100), std::nullopt);
  }
  EXPECT_FALSE(fs::exists(made));
  EXPECT_FALSE(privateFolder::in(files_, "/none"));
}

TEST_F(TargetFiles, PrivateFoldersThatAreKeptStay) {
  fs::path made;
  {
    std::optional<privateFolder> folder = privateFolder::in(files_, "/tmp");
    ASSERT_TRUE(folder);
    made = fake_.root / folder->path().substr(1);
    const std::string self = fs::read_symlink("/proc/self/exe");
    folder->copy("copy", descriptor(::open(self.c_str(), O_RDONLY)), self);
    folder->keep();
  }
  EXPECT_EQ(fs::file_size(made / "copy"), fs::file_size("/proc/self/exe"));
}

TEST_F(TargetFiles, ResultsGoToAFolderThatTheJvmSees) {
  results own(target_, files_, "");
  own.settle();
  EXPECT_EQ(own.path(), "/tmp/twprofile-out") << "the other root does not have this folder";
  EXPECT_TRUE(fs::is_directory(fake_.root / "tmp/twprofile-out/logs"));
  EXPECT_FALSE(fs::exists("twprofile-out"));
  own.keep(true);

  results named(target_, files_, "/tmp/named/here");
  named.settle();
  EXPECT_EQ(named.path(), "/tmp/named/here");
  EXPECT_TRUE(fs::is_directory(fake_.root / "tmp/named/here"));
  const std::string file = named.writeSettings("locks=true\n");
  EXPECT_THAT(file, StartsWith("/tmp/named/here/settings-"));
  std::ifstream in(fake_.root / file.substr(1));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}),
            "output=/tmp/named/here\nlocks=true\n");

  results relative(target_, files_, "named");
  EXPECT_THROW(relative.settle(), failure);
}

// Where the results go by default, as the JVM sees it.
class DefaultResults : public TargetFiles {
 protected:
  std::string settled() {
    results own(target_, files_, "");
    own.settle();
    own.keep(true);
    remarks_ = own.remarks();
    return own.path();
  }

  // That it is a new folder, in place of the usual one.
  void expectFresh(const std::string& reason) {
    const std::string path = settled();
    ASSERT_THAT(path, StartsWith("/tmp/twprofile-out-"));
    struct stat now = {};
    ASSERT_EQ(::stat((fake_.root / path.substr(1)).c_str(), &now), 0);
    EXPECT_EQ(now.st_mode & 0777U, 0700U);
    EXPECT_TRUE(fs::is_directory(fake_.root / path.substr(1) / "logs"));
    ASSERT_EQ(remarks_.size(), 1U);
    EXPECT_EQ(remarks_[0], "'/tmp/twprofile-out' is not used: " + reason);
  }

  const fs::path usual_ = fake_.root / "tmp/twprofile-out";
  std::vector<std::string> remarks_;
};

TEST_F(DefaultResults, GoToTheUsualFolderOfTheSameUser) {
  fs::create_directories(usual_ / "logs");
  fs::create_directories(usual_ / "etc");
  EXPECT_EQ(settled(), "/tmp/twprofile-out");
  EXPECT_TRUE(remarks_.empty());
}

TEST_F(DefaultResults, LeaveNothingThatIsNotKept) {
  {
    results own(target_, files_, "");
    own.settle();
    own.writeSettings("");
    EXPECT_TRUE(fs::exists(usual_ / "logs"));
  }
  EXPECT_FALSE(fs::exists(usual_));
  fs::create_directories(usual_ / "logs");
  {
    results own(target_, files_, "");
    own.settle();
    own.writeSettings("");
  }
  EXPECT_TRUE(fs::exists(usual_ / "logs")) << "it was there before";
  EXPECT_EQ(std::distance(fs::directory_iterator(usual_), {}), 1);
}

TEST_F(DefaultResults, GoToNoFolderThatOthersCanWriteTo) {
  fs::create_directories(usual_);
  fs::permissions(usual_, fs::perms(0730));
  expectFresh("users other than its owner can write there");
  fs::permissions(usual_, fs::perms(0702));
  expectFresh("users other than its owner can write there");
}

TEST_F(DefaultResults, GoToNoFolderOfAnotherUser) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs root";
  }
  fs::create_directories(usual_);
  ASSERT_EQ(::chown(usual_.c_str(), 65534, 0), 0);
  expectFresh("it belongs to user 65534");
  ASSERT_EQ(::chown(usual_.c_str(), 0, 0), 0);
  fs::create_directories(usual_ / "logs");
  ASSERT_EQ(::chown((usual_ / "logs").c_str(), 65534, 0), 0);
  expectFresh("its logs: it belongs to user 65534");
}

TEST_F(DefaultResults, GoThroughNoLink) {
  fs::create_directories(fake_.root / "tmp/elsewhere");
  fs::create_directory_symlink("elsewhere", usual_);
  expectFresh("not a folder");
  EXPECT_TRUE(fs::is_empty(fake_.root / "tmp/elsewhere"));
  fs::remove(usual_);
  for (const char* const name : {"logs", "etc"}) {
    fs::create_directories(usual_);
    fs::create_directory_symlink("../elsewhere", usual_ / name);
    expectFresh(std::string("its ") + name + ": not a folder");
    fs::remove_all(usual_);
  }
}

// Of a JVM of another user, in the same files as this program.
class HandedOverResults : public ::testing::Test {
 protected:
  static constexpr uid_t kOther = 65534;

  void SetUp() override {
    if (::geteuid() != 0) {
      GTEST_SKIP() << "needs root";
    }
    fs::remove(fake_.folder / "root");
    fs::create_directory_symlink("/", fake_.folder / "root");
    fake_.write("status", "State:\tS\nUid:\t65534\t65534\t65534\t65534\nGid:\t5\t5\t5\t5\n");
    fs::permissions(fake_.base, fs::perms(0755));
    fs::create_directories(folder_);
  }
  void TearDown() override { ASSERT_EQ(::seteuid(0), 0); }

  static uid_t ownerOf(const fs::path& path) {
    struct stat now = {};
    return ::lstat(path.c_str(), &now) == 0 ? now.st_uid : 4711;
  }

  fakeProcess fake_;
  const fs::path folder_ = fake_.base / "here";
};

TEST_F(HandedOverResults, AreTheJvmsUsersWhereThatOneCouldNotMakeThem) {
  const process target(fake_.number, fake_.processes());
  const targetFiles files(target);
  results made(target, files, (folder_ / "a/b").string());
  EXPECT_EQ(ownerOf(folder_ / "a"), kOther);
  EXPECT_EQ(ownerOf(folder_ / "a/b"), kOther);
  actAs(target.owner());
  made.settle();
  EXPECT_EQ(made.path(), (folder_ / "a/b").string());
}

TEST_F(HandedOverResults, AreMadeByTheJvmsUserWhereThatOneCouldReplaceThem) {
  ASSERT_EQ(::chown(folder_.c_str(), kOther, 0), 0);
  const process target(fake_.number, fake_.processes());
  const targetFiles files(target);
  results made(target, files, (folder_ / "a").string());
  EXPECT_FALSE(fs::exists(folder_ / "a")) << "not as root";
  actAs(target.owner());
  made.settle();
  EXPECT_EQ(ownerOf(folder_ / "a"), kOther);
}

TEST_F(HandedOverResults, AreMadeByTheJvmsUserWhereALinkOnTheWayMayBeItsOwn) {
  fs::create_directory(folder_ / "theirs");
  ASSERT_EQ(::chown((folder_ / "theirs").c_str(), kOther, 0), 0);
  fs::create_directory(folder_ / "roots");
  fs::create_directory_symlink(folder_ / "roots", folder_ / "theirs/link");
  const process target(fake_.number, fake_.processes());
  const targetFiles files(target);
  results made(target, files, (folder_ / "theirs/link/a").string());
  EXPECT_FALSE(fs::exists(folder_ / "roots/a"));
  actAs(target.owner());
  EXPECT_THROW(made.settle(), failure);
}

TEST_F(HandedOverResults, AreMadeByTheJvmsUserWhereThatOneCouldReplaceTheWay) {
  fs::create_directories(folder_ / "theirs/roots");
  ASSERT_EQ(::chown((folder_ / "theirs").c_str(), kOther, 0), 0);
  const process target(fake_.number, fake_.processes());
  const targetFiles files(target);
  results made(target, files, (folder_ / "theirs/roots/a").string());
  EXPECT_FALSE(fs::exists(folder_ / "theirs/roots/a"));
  actAs(target.owner());
  EXPECT_THROW(made.settle(), failure);
}

TEST_F(HandedOverResults, AreTakenBackWhereTheJvmsUserCannotReachThem) {
  fs::permissions(folder_, fs::perms(0700));
  const process target(fake_.number, fake_.processes());
  const targetFiles files(target);
  results made(target, files, (folder_ / "a").string());
  actAs(target.owner());
  EXPECT_THROW(made.settle(), failure);
  EXPECT_EQ(::geteuid(), kOther);
  ASSERT_EQ(::seteuid(0), 0);
  EXPECT_FALSE(fs::exists(folder_ / "a"));
}

TEST_F(TargetFiles, TheAgentsHomeIsAbsoluteForWithoutThatItHasNoLog) {
  fs::remove(fake_.folder / "cwd");
  fs::create_directory_symlink(fake_.root / "tmp", fake_.folder / "cwd");
  results own(target_, files_, "");
  own.settle();
  EXPECT_EQ(own.home(), "/tmp/twprofile-out");
  results comma(target_, files_, "/tmp/deep/a,b");
  comma.settle();
  EXPECT_THROW(comma.home(), failure);
}

TEST(Settings, AreWrittenAsAPropertiesFileHasThem) {
  EXPECT_EQ(propertyValue("a b\\c"), "a b\\\\c");
  EXPECT_EQ(propertyValue(" a"), "\\ a");
  EXPECT_EQ(propertyValue("a\nb"), "a\\u000ab");
  EXPECT_EQ(propertyValue("\xc3\x9c"), "\xc3\x9c");
}

TEST(Obstacle, IsAnotherCLibraryOrProcessor) {
  const fakeProcess fake;
  fs::create_symlink(fs::read_symlink("/proc/self/exe"), fake.folder / "exe");
  const process target(fake.number, fake.processes());
  EXPECT_EQ(obstacle(target), "");
  fake.write("maps", "1-2 r-xp 0 08:01 1 /lib/ld-musl-x86_64.so.1\n");
  EXPECT_THAT(obstacle(target), HasSubstr("musl"));
  fake.write("maps", "");
  fs::copy_file(fs::read_symlink("/proc/self/exe"), fake.base / "copy");
  std::fstream program(fake.base / "copy", std::ios::in | std::ios::out | std::ios::binary);
  program.seekp(18);
  program.put('\x7f');
  program.close();
  fs::remove(fake.folder / "exe");
  fs::create_symlink(fake.base / "copy", fake.folder / "exe");
  EXPECT_THAT(obstacle(target), HasSubstr("another processor"));
}

}  // namespace
}  // namespace control
