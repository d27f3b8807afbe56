// What the companion is given of the last report: where it is, whether it is complete, its size,
// and the owner lookups that it is based on.
#include "agent/reportOutcome.h"

#include <com_korvane_twutils_nativeagent_AgentReports.h>

#include <filesystem>

#include "lockTest.h"
#include "memoryTest.h"

namespace {

using namespace test;
using agent::reportOutcomes;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr jint kLocks = com_korvane_twutils_nativeagent_AgentReports_LOCKS;
constexpr jint kMemory = com_korvane_twutils_nativeagent_AgentReports_MEMORY;
constexpr std::size_t kParts = com_korvane_twutils_nativeagent_AgentReports_PARTS;

using texts = std::vector<std::string>;

// What AgentReports.last gives; nothing when there was no report.
texts lastOf(fake::virtualMachine& vm, jint kind, std::size_t length = kParts) {
  fake::objectArray* const parts =
      vm.makeArray("[Ljava.lang.String;", std::vector<fake::object*>(length, nullptr));
  const bool isTold = vm.native([&](JNIEnv* jni) {
    return Java_com_korvane_twutils_nativeagent_AgentReports_last(
               jni, nullptr, kind, static_cast<jobjectArray>(vm.ref(parts))) == JNI_TRUE;
  });
  EXPECT_EQ(vm.pendingException(), nullptr);
  texts all;
  for (fake::object* const each : parts->elements) {
    auto* const text = dynamic_cast<fake::javaString*>(each);
    if (isTold) {
      all.push_back(text == nullptr ? "(null)" : text->text);
    }
  }
  return all;
}

// --- Locks.

class lockReportOutcome : public lockTest {
 protected:
  texts last() { return lastOf(vm, kLocks); }
  std::string bytes() const { return std::to_string(std::filesystem::file_size(reportPath())); }

