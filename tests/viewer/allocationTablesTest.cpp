#include "allocationTables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "allocationWords.h"
#include "comparison.h"
#include "exports.h"
#include "jsonForm.h"
#include "profileTables.h"
#include "testAllocations.h"
#include "withoutValues.h"

namespace viewer {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

profile runOf(const json& document = recordedAllocations()) {
  profile all;
  all.allocations = {sessionOf(document)};
  return all;
}

std::string tables(const allocationSession& session) {
  return allocationTables(session, {}, {.width = 400});
}

std::string tablesWith(const std::function<void(json&)>& change) {
  json document = recordedAllocations();
  change(document);
  return tables(sessionOf(document));
}

template <typename action>
std::string written(action write) {
  std::ostringstream out;
  write(out);
  return out.str();
}

TEST(allocationTables, showWhatGrowsWithTheSamplesBehindIt) {
  allocationSession session = sessionOf();
  addPaths(session);
  EXPECT_THAT(
      tables(session),
      AllOf(HasSubstr("1. com.example.Shop.login(Shop.java:31): grows by 4.5 MiB/min"),
            HasSubstr("com.example.Session: 32 MiB alive (64 samples), grows by 4.0 MiB/min"),
            HasSubstr("held by java.util.HashMap$Node.value <- "),
            HasSubstr("com.example.Listener: 1.5 MiB alive (3 samples: an estimate, between about "
                      "372 KiB and 4.2 MiB)"),
            HasSubstr("others than those counted here"),
            HasSubstr("No path is known for objects of com.example.Listener")));
}

TEST(allocationTables, nameHoldersOfWhatWasAllocatedElsewhereAsSuch) {
  json document = recordedAllocations();
  document["points"][0]["collections"] = 0;
  json paths = recordedPaths();
  paths["paths"].push_back(paths["paths"][0]);
  paths["paths"][0]["chain"][1]["index"] = paths["paths"][1]["chain"][1]["index"];
  allocationSession session = sessionOf(document);
  addPaths(session, paths);
  const std::string text = tables(session);
  EXPECT_THAT(text, AllOf(HasSubstr("      held by java.util.HashMap$Node.value"),
                          Not(HasSubstr("... 1 more\n   allocated by")),
                          HasSubstr("what was alive until then is not known.")));
  for (json& path : paths["paths"]) {
    path["stack"] = {"com.example.Other.load(Other.java:7)"};
  }
  addPaths(session, paths);
  EXPECT_THAT(tables(session), AllOf(HasSubstr("objects of this class are held by java.util"),
                                     Not(HasSubstr("      held by"))));
  for (json& site : document["sites"]) {
    site["alive"] = amountOf(0);
  }
  allocationSession dead = sessionOf(document);
  addPaths(dead, paths);
  EXPECT_THAT(tables(dead), Not(HasSubstr("held by")));
}

TEST(allocationTables, tellWhereTooFewSamplesShowNoGrowth) {
  json document = recordedAllocations();
  document["sites"] = {recordedSite(1, "byte[]", {1, 1, 0, 0, 0, 0, 0, 0}, 1),
                       recordedSite(2, "com.example.Page", {30, 30, 0, 0, 0, 0, 0, 0}, 3)};
  allocationSession session = sessionOf(document);
  EXPECT_THAT(tables(session), AllOf(HasSubstr("Prices.java:9): too few samples to show growth"),
                                     HasSubstr("Pages.java:20): does not grow")));
  addGrowth(session, recordedGrowth("byte[]", {100, 100, 100}));
  EXPECT_THAT(tables(session), HasSubstr("Prices.java:9): does not grow")) << "histograms show it";
}

TEST(allocationTables, tellWhatIsNotKnown) {
  EXPECT_THAT(tablesWith([](json& all) { all["collections"] = 0; }),
              AllOf(HasSubstr("NO COLLECTION ran"), HasSubstr(": growth not known")));
  EXPECT_THAT(tablesWith([](json& all) {
                all["afterCollection"] = false;
                all["young"] = amountOf(4);
              }),
              AllOf(HasSubstr("Only collections of the old generation look at old objects"),
                    HasSubstr("2.0 MiB in 4 samples is not counted")));
  EXPECT_THAT(tablesWith([](json& all) { all["omitted"]["lost"] = 5; }),
              HasSubstr("5 samples (0 B) were lost"));
  EXPECT_THAT(
      tablesWith([](json& all) {
        all["omitted"]["thinned"] = 1;
        all["intervalBytes"] = 2 * kSampleBytes;
      }),
      HasSubstr("the interval was lengthened (1 time): 512 KiB before, 1.0 MiB in the end"));
  EXPECT_THAT(tablesWith([](json& all) {
                all["omitted"]["stacks"] = 3;
                all["otherSites"]["sites"] = 2;
              }),
              AllOf(HasSubstr("3 stacks had no room"), HasSubstr("Not listed: 2 more sites")));
  EXPECT_THAT(tablesWith([](json& all) { all["endedAt"] = nullptr; }),
              HasSubstr("It was not stopped"));
  EXPECT_THAT(tablesWith([](json&) {}),
              AllOf(HasSubstr("No class histograms were taken"), HasSubstr("Who holds objects"),
                    Not(HasSubstr("lost")), Not(HasSubstr("is not counted"))));
}

TEST(allocationTables, tellWhatTheHooksReleased) {
  const auto shutDown = [](json& all) { all["shutdownAt"] = 1'795'349'100'000; };
  EXPECT_THAT(tablesWith(shutDown),
              AllOf(HasSubstr("12:05:00 UTC, before the program's shutdown hooks ran"),
                    HasSubstr("no collection has run since")));
  EXPECT_THAT(tablesWith([&](json& all) {
                shutDown(all);
                all["afterHooks"] = amountOf(6);
                all["afterHooks"]["collections"] = 1;
              }),
              HasSubstr("125 MiB of it was released later (1 round of collections since): 3.0 MiB "
                        "in 6 samples is left"));
}

TEST(allocationTables, tellWhyHistogramsAndPathsAreMissing) {
  allocationSession session = sessionOf();
  addGrowth(session, recordedGrowth("a.B", {1, 2}));
  session.growth->problem = "the bean is missing";
  session.growth->intervalMillis = 120'000;
  addPaths(session);
  session.paths->problem = "the flight recorder is not there";
  EXPECT_THAT(tables(session),
              AllOf(HasSubstr("Class histograms: the bean is missing."),
                    HasSubstr("every 2 min 0 s instead of every 1 min 0 s"),
                    HasSubstr("2 histograms were taken: it takes 3"),
                    HasSubstr("Who holds objects: the flight recorder is not there.")));
}

TEST(allocationTables, ofHistogramsAlone) {
  allocationSession session;
  session.name = "run/allocations-1";
  addGrowth(session, recordedGrowth("com.example.Session", {0, 1'048'576, 2'097'152}));
  EXPECT_THAT(tables(session), AllOf(HasSubstr("Allocations were not sampled"),
                                     HasSubstr("1.0 MiB/min  histograms")));
}

TEST(allocationForm, hasSitesGrowthAndPaths) {
  profile all = runOf();
  addGrowth(all.allocations[0], recordedGrowth("com.example.Session", {3, 3, 3}));
  addPaths(all.allocations[0]);
  const json form =
      json::parse(written([&](std::ostream& out) { writeJson(all, out); }))["allocations"][0];
  EXPECT_EQ(form["interval"], kSampleBytes);
  EXPECT_EQ(form["started"], 1'795'348'800'000);
  const json& site = form["sites"][0];
  EXPECT_EQ(site["class"], "java.util.HashMap$Node");
  EXPECT_EQ(site["stack"].size(), 2);
  EXPECT_EQ(site["site"], "com.example.Shop.login(Shop.java:31)");
  EXPECT_EQ(site["alive"]["samples"], 9);
  EXPECT_EQ(site["course"].size(), 8);
  EXPECT_EQ(form["growing"][0]["growsBy"], site["growsBy"])
      << "only nodes grow: histograms show that sessions do not";
  EXPECT_EQ(form["growth"][0]["bytesPerMinute"], -17);
  EXPECT_EQ(form["paths"][0]["root"]["text"], "com.example.Shop.sessions");
  EXPECT_EQ(form["paths"][0]["chain"][0]["field"], "value");
}

TEST(allocationForm, ofThePageHasEachFrameOnce) {
  const json form = json::parse(written([&](std::ostream& out) {
    writeJson(runOf(), out, thrownIn::outsideJdk, recordForm::shared);
  }))["allocations"][0];
  EXPECT_EQ(form["frames"].size(), 5);
  for (const json& site : form["sites"]) {
    for (const json& frame : site["stack"]) {
      EXPECT_LT(frame.get<std::size_t>(), 5);
    }
  }
}

TEST(allocationExports, haveBytesOfSamplesThatAreAlive) {
  json document = recordedAllocations();
  document["otherSites"]["alive"] = amountOf(2);
  const profile all = runOf(document);
  EXPECT_EQ(stacksIn(all), stackSource::allocations);
  EXPECT_THAT(
      written([&](std::ostream& out) { writeCollapsed(all, stackSource::allocations, out); }),
      AllOf(HasSubstr("com.example.Session;com.example.Shop.run(Shop.java:12);"
                      "com.example.Shop.login(Shop.java:31) 33554432\n"),
            HasSubstr("com.example.Listener;(no stack recorded) 1572864\n"),
            HasSubstr("(sites that are not listed);(no stack recorded) 1048576\n")));
  const json scope =
      json::parse(written([&](std::ostream& out) { writeSpeedscope(all, out); }))["profiles"][0];
  EXPECT_EQ(scope["unit"], "bytes");
  EXPECT_EQ(scope["endValue"], 258 * kSampleBytes);
  EXPECT_THAT(written([&](std::ostream& out) { writeCsv(all, csvTable::allocations, out); }),
              HasSubstr("com.example.Session,com.example.Shop.login(Shop.java:31),4194304,64,"));
  EXPECT_THAT(written([&](std::ostream& out) { writePrometheus(all, out); }),
              HasSubstr("javanativeagent_allocations_growth_bytes_per_minute{report=\"run/"
                        "allocations-1.json\",class=\"com.example.Session\"} 4194304"));
}

TEST(allocationDiff, comparesClassesAndSites) {
  json more = recordedAllocations();
  more["sites"][1] = recordedSite(2, "com.example.Session", {16, 16, 16, 16, 16, 16, 16, 16}, 2);
  const comparison both = compare(runOf(), runOf(more), {});
  const auto row = [&](const std::string& table, const std::string& name) {
    for (const comparedTable& one : both.tables) {
      for (const comparedSum& sum : one.rows) {
        if (one.name == table && sum.name == name) {
          return std::pair(sum.before.value_or(0), sum.after.value_or(0));
        }
      }
    }
    return std::pair<std::uint64_t, std::uint64_t>();
  };
  EXPECT_EQ(row("growth", "com.example.Session"), std::pair(8 * kSampleBytes, 16 * kSampleBytes));
  EXPECT_EQ(row("allocations", "com.example.Session"),
            std::pair(64 * kSampleBytes, 128 * kSampleBytes));
  EXPECT_EQ(row("allocation sites", "com.example.Shop.login"),
            std::pair(73 * kSampleBytes, 137 * kSampleBytes));
  EXPECT_THAT(both.tables[0].notes[0], HasSubstr("may be chance"));
}

TEST(allocationsWithoutValues, haveNoThreadNames) {
  profile all = runOf();
  addPaths(all.allocations[0]);
  all.allocations[0].paths->paths[0].root.text = "stack of alice-7";
  removeValues(all);
  const std::string form = written([&](std::ostream& out) { writeJson(all, out); });
  EXPECT_THAT(form, AllOf(Not(HasSubstr("alice-7")), Not(HasSubstr("worker-1")),
                          HasSubstr("stack of (thread)"), HasSubstr("com.example.Session")));
}

}  // namespace
}  // namespace viewer
