// The support code: text, files, owners of what the VM hands out, shared places, class caches.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <latch>
#include <limits>
#include <optional>
#include <stdexcept>
#include <thread>

#include "agentTest.h"
#include "support/classCache.h"
#include "support/fileWriter.h"
#include "support/insertOnlyMap.h"
#include "support/javaClasses.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiRecords.h"
#include "support/jvmtiStatus.h"
#include "support/rateLimit.h"
#include "support/sharedSlot.h"
#include "support/text.h"
#include "support/vmTurn.h"

using support::fileWriter;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

namespace fs = std::filesystem;

// Runs `body(number)` on so many threads that start at once, and waits for them.
template <typename Body>
void onThreads(int count, Body&& body) {
  std::latch start(count);
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      body(i);
    });
  }
  for (std::thread& each : threads) {
    each.join();
  }
}

// --- Text ------------------------------------------------------------------------------------

TEST(text, classSignaturesBecomeDotted) {
  const auto dotted = [](std::string_view signature) {
    std::string out = "<";
    support::appendDottedClass(out, signature);
    return out;
  };
  EXPECT_EQ(dotted("Ljava/lang/Object;"), "<java.lang.Object");
  EXPECT_EQ(dotted("LTop;"), "<Top");
  EXPECT_EQ(dotted("La/b$1/c;"), "<a.b$1.c");
  EXPECT_EQ(dotted("L;"), "<");
  EXPECT_EQ(dotted("L"), "<");
  EXPECT_EQ(dotted(""), "<");
}

TEST(text, onlyTheAppendedNameIsDotted) {
  std::string out = "a/b:";
  support::appendDottedClass(out, "Lc/d;");
  EXPECT_EQ(out, "a/b:c.d");
}

// Published values of 64-bit FNV-1a.
TEST(text, hashesAreFnv1a) {
  EXPECT_EQ(support::fnv1a64(""), 0xcbf29ce484222325U);
  EXPECT_EQ(support::fnv1a64("a"), 0xaf63dc4c8601ec8cU);
  EXPECT_EQ(support::fnv1a64("foobar"), 0x85944171f73967e8U);
  EXPECT_EQ(support::fnv1a64(std::string_view("\0", 1)), 0xaf63bd4c8601b7dfU);
  EXPECT_EQ(support::fnv1a64("\xff"), 0xaf64724c8602eb6eU);
}

TEST(text, lowerCaseTouchesLettersAToZ) {
  EXPECT_EQ(support::lowerCase("AZ az 09 [@`{ \xc3\x84"), "az az 09 [@`{ \xc3\x84");
  EXPECT_EQ(support::lowerCase(""), "");
}

TEST(text, prefixesAreMatchedWithoutRegardToCase) {
  EXPECT_TRUE(support::startsWithIgnoringCase("LOGLEVEL=4", "logLevel"));
  EXPECT_TRUE(support::startsWithIgnoringCase("loglevel", "logLevel"));
  EXPECT_TRUE(support::startsWithIgnoringCase("x", ""));
  EXPECT_FALSE(support::startsWithIgnoringCase("logLeve", "logLevel"));
  EXPECT_FALSE(support::startsWithIgnoringCase(" logLevel", "logLevel"));
  EXPECT_FALSE(support::startsWithIgnoringCase("logLevek", "logLevel"));
  EXPECT_FALSE(support::startsWithIgnoringCase("@", "`"));  // not letters
}

TEST(text, numbersAreReadAsStoiReadsThem) {
  for (const char* text : {"0", "42", "-42", "+7", " \t\n\v\f\r12", "12x", "12 34", "007",
                           "2147483647", "-2147483648", "1e3", "0x10"}) {
    EXPECT_EQ(support::toInt(text), std::stoi(text)) << text;
  }
}

TEST(text, whatIsNoNumberThrows) {
  for (const char* text : {"", " ", "x", "-", "+", "- 1", "+-1", ".5"}) {
    try {
      support::toInt(text);
      ADD_FAILURE() << '"' << text << "\" was taken for a number";
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), "invalid stoi argument");
    }
  }
}

TEST(text, numbersBeyond32BitsThrow) {
  for (const char* text : {"2147483648", "-2147483649", "9223372036854775807",
                           "99999999999999999999999", "-99999999999999999999999"}) {
    try {
      support::toInt(text);
      ADD_FAILURE() << text << " fitted";
    } catch (const std::out_of_range& error) {
      EXPECT_STREQ(error.what(), "stoi argument out of range");
    }
  }
}

TEST(text, readingANumberLeavesErrno) {
  errno = EDOM;
  EXPECT_EQ(support::toInt("1"), 1);
  EXPECT_EQ(errno, EDOM);
  EXPECT_THROW(support::toInt("99999999999999999999999"), std::out_of_range);
  EXPECT_EQ(errno, EDOM);
}

std::vector<std::string> pieces(std::string_view text, char separator) {
  std::vector<std::string> all;
  support::forEachPiece(text, separator, [&](std::string_view piece) { all.emplace_back(piece); });
  return all;
}

TEST(text, piecesAreThoseOfGetline) {
  for (const std::string text :
       {"", ",", "a", "a,", ",a", "a,b", "a,,b", "a,b,", ",,", "a,b,,", " a , b "}) {
    std::vector<std::string> expected;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, ',');) {
      expected.push_back(piece);
    }
    EXPECT_EQ(pieces(text, ','), expected) << '"' << text << '"';
  }
}

TEST(text, baseNamesFollowTheLastSlash) {
  EXPECT_EQ(support::baseName("/a/b/c.cpp"), "c.cpp");
  EXPECT_EQ(support::baseName("c.cpp"), "c.cpp");
  EXPECT_EQ(support::baseName("a\\c.cpp"), "a\\c.cpp");
  EXPECT_EQ(support::baseName("a/"), "");
  EXPECT_EQ(support::baseName(""), "");
}

TEST(text, surrogatePairsInFileNamesBecomeFourBytes) {
  EXPECT_EQ(support::fileSystemPath("/tmp/\xed\xa0\xbd\xed\xb8\x80.json"),
            "/tmp/\xf0\x9f\x98\x80.json");
  EXPECT_EQ(support::fileSystemPath("\xed\xa0\x80\xed\xb0\x80"), "\xf0\x90\x80\x80");
  EXPECT_EQ(support::fileSystemPath("\xed\xaf\xbf\xed\xbf\xbf"), "\xf4\x8f\xbf\xbf");
}