  fake::object* lock = vm.makeObject("a.Lock");
  fake::javaThread* worker = vm.makeThread("worker-3");
  fake::javaThread* owner = vm.makeThread("worker-1");
};

TEST_F(lockReportOutcome, isUnknownBeforeTheFirstReport) {
  load();
  EXPECT_THAT(last(), IsEmpty());
  beginDetailWithOwner(lock, owner, worker);
  EXPECT_THAT(last(), IsEmpty());
}

TEST_F(lockReportOutcome, ofACompleteReport) {
  load();
  beginDetailWithOwner(lock, owner, worker);
  ASSERT_EQ(stopProfiling(), 1);
  EXPECT_THAT(last(), ElementsAre(reportPath(), "", bytes(), "", ""));
  EXPECT_THAT(last(), ElementsAre(reportPath(), "", bytes(), "", "")) << "asked once more";
  EXPECT_THAT(lastOf(vm, kMemory), IsEmpty());
}

TEST_F(lockReportOutcome, hasTheOwnerLookupsOfTheReportWhereTheyAreLimited) {
  load("ownerLookupsPerSecond=1");
  beginDetailWithOwner(lock, owner, worker);
  vm.contendedEnter(worker, lock);
  vm.contendedEnter(worker, lock);
  ASSERT_EQ(stopProfiling(), 1);
  EXPECT_EQ(report()["ownerLookups"].dump(), R"({"perSecond":1,"made":1,"leftOut":2})");
  EXPECT_THAT(last(), ElementsAre(reportPath(), "", bytes(), "1", "2"));
}

TEST_F(lockReportOutcome, ofAReportThatIsCut) {
  load("logLevel=0");
  beginSummary({.name = std::string(100000, 'x')});
  {
    const fileLimit limit(50000);
    ASSERT_EQ(stopProfiling(), 1);
  }
  EXPECT_THAT(last(), ElementsAre(reportPath(), "File too large", "50000", "", ""));
}

TEST_F(lockReportOutcome, ofAReportThatCannotBeWritten) {
  load("logLevel=0,ownerLookupsPerSecond=1");
  beginSummary();
  const std::string path = folder() / "missing" / "r\xc3\xa9port.json";
  ASSERT_EQ(stopProfiling(path), 1);
  EXPECT_THAT(last(), ElementsAre(path, "No such file or directory", "0", "0", "0"));
}

TEST_F(lockReportOutcome, isThatOfTheLastReport) {
  load();
  beginSummary();
  ASSERT_EQ(stopProfiling(), 1);
  beginSummary();
  const std::string second = folder() / "second.json";
  ASSERT_EQ(stopProfiling(second), 1);
  EXPECT_EQ(last().at(0), second);
}

TEST_F(lockReportOutcome, ofNoReportWasLeftAfterOneThatWas) {
  load();
  beginSummary();
  ASSERT_EQ(stopProfiling(), 1);
  beginSummary();
  ASSERT_EQ(stopProfiling(""), 0);
  EXPECT_THAT(last(), IsEmpty());
}

TEST_F(lockReportOutcome, outlivesTheUnloading) {
  load();
  beginSummary();
  ASSERT_EQ(stopProfiling(), 1);
  unload();
  EXPECT_EQ(last().at(0), reportPath());
}

// --- Memory.

class memoryReportOutcome : public memoryTest {
 protected:
  texts last() { return lastOf(vm, kMemory); }
};

TEST_F(memoryReportOutcome, ofACompleteReport) {
  begin();
  tagged("p.A");
  collect();
  EXPECT_THAT(last(), IsEmpty());
  ASSERT_EQ(stop(), 1);
  const std::string bytes = std::to_string(std::filesystem::file_size(reportPath()));
  EXPECT_THAT(last(), ElementsAre(reportPath(), "", bytes, "", ""));
  EXPECT_THAT(lastOf(vm, kLocks), IsEmpty());
}

TEST_F(memoryReportOutcome, ofAReportThatIsCut) {
  begin({}, "logLevel=0");
  tagged("p." + std::string(100000, 'A'));
  collect();
  {
    const fileLimit limit(50000);
    ASSERT_EQ(stop(), 0);
  }
  EXPECT_THAT(last(), ElementsAre(reportPath(), "File too large", "50000", "", ""));
}

TEST_F(memoryReportOutcome, ofNoReportWasLeftAfterOneThatWas) {
  begin();
  ASSERT_EQ(stop(), 1);
  start();
  ASSERT_EQ(stopWithoutPath(), 0);
  EXPECT_THAT(last(), IsEmpty());
}

// --- Any.

class reportOutcome : public agentTest {};

TEST_F(reportOutcome, countsAreGivenInFull) {
  const std::uint64_t large = 9223372036854775807U;
  reportOutcomes::ofProcess().end(kLocks, {"p", "", large, agent::ownerLookupCounts{large, 3}});
  EXPECT_THAT(lastOf(vm, kLocks),
              ElementsAre("p", "", "9223372036854775807", "9223372036854775807", "3"));
}

TEST_F(reportOutcome, aReasonInAnotherEncodingIsGivenInAscii) {
  reportOutcomes::ofProcess().end(kLocks, {"p", "nicht verf\xfcgbar", 1});
  EXPECT_EQ(lastOf(vm, kLocks).at(1), "nicht verf?gbar");
}

TEST_F(reportOutcome, isUnknownForOtherKinds) {
  reportOutcomes::ofProcess().end(kLocks, {"p", "", 1});
  EXPECT_THAT(lastOf(vm, 2), IsEmpty());
  EXPECT_THAT(lastOf(vm, -1), IsEmpty());
}

TEST_F(reportOutcome, isNotGivenWhereJavaCannotTakeIt) {
  reportOutcomes::ofProcess().end(kLocks, {"p", "", 1});
  EXPECT_THAT(lastOf(vm, kLocks, kParts - 1), IsEmpty());
  for (const char* function : {"NewStringUTF", "SetObjectArrayElement"}) {
    vm.fail(function, {.from = 3, .times = 1, .throwing = true});
    EXPECT_THAT(lastOf(vm, kLocks), IsEmpty()) << function;
    vm.succeed(function);
  }
  EXPECT_FALSE(vm.native([](JNIEnv* jni) {
    return Java_com_korvane_twutils_nativeagent_AgentReports_last(jni, nullptr, kLocks, nullptr) ==
           JNI_TRUE;
  }));
  EXPECT_EQ(lastOf(vm, kLocks).at(0), "p");
}

}  // namespace
