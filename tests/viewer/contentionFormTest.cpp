#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "jsonForm.h"
#include "testContention.h"

namespace viewer {
namespace {

using nlohmann::json;
using testing::SizeIs;

json formOf(const json& document, const std::string& text = "") {
  profile all;
  all.contentionReports = {parsedContention(document)};
  if (!text.empty()) {
    filter(all, text);
  }
  std::ostringstream out;
  writeJson(all, out);
  return json::parse(out.str())["contention"][0];
}

TEST(contentionForm, hasTheReport) {
  const json document = recordedContention();
  const json form = formOf(document);
  EXPECT_EQ(form["started"], document["startedAt"]);
  EXPECT_EQ(form["written"], document["writtenAt"]);
  EXPECT_EQ(form["ended"], document["endedAt"]);
  for (const char* same : {"settings", "parks", "cost", "omitted"}) {
    EXPECT_EQ(form[same], document[same]) << same;
  }
  EXPECT_EQ(form["totals"], json::parse(R"({"locks": 6, "entries": 25206,
      "totalNanos": 779073000000, "stillBlocked": 5})"));
  EXPECT_THAT(form["missing"], SizeIs(4));
  EXPECT_THAT(form["otherLocks"], SizeIs(2));
  EXPECT_EQ(form["otherLocks"][0]["class"], "java.util.concurrent.CompletableFuture");
}

TEST(contentionForm, hasLocksWithFramesAndWindows) {
  const json document = recordedContention();
  json form = formOf(document);
  const json& lock = lockIn(form, 1);
  const json source = document["locks"][0];
  for (const char* same : {"class", "identity", "field", "kind", "entries", "blockedNanos",
                           "maxNanos", "stillBlocked", "stillBlockedNanos", "histogram"}) {
    EXPECT_EQ(lock[same], source[same]) << same;
  }
  EXPECT_EQ(lock["first"], source["firstAt"]);
  EXPECT_EQ(lock["idle"], false);
  EXPECT_EQ(lock["totalNanos"], source["blockedNanos"]);
  ASSERT_THAT(lock["windows"], SizeIs(31));
  const json& window = document["windows"][3];
  EXPECT_EQ(lock["windows"][3], json({{"started", window["startedAt"]},
                                      {"ended", window["endedAt"]},
                                      {"blockedNanos", window["locks"][0]["blockedNanos"]},
                                      {"entries", window["locks"][0]["entries"]}}));
}

TEST(contentionForm, hasPairsWithBothStacks) {
  json form = formOf(recordedContention());
  const json& pair = lockIn(form, 1)["pairs"][0];
  EXPECT_EQ(pair["waiter"][0], "com.example.shop.Inventory.reserve(Inventory.java:41)");
  EXPECT_EQ(pair["owner"][pair["holdingFrame"].get<std::size_t>()],
            "com.example.shop.Inventory.restock(Inventory.java:52)");
  EXPECT_EQ(pair["ownerSite"], "com.example.shop.Inventory.restock(Inventory.java:52)");
  EXPECT_EQ(pair["ownerNow"], "java.lang.Thread.sleep(Native Method)");
  EXPECT_EQ(pair["waiterThread"], "http-worker-1");
  EXPECT_EQ(pair["ownerThread"], "restocker");
  EXPECT_EQ(pair["nanos"], 38'400'000'000);
  EXPECT_EQ(pair["samples"], 1920);
  const json& unknown = lockIn(form, 6)["pairs"][0];
  EXPECT_EQ(unknown["owner"], nullptr);
  EXPECT_EQ(unknown["ownerThread"], nullptr);
  EXPECT_EQ(unknown["ownerNote"], "notKept");
  EXPECT_EQ(lockIn(form, 5)["pairs"][0]["waiterSite"], "com.example.shop.Cart.merge(Cart.java:71)");
}

TEST(contentionForm, hasTimeOfBlocksThatGoOn) {
  json form = formOf(recordedContention());
  const json& lock = lockIn(form, 3);
  EXPECT_EQ(lock["entries"], 0);
  EXPECT_EQ(lock["blockedNanos"], 0);
  EXPECT_EQ(lock["totalNanos"], 531'000'000'000);
  EXPECT_EQ(lock["longestNanos"], 190'000'000'000);
  EXPECT_EQ(lock["first"], nullptr);
}

TEST(contentionForm, hasWhatIsStuck) {
  const json form = formOf(recordedContention());
  ASSERT_THAT(form["stuck"], SizeIs(3));
  const json& stuck = form["stuck"][0];
  EXPECT_EQ(stuck["lock"], 3);
  EXPECT_EQ(stuck["name"], "com.example.shop.PriceCache@5c29bfd1");
  EXPECT_EQ(stuck["waiters"][0]["site"], "com.example.shop.PriceCache.price(PriceCache.java:37)");
  EXPECT_EQ(stuck["owner"]["thread"], "price-loader");
  EXPECT_EQ(stuck["owner"]["now"], "sun.nio.ch.SocketDispatcher.read0(Native Method)");
  EXPECT_EQ(
      form["deadlocks"][0][1],
      json({{"thread", "refunds-2"}, {"waitsFor", 4}, {"name", "com.example.shop.Cart@27ab01e4"}}));
  json ownerless = recordedContention();
  ownerless["stuck"][0]["owner"] = nullptr;
  ownerless["stuck"][0]["ownerNote"] = "virtual";
  EXPECT_EQ(formOf(ownerless)["stuck"][0]["owner"], nullptr);
}

TEST(contentionForm, tellsThatTheProfileRunsAndThatThisIsAPart) {
  json document = recordedContention();
  EXPECT_EQ(formOf(document)["filtered"], false);
  document["endedAt"] = nullptr;
  EXPECT_EQ(formOf(document)["ended"], nullptr);
  const json part = formOf(document, "Inventory@");
  EXPECT_EQ(part["filtered"], true);
  EXPECT_THAT(part["locks"], SizeIs(1));
}

TEST(contentionForm, marksWaitsThatAreIdle) {
  json form = formOf(recordedContention());
  EXPECT_EQ(lockIn(form, 8)["idle"], true);
  EXPECT_EQ(lockIn(form, 9)["idle"], false);
}

}  // namespace
}  // namespace viewer
