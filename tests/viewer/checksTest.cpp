#include "checks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testReport.h"

namespace viewer {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

profile locks() {
  profile all;
  all.lockReports = {parsedReport()};
  return all;
}

// Generations 1 to 6 of sessions, the oldest with 4283 objects and the newest with 25.
profile memory() {
  return readProfile({DATA_FOLDER "/memory-report.json"});
}

TEST(checks, limitTheBlockedTimeOfEachLock) {
  EXPECT_THAT(brokenLimits(locks(), {.blocked = {{"a.*", 2}}}),
              ElementsAre("a.Stock@9: 3 s blocked in session 42, 2 s allowed"));
  EXPECT_THAT(brokenLimits(locks(), {.blocked = {{"a.*", 3}, {"b.*", 0}, {"a.S", 0}}}), IsEmpty());
  EXPECT_THAT(brokenLimits(locks(), {.blocked = {{"a.*", 0.5}}}), testing::SizeIs(2));
}

TEST(checks, limitSurvivorsByTheCollectionsTheyOutlived) {
  const auto broken = [](std::uint64_t objects, std::uint64_t collections) {
    return brokenLimits(memory(),
                        {.survivors = {{"com.example.shop.Session", objects, collections}}});
  };
  EXPECT_THAT(broken(0, 6), ElementsAre("com.example.shop.Session: 4283 objects outlived 6 "
                                        "collections or more in session 1, 0 allowed"));
  EXPECT_THAT(broken(4283, 6), IsEmpty());
  EXPECT_THAT(broken(0, 7), IsEmpty());
  EXPECT_THAT(broken(21770, 1), IsEmpty());
  EXPECT_THAT(broken(21769, 1), testing::SizeIs(1));
  EXPECT_THAT(broken(21744, 2), testing::SizeIs(1));
  EXPECT_THAT(broken(21745, 2), IsEmpty()) << "the newest 25 have outlived one";
}

TEST(checks, refuseExceptions) {
  const profile all = readProfile({DATA_FOLDER "/shop-run"});
  EXPECT_THAT(brokenLimits(all, {.exceptions = {"java.lang.NullPointerException"}}),
              ElementsAre(HasSubstr("java.lang.NullPointerException: thrown 2 times in ")));
  EXPECT_THAT(brokenLimits(all, {.exceptions = {"java.io.*"}}), IsEmpty());
}

TEST(checks, areBrokenByDroppedRecords) {
  profile all;
  std::vector<std::string> none;
  all.exceptions.emplace().add(bytesOfText(R"({"recorded":0,"dropped":7})"), "e.jsonl", none);
  EXPECT_THAT(brokenLimits(all, {.exceptions = {"a.*"}}),
              ElementsAre("a.*: 7 records were dropped and cannot be checked"));
}

TEST(checks, areBrokenWhenThereIsNothingToCheck) {
  profile nothing;
  const checkedLimits limits = {
      .blocked = {{"a.*", 2}}, .survivors = {{"a.B", 0, 3}}, .exceptions = {"a.X"}};
  EXPECT_THAT(brokenLimits(nothing, limits),
              ElementsAre("a.*=2: no lock report to check", "a.B=0@3: no memory report to check",
                          "a.X: no exception file to check"));
  nothing.run.emplace().options["exceptions"] = "true";
  EXPECT_THAT(brokenLimits(nothing, {.exceptions = {"a.X"}}), IsEmpty())
      << "none was thrown in a run that would have recorded it";
}

TEST(checks, readTheirLimits) {
  const blockedLimit blocked = parseBlockedLimit("com.example.*=2.5");
  EXPECT_EQ(blocked.lockClass, "com.example.*");
  EXPECT_EQ(blocked.seconds, 2.5);
  const survivorLimit survivors = parseSurvivorLimit("a.B=10@3");
  EXPECT_EQ(survivors.className, "a.B");
  EXPECT_EQ(survivors.objects, 10U);
  EXPECT_EQ(survivors.collections, 3U);
  EXPECT_EQ(parseSurvivorLimit("a.B=10").collections, 1U);
}

TEST(checks, refuseLimitsOfAnotherForm) {
  for (const char* text : {"", "a.B", "a.B=", "=2", "a.B=x", "a.B=-1", "a.B=inf", "a.B=nan"}) {
    EXPECT_THAT(problemOf([&] { parseBlockedLimit(text); }),
                HasSubstr("expected CLASSES=SECONDS, as in"))
        << text;
  }
  for (const char* text : {"", "a.B", "a.B=", "=2@3", "a.B=x@1", "a.B=1@", "a.B=1.5", "a.B=-1"}) {
    EXPECT_THAT(problemOf([&] { parseSurvivorLimit(text); }),
                HasSubstr("expected CLASSES=OBJECTS@COLLECTIONS, as in"))
        << text;
  }
}

}  // namespace
}  // namespace viewer
