// Whole sessions, from the tag to the report: what is reported, how it is written, what is logged.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "agent/twAprLib.h"
#include "memoryTest.h"

namespace {

using namespace test;
using nlohmann::ordered_json;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

constexpr const char* kScanJavaHeap = "memoryProfiler::scanJavaHeap";
constexpr const char* kDumpJson = "memoryProfiler::dumpJsonObjectFromMapDS";

class memoryReport : public memoryTest {};

// --- The document ----------------------------------------------------------------------------

agent::classQueue queueOf(std::vector<std::pair<std::string, agent::classRecord>> classes) {
  agent::classQueue queue;
  for (auto& [name, record] : classes) {
    queue.push({name, std::move(record)});
  }
  return queue;
}

TEST(memoryDocument, holdsItsMembersInOrder) {
  const std::string text =
      agent::memoryReportOf(7, queueOf({{"com.example.Order",
                                         {.totalCount = 52,
                                          .totalSize = 2496,
                                          .gcSurvived = {{5, {.size = 576, .count = 12}},
                                                         {2, {.size = 1920, .count = 40}}}}}}));
  EXPECT_EQ(ordered_json::parse(text), ordered_json::parse(R"(
    {"sessionname": "memoryLeak", "sessionid": 7, "topNMemoryleakClass": {"com.example.Order":
      {"gcsurvived": [{"GCCounter": 2, "count": 40, "size": "1920"},
                      {"GCCounter": 5, "count": 12, "size": "576"}],
       "totalCount": 52, "totalSize": "2496"}}})"));
}

TEST(memoryDocument, anEmptyQueueGivesAnEmptyObject) {
  const ordered_json root = ordered_json::parse(agent::memoryReportOf(-3, {}));
  EXPECT_EQ(root, ordered_json::parse(R"({"sessionname": "memoryLeak", "sessionid": -3,
                                          "topNMemoryleakClass": {}})"));
}

TEST(memoryDocument, anEmptyGcMapGivesAnEmptyArray) {
  const ordered_json root = ordered_json::parse(
      agent::memoryReportOf(1, queueOf({{"p.A", {.totalCount = 1, .totalSize = 16}}})));
  EXPECT_EQ(root.at("topNMemoryleakClass").at("p.A").at("gcsurvived"), ordered_json::array());
}

TEST(memoryDocument, sizesBeyond4GiBAreWrittenInFull) {
  const ordered_json root = ordered_json::parse(agent::memoryReportOf(
      1, queueOf({{"p.A",
                   {.totalCount = 1,
                    .totalSize = 18446744073709551615ULL,
                    .gcSurvived = {{1, {.size = 4294967296ULL, .count = 1}}}}}})));
  const ordered_json& one = root.at("topNMemoryleakClass").at("p.A");
  EXPECT_EQ(one.at("totalSize"), "18446744073709551615");
  EXPECT_EQ(one.at("gcsurvived").at(0).at("size"), "4294967296");
}

TEST(memoryDocument, countsAndGenerationsAreSigned32BitNumbers) {
  const ordered_json root = ordered_json::parse(agent::memoryReportOf(
      1, queueOf({{"p.A",
                   {.totalCount = 0xFFFFFFFFU,
                    .totalSize = 1,
                    .gcSurvived = {{0x7FFFFFFFU, {.size = 1, .count = 0x80000000U}},
                                   {0x80000000U, {.size = 1, .count = 1}}}}}})));
  const ordered_json& one = root.at("topNMemoryleakClass").at("p.A");
  EXPECT_EQ(one.at("totalCount"), -1);
  EXPECT_EQ(one.at("gcsurvived").at(0).at("GCCounter"), 2147483647);
  EXPECT_EQ(one.at("gcsurvived").at(0).at("count"), INT32_MIN);
  EXPECT_EQ(one.at("gcsurvived").at(1).at("GCCounter"), INT32_MIN);
}

TEST(memoryDocument, namesAreEscapedAndOtherwiseWrittenByteForByte) {
  const std::string text = agent::memoryReportOf(
      1, queueOf({{"p.\"q\"\\\t\n\r\x01\x1f\x7f\xc3\xa4\xed\xa0\xbd\xed\xb8\x80",
                   {.totalCount = 1, .totalSize = 1}}}));
  EXPECT_THAT(text, HasSubstr("\"p.\\\"q\\\"\\\\\\t\\n\\r\\u0001\\u001f\\u007f\xc3\xa4"
                              "\xed\xa0\xbd\xed\xb8\x80\": "));
}

// --- What a session reports ------------------------------------------------------------------

TEST_F(memoryReport, survivorsAreCountedByClassAndGeneration) {
  begin({.id = 9, .name = "not in the report"});
  tagged("com.example.Order", 24);
  tagged("com.example.Order", 40);
  tagged("com.example.Session", 1000);
  collect();
  tagged("com.example.Order", 24);
  collect();
  EXPECT_EQ(stop(), 1);
  EXPECT_EQ(report(), ordered_json::parse(R"(
    {"sessionname": "memoryLeak", "sessionid": 9, "topNMemoryleakClass": {
      "com.example.Order": {"gcsurvived": [{"GCCounter": 1, "count": 2, "size": "64"},
                                           {"GCCounter": 2, "count": 1, "size": "24"}],
                            "totalCount": 3, "totalSize": "88"},
      "com.example.Session": {"gcsurvived": [{"GCCounter": 1, "count": 1, "size": "1000"}],
                              "totalCount": 1, "totalSize": "1000"}}})"));
}

TEST_F(memoryReport, withoutACollectionNoClassIsReported) {
  load();
  start();
  tagged("p.A");
  EXPECT_EQ(memory()->gcCounter(), 0U);
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(classes(), IsEmpty());
}

TEST_F(memoryReport, afterOneCollectionNoClassIsReported) {
  begin();
  tagged("p.A");
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(classes(), IsEmpty());
  EXPECT_EQ(vm.calls("GetObjectsWithTags"), 0U);
}

TEST_F(memoryReport, objectsTaggedInTheCurrentGenerationAreNeverReported) {
  begin();
  collect();
  tagged("p.Now");
  stop();
  EXPECT_THAT(classes(), IsEmpty());
}

TEST_F(memoryReport, theyAreReportedAfterTheNextCollection) {
  begin();
  collect();
  tagged("p.Now");
  collect();
  stop();
  EXPECT_THAT(survivors("p.Now"), ElementsAre("2:1:16"));
}

TEST_F(memoryReport, taggingTwiceKeepsTheLastTag) {
  begin();
  fake::object* const one = tagged("p.A");
  collect();
  tag(one);
  collect();
  stop();
  EXPECT_THAT(survivors("p.A"), ElementsAre("2:1:16"));
}

TEST_F(memoryReport, anObjectTaggedInGeneration0IsNotFollowed) {
  load();
  fake::object* const early = tagged("p.Early");
  start();
  tagged("p.Zero");
  collect(2);
  stop();
  EXPECT_EQ(early->tag, 0);
  EXPECT_THAT(classes(), IsEmpty());
}

TEST_F(memoryReport, objectsTaggedBetweenSessionsAreReportedByTheNext) {
  begin();
  stop();
  tagged("p.Between");
  start();
  collect();
  stop();
  EXPECT_THAT(survivors("p.Between"), ElementsAre("1:1:16"));
}

TEST_F(memoryReport, objectsOfAnEarlierSessionAreReportedAsLongAsTheyLive) {
  begin();
  fake::object* const one = tagged("p.A");
  collect();
  stop();
  start();
  stop();
  EXPECT_THAT(survivors("p.A"), ElementsAre("1:1:16"));
  vm.collect(one);
  start();
  stop();
  EXPECT_THAT(classes(), IsEmpty());
}

TEST_F(memoryReport, objectsThatDiedAreNotReported) {
  begin();
  tagged("p.Alive");
  vm.collect(tagged("p.Dead"));
  collect();
  stop();
  EXPECT_THAT(classes(), ElementsAre("p.Alive"));
}

// Things that happen before the walk or before a query.
class meanwhile : public memoryReport, public ::testing::WithParamInterface<const char*> {};

TEST_P(meanwhile, anObjectThatDiesMeanwhileIsNotReported) {
  begin();
  tagged("p.Alive");
  fake::object* const dying = tagged("p.Dying");
  collect();
  vm.on(GetParam(), [&] {
    if (!dying->collected) {
      vm.collect(dying);
    }
  });
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(classes(), ElementsAre("p.Alive"));
}

TEST_P(meanwhile, anObjectTaggedAnewMeanwhileIsOfTheCurrentGeneration) {
  begin();
  fake::object* const one = tagged("p.A");
  collect();
  bool tagging = true;
  vm.on(GetParam(), [&] {
    if (std::exchange(tagging, false)) {
      tag(one);
    }
  });
  EXPECT_EQ(stop(), 1);
  EXPECT_EQ(one->tag, 2);
  EXPECT_THAT(classes(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(memoryReport, meanwhile,
                         ::testing::Values("IterateThroughHeap", "GetObjectsWithTags"),
                         [](const auto& call) { return std::string(call.param); });

TEST_F(memoryReport, anUnloadedClassIsNotReported) {
  begin();
  fake::javaClass* const guest = vm.makeClass("p.Guest");
  tag(vm.makeObject(guest));
  tagged("p.Alive");
  collect();
  vm.on("IterateThroughHeap", [&] {
    if (!guest->collected) {
      vm.unload(guest);
    }
  });
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(classes(), ElementsAre("p.Alive"));
}

TEST_F(memoryReport, aTaggedClassIsAnObjectLikeOthers) {
  begin();
  fake::javaClass* const followed = vm.makeClass("p.Followed");
  followed->size = 120;
  tag(followed);
  tag(vm.makeObject(followed));
  collect();
  stop();
  EXPECT_THAT(survivors("java.lang.Class"), ElementsAre("1:1:120"));
  EXPECT_THAT(survivors("p.Followed"), ElementsAre("1:1:16"));
  EXPECT_EQ(followed->tag, 1) << "it is followed after the scan too";
}

TEST_F(memoryReport, foreignTagsAreNotReported) {
  begin();
  object("p.Foreign")->tag = 0x7f0012345678LL;
  tagged("p.Ours");
  collect();
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(classes(), ElementsAre("p.Ours"));
  EXPECT_EQ(vm.calls("DeleteGlobalRef"), 0U);
}

TEST_F(memoryReport, arraysAreNamedByTheirSignature) {
  begin();
  tagged("[Lcom.example.Order;", 400);
  tagged("[[Lcom.example.Order;", 800);
  tagged("[I", 4000);
  tagged("[LPlain;", 4000);
  collect();
  stop();
  EXPECT_THAT(classes(), ElementsAre("[Lcom.example.Order;", "[[Lcom.example.Order;"))
      << "an array without a package in its name is never reported";
}

TEST_F(memoryReport, sizesOfObjectsBeyond4GiBAddUp) {
  begin();
  tagged("[Lp.Huge;", 4294967296LL);
  tagged("[Lp.Huge;", 4294967296LL);
  tagged("[Lp.Huge;", 1);
  collect();
  stop();
  EXPECT_THAT(survivors("[Lp.Huge;"), ElementsAre("1:3:8589934593"));
  EXPECT_EQ(reported("[Lp.Huge;").at("totalSize"), "8589934593");
}

TEST_F(memoryReport, classesWhoseObjectsHaveNoSizeAreNotReported) {
  begin();
  tagged("p.Empty", 0);
  collect();
  stop();
  EXPECT_THAT(classes(), IsEmpty());
}

TEST_F(memoryReport, generationsWithoutAnObjectAreNotAskedFor) {
  begin();
  tagged("p.A");
  collect(1000);
  tagged("p.A");
  collect();
  stop();
  EXPECT_THAT(survivors("p.A"), ElementsAre("1:1:16", "1001:1:16"));
  EXPECT_EQ(vm.calls("GetObjectsWithTags"), 2U);
}

// --- All generations in one query ------------------------------------------------------------

constexpr const char* kOneQuery = "scanInOneQuery=1";

class oneQuery : public memoryReport {};

TEST_F(oneQuery, leavesOutTheWalk) {
  begin({}, "ScanInOneQuery=1");
  tagged("p.A");
  collect();
  tagged("p.A", 40);
  collect();
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(survivors("p.A"), ElementsAre("1:1:16", "2:1:40"));
  EXPECT_EQ(vm.calls("IterateThroughHeap"), 0U);
  EXPECT_EQ(vm.calls("GetObjectsWithTags"), 1U);
  EXPECT_EQ(vm.calls("GetTag"), 2U) << "by setObjectTag alone";
}

TEST_F(oneQuery, reportsTheSameByteForByte) {
  begin({.id = 5, .topClasses = 12, .excludeClasses = "p.C3", .includeClasses = "p.C5"});
  for (int i = 0; i < 500; ++i) {
    tagged("p.C" + std::to_string(i * 7 % 23), 8 * (1 + i % 5));
    if (i % 11 == 0) {
      collect(1 + i % 3);
    }
  }
  tagged("[Lp.C1;", 400);
  tagged("p.Empty", 0);
  object("p.Foreign")->tag = 0x7f0012345678LL;
  collect();
  tagged("p.Now", 4000);
  ASSERT_EQ(stop(), 1);
  const std::string expected = readFile(reportPath());
  ASSERT_THAT(classes(), ::testing::SizeIs(12));
  ASSERT_GT(vm.calls("GetObjectsWithTags"), 20U);

  memory()->scanInOneQuery();
  vm.resetCalls();
  const std::string other = folder() / "other.json";
  ASSERT_EQ(stop(other), 1);
  EXPECT_EQ(readFile(other), expected);
  EXPECT_EQ(vm.calls("GetObjectsWithTags"), 1U);
  EXPECT_EQ(vm.calls("IterateThroughHeap"), 0U);
}

TEST_F(oneQuery, isWhatTheStatusAndTheWarningSpeakOf) {
  begin({}, kOneQuery);
  collect();
  tagged("p.Now");  // met by a walk, not by the query
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(warnings(), ElementsAre(kNoHeapData, kNoTaggedData));
  EXPECT_THAT(linesOf(kScanJavaHeap), Contains("Trace: *jvmti status: 0"));
  EXPECT_THAT(classes(), IsEmpty());
}

TEST_F(oneQuery, isNotMadeForNoGeneration) {
  load(kOneQuery);
  start();
  EXPECT_EQ(stop(), 1);
  EXPECT_EQ(vm.calls("GetObjectsWithTags"), 0U);
  EXPECT_EQ(vm.calls("IterateThroughHeap"), 0U);
  EXPECT_THAT(warnings(), ElementsAre(kNoHeapData, kNoGcCount, kNoTaggedData));
  EXPECT_THAT(classes(), IsEmpty());
}

TEST_F(oneQuery, thatIsRefusedIsLogged) {
  begin({}, kOneQuery);
  tagged("p.A");
  collect(2);
  vm.fail("GetObjectsWithTags", {.error = JVMTI_ERROR_OUT_OF_MEMORY});
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(classes(), IsEmpty());
  EXPECT_THAT(messages("Error"), ElementsAre("The objects of generations 1 to 2 are not in the "
                                             "report: JVMTI_ERROR_OUT_OF_MEMORY"));
  EXPECT_THAT(linesOf(kScanJavaHeap), Contains("Trace: *jvmti status: 110"));
}

TEST_F(oneQuery, isNotMadeForMoreThanTenThousandGenerations) {
  begin({}, kOneQuery);
  tagged("p.A");
  memory()->setGcCounter(10000);
  stop();
  EXPECT_EQ(vm.calls("IterateThroughHeap"), 0U);
  EXPECT_THAT(survivors("p.A"), ElementsAre("1:1:16"));
  memory()->setGcCounter(10001);
  stop();
  EXPECT_EQ(vm.calls("IterateThroughHeap"), 1U);
  EXPECT_THAT(survivors("p.A"), ElementsAre("1:1:16"));
}

class noOneQuery : public oneQuery, public ::testing::WithParamInterface<const char*> {};

TEST_P(noOneQuery, theHeapIsWalked) {
  begin({}, GetParam());
  tagged("p.A");
  collect();
  EXPECT_EQ(stop(), 1);
  EXPECT_EQ(vm.calls("IterateThroughHeap"), 1U);
  EXPECT_THAT(survivors("p.A"), ElementsAre("1:1:16"));
}

INSTANTIATE_TEST_SUITE_P(memoryReport, noOneQuery,
                         ::testing::Values("", "scanInOneQuery=0", "scanInOneQuery=2",
                                           "scanInOneQuery=-1"));

TEST_F(memoryReport, theEndOfTheCounterIsScanned) {
  begin();
  memory()->setGcCounter(0x7FFFFFFFU);
  tagged("p.A");
  collect();
  tagged("p.A");
  memory()->setGcCounter(0xFFFFFFFEU);
  tagged("p.A");
  collect();
  tagged("p.Current");
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(survivors("p.A"), ElementsAre("2147483647:1:16", "-2147483648:1:16", "-2:1:16"));
  EXPECT_THAT(classes(), ElementsAre("p.A"));
}

TEST_F(memoryReport, afterTheCountersEndNothingIsReported) {
  begin();
  tagged("p.A");
  memory()->setGcCounter(0xFFFFFFFFU);
  collect();
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(classes(), IsEmpty());
  EXPECT_THAT(warnings(), Contains(kNoGcCount));
}

// --- The session's settings in the report ----------------------------------------------------

TEST_F(memoryReport, atMostTheGivenNumberOfClassesIsReported) {
  begin({.topClasses = 2});
  tagged("p.Small", 16);
  tagged("p.Large", 64);
  tagged("p.Middle", 32);
  collect();
  stop();
  EXPECT_THAT(classes(), ElementsAre("p.Middle", "p.Large"));
}

TEST_F(memoryReport, theNumberZeroReportsNoClass) {
  begin({.topClasses = 0, .includeClasses = "p.A"});
  tagged("p.A");
  collect();
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(classes(), IsEmpty());
  EXPECT_THAT(warnings(), ElementsAre(kNoTaggedData));
}

TEST_F(memoryReport, aNegativeNumberReportsEveryClass) {
  begin({.topClasses = INT32_MIN});
  for (int i = 0; i < 20; ++i) {
    tagged("p.C" + std::to_string(i));
  }
  collect();
  stop();
  EXPECT_EQ(classes().size(), 20U);
}

TEST_F(memoryReport, theFourFiltersArriveInTheirOrder) {
  begin({.topClasses = 3,
         .excludeClasses = "a.Excluded",
         .excludePackages = "b",
         .includeClasses = "c.Included",
         .includePackages = "d"});
  tagged("a.Excluded", 900);
  tagged("b.X", 800);
  tagged("c.Included", 10);
  tagged("d.X", 20);
  tagged("e.X", 700);
  tagged("f.X", 15);
  collect();
  stop();
  EXPECT_THAT(classes(), ElementsAre("f.X", "d.X", "e.X"))
      << "the included ones are taken first, then displaced only by larger ones";
}

TEST_F(memoryReport, aClassInIncludeClassesIsReportedBeforeLargerUnlistedOnes) {
  begin({.topClasses = 1, .includeClasses = "com.example.Session;com.example.Order"});
  tagged("com.example.Order", 16);
  tagged("com.example.Huge", 100000);
  collect();
  stop();
  EXPECT_THAT(classes(), ElementsAre("com.example.Order"));
}

TEST_F(memoryReport, anExcludedClassIsNotReportedThoughItIsIncludedToo) {
  begin({.excludeClasses = "p.A", .includeClasses = "p.A", .includePackages = "p"});
  tagged("p.A");
  collect();
  stop();
  EXPECT_THAT(classes(), IsEmpty());
}

TEST_F(memoryReport, oddFilterTextsAreOnlySearched) {
  const std::string odd = "\xc3\xa4.\xed\xa0\xbd\xed\xb8\x80 \"%s%n\\ \x01 [*](?) p.Listed,,;";
  begin({.excludeClasses = odd, .excludePackages = std::string(100000, '.')});
  tagged("p.Listed");
  tagged("p.Other");
  tagged("\xc3\xa4.\xed\xa0\xbd\xed\xb8\x80");
  collect();
  stop();
  EXPECT_THAT(classes(), ElementsAre("p.Other"));
}

TEST_F(memoryReport, filtersOfTheLatestConfigurationCount) {
  begin({.excludeClasses = "p.A"});
  tagged("p.A");
  tagged("p.B");
  collect();
  start({.excludeClasses = "p.B"});
  stop();
  EXPECT_THAT(classes(), ElementsAre("p.A"));
}

TEST_F(memoryReport, withoutAConfigurationTheSessionIdIs1AndNoClassIsReported) {
  load();
  memory()->setGcCounter(2);
  object("p.A")->tag = 1;
  EXPECT_EQ(stop(), 1);
  EXPECT_EQ(report(), ordered_json::parse(R"({"sessionname": "memoryLeak", "sessionid": 1,
                                              "topNMemoryleakClass": {}})"));
}

// --- What is logged --------------------------------------------------------------------------

TEST_F(memoryReport, aScanOfAHeapWithoutTagsWarns) {
  begin();
  collect();
  stop();
  EXPECT_THAT(linesOf(kScanJavaHeap),
              ElementsAre(std::string("warn: ") + kNoHeapData, "Trace: *jvmti status: 0"));
  EXPECT_THAT(linesOf(kDumpJson), ElementsAre(std::string("warn: ") + kNoTaggedData));
}

TEST_F(memoryReport, aScanWithoutCollectionsWarns) {
  load();
  start();
  object("p.A")->tag = 1;
  stop();
  EXPECT_THAT(linesOf(kScanJavaHeap),
              ElementsAre("Trace: *jvmti status: 0", std::string("warn: ") + kNoGcCount));
}

TEST_F(memoryReport, afterOneCollectionOnlyTheMissingDataIsWarnedOf) {
  begin();
  tagged("p.A");
  stop();
  EXPECT_THAT(warnings(), ElementsAre(kNoTaggedData));
}

TEST_F(memoryReport, aScanThatFindsClassesWarnsOfNothing) {
  begin();
  tagged("p.A");
  collect();
  stop();
  EXPECT_THAT(warnings(), IsEmpty());
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_THAT(linesOf(kScanJavaHeap), ElementsAre("Trace: *jvmti status: 0"));
}

TEST_F(memoryReport, warningsAreWrittenAtLevel1) {
  load("logLevel=1");
  start();
  stop();
  EXPECT_THAT(warnings(), ElementsAre(kNoHeapData, kNoGcCount, kNoTaggedData));
  EXPECT_THAT(messages("Trace"), IsEmpty());
}

TEST_F(memoryReport, nothingIsWrittenAtLevel0) {
  load("logLevel=0");
  start();
  stop();
  stop("");
  EXPECT_THAT(logFiles(), IsEmpty());
}

TEST_F(memoryReport, theStatusOfTheWalkIsNotLoggedAtLevel2) {
  load("logLevel=2");
  start();
  stop();
  EXPECT_THAT(messages("Trace"), IsEmpty());
}

// --- The report file -------------------------------------------------------------------------

TEST_F(memoryReport, anOldReportIsReplaced) {
  writeFile(reportPath(), std::string(100000, 'x'));
  begin();
  tagged("p.A");
  collect();
  EXPECT_EQ(stop(), 1);
  EXPECT_THAT(classes(), ElementsAre("p.A"));
}

TEST_F(memoryReport, aNameBeyondTheBasicPlaneIsTheFilesName) {
  begin();
  EXPECT_EQ(stop(folder() / "m\xed\xa0\xbd\xed\xb8\x80.json"), 1);
  EXPECT_TRUE(std::filesystem::exists(folder() / "m\xf0\x9f\x98\x80.json"));
}

TEST_F(memoryReport, anUnwritablePathGives0AndOneErrorWithPathAndReason) {
  begin({}, "logLevel=1");
  tagged("p.A");
  collect();
  const std::string path = folder() / "none" / "report.json";
  EXPECT_EQ(stop(path), 0);
  EXPECT_THAT(linesOf(kDumpJson), ElementsAre(AllOf(HasSubstr("Error: "), HasSubstr(path),
                                                    HasSubstr("No such file or directory"))));
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(memoryReport, aFolderAsPathGives0AndOneError) {
  begin({}, "logLevel=1");
  EXPECT_EQ(stop(folder()), 0);
  EXPECT_THAT(errors(),
              ElementsAre(AllOf(HasSubstr(folder().string()), HasSubstr("Is a directory"))));
}

TEST_F(memoryReport, aFullDiskGives0AndOneError) {
  begin({}, "logLevel=1");
  tagged("p." + std::string(100000, 'A'));
  collect();
  {
    const fileLimit limit(50000);
    EXPECT_EQ(stop(), 0);
  }
  EXPECT_THAT(errors(), ElementsAre(AllOf(HasSubstr(reportPath()), HasSubstr("File too large"))));
}

// Nobody reads from it, or somebody does: both would let the call wait.
TEST_F(memoryReport, aFifoAsPathGives0AndOneError) {
  begin({}, "logLevel=1");
  const std::string path = folder() / "fifo";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  for (const bool isRead : {false, true}) {
    const int reader = isRead ? ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1;
    tagged("p.A");
    collect();
    EXPECT_EQ(stop(path), 0);
    if (reader >= 0) {
      ::close(reader);
    }
    start();
  }
  EXPECT_THAT(errors(), ElementsAre(AllOf(HasSubstr(path), HasSubstr("regular file")),
                                    AllOf(HasSubstr(path), HasSubstr("regular file"))));
}

TEST_F(memoryReport, anEmptyPathGives0AndOneError) {
  begin({}, "logLevel=1");
  EXPECT_EQ(stop(""), 0);
  EXPECT_EQ(errors().size(), 1U);
}

TEST_F(memoryReport, aNullPathGives0AndOneError) {
  begin({}, "logLevel=1");
  EXPECT_EQ(stopWithoutPath(), 0);
  EXPECT_EQ(errors().size(), 1U);
}

TEST_F(memoryReport, classesOfAReportThatWasNotWrittenNeverTurnUpInTheNext) {
  for (const std::string& path :
       {std::string(), folder().string(), std::string("/nowhere/report")}) {
    SCOPED_TRACE(path);
    agent::getRegistry();
    if (!memory()) {
      begin();
    }
    fake::object* const lost = tagged("p.Lost");
    collect();
    EXPECT_EQ(stop(path), 0);
    vm.collect(lost);
    start();
    EXPECT_EQ(stop(), 1);
    EXPECT_THAT(classes(), IsEmpty());
    start();
    collect();
  }
}

TEST_F(memoryReport, classesOfAWrittenReportNeverTurnUpInTheNext) {
  begin();
  fake::object* const one = tagged("p.A");
  collect();
  EXPECT_EQ(stop(), 1);
  vm.collect(one);
  EXPECT_EQ(memory()->dumpJsonObjectFromMapDS(vm.env(), vm.ref(vm.makeString(reportPath()))), 1);
  EXPECT_THAT(classes(), IsEmpty());
}

TEST_F(memoryReport, withoutTheProfilerAScanGives0AndWritesNothing) {
  load();
  const auto profiler = memory();
  unload();
  EXPECT_EQ(profiler->scanJavaHeap(vm.env(), vm.ref(vm.makeString(reportPath()))), 0);
  EXPECT_EQ(profiler->dumpJsonObjectFromMapDS(vm.env(), vm.ref(vm.makeString(reportPath()))), 0);
  EXPECT_FALSE(std::filesystem::exists(reportPath()));
}

TEST_F(memoryReport, manySessionsHoldNothingThatIsNotOwned) {
  load();
  for (int id = 1; id <= 50; ++id) {
    EXPECT_EQ(start({.id = id}), 1);
    tagged("p.C" + std::to_string(id));
    collect(2);
    EXPECT_EQ(stop(), 1);
    EXPECT_EQ(report().at("sessionid"), id);
  }
  EXPECT_EQ(classes().size(), 49U) << "all but the one tagged in generation 0";
}

}  // namespace
