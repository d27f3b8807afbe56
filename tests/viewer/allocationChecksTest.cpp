#include "allocationChecks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "checks.h"
#include "testAllocations.h"

namespace viewer {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

profile runWith(const std::function<void(json&)>& change) {
  json document = recordedAllocations();
  change(document);
  profile all;
  all.allocations = {sessionOf(document)};
  return all;
}

profile run() {
  return runWith([](json&) {});
}

std::vector<std::string> brokenBy(const profile& all, const std::string& limit) {
  return limit.ends_with("/min") ? check(all, {.growth = {parseGrowthLimit(limit)}}).broken
                                 : check(all, {.alive = {parseAliveLimit(limit)}}).broken;
}

std::string problemWith(const std::string& text) {
  try {
    text.find("min") != text.npos ? parseGrowthLimit(text) : parseAliveLimit(text);
  } catch (const inputError& e) {
    return e.what();
  }
  return "";
}

TEST(allocationLimits, takeSizesWithUnits) {
  EXPECT_EQ(parseGrowthLimit("a.*=512k/min").bytes, 512 * 1024);
  EXPECT_EQ(parseAliveLimit("a.*=1.5m").bytes, 1.5 * 1024 * 1024);
  EXPECT_EQ(parseAliveLimit("byte[]=2G").bytes, 2.0 * 1024 * 1024 * 1024);
  EXPECT_EQ(parseAliveLimit("a=b=7").names, "a=b");
}

TEST(allocationLimits, nameWhatWasGiven) {
  EXPECT_EQ(problemWith("a.B=1x/min"),
            "expected NAMES=SIZE/min, as in 'com.example.*=512k/min', found 'a.B=1x/min'");
  for (const char* text : {"", "7m", "=7m", "a.B=", "a.B=m", "a.B=-1", "a.B=7q", "a.B=nan"}) {
    EXPECT_THAT(problemWith(text), AllOf(HasSubstr("expected NAMES=SIZE, as in"), HasSubstr(text)));
  }
  EXPECT_THROW(parseGrowthLimit("a.B=7m"), inputError) << "by minute";
}

TEST(allocationCheck, ofGrowthNamesClassesAndSites) {
  EXPECT_THAT(
      brokenBy(run(), "com.example.S*=3m/min"),
      ElementsAre(
          AllOf(HasSubstr("com.example.Session: grows by 4.0 MiB/min (64 samples, between"),
                HasSubstr("in allocations-1.json, 3m/min allowed")),
          HasSubstr("allocated in com.example.Shop.login(Shop.java:31): grows by 4.5 MiB")));
}

TEST(allocationCheck, ofWhatIsAlive) {
  EXPECT_THAT(brokenBy(run(), "byte[]=59m"), ElementsAre(HasSubstr("byte[]: alive: 60 MiB (120")));
  EXPECT_THAT(brokenBy(run(), "byte[]=80m"), IsEmpty());
}

TEST(allocationCheck, holdsOnlyWhereTheSamplesShowIt) {
  EXPECT_THAT(brokenBy(run(), "com.example.Listener=4m"),
              ElementsAre(HasSubstr("too few samples to show it: com.example.Listener: alive: 1.5 "
                                    "MiB (3 samples, between about 372 KiB and 4.2 MiB)")));
  EXPECT_THAT(brokenBy(run(), "com.example.Listener=5m"), IsEmpty());
  EXPECT_THAT(brokenBy(run(), "com.example.None=1k"),
              ElementsAre(HasSubstr("too few samples for this limit")));
  EXPECT_THAT(brokenBy(run(), "com.example.None=1k/min"),
              ElementsAre(HasSubstr("too few samples for this limit")));
}

TEST(allocationCheck, takesHistogramsWhereThereAreAny) {
  profile all = run();
  addGrowth(all.allocations[0], recordedGrowth("com.example.Listener", {100, 100, 100, 100}));
  EXPECT_THAT(brokenBy(all, "com.example.Listener=1k/min"), IsEmpty());
  addGrowth(all.allocations[0], recordedGrowth("com.example.Listener", {0, 9000, 18000, 27000}));
  EXPECT_THAT(brokenBy(all, "com.example.Listener=1k/min"),
              ElementsAre(HasSubstr("grows by 8.8 KiB/min, as histograms show")));
}

TEST(allocationCheck, doesNotHoldForWhatIsMissing) {
  const std::string limit = "com.example.Session=900m";
  EXPECT_THAT(brokenBy(profile(), limit), ElementsAre(limit + ": no allocation report to check"));
  EXPECT_THAT(brokenBy(runWith([](json& all) { all["collections"] = 0; }), limit),
              ElementsAre(HasSubstr("no collection ran")));
  EXPECT_THAT(brokenBy(runWith([](json& all) { all["endedAt"] = nullptr; }), limit),
              ElementsAre(HasSubstr("while the session ran")));
  EXPECT_THAT(brokenBy(runWith([](json& all) { all["omitted"]["lost"] = 3; }), limit),
              ElementsAre(HasSubstr("3 samples were lost")));
  EXPECT_THAT(brokenBy(runWith([](json& all) {
                         all["afterCollection"] = false;
                         all["young"] = amountOf(2);
                       }),
                       limit),
              ElementsAre(HasSubstr("none has looked at 1.0 MiB")));
  EXPECT_THAT(
      brokenBy(runWith([](json& all) { all["otherSites"]["alive"] = amountOf(9000); }), limit),
      ElementsAre(HasSubstr("that are not listed")));
}

TEST(allocationCheck, notesThatNothingMatches) {
  const verdict found = check(run(), {.alive = {parseAliveLimit("org.other.*=900m")}});
  EXPECT_THAT(found.broken, IsEmpty());
  EXPECT_THAT(found.notes, ElementsAre(HasSubstr("no class or site of a matching name")));
}

}  // namespace
}  // namespace viewer
