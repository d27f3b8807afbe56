#include "terminalStyle.h"

#include <gtest/gtest.h>

#include "tableParts.h"

namespace viewer {
namespace {

TEST(terminalStyle, drawsValuesByTheirHeight) {
  EXPECT_EQ(terminalStyle{.blocks = true}.sparkline({0, 1, 50, 100}, 10), "▁▂▄█");
  EXPECT_EQ(terminalStyle{}.sparkline({0, 1, 50, 100}, 10), "_.-#");
  EXPECT_EQ(terminalStyle{}.sparkline({0, 0}, 10), "__");
  EXPECT_EQ(terminalStyle{}.sparkline({}, 10), "");
  EXPECT_EQ(terminalStyle{}.sparkline({18446744073709551615U, 1}, 10), "#.");
}

TEST(terminalStyle, drawsTheLargestOfEachGroupWhenThereIsNoRoom) {
  EXPECT_EQ(terminalStyle{}.sparkline({0, 9, 0, 0, 0, 0}, 3), "#__");
  EXPECT_EQ(terminalStyle{}.sparkline({0, 0, 0, 0, 9}, 2), "_#");
}

TEST(terminalStyle, stylesOnlyWhereThereIsColour) {
  EXPECT_EQ(terminalStyle{}.strong("a\n"), "a\n");
  EXPECT_EQ(terminalStyle{.colour = true}.strong("a\n"), "\x1b[1ma\x1b[0m\n");
  EXPECT_EQ(terminalStyle{.colour = true}.faint("a"), "\x1b[2ma\x1b[0m");
}

TEST(tableParts, writeSizesAndShares) {
  EXPECT_EQ(sizeText(0), "0 B");
  EXPECT_EQ(sizeText(1023), "1023 B");
  EXPECT_EQ(sizeText(1536), "1.5 KiB");
  EXPECT_EQ(sizeText(20U << 20), "20 MiB");
  EXPECT_EQ(percentage(1, 3), "33 %");
  EXPECT_EQ(percentage(0, 0), "-");
}

}  // namespace
}  // namespace viewer
