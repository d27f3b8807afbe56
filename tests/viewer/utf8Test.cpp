#include "utf8.h"

#include <gtest/gtest.h>

namespace viewer {
namespace {

const std::string kBad = "\xEF\xBF\xBD";

TEST(toUtf8, passesUtf8Unchanged) {
  const std::string text = "a\tZ\x7F \u00e9 \u20ac \U0001F600 \U0010FFFF";
  EXPECT_EQ(toUtf8(text), text);
  EXPECT_EQ(toUtf8(""), "");
}

TEST(toUtf8, joinsSurrogatePairs) {
  EXPECT_EQ(toUtf8("x\xED\xA0\xBD\xED\xB8\x80y"), "x\U0001F600y");
  EXPECT_EQ(toUtf8("\xED\xAF\xBF\xED\xBF\xBF"), "\U0010FFFF");
}

TEST(toUtf8, replacesHalvesOfPairs) {
  EXPECT_EQ(toUtf8("\xED\xA0\xBD"), kBad);
  EXPECT_EQ(toUtf8("\xED\xA0\xBDx"), kBad + "x");
  EXPECT_EQ(toUtf8("\xED\xB8\x80\xED\xA0\xBD"), kBad + kBad);
}

TEST(toUtf8, replacesBytesOfNoCharacter) {
  EXPECT_EQ(toUtf8("\x80"), kBad);
  EXPECT_EQ(toUtf8("\xFFx"), kBad + "x");
  EXPECT_EQ(toUtf8("\xC3"), kBad);
  EXPECT_EQ(toUtf8("\xE2\x82"), kBad + kBad);
  EXPECT_EQ(toUtf8("\xC3x"), kBad + "x");
  EXPECT_EQ(toUtf8("\xF4\x90\x80\x80"), kBad + kBad + kBad + kBad);
}

TEST(toUtf8, replacesOverlongFormsAndSoTheNulOfTheVm) {
  EXPECT_EQ(toUtf8("\xC0\x80"), kBad + kBad);
  EXPECT_EQ(toUtf8("\xE0\x81\x81"), kBad + kBad + kBad);
}

TEST(printable, replacesControlCharactersOnly) {
  EXPECT_EQ(printable("a\tb\n\x1B[2J\x7F"), "a" + kBad + "b" + kBad + kBad + "[2J" + kBad);
  EXPECT_EQ(printable("\xC2\x9B\u00a0\u20ac"), kBad + "\u00a0\u20ac");
}

TEST(displayColumns, countsWideAndCombiningCharacters) {
  EXPECT_EQ(displayColumns(""), 0U);
  EXPECT_EQ(displayColumns("abc"), 3U);
  EXPECT_EQ(displayColumns("\u00e9\u20ac"), 2U);
  EXPECT_EQ(displayColumns("e\u0301"), 1U);
  EXPECT_EQ(displayColumns("\u5e97\U0001F600"), 4U);
}

TEST(cutting, leavesWhatFits) {
  EXPECT_EQ(cutEnd("abcde", 5), "abcde");
  EXPECT_EQ(cutStart("abcde", 5), "abcde");
}

TEST(cutting, marksWhereTextIsGone) {
  EXPECT_EQ(cutEnd("abcdefgh", 6), "abc...");
  EXPECT_EQ(cutStart("abcdefgh", 6), "...fgh");
}

TEST(cutting, neverSplitsACharacterNorExceedsTheColumns) {
  EXPECT_EQ(cutEnd("\u5e97\u5e97\u5e97\u5e97", 6), "\u5e97...");
  EXPECT_EQ(cutStart("\u5e97\u5e97\u5e97\u5e97", 6), "...\u5e97");
}

TEST(cutting, keepsClassMethodAndLineOfAName) {
  const std::string method = "com.example.shop.Inventory.reserve(Inventory.java:30)";
  EXPECT_EQ(cutName(method, 53), method);
  EXPECT_EQ(cutName(method, 52), "com.example.shop.Inventory.reserve:30");
  EXPECT_EQ(cutName(method, 30), "com.exa...Inventory.reserve:30");
  EXPECT_EQ(cutName(method, 25), "...Inventory.reserve:30");
  EXPECT_EQ(cutName(method, 22), "Inventory.reserve:30");
  EXPECT_EQ(cutName(method, 19), "Invento...eserve:30");
  EXPECT_EQ(cutName("a.b.Helper.call(Other.java:3)", 28), "...Helper.call(Other.java:3)");
  EXPECT_EQ(cutName("a.b.Cart$Item.add(Cart.java:7)", 20), "a.b.Cart$Item.add:7");
}

TEST(cutting, keepsWhatTellsLocksAndThreadsApart) {
  EXPECT_EQ(cutName("com.example.shop.PriceCache@5c29bfd1", 22), "...PriceCache@5c29bfd1");
  EXPECT_EQ(cutName("http-nio-8080-exec-12", 14), "http-...xec-12");
  EXPECT_EQ(cutName("http-nio-8080-exec-13", 14), "http-...xec-13");
  EXPECT_EQ(cutName("lower.case.names.only", 12), "lowe....only");
  EXPECT_EQ(cutName("http-worker-1", 2), "..");
}

TEST(cutting, goesDownToNothing) {
  EXPECT_EQ(cutEnd("abcdefgh", 3), "...");
  EXPECT_EQ(cutEnd("abcdefgh", 2), "..");
  EXPECT_EQ(cutStart("abcdefgh", 1), ".");
  EXPECT_EQ(cutStart("abcdefgh", 0), "");
}

TEST(printable, showsWhatHidesOrTurnsText) {
  for (const char* text :
       {"\u061C", "\u200B", "\u200F", "\u2028", "\u2029", "\u202A", "\u202E", "\u2066", "\u2069"}) {
    EXPECT_EQ(printable(std::string("a") + text + "b"), "a\uFFFDb");
  }
  EXPECT_EQ(printable("\u2010\u202F\u2065"), "\u2010\u202F\u2065");
}

TEST(afterBlanks, passesOverWhatIsNotSeen) {
  for (const char* blank :
       {" ", "\t", "\r", "\n", "\v", "\f", "\u0085", "\u00A0", "\u00AD", "\u061C", "\u1680",
        "\u2003", "\u200B", "\u202E", "\u202F", "\u205F", "\u2060", "\u3000", "\uFEFF"}) {
    EXPECT_EQ(afterBlanks(std::string(blank) + " " + blank + "=x "), "=x ") << blank;
  }
  EXPECT_EQ(afterBlanks("x"), "x");
  EXPECT_EQ(afterBlanks(" \u3000"), "");
}

}  // namespace
}  // namespace viewer
