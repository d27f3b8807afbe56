#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "checks.h"
#include "testContention.h"
#include "testReport.h"

namespace viewer {
namespace {

using nlohmann::json;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

// The recorded report with no deadlock and nothing that is stuck.
json calm() {
  json document = recordedContention();
  document["stuck"] = json::array();
  document["deadlocks"] = json::array();
  document["omitted"]["startsNotSeen"] = 0;
  for (json& lock : document["locks"]) {
    lock["stillBlocked"] = lock["stillBlockedNanos"] = 0;
  }
  return document;
}

profile runWith(const json& document, const std::string& source = "run-1/contention-1.json") {
  profile all;
  all.name = "run-1";
  all.contentionReports = {parsedContention(document)};
  all.contentionReports[0].source = source;
  return all;
}

verdict limited(const json& document, const std::string& pattern, double millis) {
  return check(runWith(document), {.contention = {{pattern, millis}}});
}

std::vector<std::string> brokenBy(const json& document, const std::string& pattern, double millis) {
  return limited(document, pattern, millis).broken;
}

verdict unlocked(const json& document) {
  return check(runWith(document), {.noDeadlock = true});
}

TEST(contentionChecks, limitTheTimeOfEachLockWithBlocksThatGoOn) {
  const json document = recordedContention();
  EXPECT_THAT(brokenBy(document, "com.example.shop.*", 94'212), SizeIs(1));
  EXPECT_THAT(
      brokenBy(document, "com.example.shop.*", 94'000),
      ElementsAre(
          "com.example.shop.PriceCache@5c29bfd1: 531,000 ms blocked in contention-1.json (3 "
          "threads still are), 94000 ms allowed",
          "com.example.shop.Inventory@1f7a2c09: 94,212 ms blocked in contention-1.json, "
          "94000 ms allowed"));
  EXPECT_THAT(brokenBy(document, "com.example.shop.Cart", 50),
              ElementsAre(HasSubstr(
                  "62,041 ms blocked in contention-1.json (1 thread still is), 50 ms allowed")));
  EXPECT_THAT(brokenBy(document, "com.example.shop.Inventory", 94'212), IsEmpty());
  EXPECT_THAT(brokenBy(document, "com.example.shop.Inventory", 94'211.5), SizeIs(1));
}

TEST(contentionChecks, doNotLimitWaits) {
  const verdict found = limited(recordedContention(), "com.example.shop.Mailbox", 0);
  EXPECT_THAT(found.broken, IsEmpty());
  EXPECT_THAT(found.notes,
              Contains("com.example.shop.Mailbox=0: no thread was blocked by a lock of "
                       "a matching class"));
}

TEST(contentionChecks, areBrokenWhenThereIsNoReport) {
  const checkedLimits limits = {.contention = {{"a.*", 5}}, .noDeadlock = true};
  EXPECT_THAT(check(profile(), limits).broken,
              ElementsAre("a.*=5: no contention report to check",
                          "no deadlock: no contention report to check"));
  profile all;
  all.run.emplace();
  EXPECT_THAT(check(all, limits).broken,
              Contains("a.*=5: no contention report: the run was started "
                       "without contention=true"));
  all.run->options["contention"] = "true";
  EXPECT_THAT(check(all, limits).broken,
              Contains("a.*=5: no contention report: the JVM was killed or is still running"));
  all.run->removedReports = 3;
  EXPECT_THAT(check(all, limits).broken,
              Contains("a.*=5: no contention report: 3 reports of the run were deleted"));
  EXPECT_THAT(check(runWith(calm(), "run-1/contention-2.json"), limits).broken,
              Contains(HasSubstr("no report of contention profile 1: ")));
}

TEST(contentionChecks, areBrokenByAProfileThatWasNotStopped) {
  json document = calm();
  document["endedAt"] = nullptr;
  const std::string reason =
      "contention-1.json was written at 2026-11-22 12:05:00 UTC while the profile ran: the JVM was "
      "killed later, or is still running";
  EXPECT_THAT(brokenBy(document, "a.B", 0), ElementsAre("a.B=0: " + reason));
  EXPECT_THAT(unlocked(document).broken, ElementsAre("no deadlock: " + reason));
}

TEST(contentionChecks, areBrokenForLocksOfTheLibraryThatAreNotExact) {
  json document = calm();
  document["parks"] = "refused";
  const char* missing =
      "contention-1.json does not have the locks of java.util.concurrent: refused";
  for (const char* pattern : {"*", "java.util.concurrent.locks.ReentrantLock", "java.*", "j*"}) {
    EXPECT_THAT(brokenBy(document, pattern, 1e9), ElementsAre(HasSubstr(missing))) << pattern;
  }
  for (const char* pattern : {"com.example.*", "java.util.Vector", "java.util.concurrent"}) {
    EXPECT_THAT(brokenBy(document, pattern, 1e9), IsEmpty()) << pattern;
  }
  EXPECT_THAT(limited(document, "com.*", 1e9).notes, Contains(HasSubstr("not covered: refused")));
  EXPECT_THAT(unlocked(document).broken, ElementsAre(HasSubstr(missing)));
  document["parks"] = "parks";
  EXPECT_THAT(brokenBy(document, "java.*", 1e9), ElementsAre(HasSubstr("has each park at a lock")));
  EXPECT_THAT(unlocked(document).broken, IsEmpty());
}

TEST(contentionChecks, areBrokenWhereSumsCouldHideALock) {
  json document = calm();
  EXPECT_THAT(brokenBy(document, "com.example.shop.Request", 310), IsEmpty());
  EXPECT_THAT(
      brokenBy(document, "com.example.shop.Request", 309),
      ElementsAre("com.example.shop.Request=309: contention-1.json: 310 ms blocked at locks "
                  "of com.example.shop.Request that are not told apart"));
  EXPECT_THAT(brokenBy(document, "com.example.shop.Request", 4),
              ElementsAre("com.example.shop.Request: one thread blocked for 4.1 ms in "
                          "contention-1.json, 4 ms allowed"));
  document["otherLocks"][0]["class"] = nullptr;
  EXPECT_THAT(brokenBy(document, "a.B", 310), IsEmpty());
  EXPECT_THAT(brokenBy(document, "a.B", 309),
              ElementsAre(HasSubstr("310 ms blocked at locks whose classes are not told apart")));
}

TEST(contentionChecks, addALockToTheSumOfItsClass) {
  json document = calm();
  document["otherLocks"][0]["class"] = "com.example.shop.Inventory";
  EXPECT_THAT(brokenBy(document, "com.example.shop.Inventory", 94'522), IsEmpty());
  EXPECT_THAT(brokenBy(document, "com.example.shop.Inventory", 94'521), SizeIs(1));
}

TEST(contentionChecks, areBrokenByALockWhoseClassWasUnloaded) {
  json document = calm();
  lockIn(document, 1)["class"] = nullptr;
  EXPECT_THAT(brokenBy(document, "a.B", 94'212), IsEmpty());
  EXPECT_THAT(brokenBy(document, "a.B", 94'211),
              ElementsAre(HasSubstr("94,212 ms blocked at a lock of a class that was unloaded")));
}

TEST(contentionChecks, areBrokenByBlocksThatAreNotWatched) {
  json document = calm();
  document["omitted"]["blocksNotSampled"] = 4;
  EXPECT_THAT(brokenBy(document, "a.B", 0), ElementsAre(HasSubstr("4 blocks had no room")));
  EXPECT_THAT(unlocked(document).broken, ElementsAre(HasSubstr("4 blocks had no room")));
}

TEST(contentionChecks, refuseDeadlocks) {
  EXPECT_THAT(unlocked(recordedContention()).broken,
              ElementsAre("deadlock in contention-1.json: refunds-1 waits for "
                          "java.util.concurrent.locks.ReentrantLock@6d0c2a77, refunds-2 waits for "
                          "com.example.shop.Cart@27ab01e4"));
  EXPECT_THAT(unlocked(calm()).broken, IsEmpty());
}

TEST(contentionChecks, areBrokenWhereADeadlockCouldBeMissed) {
  json unknown = recordedContention();
  unknown["deadlocks"] = json::array();
  EXPECT_THAT(unlocked(unknown).broken, IsEmpty()) << "all owners are known";
  unknown["stuck"][0]["owner"] = nullptr;
  EXPECT_THAT(unlocked(unknown).broken,
              ElementsAre(HasSubstr("the owners of stuck locks are not known: 1 of 3")));
  json cut = calm();
  cut["omitted"]["stuck"] = 2;
  EXPECT_THAT(unlocked(cut).broken, ElementsAre(HasSubstr("does not list 2 more stuck locks")));
  json unsampled = calm();
  unsampled["settings"]["samplesPerSecond"] = 0;
  EXPECT_THAT(unlocked(unsampled).broken, ElementsAre(HasSubstr("samples were off")));
}

TEST(contentionChecks, noteWhatIsNotCovered) {
  json document = calm();
  EXPECT_THAT(unlocked(document).notes, IsEmpty());
  document["omitted"]["startsNotSeen"] = 2;
  lockIn(document, 1)["stillBlocked"] = 3;
  EXPECT_THAT(unlocked(document).notes,
              ElementsAre("contention-1.json: 2 blocks that had begun before the profile are not "
                          "covered",
                          "contention-1.json: 3 threads were blocked at its end for less than 30.0 "
                          "s: a deadlock among them is not known yet"));
}

TEST(contentionChecks, parseTheirLimits) {
  const contentionLimit limit = parseContentionLimit("a.*=2.5");
  EXPECT_EQ(limit.lockClass, "a.*");
  EXPECT_EQ(limit.millis, 2.5);
  for (const char* wrong : {"", "=1", "a", "a=", "a=x", "a=-1", "a=inf", "a=1ms"}) {
    EXPECT_THAT(problemOf([&] { parseContentionLimit(wrong); }),
                HasSubstr("expected CLASSES=MILLISECONDS, as in"))
        << wrong;
  }
}

}  // namespace
}  // namespace viewer
