// The JSON lock report.
#include "locks/lockReport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>
#include <memory>

#include "lockTest.h"

namespace {

using namespace test;
using nlohmann::ordered_json;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* kNoLocks =
    "Agent was not able to find any lockBean data to report genuinely as no problem occurred";
constexpr const char* kNoOwners =
    "Agent was not able to find any blocking thread data to report genuinely as no problem "
    "occurred";

class lockReport : public lockTest {
 protected:
  // Ends the session; the report must have been written.
  ordered_json finish() {
    EXPECT_EQ(stopProfiling(), 1);
    return report();
  }
  static ordered_json reportOf(const agent::sessionSnapshot& session) {
    support::jsonWriter json;
    agent::writeLockReport(json, session);
    return ordered_json::parse(json.text());
  }
  static std::vector<std::string> keysOf(const ordered_json& object) {
    std::vector<std::string> keys;
    for (const auto& item : object.items()) {
      keys.push_back(item.key());
    }
    return keys;
  }
  // The report's text without the blanks between its tokens.
  std::string raw() {
    std::string text;
    bool quoted = false;
    char last = 0;
    for (const char c : readFile(reportPath())) {
      if (c == '"' && last != '\\') {
        quoted = !quoted;
      }
      if (quoted || (c != ' ' && c != '\n')) {
        text += c;
      }
      last = last == '\\' ? 0 : c;
    }
    return text;
  }

