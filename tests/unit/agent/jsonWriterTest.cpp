// The JSON writer: what it writes is JSON, and reads back as what was meant.
#include "support/jsonWriter.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <limits>
#include <locale>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

using nlohmann::ordered_json;
using support::appendEscaped;
using support::jsonWriter;

namespace {

std::string escaped(std::string_view text) {
  std::string out;
  appendEscaped(out, text);
  return out;
}

// What a reader makes of `text` written as a string.
std::string readBack(std::string_view text) {
  jsonWriter json;
  json.beginArray().string(text).endArray();
  return ordered_json::parse(json.text()).at(0).get<std::string>();
}

// Without the blanks and line breaks between tokens.
std::string compact(const jsonWriter& json) {
  return ordered_json::parse(json.text()).dump();
}

// --- Structure -------------------------------------------------------------------------------

TEST(jsonStructure, emptyContainers) {
  EXPECT_EQ(compact(jsonWriter().beginObject().endObject()), "{}");
  EXPECT_EQ(compact(jsonWriter().beginArray().endArray()), "[]");
}

TEST(jsonStructure, membersKeepTheirOrder) {
  jsonWriter json;
  json.beginObject().member("b", 1).member("a", "x").member("c", "").endObject();
  EXPECT_EQ(compact(json), R"({"b":1,"a":"x","c":""})");
}

TEST(jsonStructure, arraysOfAnything) {
  jsonWriter json;
  json.beginArray().number(1).string("two").beginObject().endObject().beginArray().endArray();
  json.number(-3).endArray();
  EXPECT_EQ(compact(json), R"([1,"two",{},[],-3])");
}

TEST(jsonStructure, nestsObjectsAndArrays) {
  jsonWriter json;
  json.beginObject().key("a").beginObject().key("b").beginArray();
  json.beginObject().member("c", 1).endObject().beginObject().member("d", 2).endObject();
  json.endArray().member("e", 3).endObject().key("f").beginObject().endObject().endObject();
  EXPECT_EQ(compact(json), R"({"a":{"b":[{"c":1},{"d":2}],"e":3},"f":{}})");
}

TEST(jsonStructure, twoMembersOfOneNameAreBothWritten) {
  jsonWriter json;
  json.beginObject().member("a", 1).member("a", 2).endObject();
  const std::string& text = json.text();
  EXPECT_NE(text.find("\"a\": 1"), std::string::npos) << text;
  EXPECT_NE(text.find("\"a\": 2"), std::string::npos) << text;
}

TEST(jsonStructure, deepNestingReadsBack) {
  constexpr int kDepth = 200;
  jsonWriter json;
  for (int i = 0; i < kDepth; ++i) {
    json.beginObject().key("x").beginArray();
  }
  for (int i = 0; i < kDepth; ++i) {
    json.endArray().endObject();
  }
  ordered_json read = ordered_json::parse(json.text());
  int depth = 0;
  for (; read.is_object(); ++depth) {
    const ordered_json inner = read["x"];
    read = inner.empty() ? ordered_json() : inner[0];
  }
  EXPECT_EQ(depth, kDepth);
}

// --- Numbers ---------------------------------------------------------------------------------

TEST(jsonNumbers, areDecimalToTheirEnds) {
  for (const std::int32_t value : {0, 1, -1, 1000000, std::numeric_limits<std::int32_t>::max(),
                                   std::numeric_limits<std::int32_t>::min()}) {
    jsonWriter json;
    json.beginArray().number(value).endArray();
    EXPECT_EQ(compact(json), "[" + std::to_string(value) + "]");
  }
}

TEST(jsonNumbers, wideOnesAreWritten) {
  for (const std::uint64_t value :
       {std::uint64_t{0}, std::uint64_t{1} << 32U, std::numeric_limits<std::uint64_t>::max()}) {
    jsonWriter json;
    json.beginArray().number(value).endArray();
    EXPECT_EQ(compact(json), "[" + std::to_string(value) + "]");
  }
}

// A program under a locale that groups digits gets the same numbers.
TEST(jsonNumbers, doNotDependOnTheLocale) {
  struct grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new grouping));
  jsonWriter json;
  json.beginArray().number(1234567).endArray();
  std::locale::global(before);
  EXPECT_EQ(compact(json), "[1234567]");
}

// --- Strings ---------------------------------------------------------------------------------

TEST(jsonStrings, fiveCharactersHaveAShortForm) {
  EXPECT_EQ(escaped("\""), "\\\"");
  EXPECT_EQ(escaped("\\"), "\\\\");
  EXPECT_EQ(escaped("\n"), "\\n");
  EXPECT_EQ(escaped("\r"), "\\r");
  EXPECT_EQ(escaped("\t"), "\\t");
}

TEST(jsonStrings, otherControlCharactersHaveFourHexadecimalDigits) {
  for (int byte = 1; byte <= 127; ++byte) {
    if (byte == '\n' || byte == '\r' || byte == '\t' || (byte >= 32 && byte < 127)) {
      continue;
    }
    std::array<char, 8> expected{};
    std::snprintf(expected.data(), expected.size(), "\\u%04x", static_cast<unsigned>(byte));
    std::string written = escaped(std::string(1, static_cast<char>(byte)));
    std::transform(written.begin(), written.end(), written.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    EXPECT_EQ(written, expected.data());
  }
}

TEST(jsonStrings, printableCharactersStay) {
  for (char c = ' '; c < 127; ++c) {
    if (c == '"' || c == '\\') {
      continue;
    }
    EXPECT_EQ(escaped(std::string(1, c)), std::string(1, c));
  }
}

TEST(jsonStrings, bytesAbove127Stay) {
  for (int byte = 128; byte <= 255; ++byte) {
    const std::string one(1, static_cast<char>(byte));
    EXPECT_EQ(escaped(one), one);
  }
  EXPECT_EQ(escaped("\xc3\xa4\xed\xa0\xbd\xed\xb8\x80\xc0\x80"),
            "\xc3\xa4\xed\xa0\xbd\xed\xb8\x80\xc0\x80");
}

TEST(jsonStrings, endAtTheirFirstNul) {
  EXPECT_EQ(escaped(std::string_view("ab\0cd", 5)), "ab");
  EXPECT_EQ(escaped(std::string_view("\0", 1)), "");
}

TEST(jsonStrings, keysAreEscapedToo) {
  jsonWriter json;
  json.beginObject().member("com.\"x\"\t@1", 1).endObject();
  EXPECT_EQ(ordered_json::parse(json.text()).begin().key(), "com.\"x\"\t@1");
}

TEST(jsonStrings, escapingAppends) {
  std::string out = "before";
  appendEscaped(out, "\n");
  EXPECT_EQ(out, "before\\n");
}

TEST(jsonStrings, readBackAsTheyWere) {
  std::string all;
  for (char c = 1; c < 127; ++c) {
    all += c;
  }
  all += '\x7f';
  all += "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80";
  EXPECT_EQ(readBack(all), all);
  EXPECT_EQ(readBack(""), "");
  EXPECT_EQ(readBack("\\\\\"\"\\n"), "\\\\\"\"\\n");
}

TEST(jsonStrings, randomAsciiReadsBack) {
  std::mt19937 random(20261116);
  std::uniform_int_distribution<int> length(0, 60);
  std::uniform_int_distribution<int> character(1, 127);
  for (int round = 0; round < 500; ++round) {
    std::string text(static_cast<std::size_t>(length(random)), ' ');
    for (char& c : text) {
      c = static_cast<char>(character(random));
    }
    ASSERT_EQ(readBack(text), text);
  }
}

}  // namespace
