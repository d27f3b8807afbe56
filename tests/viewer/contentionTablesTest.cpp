#include "contentionTables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "contentionSites.h"
#include "contentionWords.h"
#include "profileTables.h"
#include "testContention.h"

namespace viewer {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

std::string tables(const json& document, ranking by = ranking::lock,
                   const terminalStyle& terminal = {}) {
  return contentionTables(parsedContention(document), by, {}, terminal);
}

std::string tables(ranking by = ranking::lock) {
  return tables(recordedContention(), by);
}

// The recorded report in which nothing was blocked, waited, or is missing.
json quiet() {
  json document = recordedContention();
  for (const char* array : {"locks", "otherLocks", "windows", "stuck", "deadlocks"}) {
    document[array] = json::array();
  }
  for (auto& [name, number] : document["omitted"].items()) {
    number = 0;
  }
  return document;
}

template <typename action>
std::string changed(action change) {
  json document = recordedContention();
  change(document);
  return tables(document);
}

TEST(contentionTablesOf, beginWithTheProfile) {
  EXPECT_THAT(tables(), StartsWith("Contention profile from 2026-11-22 12:00:00 to 12:05:00 UTC (5 "
                                   "min 0 s)\n"
                                   "779,073 ms blocked at 6 locks, 25,206 entries; 5 threads were "
                                   "blocked when this was written.\n"
                                   "\n"
                                   "STUCK at 12:05:00 UTC"));
}

TEST(contentionTablesOf, showWhatIsStuckAndByWhom) {
  const std::string text = tables();
  EXPECT_THAT(text,
              HasSubstr("Deadlock of 2 threads: each waits for what another one of them holds\n"
                        "   refunds-1 waits for java.util.concurrent.locks.ReentrantLock@"
                        "6d0c2a77\n"
                        "   refunds-2 waits for com.example.shop.Cart@27ab01e4\n"));
  EXPECT_THAT(
      text,
      HasSubstr(
          "com.example.shop.PriceCache@5c29bfd1: 3 threads, the first for 3 min 10 s (since "
          "12:01:50 "
          "UTC)\n"
          "   held by price-loader, taken in com.example.shop.PriceCache.load(PriceCache.java:48)\n"
          "      now in sun.nio.ch.SocketDispatcher.read0(Native Method)\n"
          "   http-worker-5 for 3 min 10 s in "
          "com.example.shop.PriceCache.price(PriceCache.java:37)\n"));
  EXPECT_LT(text.find("STUCK"), text.find("Locks by blocked time"));
}

TEST(contentionTablesOf, tellOfStuckThreadsThatAreNotListedAndOwnersThatAreNotKnown) {
  json document = recordedContention();
  document["stuck"][0]["waiterCount"] = 40;
  document["stuck"][0]["owner"] = nullptr;
  document["stuck"][0]["ownerNote"] = "virtual";
  const std::string text = tables(document);
  EXPECT_THAT(text, HasSubstr(": 40 threads, the first for"));
  EXPECT_THAT(text, HasSubstr("\n   the owner is a virtual thread, which the VM does not name\n"));
  EXPECT_THAT(text, HasSubstr("(PriceCache.java:37)\n   ... 37 more\n"));
}

TEST(contentionTablesOf, rankLocksByTheTimeOfEndedAndOngoingBlocks) {
  EXPECT_THAT(
      tables(),
      HasSubstr(
          "Locks by blocked time (5 of 7)\n"
          "#  Lock                                         Kind     Entries  Total ms  Longest ms  "
          "Share  Still\n"
          "-  -------------------------------------------  -------  -------  --------  ----------  "
          "-----  -----\n"
          "1  com.example.shop.PriceCache@5c29bfd1         monitor        0   531,000    190,000+  "
          " 68 %      3\n"
          "2  com.ex...Inventory@1f7a2c09, Shop.inventory  monitor"));
  EXPECT_THAT(tables(), HasSubstr("\nStill: threads that were blocked when this was written; +: "));
}

TEST(contentionTablesOf, showWhereThreadsWaitedAndWhereTheOwnerTookTheLock) {
  EXPECT_THAT(
      tables(),
      HasSubstr(
          "2. com.example.shop.Inventory@1f7a2c09, com.example.shop.Shop.inventory\n"
          "   Half of the entries took up to 1.0 ms, 99 % up to 16.8 ms.\n"
          "   The first began at 12:00:01, the last ended at 12:04:59 UTC.\n"
          "   Who waited for whom (samples stand for 92,300 ms):\n"
          "    77 % com.example.shop.Inventory.reserve(Inventory.java:41) (http-worker-1 and 1 "
          "more)\n"
          "         <- held by com.example.shop.Inventory.restock(Inventory.java:52) (restocker)\n"
          "            seen most in java.lang.Thread.sleep(Native Method)\n"
          "    13 % com.example.shop.Inventory.count(Inventory.java:66) (http-worker-3)\n"));
}

TEST(contentionTablesOf, showWhatOwnersWaitForThemselves) {
  json document = recordedContention();
  document["locks"] = json::array({lockIn(document, 1), lockIn(document, 2)});
  document["locks"][0]["pairs"] = json::array({lockIn(document, 1)["pairs"][4]});
  EXPECT_THAT(
      tables(document),
      HasSubstr(
          "<- held by com.example.shop.Inventory.reserve(Inventory.java:46) (http-worker-2)\n"
          "            seen most in com.example.shop.Ledger.post(Ledger.java:88)\n"
          "            and itself waits for java.util.concurrent.locks.ReentrantLock@4e1d33b0\n"
          "            <- held by com.example.shop.Ledger.post(Ledger.java:93) (auditor)\n\n"));
}

TEST(contentionTablesOf, endAChainThatComesAround) {
  const std::string text = tables();
  EXPECT_THAT(text, HasSubstr("            and itself waits for com.example.shop.Cart@27ab01e4\n"
                              "            <- held by com.example.shop.Cart.merge(Cart.java:71) "
                              "(refunds-1)\n"));
  EXPECT_THAT(text, HasSubstr("ReentrantLock@6d0c2a77 again: a circle\n"));
}

TEST(contentionTablesOf, tellWhyAnOwnerIsNotKnown) {
  for (const auto& [note, text] : std::map<std::string, const char*>{
           {"virtual", "the owner is a virtual thread, which the VM does not name"},
           {"handedOver", "held by nobody: a fair lock that was promised to the next thread"},
           {"notKept", "the owner is not known: locks of this kind do not record it"},
           {"changed",
            "the owner is not known: it had released the lock, or the JVM did not report it"},
           {"none", "held by nobody at that moment"},
           {"other", "the owner is not known: other"}}) {
    json document = recordedContention();
    document["locks"] = json::array({lockIn(document, 6)});
    document["locks"][0]["pairs"][0]["ownerNote"] = note;
    EXPECT_THAT(tables(document), HasSubstr("         <- " + std::string(text) + '\n'));
  }
}

TEST(contentionTablesOf, keepWaitsApartAndFoldThoseThatAreIdle) {
  const std::string text = tables();
  EXPECT_THAT(text, HasSubstr("\nWaits by time, which are not contention (3)\n"));
  EXPECT_LT(text.find("Locks by blocked time"), text.find("Waits by time"));
  EXPECT_THAT(text, HasSubstr("...Mailbox@70f1a2b3  wait     61   291,000       9,800      1  "));
  EXPECT_THAT(text, Not(HasSubstr("ReferenceQueue$Lock")));
  EXPECT_THAT(text, Not(HasSubstr("ConditionObject")));
  EXPECT_THAT(text, HasSubstr("Not listed: 2,689,000 ms of waits at 2 objects that are idle: "));
}

TEST(contentionSitesOf, takeAWaitForIdleOnlyWhenAllOfItIs) {
  json document = recordedContention();
  EXPECT_TRUE(isIdle(parsedContention(), *findLock(parsedContention(), 8)));
  lockIn(document, 8)["pairs"].push_back(lockIn(document, 9)["pairs"][0]);
  const contentionReport mixed = parsedContention(document);
  EXPECT_FALSE(isIdle(mixed, *findLock(mixed, 8)));
  lockIn(document, 8)["pairs"] = json::array();
  const contentionReport unknown = parsedContention(document);
  EXPECT_FALSE(isIdle(unknown, *findLock(unknown, 8))) << "no sample shows it";
  lockIn(document, 8)["class"] = "com.korvane.twutils.nativeagent.companion.Timetable";
  const contentionReport own = parsedContention(document);
  EXPECT_TRUE(isIdle(own, *findLock(own, 8))) << "the agent waits for its own objects";
  lockIn(document, 7)["kind"] = "monitor";
  const contentionReport contended = parsedContention(document);
  EXPECT_FALSE(isIdle(contended, *findLock(contended, 7))) << "contention never is";
}

TEST(contentionSitesOf, passOverTheMachineryOfLocks) {
  const contentionReport report = parsedContention();
  const auto site = [&](std::uint64_t lock) {
    return siteOf(report, findLock(report, lock)->pairs.front().waiterStack);
  };
  EXPECT_EQ(site(5), "com.example.shop.Cart.merge(Cart.java:71)");
  EXPECT_EQ(site(6), "com.example.shop.Connections.borrow(Connections.java:29)");
  EXPECT_EQ(site(9), "com.example.shop.Mailbox.take(Mailbox.java:22)");
  EXPECT_EQ(site(10), "com.example.shop.Checkout.confirm(Checkout.java:102)");
  EXPECT_EQ(siteOf(report, {}), std::nullopt);
  contentionReport bare;
  bare.stacks = {{1, {"jdk.internal.misc.Unsafe.park(Native Method)"}, false}, {2, {}, false}};
  EXPECT_EQ(siteOf(bare, 0), "jdk.internal.misc.Unsafe.park(Native Method)");
  EXPECT_EQ(siteOf(bare, 1), std::nullopt);
  EXPECT_EQ(methodOf("a.B.c(B.java:7)"), "a.B.c");
}

TEST(contentionSitesOf, doNotTakeAFrameThatIsCutForWhereTheOwnerTookTheLock) {
  const contentionReport report = parsedContention();
  const contentionPair& pair = findLock(report, 1)->pairs.front();
  EXPECT_TRUE(ownerPlaceOf(report, pair.ownerStack, 2).isHolding);
  const ownerPlace cut = ownerPlaceOf(report, pair.ownerStack, 64);
  EXPECT_FALSE(cut.isHolding);
  EXPECT_EQ(cut.site, "java.lang.Thread.sleep(Native Method)");
}

TEST(contentionTablesOf, showATimeLineWithTimeOfDay) {
  EXPECT_THAT(tables(recordedContention(), ranking::lock, {.blocks = true}),
              HasSubstr("Blocked threads over time (UTC)\n"
                        "▂▃▃▃▃▃▃▃▃▃▃▄▄▄▄▆██▅▄▄▄▄▅▆▆▇▇▆▇▇\n"
                        "12:00:00               12:05:00\n"
                        "Most: 7.4 on average from 12:02:40 to 12:02:50\n"));
  EXPECT_THAT(changed([](json& all) { all["windows"] = json::array({all["windows"][0]}); }),
              Not(HasSubstr("over time")))
      << "one window is no line";
}

TEST(contentionTablesOf, nameTheDayWhereItIsAnotherOne) {
  const std::string text = changed([](json& all) {
    for (const char* time : {"writtenAt", "endedAt"}) {
      all[time] = all[time].get<std::int64_t>() + 86'400'000;
    }
  });
  EXPECT_THAT(text, HasSubstr("to 2026-11-23 12:05:00 UTC (24 h 5 min)\n"));
  EXPECT_THAT(text, HasSubstr("STUCK at 2026-11-23 12:05:00 UTC"));
}

TEST(contentionTablesOf, doNotRankLocksAtWhichOnlyTheAgentWaited) {
  const std::string text = changed([](json& document) {
    for (json& pair : document["locks"][2]["pairs"]) {
      pair["waiterThread"] = "javanativeagent control";
    }
  });
  EXPECT_THAT(text, Not(HasSubstr("\n1  com.example.shop.PriceCache@")));
  EXPECT_THAT(text, HasSubstr("\n1  com.ex...Inventory@1f7a2c09"));
  EXPECT_THAT(
      text,
      HasSubstr("\nNot listed: 531,000 ms at 1 lock at which only threads of the agent waited."));
}

TEST(contentionTablesOf, rankByClass) {
  const std::string text = tables(ranking::lockClass);
  EXPECT_THAT(text, HasSubstr("\nClasses of locks by blocked time (5 of 6)\n"));
  EXPECT_THAT(text, HasSubstr("3  java.util.concurrent....ReentrantLock  lock         2    5,251   "
                              "83,610     62,000+   11 %      1\n"));
  EXPECT_THAT(
      text, HasSubstr("3  java.util.concurrent.CompletableFuture  park  others      700    5,100"));
}

TEST(contentionTablesOf, rankBySiteOwnerAndThread) {
  EXPECT_THAT(
      tables(ranking::site),
      HasSubstr("2  com.example.s...Inventory.reserve:41      76,700   10 %    3,835      1 "
                " http-worker-1 and 2 more\n"));
  EXPECT_THAT(tables(ranking::owner),
              HasSubstr("2  com.example.shop.Inventory.restock:52                 83,400   11 %    "
                        "4,170      1  restocker\n"));
  EXPECT_THAT(tables(ranking::thread),
              HasSubstr("4  refunds-1          62,000       62,000      2\n"));
  const contentionReport report = parsedContention();
  EXPECT_THAT(
      ownerSitesOf(report),
      testing::Contains(testing::Field(
          &sampledSum::name, "(the owner is not known: locks of this kind do not record it)")));
}

TEST(contentionTablesOf, tellThatTheProfileWasNotStopped) {
  EXPECT_THAT(
      changed([](json& all) { all["endedAt"] = nullptr; }),
      HasSubstr("\nIt was not stopped: it still ran at 12:05:00 UTC, when this was written, "
                "or the JVM was killed\n  later. What came after is not in it.\n"));
  EXPECT_THAT(tables(), Not(HasSubstr("not stopped")));
}

TEST(contentionTablesOf, tellThatLocksOfTheLibraryAreMissing) {
  EXPECT_THAT(
      changed([](json& all) { all["parks"] = "the class file hook was refused"; }),
      HasSubstr("\nLocks and waits of java.util.concurrent are NOT in this report: the class "
                "file hook was refused.\n"));
  EXPECT_THAT(changed([](json& all) { all["parks"] = "parks"; }),
              HasSubstr("so that each park counts as an entry"));
  json document = quiet();
  EXPECT_THAT(tables(document), HasSubstr("\nNo monitor or lock is in the report: no thread was "
                                          "blocked by one.\n"));
  document["parks"] = "reason";
  EXPECT_THAT(tables(document),
              HasSubstr("\nNo monitor is in the report: no thread was blocked by one.\n"));
  document["omitted"]["startsNotSeen"] = 3;
  EXPECT_THAT(tables(document), HasSubstr("was blocked by one since the profile began.\n"));
}

TEST(contentionTablesOf, tellEachOmission) {
  EXPECT_THAT(omissionsOf(parsedContention(quiet())), IsEmpty());
  for (const auto& [member, text] : std::map<std::string, const char*>{
           {"startsNotSeen", "2 blocks had begun before the profile"},
           {"blocksNotSampled", "2 blocks were counted but never sampled"},
           {"locksNotSampled", "2 times a lock with blocked threads was skipped"},
           {"ownersChanged", "In 2 samples the owner had released the lock"},
           {"otherLocks", "2 blocks were at locks that did not fit among 4,096."},
           {"classes", "2 blocks were at locks whose class did not fit either."},
           {"pairs", "2 samples (0 ms) did not fit among the pairs."},
           {"stacks", "2 stacks did not fit"},
           {"windows", "The time line does not have the first 2 windows."},
           {"windowLocks", "Windows do not have 2 locks"},
           {"stuck", "2 more locks are stuck and not listed."}}) {
    json document = quiet();
    document["omitted"][member] = 2;
    const std::vector<std::string> omissions = omissionsOf(parsedContention(document));
    ASSERT_THAT(omissions, SizeIs(1)) << member;
    EXPECT_THAT(omissions[0], StartsWith(text));
  }
  json unsampled = quiet();
  unsampled["settings"]["samplesPerSecond"] = 0;
  EXPECT_THAT(omissionsOf(parsedContention(unsampled)),
              testing::ElementsAre(StartsWith("No samples were taken")));
}

TEST(contentionTablesOf, tellWhatTheProfileCost) {
  EXPECT_EQ(
      costText(parsedContention()),
      "The profile's own cost for samples: 2,610 ms of processor time (0.9 % of one "
      "processor), 3,120 safepoints (the calls took 187 ms), 11,400 handshakes (402 ms). It "
      "ran 14,211 times and skipped 809 runs to stay within 1 %. Counting on the program's own "
      "threads adds to that.");
}

TEST(contentionTablesOf, tellThatOnlyAPartIsShown) {
  profile all;
  all.contentionReports = {parsedContention()};
  filter(all, "PriceCache@");
  EXPECT_THAT(profileTables(all, {}, {}),
              AllOf(HasSubstr("\n531,000 ms blocked at 1 lock, 0 entries; "),
                    HasSubstr("\nSums and shares are of the locks that were selected.\n")));
  filter(all, "nowhere");
  EXPECT_THAT(profileTables(all, {}, {}), HasSubstr("blocked by one that was selected.\n"));
}

TEST(contentionTablesOf, keepWithinTheTerminal) {
  const std::string name(5'000, 'n');
  json document = recordedContention();
  for (const char* place :
       {"/locks/0/class", "/locks/0/field", "/locks/0/pairs/0/ownerThread", "/parks",
        "/locks/0/pairs/1/waiterThread", "/locks/1/pairs/2/ownerNote", "/otherLocks/0/class",
        "/stacks/0/frames/0", "/stacks/6/frames/0", "/stuck/0/waiters/0/thread",
        "/stuck/0/owner/thread", "/deadlocks/0/0/thread", "/locks/2/class", "/locks/3/class"}) {
    ASSERT_NO_THROW(document.at(json::json_pointer(place)));
    document[json::json_pointer(place)] = name;
  }
  for (ranking by :
       {ranking::lock, ranking::lockClass, ranking::site, ranking::owner, ranking::thread}) {
    std::istringstream text(tables(document, by, {.width = 110}));
    for (std::string line; std::getline(text, line);) {
      EXPECT_LE(line.size(), 110U) << line.substr(0, 200);
    }
  }
}

TEST(times, areShownInTheUnitsThatFit) {
  EXPECT_EQ(milliText(0), "0");
  EXPECT_EQ(milliText(1), "<0.1");
  EXPECT_EQ(milliText(100'000), "0.1");
  EXPECT_EQ(milliText(12'340'000), "12.3");
  EXPECT_EQ(milliText(99'999'999), "100.0");
  EXPECT_EQ(milliText(100'499'999), "100");
  EXPECT_EQ(milliText(1'234'500'000), "1,235");
  EXPECT_EQ(milliText(18446744073709551615U), "18,446,744,073,710");
  EXPECT_EQ(durationText(0), "0.0 s");
  EXPECT_EQ(durationText(59'999), "59.9 s");
  EXPECT_EQ(durationText(60'000), "1 min 0 s");
  EXPECT_EQ(durationText(3'661'000'000), "1,016 h 56 min");
  EXPECT_EQ(dayAndTimeText(0), "1970-01-01 00:00:00");
  EXPECT_EQ(timeText(253'402'300'799'999), "23:59:59");
  EXPECT_EQ(timeText(18446744073709551615U), "?");
}

}  // namespace
}  // namespace viewer
