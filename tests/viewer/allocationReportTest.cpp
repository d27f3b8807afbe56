#include "allocationReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "allocationSites.h"
#include "testAllocations.h"

namespace viewer {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

std::string problemWith(const std::function<void(json&)>& change) {
  json document = recordedAllocations();
  change(document);
  try {
    parsedAllocations(document);
  } catch (const inputError& e) {
    return e.what();
  }
  return "";
}

std::vector<std::string> namesOf(const std::vector<grownSite>& sites) {
  std::vector<std::string> names;
  for (const grownSite& one : sites) {
    names.push_back(one.site.value_or("(none)"));
  }
  return names;
}

std::vector<std::string> namesOf(const std::vector<grownClass>& classes) {
  std::vector<std::string> names;
  for (const grownClass& one : classes) {
    names.push_back(one.className);
  }
  return names;
}

TEST(allocationReader, keepsWhatTheReportHas) {
  const allocationReport report = parsedAllocations();
  EXPECT_EQ(report.collections, 40);
  EXPECT_EQ(report.alive.samples, 256);
  EXPECT_EQ(report.sites.size(), 5);
  EXPECT_EQ(report.sites[1].threads.front().name, "worker-1");
  EXPECT_EQ(siteOf(report, report.sites[3]), "com.example.Shop.login(Shop.java:31)");
  EXPECT_EQ(siteOf(report, report.sites[4]), std::nullopt);
  EXPECT_EQ(lengthOf(report), 480'000);
}

TEST(allocationReader, takesNamesThatAreNotKnown) {
  json document = recordedAllocations();
  document["sites"][0]["class"] = nullptr;
  document["sites"][0]["threads"][0]["name"] = nullptr;
  const allocationReport report = parsedAllocations(document);
  EXPECT_EQ(report.sites[0].className, kUnknownClass);
  EXPECT_EQ(report.sites[0].threads[0].name, kUnknownThread);
}

TEST(allocationReader, namesThePlaceAndWhatWasExpected) {
  EXPECT_THAT(problemWith([](json& all) { all["sites"][1]["alive"].erase("bytes"); }),
              AllOf(HasSubstr("allocations-1.json: sites / 1 / alive"), HasSubstr("\"bytes\"")));
  EXPECT_THAT(problemWith([](json& all) { all["version"] = 2; }),
              HasSubstr("expected version 1, found 2: a newer agent"));
  EXPECT_THAT(problemWith([](json& all) { all["collections"] = -1; }),
              HasSubstr("expected a number of 0 or more, found -1"));
  EXPECT_THAT(problemWith([](json& all) { all["stacks"][1]["id"] = 1; }),
              HasSubstr("expected each id once, found 1 again"));
  EXPECT_THAT(problemWith([](json& all) { all["sites"][0]["stack"] = 99; }),
              HasSubstr("did not find 1 of them"));
}

TEST(allocationReader, takesWhatTheHooksLeft) {
  json document = recordedAllocations();
  document["shutdownAt"] = 1'795'348'800'000 + 240'000;
  document["afterHooks"] = amountOf(7);
  document["afterHooks"]["collections"] = 2;
  document["sites"][0]["afterHooks"] = amountOf(3);
  const allocationReport report = parsedAllocations(document);
  EXPECT_EQ(report.released->collections, 2);
  EXPECT_EQ(report.released->amount.samples, 7);
  EXPECT_EQ(report.sites[0].afterHooks->samples, 3);
  EXPECT_EQ(report.sites[1].afterHooks, std::nullopt);
  EXPECT_EQ(lengthOf(report), 240'000) << "what is alive is of then";
}

TEST(allocationReader, takesMeasuredValuesWithAFraction) {
  allocationSession session;
  addGrowth(session, recordedGrowth("a.B", {1, 2, 3}));
  EXPECT_EQ(session.growth->heap.bytesPerMinute, 1048576.5);
  EXPECT_EQ(session.growth->classes[0].bytesPerMinute, -17.25);
  EXPECT_EQ(session.growth->classes[0].fit, std::nullopt);
}

TEST(allocationSites, rankLeaksBeforeCachesAndWhatWasMadeAtTheStart) {
  const std::vector<grownSite> sites = grownSitesOf(sessionOf());
  EXPECT_THAT(namesOf(sites), ElementsAre("com.example.Shop.login(Shop.java:31)", "(none)",
                                          "com.example.Pages.get(Pages.java:20)",
                                          "com.example.Prices.load(Prices.java:9)"));
  EXPECT_EQ(sites[0].sum.alive.samples, 73) << "with what the JDK allocated for it";
  EXPECT_EQ(sites[0].sum.growsBy, 9 * kSampleBytes);
  EXPECT_EQ(sites[0].classes[0].className, "com.example.Session");
  EXPECT_EQ(sites[1].sum.growsBy, kSampleBytes / 4);
  EXPECT_EQ(sites[2].sum.growsBy, 0);
  EXPECT_EQ(sites[3].sum.growsBy, 0);
}

TEST(allocationSites, doNotGrowWithoutACollection) {
  json document = recordedAllocations();
  document["collections"] = 0;
  EXPECT_EQ(grownSitesOf(sessionOf(document))[0].sum.growsBy, std::nullopt);
}

TEST(allocationSites, growByNoMoreThanTheirClass) {
  allocationSession session = sessionOf();
  addGrowth(session, recordedGrowth("com.example.Session", {1000, 1000, 1000, 1000, 1000}));
  const std::vector<grownClass> classes = grownClassesOf(session);
  EXPECT_THAT(namesOf(classes), ElementsAre("java.util.HashMap$Node", "com.example.Listener",
                                            "com.example.Session", "com.example.Page", "byte[]"));
  EXPECT_EQ(classes[2].sum.growsBy, 0);
  EXPECT_EQ(classes[2].histogramBytes, 1000);
}

TEST(allocationSites, ofOneClassDoNotMakeUpForEachOther) {
  json document = recordedAllocations();
  document["sites"] = {recordedSite(1, "byte[]", {60, 60, 0, 0, 0, 0, 0, 0}, 1),
                       recordedSite(2, "byte[]", {0, 0, 0, 0, 0, 0, 30, 30}, 3)};
  const std::vector<grownClass> classes = grownClassesOf(sessionOf(document));
  EXPECT_EQ(classes[0].sum.growsBy, 0) << "data of the start, and a cache";
}

TEST(allocationSites, withFewSamplesCountTogether) {
  json document = recordedAllocations();
  document["sites"] = {recordedSite(1, "byte[]", {4, 4, 4, 4, 0, 0, 0, 0}, 1),
                       recordedSite(2, "byte[]", {0, 0, 0, 0, 4, 4, 4, 4}, 3)};
  const std::vector<grownClass> classes = grownClassesOf(sessionOf(document));
  EXPECT_EQ(classes[0].sum.growsBy, 4 * kSampleBytes) << "a leak from many places";
}

TEST(allocationSites, ofClassesThatOnlyHistogramsHave) {
  allocationSession session = sessionOf();
  addGrowth(session, recordedGrowth("com.example.Slow", {100, 1'000'100, 2'000'100, 3'000'100}));
  const std::vector<grownClass> classes = grownClassesOf(session);
  EXPECT_EQ(classes[1].className, "com.example.Slow");
  EXPECT_NEAR(static_cast<double>(*classes[1].sum.growsBy), 1e6, 2);
  EXPECT_TRUE(classes[1].isByHistograms);
  EXPECT_TRUE(classes[1].sites.empty());
}

TEST(allocationSites, sumTheCourseOfSitesThatBeganLater) {
  json document = recordedAllocations();
  document["sites"][3]["courseFrom"] = 6;
  document["sites"][3]["course"] = {kSampleBytes, 9 * kSampleBytes, 77};
  const std::vector<grownSite> sites = grownSitesOf(sessionOf(document));
  EXPECT_EQ(sites[0].sum.course[5], 48 * kSampleBytes);
  EXPECT_EQ(sites[0].sum.course[7], 73 * kSampleBytes);
}

TEST(allocationPaths, areThoseOfTheMethodThatAllocated) {
  allocationSession session = sessionOf();
  addPaths(session);
  EXPECT_EQ(pathsOf(session, "com.example.Session", "com.example.Shop.login(Shop.java:31)").size(),
            1);
  EXPECT_TRUE(pathsOf(session, "byte[]", {}).empty());
  EXPECT_EQ(
      pathText(session.paths->paths[0], "com.example.Session"),
      "java.util.HashMap$Node.value <- java.util.HashMap$Node[12] <- (2 more) <- static field "
      "com.example.Shop.sessions (thread alice-7)");
}

TEST(allocationPaths, leadThroughHoldersAsWell) {
  allocationSession session = sessionOf();
  addPaths(session);
  const auto through = pathsOf(session, "java.util.HashMap$Node", {});
  ASSERT_EQ(through.size(), 1);
  EXPECT_EQ(pathText(*through[0], "java.util.HashMap$Node"),
            "java.util.HashMap$Node[12] <- (2 more) <- static field com.example.Shop.sessions "
            "(thread alice-7)");
}

TEST(allocationPaths, nameAStaticFieldOnce) {
  json document = recordedPaths();
  document["paths"][0]["chain"].push_back(
      {{"class", "com.example.Shop"}, {"field", "sessions"}, {"index", nullptr}, {"skipped", 0}});
  allocationSession session = sessionOf();
  addPaths(session, document);
  EXPECT_THAT(pathText(session.paths->paths[0], "com.example.Session"),
              HasSubstr("[12] <- (2 more) <- static field com.example.Shop.sessions"));
}

TEST(allocationFilter, keepsSitesClassesAndPathsWithTheText) {
  allocationSession session = sessionOf();
  addPaths(session);
  addGrowth(session, recordedGrowth("byte[]", {1, 2, 3}));
  keepAllocations(session, [](const std::string& text) { return text.find("Shop") != text.npos; });
  EXPECT_EQ(session.samples->sites.size(), 2);
  EXPECT_TRUE(session.growth->classes.empty());
  EXPECT_EQ(session.paths->paths.size(), 1);
  EXPECT_TRUE(holdsAllocations(session));
}

}  // namespace
}  // namespace viewer
