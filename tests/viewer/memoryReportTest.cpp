#include "memoryReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "memoryTables.h"
#include "testReport.h"

namespace viewer {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const std::string kMemory = R"({
  "sessionname": "memoryLeak", "sessionid": 7, "topNMemoryleakClass": {
    "a.Small": {"gcsurvived": [{"GCCounter": 5, "count": 1, "size": "24"}],
                "totalCount": 1, "totalSize": "24"},
    "a.Order": {"gcsurvived": [{"GCCounter": 2, "count": 40, "size": "1920"},
                               {"GCCounter": 5, "count": 12, "size": "18446744073709549695"}],
                "totalCount": 52, "totalSize": "18446744073709551615"}}})";

memoryReport parsed(const std::string& text) {
  return readMemoryReport(bytesOfText(text), "m.json");
}

TEST(memoryReportReader, readsClassesTheLargestFirst) {
  const memoryReport report = parsed(kMemory);
  EXPECT_EQ(report.sessionName, "memoryLeak");
  EXPECT_EQ(report.sessionId, 7);
  ASSERT_EQ(report.classes.size(), 2U);
  const classEntry& order = report.classes[0];
  EXPECT_EQ(order.name, "a.Order");
  EXPECT_EQ(order.objects, 52U);
  EXPECT_EQ(order.bytes, 18446744073709551615U);
  ASSERT_EQ(order.generations.size(), 2U);
  EXPECT_EQ(order.generations[0].generation, 2U);
  EXPECT_EQ(order.generations[0].objects, 40U);
  EXPECT_EQ(order.generations[0].bytes, 1920U);
  EXPECT_THAT(generationsOf(report), ElementsAre(2, 5));
}

TEST(memoryReportReader, tellsWhatIsNoSize) {
  for (const char* size : {"\"\"", "\"-1\"", "\"1.5\"", "\"18446744073709551616\"", "\"0x1\""}) {
    EXPECT_THAT(problemOf([&] { parsed(replaced(kMemory, "\"24\"", size)); }),
                HasSubstr("a.Small / gcsurvived / 0 / size: expected a size in bytes"))
        << size;
  }
  EXPECT_EQ(problemOf([] { parsed(replaced(kMemory, "\"24\"", "24")); }),
            "m.json: topNMemoryleakClass / a.Small / gcsurvived / 0 / size: "
            "expected a size as text, found number");
}

TEST(memoryReportReader, tellsOfEachMissingMember) {
  for (const char* member : {"sessionname", "sessionid", "topNMemoryleakClass", "gcsurvived",
                             "GCCounter", "count", "size", "totalCount", "totalSize"}) {
    const std::string quoted = '"' + std::string(member) + '"';
    EXPECT_THAT(problemOf([&] { parsed(replaced(kMemory, quoted, "\"other\"")); }),
                HasSubstr("expected a member " + quoted + ", found none"));
  }
}

TEST(memoryTables, showAHistogramByGeneration) {
  EXPECT_EQ(memoryTables(parsed(kMemory), 5, {.blocks = true}),
            "Memory session 7 \"memoryLeak\": 2 classes, generations 2 to 5\n"
            "\n"
            "Survivors by class (2)\n"
            "#  Class    Objects    Size  Generations  Oldest first\n"
            "-  -------  -------  ------  -----------  ------------\n"
            "1  a.Order       52  16 EiB            2  █▃\n"
            "2  a.Small        1    24 B            1  ▁█\n");
  EXPECT_THAT(memoryTables(parsed(kMemory), 1, {}), HasSubstr("(1 of 2)"));
}

TEST(memoryTables, sayWhenNothingSurvived) {
  EXPECT_EQ(memoryTables({}, 5, {}),
            "Memory session 0 \"\": 0 classes\n\nNo tagged object has survived a collection.\n");
}

}  // namespace
}  // namespace viewer
