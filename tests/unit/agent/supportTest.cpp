// The support code: text, files, owners of what the VM hands out.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>

#include "agentTest.h"
#include "support/fileWriter.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiRecords.h"
#include "support/jvmtiStatus.h"
#include "support/text.h"

using support::fileWriter;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

namespace fs = std::filesystem;

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

}  // namespace