TEST(text, everythingElseInFileNamesStays) {
  for (const char* path :
       {"", "/tmp/a.json", "\xc3\xa4\xe2\x82\xac", "\xed\xa0\xbd", "\xed\xb8\x80", "\xed\xa0\xbdx",
        "\xed\xb8\x80\xed\xa0\xbd", "\xed\x9f\xbf\xed\xb0\x80", "\xed", "\xed\xa0",
        "\xed\xa0\xbd\xed\xb8", "\xc0\x80", "\xff\xfe"}) {
    EXPECT_EQ(support::fileSystemPath(path), path);
  }
  EXPECT_EQ(support::fileSystemPath("\xed\xa0\xbd\xed\xa0\xbd\xed\xb8\x80"),
            "\xed\xa0\xbd\xf0\x9f\x98\x80");
}

// --- Files -----------------------------------------------------------------------------------

class files : public test::agentTest {
 protected:
  std::string path() const { return folder() / "file"; }
  std::string content() const { return test::readFile(path()); }
  // Writes `text` and gives what close() says.
  std::string put(const std::string& where, const std::string& text,
                  fileWriter::mode how = fileWriter::mode::truncate) {
    fileWriter file(where, how);
    file.write(text);
    return file.close();
  }
};

TEST_F(files, areWrittenWhole) {
  fileWriter file(path(), fileWriter::mode::truncate);
  file.write("one ");
  file.write("");
  file.write(std::string_view("t\0wo", 4));
  EXPECT_EQ(file.close(), "");
  EXPECT_EQ(content(), std::string("one t\0wo", 8));
}

TEST_F(files, areCreatedEmpty) {
  EXPECT_EQ(put(path(), ""), "");
  EXPECT_TRUE(fs::exists(path()));
  EXPECT_EQ(content(), "");
}

TEST_F(files, areTruncatedOrContinued) {
  put(path(), "a long text");
  EXPECT_EQ(put(path(), "new"), "");
  EXPECT_EQ(content(), "new");
  EXPECT_EQ(put(path(), "er", fileWriter::mode::append), "");
  EXPECT_EQ(content(), "newer");
  EXPECT_EQ(put(folder() / "other", "x", fileWriter::mode::append), "");
}

TEST_F(files, mayBeOfAnySize) {
  std::string expected;
  fileWriter file(path(), fileWriter::mode::truncate);
  for (const std::size_t size : {std::size_t{1}, std::size_t{65535}, std::size_t{65536},
                                 std::size_t{3}, std::size_t{300000}, std::size_t{65534}}) {
    const std::string text(size, static_cast<char>('a' + expected.size() % 26));
    expected += text;
    file.write(text);
  }
  EXPECT_EQ(file.close(), "");
  EXPECT_EQ(content(), expected);
  EXPECT_EQ(file.written(), expected.size());
}

TEST_F(files, areNotWritableForOthers) {
  const mode_t old = ::umask(0);
  put(path(), "x");
  ::umask(old);
  EXPECT_EQ(fs::status(path()).permissions(), fs::perms(0644));
}

TEST_F(files, unwritablePathsAreSaid) {
  EXPECT_EQ(put("", "x"), "No such file or directory");
  EXPECT_EQ(put(folder() / "none" / "file", "x"), "No such file or directory");
  EXPECT_EQ(put(folder(), "x"), "Is a directory");
  test::writeFile(path(), "");
  EXPECT_EQ(put(path() + "/file", "x"), "Not a directory");
  EXPECT_EQ(put(folder() / std::string(300, 'n'), "x"), "File name too long");
}

TEST_F(files, aFullDiskIsSaid) {
  const test::fileLimit limit(0);
  EXPECT_EQ(put(path(), "x"), "File too large");
  EXPECT_EQ(put(path(), std::string(200000, 'x')), "File too large");
}

TEST_F(files, aFullDiskIsNotFullOfNothing) {
  const test::fileLimit limit(0);
  EXPECT_EQ(put(path(), ""), "");
}

// The limit takes a part of the text: the rest is refused.
TEST_F(files, aPartlyWrittenFileIsSaid) {
  {
    const test::fileLimit limit(1000);
    fileWriter file(path(), fileWriter::mode::truncate);
    file.write(std::string(5000, 'x'));
    EXPECT_EQ(file.close(), "File too large");
    EXPECT_EQ(file.written(), 1000U);
  }
  EXPECT_EQ(content().size(), 1000U);
}

TEST_F(files, theFirstErrorStays) {
  const test::fileLimit limit(0);
  fileWriter file(path(), fileWriter::mode::append);
  file.write(std::string(100000, 'x'));
  file.write("more");
  EXPECT_EQ(file.close(), "File too large");
  EXPECT_EQ(file.close(), "File too large");
}

// A FIFO would have its writer wait for a reader, or for one that reads on.
TEST_F(files, areRegularFilesOnly) {
  const std::string refusal = "Not a regular file; a regular file or /dev/null is expected";
  const std::string fifo = folder() / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string link = folder() / "link";
  fs::create_symlink(fifo, link);
  for (const auto how : {fileWriter::mode::truncate, fileWriter::mode::append}) {
    EXPECT_EQ(put(fifo, "x", how), refusal);
    EXPECT_EQ(put(link, "x", how), refusal);
    const int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    EXPECT_EQ(put(fifo, "x", how), refusal) << "somebody reads from it";
    ::close(reader);
    EXPECT_EQ(put("/dev/full", "x", how), refusal);
    EXPECT_EQ(put("/dev/null", "x", how), "");
  }
}

TEST_F(files, aSocketIsRefused) {
  const std::string where = folder() / "socket";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(where.size(), sizeof(address.sun_path));
  where.copy(address.sun_path, where.size());
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  EXPECT_EQ(put(where, "x"), "Not a regular file; a regular file or /dev/null is expected");
  ::close(socket);
}

TEST_F(files, areClosedOnce) {
  fileWriter file(path(), fileWriter::mode::truncate);
  file.write("x");
  EXPECT_EQ(file.close(), "");
  EXPECT_EQ(file.close(), "");
  EXPECT_EQ(content(), "x");
}