  fake::object* lock = vm.makeObject("a.Lock");
  fake::javaThread* worker = vm.makeThread("worker-3");
  fake::javaThread* owner = vm.makeThread("worker-1");
};

TEST_F(lockReport, describesAWholeSession) {
  load();
  lock->hash = 7;
  beginDetail({lock}, {.id = 42, .name = "checkout", .duration = 180});
  vm.setOwner(lock, owner);
  setStack(worker, {"shop.Cart.add"});
  vm.contendedEnter(worker, lock);
  vm.advance(kMinute);
  vm.contendedEntered(worker, lock);
  contend(worker, lock, 4 * kSecond);
  wait(worker, lock, 2 * kSecond);
  stopDetail();

  const std::string hash = std::to_string(fnv1a("at shop.Cart.add()\n"));
  const ordered_json expected = {
      {"sessionname", "checkout"},
      {"sessionid", 42},
      {"lockmap",
       {{"a.Lock@7",
         {{"id", "a.Lock@7"},
          {"count", 2},
          {"graph", {1, 1, 0}},
          {"totalBlockTime", 64},
          {"totalWaitTime", 2},
          {"threadbean",
           {{"worker-3",
             {{"name", "worker-3"},
              {"count", 2},
              {"totalBlockTime", 64},
              {"totalWaitTime", 2},
              {"stacktracebean", {{hash, {{"count", 2}, {"hashcode", hash}}}}}}}}}}}}},
      {"stacktracemap", {{hash, ""}}},
      {"blockingThreads",
       {{"worker-1",
         {{"name", "worker-1"},
          {"blockingCount", 2},
          {"blockCount", 0},
          {"totalBlockingTime", 0},
          {"stacktracebean", ordered_json::object()}}}}}};
  EXPECT_EQ(finish().dump(1), expected.dump(1)) << "values and the order of members";
}

TEST_F(lockReport, traceSeenOnceCarriesAHashOf0) {
  load();
  beginDetail({lock});
  vm.contendedEnter(worker, lock);
  const ordered_json traces =
      finish()["lockmap"][nameOf(lock)]["threadbean"]["worker-3"]["stacktracebean"];
  EXPECT_EQ(traces["14695981039346656037"]["count"], 1);
  EXPECT_EQ(traces["14695981039346656037"]["hashcode"], "0");
}

TEST_F(lockReport, endsWithTheLooksForOwnersWhereTheyAreLimited) {
  // The report of one session, without the name of the folder.
  const auto written = [this](const char* options) {
    load(options);
    lock->hash = 7;
    beginDetailWithOwner(lock, owner, worker);
    stopDetail();
    EXPECT_EQ(stopProfiling(), 1);
    std::string text = readFile(reportPath());
    unload();
    return text;
  };
  const std::string unlimited = written("");
  EXPECT_EQ(written("ownerLookupsPerSecond=0"), unlimited);
  const std::string end = "\n}";
  ASSERT_TRUE(unlimited.ends_with(end)) << unlimited;
  EXPECT_EQ(written("ownerLookupsPerSecond=100"),
            unlimited.substr(0, unlimited.size() - end.size()) + R"(,
 "ownerLookups": {
  "perSecond": 100,
  "made": 1,
  "leftOut": 0
 })" + end);
}

TEST_F(lockReport, looksForOwnersAreWrittenWhole) {
  agent::sessionSnapshot session;
  session.lookupsPerSecond = 2147483647;
  session.ownerLookups = {4294967296, std::numeric_limits<std::uint64_t>::max()};
  EXPECT_EQ(reportOf(session)["ownerLookups"].dump(),
            R"({"perSecond":2147483647,"made":4294967296,"leftOut":18446744073709551615})");
}

// --- Which locks are in it.

TEST_F(lockReport, withoutADetailSessionItHasNoLocksAndSaysSo) {
  load("logLevel=1");
  beginSummary();
  contend(worker, lock, kSecond);
  addStack(5);
  const ordered_json all = finish();
  EXPECT_EQ(all["lockmap"], ordered_json::object());
  EXPECT_EQ(all["stacktracemap"], ordered_json({{"5", ""}}));
  EXPECT_EQ(all["blockingThreads"], ordered_json::object());
  EXPECT_THAT(warnings(), ElementsAre(kNoLocks, kNoOwners));
  EXPECT_EQ(log().back().function, "mutexLockProfiler::dumpJsonObjectFromMapDS");
}

TEST_F(lockReport, nothingIsSaidAtLevel0) {
  load("logLevel=0");
  beginSummary();
  EXPECT_EQ(stopProfiling(), 1);
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(lockReport, nothingIsMissedWhereThereAreLocksAndOwners) {
  load("logLevel=1");
  beginDetailWithOwner(lock, owner, worker);
  finish();
  EXPECT_THAT(warnings(), IsEmpty());
}

TEST_F(lockReport, locksComeInTheOrderOfTheirBlockTimeAtTheRanking) {
  load();
  beginSummary();
  std::vector<fake::object*> all;
  for (const jlong time : {9, 2, 5}) {
    all.push_back(vm.makeObject("L" + std::to_string(time)));
    contend(worker, all.back(), time);
  }
  startDetail();
  for (fake::object* const each : all) {
    vm.contendedEnter(worker, each);
  }
  EXPECT_THAT(keysOf(finish()["lockmap"]),
              ElementsAre(StartsWith("L2@"), StartsWith("L5@"), StartsWith("L9@")));
}

TEST_F(lockReport, lockWithoutThreadsIsLeftOutAndLeavesTheQueue) {
  load("logLevel=1");
  fake::object* const idle = vm.makeObject("idle.Lock");
  beginDetail({lock, idle});
  contend(worker, lock);
  EXPECT_THAT(keysOf(finish()["lockmap"]), ElementsAre(nameOf(lock)));
  EXPECT_TRUE(takeRanked().empty());
  EXPECT_THAT(warnings(), Not(Contains(kNoLocks)));
}

TEST_F(lockReport, onlyLocksWithoutThreadsGiveNoLockAndNoWarningOfIt) {
  load("logLevel=1");
  beginDetail({lock});
  EXPECT_EQ(finish()["lockmap"], ordered_json::object());
  EXPECT_THAT(warnings(), ElementsAre(kNoOwners));
}

TEST_F(lockReport, lockThatWasNotSelectedIsLeftOut) {
  load();
  beginDetail({lock}, {.topLocks = 0});
  contend(worker, lock);
  EXPECT_EQ(finish()["lockmap"], ordered_json::object());
}

TEST_F(lockReport, twoRankingsGiveALockTwoMembers) {
  load();
  beginDetail({lock});
  startDetail();
  contend(worker, lock);
  finish();
  const std::string member = "\"" + nameOf(lock) + "\":{";
  const std::string text = raw();
  const std::size_t first = text.find(member);
  ASSERT_NE(first, std::string::npos);
  EXPECT_NE(text.find(member, first + 1), std::string::npos);
}

TEST_F(lockReport, lockDroppedByANewSessionIsNotWritten) {
  load();
  beginDetail({lock});
  contend(worker, lock);
  startProfiling({.name = "next"});
  const ordered_json all = finish();
  EXPECT_EQ(all["sessionname"], "next");
  EXPECT_EQ(all["lockmap"], ordered_json::object());
  EXPECT_EQ(all["stacktracemap"], ordered_json::object());
}

TEST_F(lockReport, lockOfTheSameNameInANewSessionIsNotTakenForTheOldOne) {
  load();
  beginDetail({lock});
  contend(worker, lock);
  contend(worker, lock);
  beginDetail({lock});
  contend(worker, lock);
  const ordered_json all = finish();
  ASSERT_EQ(all["lockmap"].size(), 1U);
  EXPECT_EQ(all["lockmap"][nameOf(lock)]["count"], 1);
  const std::string member = "\"" + nameOf(lock) + "\":{";
  EXPECT_EQ(raw().find(member), raw().rfind(member)) << "one member only";
}

// --- Numbers.

TEST_F(lockReport, blockTimeIsCutToWholeSeconds) {
  load();
  beginDetail({lock});
  contend(worker, lock, 1'999'999'999);
  const ordered_json one = finish()["lockmap"][nameOf(lock)];
  EXPECT_EQ(one["totalBlockTime"], 1);
  EXPECT_EQ(one["threadbean"]["worker-3"]["totalBlockTime"], 1);
}

TEST_F(lockReport, sessionIdIsCutToItsLow32Bits) {
  load("logLevel=1");
  const std::pair<jlong, std::int32_t> cases[] = {
      {4294967297, 1},
      {2147483648, std::numeric_limits<std::int32_t>::min()},
      {4294967295, -1},
      {-1, -1},
      {std::numeric_limits<jlong>::min(), 0},
      {2147483647, 2147483647}};
  for (const auto& [id, written] : cases) {
    beginSummary({.id = id});
    EXPECT_EQ(finish()["sessionid"], written) << id;
  }
}

TEST_F(lockReport, countsAndTimesAreCutToTheirLow32BitsSigned) {
  agent::sessionSnapshot session;
  session.graphSize = 1;
  agent::lockSnapshot& bean = session.locks.emplace_back();
  bean.lockName = "a.Lock@1";
  bean.count = 4294967295U;
  bean.graph = {2147483648U};
  bean.totalBlockTime = 5'000'000'000U * std::uint64_t{kSecond};  // seconds beyond 32 bits
  bean.totalWaitTime = 2'147'483'648U * std::uint64_t{kSecond};
  bean.threads.push_back({"worker-3", 3000000000U, 0, 0, {}});
  const ordered_json one = reportOf(session)["lockmap"]["a.Lock@1"];
  EXPECT_EQ(one["count"], -1);
  EXPECT_EQ(one["graph"], ordered_json::array({std::numeric_limits<std::int32_t>::min()}));
  EXPECT_EQ(one["totalBlockTime"], 705032704);
  EXPECT_EQ(one["totalWaitTime"], std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(one["threadbean"]["worker-3"]["count"], -1294967296);
}

TEST_F(lockReport, countsOfOwnersAreCutToo) {
  agent::sessionSnapshot session;
  session.blockingThreads["worker-1"] = {4294967294U, 2147483648U, 1'999'999'999, 0, {}};
  const ordered_json one = reportOf(session)["blockingThreads"]["worker-1"];
  EXPECT_EQ(one["blockingCount"], -2);
  EXPECT_EQ(one["blockCount"], std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(one["totalBlockingTime"], 1);
}

TEST_F(lockReport, stackHashesAreInNumericOrderWithEmptyTexts) {
  load();
  beginSummary();
  for (const std::uint64_t hash : {std::uint64_t{100}, std::uint64_t{20}, ~std::uint64_t{0}}) {
    addStack(hash);
  }
  const ordered_json map = finish()["stacktracemap"];
  EXPECT_THAT(keysOf(map), ElementsAre("20", "100", "18446744073709551615"));
  for (const auto& item : map.items()) {
    EXPECT_EQ(item.value(), "");
  }
}

// --- The graph.

TEST_F(lockReport, graphOfSize0IsEmpty) {
  load();
  beginDetail({lock}, {.duration = 59});
  contend(worker, lock);
  EXPECT_EQ(finish()["lockmap"][nameOf(lock)]["graph"], ordered_json::array());
  EXPECT_THAT(raw(), HasSubstr("\"graph\":[]"));
}

TEST_F(lockReport, graphOfNegativeSizeIsEmpty) {
  load();
  beginDetail({lock}, {.duration = -600});
  contend(worker, lock);
  EXPECT_EQ(finish()["lockmap"][nameOf(lock)]["graph"], ordered_json::array());
}

TEST_F(lockReport, graphHasExactlyItsSizeThoughMoreWasCounted) {
  load();
  beginDetail({lock}, {.duration = 120});
  locks()->setStartTime(vm.time());
  contend(worker, lock);
  vm.advance(2 * kMinute);
  contend(worker, lock);
  EXPECT_EQ(finish()["lockmap"][nameOf(lock)]["graph"], ordered_json::array({1, 0}));
}

TEST_F(lockReport, graphBeyond301SlotsIsFilledUpWithZeros) {
  load();
  beginDetail({lock}, {.duration = 400 * 60});
  locks()->setStartTime(vm.time());
  vm.advance(300 * kMinute);
  contend(worker, lock);
  const ordered_json graph = finish()["lockmap"][nameOf(lock)]["graph"];
  ASSERT_EQ(graph.size(), 400U);
  for (std::size_t slot = 0; slot < graph.size(); ++slot) {
    EXPECT_EQ(graph[slot], slot == 300 ? 1 : 0) << slot;
  }
}

TEST_F(lockReport, lockOnlyWaitedOnHasAGraphOfZeros) {
  load();
  beginDetail({lock}, {.duration = 180});
  wait(worker, lock, kSecond);
  EXPECT_EQ(finish()["lockmap"][nameOf(lock)]["graph"], ordered_json::array({0, 0, 0}));
}

// --- Names.

TEST_F(lockReport, lockNameIsEscapedAsAMemberAndAsAnId) {
  load();
  fake::object* const odd = vm.makeObject("a\"b\tLock");
  beginDetail({odd});
  contend(worker, odd);
  const ordered_json map = finish()["lockmap"];
  ASSERT_TRUE(map.contains(nameOf(odd)));
  EXPECT_EQ(map[nameOf(odd)]["id"], nameOf(odd));
  const std::string escaped = "a\\\"b\\tLock@" + std::to_string(odd->hash);
  EXPECT_THAT(raw(), HasSubstr("\"" + escaped + "\":{"));
  EXPECT_THAT(raw(), HasSubstr("\"id\":\"" + escaped + "\""));
}

TEST_F(lockReport, everyByteOfANameIsWrittenByItsRule) {
  load();
  std::string name;
  for (char c = 1; c < 32; ++c) {
    name += c;
  }
  name += "\"\\/~\x7F\xC3\xA9\xE2\x82\xAC";
  beginDetail({lock});
  contend(vm.makeThread(name), lock);
  EXPECT_EQ(finish()["lockmap"][nameOf(lock)]["threadbean"][name]["name"], name);
  EXPECT_THAT(raw(), HasSubstr("\"\\u0001\\u0002\\u0003\\u0004\\u0005\\u0006\\u0007\\u0008\\t\\n"
                               "\\u000b\\u000c\\r\\u000e\\u000f\\u0010"));
  EXPECT_THAT(raw(), HasSubstr("\\u001e\\u001f\\\"\\\\/~\\u007f\xC3\xA9\xE2\x82\xAC\""));
}

TEST_F(lockReport, namesBeyondTheBasicPlaneStayModifiedUtf8) {
  load();
  const std::string clef = "\xED\xA0\xB4\xED\xB4\x9E";  // U+1D11E
  const std::string zero = "\xC0\x80";
  beginDetail({lock}, {.name = clef});
  contend(vm.makeThread(clef + zero), lock);
  EXPECT_EQ(stopProfiling(), 1);
  EXPECT_THAT(raw(), HasSubstr("\"sessionname\":\"" + clef + "\""));
  EXPECT_THAT(raw(), HasSubstr("\"name\":\"" + clef + zero + "\""));
}

TEST_F(lockReport, hostileOwnersAndSessionNamesAreEscaped) {
  load();
  beginDetail({lock}, {.name = "s\"\n\\"});
  vm.setOwner(lock, vm.makeThread("o\"\r\x02"));
  contend(worker, lock);
  const ordered_json all = finish();
  EXPECT_EQ(all["sessionname"], "s\"\n\\");
  EXPECT_EQ(all["blockingThreads"]["o\"\r\x02"]["name"], "o\"\r\x02");
}

TEST_F(lockReport, threadsAreInTheByteOrderOfTheirNames) {
  load();
  beginDetail({lock});
  for (const char* name : {"b", "\xC3\xA9", "", "a10", "a9", "B"}) {
    contend(vm.makeThread(name), lock);
  }
  EXPECT_THAT(keysOf(finish()["lockmap"][nameOf(lock)]["threadbean"]),
              ElementsAre("", "B", "a10", "a9", "b", "\xC3\xA9"));
}

TEST_F(lockReport, idIsEmptyForARecordThatWasNeverUpdated) {
  load();
  beginSummary();
  vm.contendedEnter(worker, lock);
  agent::lockBean& bean = *lockBeanOf(lock);
  startDetail();
  bean.countEntry("t", 0);
  bean.named = false;
  EXPECT_EQ(finish()["lockmap"][nameOf(lock)]["id"], "");
}

TEST_F(lockReport, threadWithVeryManyTracesIsWrittenWhole) {
  load("logLevel=1");
  beginDetail({lock}, {.stackTraces = 100000});
  for (int i = 0; i < 1000; ++i) {
    setStack(worker, {"a.B.m" + std::to_string(i)});
    vm.contendedEnter(worker, lock);
  }
  const ordered_json all = finish();
  EXPECT_EQ(all["lockmap"][nameOf(lock)]["threadbean"]["worker-3"]["stacktracebean"].size(), 1000U);
  EXPECT_EQ(all["stacktracemap"].size(), 1000U);
}

// --- Owners of all selected locks, merged.

class lockReportMerge : public lockReport {
 protected:
  static agent::blockingThreadBeans mergedOf(const std::string& name,
                                             const agent::blockingThreadBean& one,
                                             const agent::blockingThreadBean& two) {
    agent::blockingThreadBeans merged = {{name, one}};
    agent::mergeBlockingThreads(merged, {{name, two}});
    return merged;
  }
};

TEST_F(lockReportMerge, countsAndTimesAddUp) {
  const agent::blockingThreadBean one{1, 2, 10, 99, {}};
  const agent::blockingThreadBean two{10, 20, 100, 0, {}};
  const auto merged = mergedOf("o", one, two);
  ASSERT_EQ(merged.size(), 1U);
  EXPECT_EQ(merged.at("o").blockingCount, 11U);
  EXPECT_EQ(merged.at("o").blockCount, 22U);
  EXPECT_EQ(merged.at("o").totalBlockingTime, 110U);
}

TEST_F(lockReportMerge, traceKnownToOneKeepsItsHashAndToBothGetsTheTrueOne) {
  agent::blockingThreadBean one;
  agent::blockingThreadBean two;
  one.stacktracebean = {{5, {0, 1}}, {6, {0, 1}}};
  two.stacktracebean = {{5, {0, 1}}, {7, {7, 3}}};
  const auto merged = mergedOf("o", one, two);
  const agent::stackTraceBeans& traces = merged.at("o").stacktracebean;
  ASSERT_EQ(traces.size(), 3U);
  EXPECT_EQ(traces.at(5).count, 2U);
  EXPECT_EQ(traces.at(5).hashcode, 5U);
  EXPECT_EQ(traces.at(6).count, 1U);
  EXPECT_EQ(traces.at(6).hashcode, 0U);
  EXPECT_EQ(traces.at(7).count, 3U);
  EXPECT_EQ(traces.at(7).hashcode, 7U);
}

TEST_F(lockReportMerge, mergingLeavesTheRecordsOfTheLocksAlone) {
  load();
  fake::object* const other = vm.makeObject("b.Lock");
  beginDetail({lock, other});
  for (fake::object* const each : {lock, other}) {
    vm.setOwner(each, owner);
    contend(worker, each);
  }
  const agent::sessionSnapshot session = agent::snapshotOf(locks()->store(), {}, 0);
  EXPECT_EQ(session.blockingThreads.at("worker-1").blockingCount, 2U);
  EXPECT_EQ(blockingCountOf(lock, "worker-1"), 1U);
  EXPECT_EQ(blockingCountOf(other, "worker-1"), 1U);
}

TEST_F(lockReportMerge, reportMergesOwnersOfAllSelectedLocksByName) {
  load();
  fake::object* const other = vm.makeObject("b.Lock");
  beginDetail({lock, other});
  vm.setOwner(lock, owner);
  vm.setOwner(other, owner);
  contend(worker, lock);
  contend(worker, lock);
  contend(worker, other);
  vm.setOwner(other, vm.makeThread("another"));
  contend(worker, other);
  const ordered_json owners = finish()["blockingThreads"];
  EXPECT_THAT(keysOf(owners), ElementsAre("another", "worker-1"));
  EXPECT_EQ(owners["worker-1"]["blockingCount"], 3);
  EXPECT_EQ(owners["another"]["blockingCount"], 1);
}

TEST_F(lockReportMerge, ownersOfALockThatIsLeftOutAreInTheReport) {
  load();
  beginDetailWithOwner(lock, owner, worker, {.threadsPerLock = 0});
  const ordered_json all = finish();
  EXPECT_EQ(all["lockmap"], ordered_json::object());
  EXPECT_EQ(all["blockingThreads"]["worker-1"]["blockingCount"], 1);
}

// --- After the report.

TEST_F(lockReport, secondReportHasNoOwnersAndNoLocksButTheHashes) {
  load();
  beginDetailWithOwner(lock, owner, worker);
  finish();
  const ordered_json all = finish();
  EXPECT_EQ(all["lockmap"], ordered_json::object());
  EXPECT_EQ(all["blockingThreads"], ordered_json::object());
  EXPECT_EQ(all["stacktracemap"].size(), 1U);
  EXPECT_EQ(all["sessionname"], "checkout");
}

// A session that is begun anew, without a report of the one before or with one that was refused.
TEST_F(lockReport, ownersAreThoseOfItsOwnSession) {
  for (const bool stops : {false, true}) {
    SCOPED_TRACE(stops);
    if (!locks()) {
      load("logLevel=1");
    }
    fake::object* const other = vm.makeObject("b.Lock");
    beginDetailWithOwner(lock, owner, worker);
    if (stops) {
      EXPECT_EQ(stopProfiling(std::string()), 0);
    }
    beginDetailWithOwner(other, vm.makeThread("another"), worker);
    EXPECT_THAT(keysOf(finish()["blockingThreads"]), ElementsAre("another"));
  }
}

TEST_F(lockReport, ownersOfARefusedReportAreInTheOneThatIsWrittenAfterIt) {
  load("logLevel=1");
  beginDetailWithOwner(lock, owner, worker);
  EXPECT_EQ(stopProfiling(std::string()), 0);
  EXPECT_THAT(keysOf(finish()["blockingThreads"]), ElementsAre("worker-1"));
}

TEST_F(lockReport, cleanUpLeavesLocksHashesAndBudgets) {
  load();
  beginDetailWithOwner(lock, owner, worker, {.locks = 5, .threads = 5, .stackTraces = 5});
  finish();
  EXPECT_FALSE(isSelected(lock));
  ASSERT_NE(lockBeanOf(lock), nullptr);
  EXPECT_EQ(lockBeanOf(lock)->count, 1U);
  EXPECT_NE(threadOf(lock, "worker-3"), nullptr);
  EXPECT_EQ(locksLeft(), 4);
  EXPECT_EQ(ownersLeft(), 4);
  EXPECT_EQ(tracesLeft(), 4);
}

TEST_F(lockReport, lockIsNoLongerASelectedOneAfterTheReport) {
  load();
  beginDetailWithOwner(lock, owner, worker);
  finish();
  agent::getRegistry()->switchProfiler(agent::kMutexLockProfiler, true);
  locks()->setState(agent::kLockDetail);
  vm.resetCalls();
  contend(worker, lock);
  EXPECT_EQ(vm.calls("GetObjectMonitorUsage"), 0U);
  EXPECT_EQ(finish()["blockingThreads"], ordered_json::object());
}

// --- The file, and calls that give no report.

TEST_F(lockReport, pathIsSaidAtTrace) {
  load("logLevel=3");
  beginSummary();
  stopProfiling();
  EXPECT_THAT(messages("Trace"), Contains("File Path to dump json : " + reportPath()));
}

TEST_F(lockReport, pathIsNotSaidBelowTrace) {
  load("logLevel=2");
  beginSummary();
  stopProfiling();
  EXPECT_THAT(messages("Trace"), IsEmpty());
}

TEST_F(lockReport, existingFileIsReplaced) {
  load();
  writeFile(reportPath(), std::string(100000, 'x'));
  beginSummary();
  EXPECT_EQ(finish()["sessionname"], "checkout");
}

TEST_F(lockReport, unwritablePathIsSaidAndTheResultIsStill1) {
  load("logLevel=1");
  beginDetailWithOwner(lock, owner, worker);
  const std::string path = folder() / "missing" / "report.json";
  EXPECT_EQ(stopProfiling(path), 1);
  EXPECT_THAT(errors(), Contains(AllOf(HasSubstr(path), HasSubstr("No such file or directory"))));
  EXPECT_FALSE(isSelected(lock)) << "the clean-up was made";
  EXPECT_TRUE(takeRanked().empty());
}

TEST_F(lockReport, fullDiskIsSaidAndTheResultIsStill1) {
  load("logLevel=1");
  beginSummary({.name = std::string(100000, 'x')});
  {
    const fileLimit limit(50000);
    EXPECT_EQ(stopProfiling(), 1);
  }
  EXPECT_THAT(errors(), Contains(AllOf(HasSubstr(reportPath()), HasSubstr("File too large"))));
}

TEST_F(lockReport, failedWriteIsNotSaidAtLevel0) {
  load("logLevel=0");
  beginSummary();
  EXPECT_EQ(stopProfiling(folder()), 1);
  EXPECT_THAT(log(), IsEmpty());
}

// Nobody reads from it, or somebody does: both would let the call wait.
TEST_F(lockReport, fifoInPlaceOfTheReportIsRefused) {
  load("logLevel=1");
  const std::string path = folder() / "fifo";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  for (const bool isRead : {false, true}) {
    const int reader = isRead ? ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1;
    beginDetail({lock});
    EXPECT_EQ(stopProfiling(path), 1);
    if (reader >= 0) {
      ::close(reader);
    }
  }
  EXPECT_THAT(errors(), ElementsAre(AllOf(HasSubstr(path), HasSubstr("regular file")),
                                    AllOf(HasSubstr(path), HasSubstr("regular file"))));
}

TEST_F(lockReport, nullDeviceInPlaceOfTheReportIsTaken) {
  load("logLevel=1");
  beginDetail({lock});
  EXPECT_EQ(stopProfiling("/dev/null"), 1);
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(lockReport, nullPathGives0AndAnError) {
  load("logLevel=1");
  beginDetail({lock});
  contend(worker, lock);
  const jint result = vm.native([&](JNIEnv* jni) {
    return Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_stopMutexLockProfilingSession(
        jni, nullptr, 42, nullptr);
  });
  EXPECT_EQ(result, 0);
  EXPECT_THAT(errors(), Contains(HasSubstr("report")));
  EXPECT_EQ(stackLines().size(), 1U) << "the stack file is written before the path is read";
}

TEST_F(lockReport, emptyPathGives0AndAnError) {
  load("logLevel=1");
  beginSummary();
  EXPECT_EQ(stopProfiling(std::string()), 0);
  EXPECT_THAT(errors(), Contains(HasSubstr("report")));
}

TEST_F(lockReport, pathTheVmCannotGiveGives0AndAnError) {
  load("logLevel=1");
  beginSummary();
  vm.fail("GetStringUTFChars", {.throwing = true});
  EXPECT_EQ(stopProfiling(), 0);
  EXPECT_THAT(errors(), Contains(HasSubstr("report")));
  EXPECT_FALSE(std::filesystem::exists(reportPath()));
}

TEST_F(lockReport, beforeAnySessionThereIsNoReport) {
  load("logLevel=1");
  EXPECT_EQ(stopProfiling(), 0);
  EXPECT_FALSE(std::filesystem::exists(reportPath()));
  EXPECT_FALSE(std::filesystem::exists(stackPath()));
  EXPECT_EQ(errors().size(), 1U);
}

TEST_F(lockReport, withoutALockProfilerThereIsNoReportAndNoWord) {
  load("logLevel=1,features=memoryprofiling");
  EXPECT_EQ(stopProfiling(), 0);
  EXPECT_FALSE(std::filesystem::exists(reportPath()));
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(lockReport, profilerThatIsNotRegisteredWritesNothing) {
  load("logLevel=1,features=memoryprofiling");
  agent::mutexLockProfiler loose;
  const jint result = vm.native([&](JNIEnv* jni) {
    return loose.dumpJsonObjectFromMapDS(jni, vm.ref(vm.makeString(reportPath())));
  });
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(std::filesystem::exists(reportPath()));
}

TEST_F(lockReport, pathBeyondTheBasicPlaneNamesTheFileInUtf8) {
  load();
  beginSummary();
  EXPECT_EQ(stopProfiling(std::string(folder()) + "/\xED\xA0\xB4\xED\xB4\x9E.json"), 1);
  EXPECT_TRUE(std::filesystem::exists(folder() / "\xF0\x9D\x84\x9E.json"));
}

TEST_F(lockReport, twoSessionsInARowGiveTwoReports) {
  load();
  for (int session = 1; session <= 2; ++session) {
    beginDetail({lock}, {.id = session});
    for (int i = 0; i < session; ++i) {
      contend(worker, lock);
    }
    stopDetail();
    stopSummary();
    const ordered_json all = finish();
    EXPECT_EQ(all["sessionid"], session);
    EXPECT_EQ(all["lockmap"][nameOf(lock)]["count"], session);
  }
}

}  // namespace
