#include "pprof/profileWriter.h"

#include <numeric>

#include "pprof/wireFormat.h"

namespace pprof {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(pprofFrames, haveFunctionFileAndLine) {
  const frameParts parts = partsOf("com.example.Shop.sell(Shop.java:31)");
  EXPECT_EQ(parts.function, "com.example.Shop.sell");
  EXPECT_EQ(parts.file, "Shop.java");
  EXPECT_EQ(parts.line, 31);
  EXPECT_EQ(partsOf("a.B.c(B.java)").file, "B.java");
  EXPECT_EQ(partsOf("a.B.c(Native Method)").file, "");
  EXPECT_EQ(partsOf("a.B.c(Unknown Source)").function, "a.B.c");
  EXPECT_EQ(partsOf("(no stack recorded)").function, "(no stack recorded)");
  EXPECT_EQ(partsOf("").function, "");
  EXPECT_EQ(partsOf("a.B.c(B.java:-7)").line, 0);
}

TEST(pprofSplit, addsUpToTheTotal) {
  EXPECT_THAT(split(10, {1, 1, 2}), ElementsAre(2, 3, 5));
  EXPECT_THAT(split(7, {0, 0}), ElementsAre(0, 7));
  EXPECT_THAT(split(0, {3, 4}), ElementsAre(0, 0));
  const std::uint64_t large = ~std::uint64_t{0} / 2;
  const std::vector<std::uint64_t> parts = split(large, {large, large, 1, large});
  EXPECT_EQ(std::accumulate(parts.begin(), parts.end(), std::uint64_t{0}), large);
}

TEST(pprofText, hasAQuestionMarkForEachByteOfNoCharacter) {
  EXPECT_EQ(validUtf8("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"),
            "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(validUtf8("\xED\xA0\xBD"
                      "b\xC0\x80\xFF\xF0\x9F"),
            "???b?????");
}

TEST(pprofWire, hasVarintsAndLengths) {
  std::string out;
  appendNumber(out, 1, 300);
  appendNumber(out, 2, 0);
  appendBytes(out, 3, "ab");
  EXPECT_EQ(out,
            "\x08\xAC\x02\x1A\x02"
            "ab");
}

TEST(profileWriterTest, addsUpWhatHasNoRoom) {
  constexpr std::size_t kMost = 4096;
  constexpr std::uint64_t kSamples = 1000;
  profileWriter writer({{"contentions", "count"}}, kMost);
  for (std::uint64_t i = 0; i < kSamples; ++i) {
    const std::string frame = "a.B.c" + std::to_string(i) + "(B.java:1)";
    writer.add({frame}, {1}, {{"lock", "a.L"}});
  }
  const std::uint64_t dropped = writer.dropped();
  EXPECT_GT(dropped, 0U);
  EXPECT_LT(dropped, kSamples);
  const std::string text = writer.finish();
  EXPECT_LE(text.size(), kMost);
  EXPECT_THAT(text, HasSubstr(std::to_string(dropped) + " samples had no room"));
  std::string values;
  appendVarint(values, dropped);
  EXPECT_THAT(text, HasSubstr(values));
}

TEST(profileWriterTest, hasNoSampleOfZeros) {
  profileWriter writer({{"a", "count"}, {"b", "count"}});
  writer.add({"x"}, {0, 0}, {});
  EXPECT_FALSE(writer.hasSamples());
  writer.add({"x"}, {0, 1}, {});
  EXPECT_TRUE(writer.hasSamples());
}

}  // namespace
}  // namespace pprof