// No descriptor stays open, whether or not close() is called.
TEST_F(files, leaveNoDescriptorOpen) {
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto before = descriptors();
  put(path(), "x");
  put("/dev/full", "x");
  put("/dev/null", "x");
  put(folder(), "x");
  { fileWriter abandoned(path(), fileWriter::mode::append); }
  EXPECT_EQ(descriptors(), before);
}

// --- The map that only grows -----------------------------------------------------------------

using numbers = support::insertOnlyMap<int>;

int& put(numbers& map, std::uint64_t key, int value) {
  return map.insert(std::make_unique<numbers::node>(key, value));
}

TEST(insertOnlyMap, findsWhatWasInserted) {
  numbers map;
  EXPECT_EQ(map.find(1), nullptr);
  EXPECT_EQ(map.size(), 0U);
  int& value = put(map, 1, 10);
  put(map, 2, 20);
  EXPECT_EQ(map.find(1), &value);
  EXPECT_EQ(*map.find(2), 20);
  EXPECT_EQ(map.find(3), nullptr);
  EXPECT_EQ(map.size(), 2U);
}

TEST(insertOnlyMap, keepsSeveralUnderOneKey) {
  numbers map;
  put(map, 7, 1);
  put(map, 7, 2);
  put(map, 7, 3);
  for (int wanted = 1; wanted <= 3; ++wanted) {
    const int* found = map.find(7, [&](int each) { return each == wanted; });
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(*found, wanted);
  }
  EXPECT_EQ(map.find(7, [](int) { return false; }), nullptr);
  EXPECT_EQ(map.find(8, [](int) { return true; }), nullptr);
}

TEST(insertOnlyMap, keepsItsEntriesInPlaceWhileItGrows) {
  numbers map;
  std::vector<const int*> places;
  for (int i = 0; i < 10000; ++i) {
    places.push_back(&put(map, static_cast<std::uint64_t>(i), i));
    ASSERT_EQ(map.find(static_cast<std::uint64_t>(i + 1)), nullptr);
  }
  for (int i = 0; i < 10000; ++i) {
    ASSERT_EQ(map.find(static_cast<std::uint64_t>(i)), places[static_cast<std::size_t>(i)]);
    ASSERT_EQ(*places[static_cast<std::size_t>(i)], i);
  }
  EXPECT_EQ(map.size(), 10000U);
}

TEST(insertOnlyMap, keepsManyUnderOneKeyWhileItGrows) {
  numbers map;
  for (int i = 0; i < 1000; ++i) {
    put(map, 7, i);
  }
  put(map, 8, -1);
  for (int wanted = 0; wanted < 1000; ++wanted) {
    const int* found = map.find(7, [&](int each) { return each == wanted; });
    ASSERT_NE(found, nullptr);
    ASSERT_EQ(*found, wanted);
  }
  EXPECT_EQ(map.find(7, [](int each) { return each < 0; }), nullptr);
  EXPECT_EQ(*map.find(8), -1);
}

TEST(insertOnlyMap, visitsTheNewestFirst) {
  numbers map;
  for (int i = 0; i < 4; ++i) {
    put(map, static_cast<std::uint64_t>(100 + i), i);
  }
  std::vector<std::pair<std::uint64_t, int>> visited;
  map.forEach([&](std::uint64_t key, int value) { visited.emplace_back(key, value); });
  EXPECT_THAT(visited, ElementsAre(std::pair(103, 3), std::pair(102, 2), std::pair(101, 1),
                                   std::pair(100, 0)));
}

TEST(insertOnlyMap, destroysItsEntries) {
  const auto counted = std::make_shared<int>(0);
  {
    support::insertOnlyMap<std::shared_ptr<int>> map;
    for (std::uint64_t key = 0; key < 10; ++key) {
      map.insert(
          std::make_unique<support::insertOnlyMap<std::shared_ptr<int>>::node>(key, counted));
    }
    EXPECT_EQ(counted.use_count(), 11);
  }
  EXPECT_EQ(counted.use_count(), 1);
}

TEST(insertOnlyMap, extremeKeysAreKeys) {
  numbers map;
  put(map, 0, 1);
  put(map, ~std::uint64_t{0}, 2);
  EXPECT_EQ(*map.find(0), 1);
  EXPECT_EQ(*map.find(~std::uint64_t{0}), 2);
}

// An entry that is found is complete; one that was found once is found again.
TEST(insertOnlyMap, isReadWhileItGrows) {
  constexpr int kReaders = 4;
  constexpr std::uint64_t kEntries = 5000;
  support::insertOnlyMap<std::string> map;
  std::atomic<std::uint64_t> inserted{0};
  onThreads(kReaders + 1, [&](int number) {
    if (number == 0) {
      for (std::uint64_t key = 0; key < kEntries; ++key) {
        map.insert(std::make_unique<support::insertOnlyMap<std::string>::node>(
            key, std::to_string(key) + " is a text of some length"));
        inserted.store(key + 1);
      }
      return;
    }
    for (std::uint64_t known = 0; known < kEntries; known = inserted.load()) {
      if (known > 0) {
        const std::string* found = map.find(known - 1);
        ASSERT_NE(found, nullptr);
        ASSERT_EQ(*found, std::to_string(known - 1) + " is a text of some length");
      }
      std::size_t visited = 0;
      map.forEach([&](std::uint64_t key, const std::string& value) {
        visited += value.starts_with(std::to_string(key)) ? 1U : 0U;
      });
      ASSERT_GE(visited, known);
    }
  });
  EXPECT_EQ(map.size(), kEntries);
}

// Inserting threads take turns by a mutex of theirs.
TEST(insertOnlyMap, growsFromManyThreads) {
  constexpr int kThreads = 8;
  constexpr int kEach = 500;
  numbers map;
  std::mutex turn;
  onThreads(kThreads, [&](int number) {
    for (int i = 0; i < kEach; ++i) {
      const int value = number * kEach + i;
      auto entry = std::make_unique<numbers::node>(static_cast<std::uint64_t>(value), value);
      const std::lock_guard hold(turn);
      map.insert(std::move(entry));
    }
  });
  EXPECT_EQ(map.size(), static_cast<std::size_t>(kThreads * kEach));
  for (int value = 0; value < kThreads * kEach; ++value) {
    ASSERT_NE(map.find(static_cast<std::uint64_t>(value)), nullptr) << value;
  }
}

// --- The shared slot -------------------------------------------------------------------------

