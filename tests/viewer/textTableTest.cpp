#include "textTable.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace viewer {
namespace {

textTable threeColumns() {
  return textTable({{"Lock", align::left, shorten::name},
                    {"Entries", align::right},
                    {"Thread", align::left, shorten::name}});
}

TEST(textTable, alignsItsColumns) {
  textTable table = threeColumns();
  table.addRow({"a.B@1", "7", "main"});
  table.addRow({"c.D@22", "12345678", "t"});
  EXPECT_EQ(table.render({.width = 100}),
            "Lock     Entries  Thread\n"
            "------  --------  ------\n"
            "a.B@1          7  main\n"
            "c.D@22  12345678  t\n");
}

TEST(textTable, alignsWideCharactersByWhatTheyFill) {
  textTable table({{"A"}, {"B"}});
  table.addRow({"\u5e97\u00e9", "x"});
  table.addRow({"abc", "y"});
  EXPECT_EQ(table.render({.width = 100}),
            "A    B\n"
            "---  -\n"
            "\u5e97\u00e9  x\n"
            "abc  y\n");
}

TEST(textTable, indentsEachLine) {
  textTable table({{"A"}});
  table.addRow({"b"});
  EXPECT_EQ(table.render({.width = 100}, 3), "   A\n   -\n   b\n");
}

TEST(textTable, withoutRowsShowsItsHeading) {
  EXPECT_EQ(threeColumns().render({.width = 100}),
            "Lock  Entries  Thread\n----  -------  ------\n");
}

TEST(textTable, shortensTheWidestColumnFirst) {
  textTable table = threeColumns();
  table.addRow({"com.example.Inventory@1", "7", "http-worker-1"});
  EXPECT_EQ(table.render({.width = 40}),
            "Lock              Entries  Thread\n"
            "----------------  -------  -------------\n"
            "...Inventory@1          7  http-worker-1\n");
}

TEST(textTable, fitsExactlyAndShortensOneColumnTooNarrow) {
  textTable table({{"Lock", align::left, shorten::name}});
  table.addRow({"com.example.Cart"});
  EXPECT_EQ(table.render({.width = 16}), "Lock\n----------------\ncom.example.Cart\n");
  EXPECT_EQ(table.render({.width = 15}), "Lock\n---------------\ncom.exam...Cart\n");
}

TEST(textTable, neverShortensNumbersNorBelowReadability) {
  textTable table = threeColumns();
  table.addRow({"com.example.Inventory@1", "4294967295", "http-worker-100"});
  EXPECT_EQ(table.render({.width = 1}),
            "Lock             Entries  Thread\n"
            "------------  ----------  ------------\n"
            "Inventory@1   4294967295  http...r-100\n");
}

TEST(textTable, letsNoCellBreakALine) {
  textTable table({{"A"}});
  table.addRow({"a\nb"});
  EXPECT_EQ(table.render({.width = 100}), "A\n---\na\uFFFDb\n");
}

TEST(textTable, refusesARowOfAnotherLength) {
  EXPECT_THROW(threeColumns().addRow({"a"}), std::invalid_argument);
}

}  // namespace
}  // namespace viewer