TEST(sharedSlot, isEmptyAtFirst) {
  support::sharedSlot<int> slot;
  EXPECT_EQ(slot.load(), nullptr);
}

TEST(sharedSlot, givesTheObjectStored) {
  support::sharedSlot<int> slot;
  const auto stored = std::make_shared<int>(5);
  slot.store(stored);
  EXPECT_EQ(slot.load().get(), stored.get());
  slot.store(nullptr);
  EXPECT_EQ(slot.load(), nullptr);
}

TEST(sharedSlot, lastOneOutDestroys) {
  support::sharedSlot<int> slot;
  auto stored = std::make_shared<int>(5);
  const std::weak_ptr<int> watched = stored;
  slot.store(stored);
  stored.reset();
  EXPECT_FALSE(watched.expired());
  auto reader = slot.load();
  slot.store(std::make_shared<int>(6));
  EXPECT_EQ(*reader, 5);
  EXPECT_FALSE(watched.expired());
  reader.reset();
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(*slot.load(), 6);
}

TEST(sharedSlot, dropsWhatItHoldsAtItsEnd) {
  const auto stored = std::make_shared<int>(5);
  {
    support::sharedSlot<int> slot;
    slot.store(stored);
  }
  EXPECT_EQ(stored.use_count(), 1);
}

TEST(sharedSlot, everyThreadSeesTheObject) {
  support::sharedSlot<int> slot;
  const auto stored = std::make_shared<int>(5);
  slot.store(stored);
  onThreads(64, [&](int) { EXPECT_EQ(slot.load().get(), stored.get()); });
  slot.store(nullptr);
  onThreads(64, [&](int) { EXPECT_EQ(slot.load(), nullptr); });
  EXPECT_EQ(stored.use_count(), 1);
}

// Counts its living instances, and tells one that is gone by its mark.
struct marked {
  static inline std::atomic<int> living{0};
  static constexpr int kAlive = 0x600D;
  std::atomic<int> mark{kAlive};
  marked() { ++living; }
  ~marked() {
    mark = 0;
    --living;
  }
};

TEST(sharedSlot, isReadByManyWhileItChanges) {
  constexpr int kReaders = 8;
  constexpr int kChanges = 500;
  {
    support::sharedSlot<marked> slot;
    std::atomic<bool> done{false};
    onThreads(kReaders + 1, [&](int number) {
      if (number == 0) {
        for (int i = 0; i < kChanges; ++i) {
          slot.store(i % 5 == 0 ? nullptr : std::make_shared<marked>());
        }
        done = true;
        return;
      }
      while (!done) {
        if (const auto found = slot.load()) {
          ASSERT_EQ(found->mark, marked::kAlive);
        }
      }
    });
    EXPECT_EQ(marked::living, 1);
  }
  EXPECT_EQ(marked::living, 0);
}

// --- Owners of VM memory ---------------------------------------------------------------------

class jvmtiOwners : public fake::vmTest {
 protected:
  jvmtiError readSignature(support::jvmtiText& text, jclass cls) {
    return text.fill([&](char** out) { return vm.jvmti()->GetClassSignature(cls, out, nullptr); });
  }
};

TEST_F(jvmtiOwners, freeWhatTheyOwn) {
  {
    support::jvmtiText text(vm.jvmti());
    EXPECT_FALSE(text);
    EXPECT_EQ(text.view(), "");
    EXPECT_EQ(readSignature(text, vm.ref(vm.classNamed("a.B"))), JVMTI_ERROR_NONE);
    EXPECT_EQ(text.view(), "La/B;");
    EXPECT_TRUE(text);
    EXPECT_EQ(vm.memoryHeld(), 1U);
  }
  EXPECT_EQ(vm.memoryHeld(), 0U);
}

TEST_F(jvmtiOwners, freeWhatTheyHadBefore) {
  support::jvmtiText text(vm.jvmti());
  readSignature(text, vm.ref(vm.classNamed("a.B")));
  readSignature(text, vm.ref(vm.classNamed("c.D")));
  EXPECT_EQ(text.view(), "Lc/D;");
  EXPECT_EQ(vm.memoryHeld(), 1U);
}

TEST_F(jvmtiOwners, areEmptyAfterAFailedCall) {
  support::jvmtiText text(vm.jvmti());
  readSignature(text, vm.ref(vm.classNamed("a.B")));
  EXPECT_EQ(text.fill([](char** out) {
    *out = reinterpret_cast<char*>(0x10);  // what a failed call may leave there
    return JVMTI_ERROR_WRONG_PHASE;
  }),
            JVMTI_ERROR_WRONG_PHASE);
  EXPECT_FALSE(text);
  EXPECT_EQ(text.view(), "");
  EXPECT_EQ(vm.memoryHeld(), 0U);
}

TEST_F(jvmtiOwners, adoptWhatARecordHolds) {
  support::jvmtiPtr<jlong> values(vm.jvmti());
  for (int i = 0; i < 2; ++i) {
    unsigned char* block = nullptr;
    vm.jvmti()->Allocate(4 * sizeof(jlong), &block);
    values.adopt(reinterpret_cast<jlong*>(block));
    values[3] = 17;
    EXPECT_EQ(values.get()[3], 17);
    EXPECT_EQ(vm.memoryHeld(), 1U);
  }
  values.adopt(nullptr);
  EXPECT_EQ(vm.memoryHeld(), 0U);
}

TEST_F(jvmtiOwners, errorsAreNamed) {
  EXPECT_EQ(support::errorName(vm.jvmti(), JVMTI_ERROR_WRONG_PHASE), "JVMTI_ERROR_WRONG_PHASE");
  EXPECT_EQ(support::errorName(vm.jvmti(), JVMTI_ERROR_NONE), "JVMTI_ERROR_NONE");
  vm.fail("GetErrorName");
  EXPECT_EQ(support::errorName(vm.jvmti(), JVMTI_ERROR_WRONG_PHASE), "112");
}

// --- Owners of records -----------------------------------------------------------------------

class jvmtiRecords : public fake::vmTest {
 protected:
  std::string nameOf(fake::javaThread* thread) {
    return vm.native([&](JNIEnv* jni) {
      support::threadName name(vm.jvmti(), jni);
      name.read(vm.ref(thread));
      EXPECT_EQ(name.view(), name.c_str());
      return std::string(name.view());
    });
  }
};

// That nothing of it stays held is seen to when the native method ends.
TEST_F(jvmtiRecords, aThreadHasAName) {
  fake::javaThread* const thread = vm.makeThread("worker \xc3\xa4");
  thread->group = vm.makeObject("java.lang.ThreadGroup");
  thread->loader = vm.makeObject("java.lang.ClassLoader");
  EXPECT_EQ(nameOf(thread), "worker \xc3\xa4");
}

TEST_F(jvmtiRecords, aThreadWithoutANameHasAnEmptyOne) {
  EXPECT_EQ(nameOf(vm.makeThread(std::nullopt)), "");
  EXPECT_EQ(nameOf(vm.makeThread("")), "");
  vm.fail("GetThreadInfo");
  EXPECT_EQ(nameOf(vm.makeThread("worker")), "");
}

TEST_F(jvmtiRecords, aMonitorHasAnOwnerAndWaiters) {
  fake::object* const monitor = vm.makeObject("com.example.Lock");
  fake::javaThread* const owner = vm.makeThread("owner");
  vm.setOwner(monitor, owner);
  vm.setWaiters(monitor, {vm.makeThread("a"), vm.makeThread("b")});
  vm.setNotifyWaiters(monitor, {vm.makeThread("c")});
  vm.native([&](JNIEnv* jni) {
    support::monitorUsage usage(vm.jvmti(), jni);
    usage.read(vm.ref(monitor));
    EXPECT_EQ(vm.target(usage.owner()), owner);
    EXPECT_EQ(usage.waiterCount(), 2);
  });
  EXPECT_EQ(vm.localReferences(), 0U);
  EXPECT_EQ(vm.memoryHeld(), 0U);
}

TEST_F(jvmtiRecords, aMonitorThatCannotBeAskedHasNobody) {
  fake::object* const monitor = vm.makeObject("com.example.Lock");
  vm.setOwner(monitor, vm.makeThread("owner"));
  vm.fail("GetObjectMonitorUsage");
  vm.native([&](JNIEnv* jni) {
    support::monitorUsage usage(vm.jvmti(), jni);
    usage.read(vm.ref(monitor));
    EXPECT_EQ(usage.owner(), nullptr);
    EXPECT_EQ(usage.waiterCount(), 0);
  });
}

TEST_F(jvmtiRecords, aMethodHasVariables) {
  fake::method* const code = vm.makeMethod("com.example.Shop", "buy", "(I)V");
  code->variables = {{.name = "this", .signature = "Lcom/example/Shop;"},
                     {.name = "items", .signature = "I", .slot = 1, .genericSignature = "TI;"}};
  {
    support::localVariables variables(vm.jvmti());
    EXPECT_EQ(variables.begin(), variables.end());
    EXPECT_EQ(variables.read(code->id), JVMTI_ERROR_NONE);
    std::vector<std::string> names;
    for (const jvmtiLocalVariableEntry& each : variables) {
      names.emplace_back(each.name);
    }
    EXPECT_THAT(names, ElementsAre("this", "items"));
  }
  EXPECT_EQ(vm.memoryHeld(), 0U);
}

TEST_F(jvmtiRecords, aMethodWithoutAVariableTableHasNone) {
  support::localVariables variables(vm.jvmti());
  fake::method* const code = vm.makeMethod("com.example.Shop", "buy");
  EXPECT_EQ(variables.read(code->id), JVMTI_ERROR_ABSENT_INFORMATION);
  EXPECT_EQ(variables.begin(), variables.end());
}

class vmTurn : public ::testing::Test {
 protected:
  // Whether another thread gets its turn now.
  bool otherGetsIt() {
    bool gotten = false;
    std::thread([&] { gotten = support::vmTurn(turns_).isMine(); }).join();
    return gotten;
  }

  support::vmTurns turns_;
};

TEST_F(vmTurn, isOneThreadsAtATime) {
  {
    const support::vmTurn turn(turns_);
    EXPECT_TRUE(turn.isMine());
    EXPECT_FALSE(otherGetsIt());
  }
  EXPECT_TRUE(otherGetsIt());
}

// As when a debugger has suspended the thread whose turn it is.
TEST_F(vmTurn, onlyTheFirstWaitsForAThreadThatKeepsIt) {
  std::optional<support::vmTurn> kept(std::in_place, turns_);
  EXPECT_FALSE(otherGetsIt());
  const auto before = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) {
    EXPECT_FALSE(otherGetsIt());
  }
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5))
      << "each of them waited";
  kept.reset();
  EXPECT_TRUE(otherGetsIt());
}

TEST_F(vmTurn, onceGivenBackItIsWaitedForAgain) {
  {
    const support::vmTurn kept(turns_);
    EXPECT_FALSE(otherGetsIt());
  }
  std::optional<support::vmTurn> mine(std::in_place, turns_);
  std::latch asked(1);
  bool gotten = false;
  std::thread other([&] {
    asked.count_down();
    gotten = support::vmTurn(turns_).isMine();
  });
  asked.wait();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  mine.reset();
  other.join();
  EXPECT_TRUE(gotten) << "it did not wait";
}

// --- Owners of references --------------------------------------------------------------------

class jniOwners : public fake::vmTest {
 protected:
  jobject newLocal() { return vm.env()->NewLocalRef(vm.ref(vm.makeObject("com.example.Thing"))); }
};

TEST_F(jniOwners, aLocalReferenceIsDeletedOnce) {
  {
    support::localRef<> owner(vm.env(), newLocal());
    EXPECT_TRUE(owner);
    support::localRef<> other(std::move(owner));
    EXPECT_FALSE(owner);  // NOLINT: moved from on purpose
    EXPECT_TRUE(other);
    EXPECT_EQ(vm.localReferences(), 1U);
  }
  EXPECT_EQ(vm.localReferences(), 0U);
  EXPECT_EQ(vm.calls("DeleteLocalRef"), 1U);
}

TEST_F(jniOwners, aLocalReferenceMayBeReplaced) {
  {
    support::localRef<> owner(vm.env(), newLocal());
    owner = support::localRef<>(vm.env(), newLocal());
    EXPECT_EQ(vm.localReferences(), 1U);
  }
  EXPECT_EQ(vm.localReferences(), 0U);
}

TEST_F(jniOwners, anEmptyLocalReferenceIsNotDeleted) {
  { support::localRef<> empty(vm.env(), nullptr); }
  { support::localRef<> none; }
  EXPECT_EQ(vm.calls("DeleteLocalRef"), 0U);
}

TEST_F(jniOwners, aFrameFreesItsReferences) {
  {
    support::localFrame frame(vm.env(), 16);
    newLocal();
    newLocal();
    EXPECT_EQ(vm.localReferences(), 2U);
  }
  EXPECT_EQ(vm.localReferences(), 0U);
}

TEST_F(jniOwners, aFrameThatTheVmRefusesIsLeftOut) {
  vm.fail("PushLocalFrame", {.throwing = true});
  { support::localFrame frame(vm.env(), 16); }
  EXPECT_EQ(vm.pendingException(), nullptr);
  EXPECT_EQ(vm.calls("PopLocalFrame"), 0U);
}

TEST_F(jniOwners, aPendingExceptionIsPutAside) {
  fake::object* const thrown = vm.makeObject("java.lang.IllegalStateException");
  vm.native([&](JNIEnv* jni) {
    vm.throwInJava(thrown);
    {
      support::pendingExceptionGuard guard(jni);
      EXPECT_EQ(vm.pendingException(), nullptr);
      EXPECT_FALSE(guard.clear());
    }
    EXPECT_EQ(vm.pendingException(), thrown);
    vm.clearException();
  });
}

TEST_F(jniOwners, exceptionsOfTheGuardedCallsAreCleared) {
  fake::object* const thrown = vm.makeObject("java.lang.IllegalStateException");
  vm.native([&](JNIEnv* jni) {
    vm.throwInJava(thrown);
    {
      support::pendingExceptionGuard guard(jni);
      vm.throwInJava(nullptr);
      EXPECT_TRUE(guard.clear());
      EXPECT_FALSE(guard.clear());
      vm.throwInJava(nullptr);  // left behind
    }
    EXPECT_EQ(vm.pendingException(), thrown);
    vm.clearException();
  });
}

TEST_F(jniOwners, withoutAPendingExceptionNoneIsRaised) {
  vm.native([&](JNIEnv* jni) {
    {
      support::pendingExceptionGuard guard(jni);
      vm.throwInJava(nullptr);
    }
    EXPECT_EQ(vm.pendingException(), nullptr);
  });
  EXPECT_EQ(vm.calls("Throw"), 0U);
}

TEST_F(jniOwners, textsAreCopiedAndReleased) {
  JNIEnv* const jni = vm.env();
  EXPECT_EQ(support::textOf(jni, vm.ref(vm.makeString("a\xc3\xa4"))), "a\xc3\xa4");
  EXPECT_EQ(support::tryTextOf(jni, vm.ref(vm.makeString(""))), "");
  EXPECT_EQ(vm.charactersHeld(), 0U);
}

TEST_F(jniOwners, aNullStringHasNoText) {
  EXPECT_EQ(support::tryTextOf(vm.env(), nullptr), std::nullopt);
  EXPECT_EQ(support::textOf(vm.env(), nullptr), "");
  EXPECT_EQ(vm.calls("GetStringUTFChars"), 0U);
}

TEST_F(jniOwners, aStringThatTheVmHasNoMemoryForHasNoText) {
  vm.fail("GetStringUTFChars", {.throwing = true});
  jstring const string = vm.ref(vm.makeString("x"));
  EXPECT_EQ(support::tryTextOf(vm.env(), string), std::nullopt);
  EXPECT_EQ(support::textOf(vm.env(), string), "");
  EXPECT_EQ(vm.pendingException(), nullptr);
}

// --- The class cache -------------------------------------------------------------------------

class classCaches : public fake::vmTest {
 protected:
  using cache = support::classCache<std::string>;

  void TearDown() override {
    cache_.reset();
    vmTest::TearDown();
  }
  cache::entryPtr find(fake::javaClass* cls) {
    return vm.native([&](JNIEnv* jni) {
      jclass const ref = vm.ref(cls);
      return cache_->find(jni, cache::keyOf(vm.jvmti(), ref), ref);
    });
  }
  cache::entryPtr keep(fake::javaClass* cls, const std::string& value) {
    return vm.native([&](JNIEnv* jni) {
      jclass const ref = vm.ref(cls);
      return cache_->keep(jni, cache::keyOf(vm.jvmti(), ref), ref, value);
    });
  }

  std::optional<cache> cache_{std::in_place};
};

TEST_F(classCaches, findWhatWasKept) {
  fake::javaClass* const cls = vm.makeClass("a.B");
  EXPECT_EQ(find(cls), nullptr);
  const auto kept = keep(cls, "value");
  EXPECT_EQ(kept->value, "value");
  EXPECT_EQ(find(cls), kept);
  EXPECT_EQ(cache_->size(), 1U);
}

TEST_F(classCaches, tellClassesOfOneNameApart) {
  fake::javaClass* const one = vm.makeClass("a.B");
  fake::javaClass* const other = vm.makeClass("a.B");
  keep(one, "one");
  EXPECT_EQ(find(other), nullptr);
  keep(other, "other");
  EXPECT_EQ(find(one)->value, "one");
  EXPECT_EQ(find(other)->value, "other");
}

TEST_F(classCaches, tellClassesOfOneHashCodeApart) {
  std::vector<fake::javaClass*> classes;
  for (const char* name : {"a.A", "a.B", "a.C"}) {
    classes.push_back(vm.makeClass(name));
    classes.back()->hash = 4711;
    keep(classes.back(), name);
  }
  for (fake::javaClass* each : classes) {
    EXPECT_EQ(find(each)->value, each->name);
  }
  EXPECT_EQ(cache_->size(), 3U);
}

TEST_F(classCaches, workWithoutHashCodes) {
  vm.fail("GetObjectHashCode");
  fake::javaClass* const one = vm.makeClass("a.A");
  fake::javaClass* const other = vm.makeClass("a.B");
  keep(one, "one");
  keep(other, "other");
  EXPECT_EQ(find(one)->value, "one");
  EXPECT_EQ(find(other)->value, "other");
}

TEST_F(classCaches, keepNoClassAlive) {
  fake::javaClass* const cls = vm.makeClass("a.B");
  keep(cls, "value");
  EXPECT_EQ(vm.globalReferencesTo(cls), 0U);
  vm.unload(cls);  // reports what would hold it
}

TEST_F(classCaches, doNotGiveAnUnloadedClassToItsSuccessor) {
  fake::javaClass* const old = vm.makeClass("a.B");
  keep(old, "old");
  vm.unload(old);
  fake::javaClass* const successor = vm.makeClass("a.B");
  successor->hash = old->hash.load();
  EXPECT_EQ(find(successor), nullptr);
  keep(successor, "new");
  EXPECT_EQ(find(successor)->value, "new");
}

TEST_F(classCaches, dropUnloadedClasses) {
  std::vector<fake::javaClass*> classes;
  for (int i = 0; i < 60; ++i) {
    classes.push_back(vm.makeClass("a.C" + std::to_string(i)));
    keep(classes.back(), "value");
  }
  for (std::size_t i = 0; i < 50; ++i) {
    vm.unload(classes[i]);
  }
  // Twice as many as there were at first are enough to have them swept.
  for (int i = 0; i < 70; ++i) {
    keep(vm.makeClass("b.C" + std::to_string(i)), "value");
  }
  EXPECT_LE(cache_->size(), 80U);
  EXPECT_EQ(vm.weakReferences(), cache_->size());
  for (std::size_t i = 50; i < 60; ++i) {
    EXPECT_NE(find(classes[i]), nullptr);
  }
}

TEST_F(classCaches, stayBoundedWhileClassesComeAndGo) {
  for (int i = 0; i < 2000; ++i) {
    fake::javaClass* const cls = vm.makeClass("a.Transient");
    keep(cls, "value");
    vm.unload(cls);
  }
  EXPECT_LE(cache_->size(), 128U);
  EXPECT_EQ(vm.weakReferences(), cache_->size());
}

TEST_F(classCaches, giveEntriesThatOutliveThem) {
  const auto kept = keep(vm.makeClass("a.B"), "value");
  cache_.reset();
  EXPECT_EQ(kept->value, "value");
}

TEST_F(classCaches, withoutMemoryForAReferenceFindNothing) {
  fake::javaClass* const cls = vm.makeClass("a.B");
  vm.fail("NewWeakGlobalRef", {.throwing = true});
  EXPECT_EQ(keep(cls, "value")->value, "value");
  EXPECT_EQ(find(cls), nullptr);
}

TEST_F(classCaches, areReadAndFilledByManyThreads) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 300;
  std::vector<fake::javaClass*> classes;
  for (int i = 0; i < 100; ++i) {
    classes.push_back(vm.makeClass("a.C" + std::to_string(i)));
  }
  std::latch start(kThreads);
  std::vector<std::unique_ptr<fake::attachedThread>> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.push_back(std::make_unique<fake::attachedThread>(vm, "worker", [&, t](JNIEnv* jni) {
      start.arrive_and_wait();
      for (int round = 0; round < kRounds; ++round) {
        fake::javaClass* const cls = classes[static_cast<std::size_t>((round * 7 + t) % 100)];
        jobject const ref = jni->NewLocalRef(vm.ref(cls));
        jclass const asClass = static_cast<jclass>(ref);
        const jint key = cache::keyOf(vm.jvmti(), asClass);
        auto found = cache_->find(jni, key, asClass);
        if (!found) {
          found = cache_->keep(jni, key, asClass, cls->name);
        }
        ASSERT_EQ(found->value, cls->name);
        jni->DeleteLocalRef(ref);
      }
    }));
  }
  threads.clear();
  for (fake::javaClass* each : classes) {
    EXPECT_EQ(find(each)->value, each->name);
  }
}

// --- Names of classes ------------------------------------------------------------------------

class classNames : public fake::vmTest {
 protected:
  void TearDown() override {
    names_.reset();
    vmTest::TearDown();
  }
  support::classNameResult nameOf(fake::object* object) {
    return vm.native([&](JNIEnv* jni) {
      const support::localRef<jclass> cls(jni, jni->GetObjectClass(vm.ref(object)));
      return names_->of(vm.jvmti(), jni, vm.ref(object), cls.get());
    });
  }
  std::optional<support::javaClasses> names_{std::in_place};
};

using support::classNameFailure;

TEST_F(classNames, areThoseThatJavaGives) {
  for (const char* name : {"com.example.Lock", "Top", "a.B$1", "[I", "[Ljava.lang.String;",
                           "a.\xc3\xa4\xed\xa0\xbd\xed\xb8\x80", "a.\"q\"\t"}) {
    const auto result = nameOf(vm.makeObject(vm.makeClass(name)));
    ASSERT_EQ(result.failure, classNameFailure::none) << name;
    EXPECT_EQ(result.found->value, name);
  }
}

TEST_F(classNames, areReadOnce) {
  fake::javaClass* const cls = vm.makeClass("com.example.Lock");
  const auto first = nameOf(vm.makeObject(cls));
  vm.resetCalls();
  EXPECT_EQ(nameOf(vm.makeObject(cls)).found, first.found);
  EXPECT_EQ(vm.calls("CallObjectMethod"), 0U);
  EXPECT_EQ(vm.calls("GetMethodID"), 0U);
  EXPECT_EQ(names_->size(), 1U);
}

TEST_F(classNames, methodsAreLookedUpOnce) {
  nameOf(vm.makeObject("a.A"));
  vm.resetCalls();
  nameOf(vm.makeObject("a.B"));
  EXPECT_EQ(vm.calls("GetMethodID"), 0U);
  EXPECT_EQ(vm.calls("CallObjectMethod"), 2U);
}

TEST_F(classNames, twoClassesOfOneNameAreTwo) {
  const auto one = nameOf(vm.makeObject(vm.makeClass("a.B")));
  const auto other = nameOf(vm.makeObject(vm.makeClass("a.B")));
  EXPECT_NE(one.found, other.found);
  EXPECT_EQ(one.found->value, other.found->value);
}

TEST_F(classNames, surviveTheUnloadingOfAClass) {
  fake::javaClass* const old = vm.makeClass("a.Old");
  nameOf(vm.makeObject(old));
  vm.unload(old);
  fake::javaClass* const successor = vm.makeClass("a.New");
  successor->hash = old->hash.load();
  EXPECT_EQ(nameOf(vm.makeObject(successor)).found->value, "a.New");
}

struct nameFailureCase {
  const char* function;
  const char* member;
  classNameFailure expected;
};
void PrintTo(const nameFailureCase& one, std::ostream* out) {
  *out << one.function << " of " << one.member;
}

class classNameFailures : public classNames,
                          public ::testing::WithParamInterface<nameFailureCase> {};

// A failure is told, nothing is kept of it, and the next time is as good as the first.
TEST_P(classNameFailures, areToldAndForgotten) {
  fake::object* const object = vm.makeObject("com.example.Lock");
  for (const bool throwing : {false, true}) {
    vm.fail(GetParam().function, {.name = GetParam().member, .throwing = throwing});
    const auto result = nameOf(object);
    EXPECT_EQ(result.failure, GetParam().expected);
    EXPECT_EQ(result.found, nullptr);
    EXPECT_EQ(names_->size(), 0U);
    vm.succeed(GetParam().function);
  }
  EXPECT_EQ(nameOf(object).found->value, "com.example.Lock");
}

INSTANTIATE_TEST_SUITE_P(
    calls, classNameFailures,
    ::testing::Values(nameFailureCase{"GetMethodID", "getClass", classNameFailure::noGetClass},
                      nameFailureCase{"GetMethodID", "getName", classNameFailure::noGetName},
                      nameFailureCase{"CallObjectMethod", "getClass", classNameFailure::empty},
                      nameFailureCase{"CallObjectMethod", "getName", classNameFailure::empty},
                      nameFailureCase{"GetStringUTFChars", "", classNameFailure::empty}));

TEST_F(classNames, thatAreEmptyAreNotKept) {
  EXPECT_EQ(nameOf(vm.makeObject(vm.makeClass(""))).failure, classNameFailure::empty);
  EXPECT_EQ(names_->size(), 0U);
}

TEST_F(classNames, leaveAPendingExceptionAsItWas) {
  fake::object* const thrown = vm.makeObject("java.lang.IllegalStateException");
  fake::object* const object = vm.makeObject("com.example.Lock");
  vm.native([&](JNIEnv* jni) {
    jobject const ref = vm.ref(object);
    const support::localRef<jclass> cls(jni, jni->GetObjectClass(ref));
    vm.throwInJava(thrown);
    EXPECT_EQ(names_->of(vm.jvmti(), jni, ref, cls.get()).found->value, "com.example.Lock");
    EXPECT_EQ(vm.pendingException(), thrown);
    vm.clearException();
  });
}

TEST_F(classNames, areReadByManyThreads) {
  constexpr int kThreads = 8;
  std::vector<fake::object*> objects;
  for (int i = 0; i < 40; ++i) {
    objects.push_back(vm.makeObject("a.C" + std::to_string(i)));
  }
  std::latch start(kThreads);
  std::vector<std::unique_ptr<fake::attachedThread>> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.push_back(std::make_unique<fake::attachedThread>(vm, "worker", [&](JNIEnv*) {
      start.arrive_and_wait();
      for (fake::object* each : objects) {
        const auto result = nameOf(each);
        ASSERT_NE(result.found, nullptr);
        ASSERT_EQ(result.found->value, each->type->name);
      }
    }));
  }
  threads.clear();
  EXPECT_GE(names_->size(), objects.size());
}

// --- Limits for a second ---------------------------------------------------------------------

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kStart = 5 * kSecond;

// How many of `tries` at one time are taken.
int takenOf(int tries, support::rateLimit& limit, std::int64_t now) {
  int taken = 0;
  for (int i = 0; i < tries; ++i) {
    taken += limit.take(now) ? 1 : 0;
  }
  return taken;
}

TEST(rateLimit, withoutANumberThereIsNone) {
  support::rateLimit limit;
  EXPECT_EQ(limit.perSecond(), 0);
  EXPECT_EQ(takenOf(1000, limit, kStart), 1000);
}

class rateLimits : public ::testing::TestWithParam<std::int32_t> {
 protected:
  rateLimits() { limit.set(most); }

  const std::int32_t most = GetParam();
  const std::int32_t atOnce = (most + 9) / 10;
  const std::int64_t gap = kSecond / (most - atOnce + 1) + 1;  // until one comes back
  support::rateLimit limit;
};

TEST_P(rateLimits, allowATenthOfASecondsNumberAtOnce) {
  EXPECT_EQ(limit.perSecond(), most);
  EXPECT_EQ(takenOf(2 * most, limit, kStart), atOnce);
}

TEST_P(rateLimits, comeBackOneByOne) {
  takenOf(most, limit, kStart);
  EXPECT_EQ(takenOf(most, limit, kStart + gap - 2), 0);
  EXPECT_EQ(takenOf(most, limit, kStart + gap), 1);
}

TEST_P(rateLimits, areNotSavedUp) {
  takenOf(most, limit, kStart);
  EXPECT_EQ(takenOf(3 * most, limit, kStart + 100 * kSecond), atOnce);
}

TEST_P(rateLimits, holdInAnySecond) {
  std::vector<std::int64_t> taken;
  for (std::int64_t now = kStart; now < kStart + 10 * kSecond; now += kSecond / 1000) {
    while (limit.take(now)) {
      taken.push_back(now);
    }
  }
  EXPECT_GE(taken.size(), 9U * static_cast<unsigned>(most));
  for (auto first = taken.begin(); first != taken.end(); ++first) {
    const auto end = std::lower_bound(first, taken.end(), *first + kSecond);
    ASSERT_LE(end - first, most) << "from " << *first - kStart << " ns on";
  }
}

INSTANTIATE_TEST_SUITE_P(numbers, rateLimits, ::testing::Values(1, 2, 3, 7, 11, 100));

TEST(rateLimit, oneOfAllNumbersIsNoLess) {
  support::rateLimit limit;
  limit.set(std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(takenOf(1000, limit, kStart), 1000);
}

TEST(rateLimit, earlierTimesTakeNoMore) {
  support::rateLimit limit;
  limit.set(20);
  EXPECT_EQ(takenOf(3, limit, kStart), 2);
  EXPECT_EQ(takenOf(3, limit, kStart - kSecond), 0);
  EXPECT_EQ(takenOf(3, limit, 0), 0);
  EXPECT_EQ(takenOf(3, limit, kStart + kSecond), 2);
}

TEST(rateLimit, holdsForManyThreadsTogether) {
  constexpr int kThreads = 8;
  support::rateLimit limit;
  limit.set(1000);
  std::atomic<int> taken{0};
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      taken += takenOf(1000, limit, kStart);
    });
  }
  for (std::thread& each : threads) {
    each.join();
  }
  EXPECT_EQ(taken, 100);
}

}  // namespace
