// The places of a record's separators: with them the text is read back as what it was made of,
// whatever the values hold.
#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "exceptionTest.h"
#include "exceptions/exceptionRecord.h"
#include "placedRecord.h"

namespace {

using namespace test;
using agent::record::builder;
using agent::record::typeCode;

// Whose names hold what stands between them.
constexpr const char* kHeader = "a.(B.m((.B:%40%41:1)%40%41";

bool openFrame(builder& out) {
  return out.openFrame(kHeader, {4, 7, 17});
}

constexpr std::size_t kNoLimit = std::size_t{1} << 20U;

const std::vector<std::string>& nastyTexts() {
  static const std::vector<std::string> texts{
      "",
      "pen",
      "NULL",
      "%",
      "!",
      "%2C",
      "%3A",
      "!%23",
      "!%23%2C",
      "NULL!%23%2C",
      "%40%41",
      "%42",
      "%43",
      "%44",
      "%7C",
      "x%2Cy%3A4%3A1%2C",
      "%2C!%23%2C!%23o%3A10%3A",
      "%42%43%44%7Ca.B.n(B.java:2)%40%41%42%43%44",
      "<redacted:name>",
      "\xC0\x80",                     // NUL
      "caf\xC3\xA9%2C",               // of two bytes
      "\xE2\x82\xAC%3A7%3A",          // of three
      "\xED\xA0\xBD\xED\xB8\x80%7C",  // a pair
      "\xED\xA0\xBD",                 // half of one
      std::string(3000, 'x') + "%2C",
      repeated("\xED\xA0\xBD\xED\xB8\x80%2C", 700),
      repeated("%2Cn%3A7%3A", 300),
  };
  return texts;
}

builder::outcome appendText(builder& out, const std::string& name, const std::string& text,
                            bool isStatic = false) {
  const auto units = static_cast<std::size_t>(fake::utf16Length(text));
  const auto read = [&](std::size_t start, std::size_t count, char* to) {
    const std::string_view part =
        fake::utf16Part(text, static_cast<jsize>(start), static_cast<jsize>(count));
    std::memcpy(to, part.data(), part.size());
    to[part.size()] = '\0';
    return true;
  };
  return out.appendText(name, typeCode::string, units, kNoLimit, read, isStatic);
}

// Appends random values, nested ones too, and keeps what they are.
class randomValues {
 public:
  randomValues(unsigned seed, builder& out) : random_(seed), out_(out) {}

  // A value that the record had no room for is not among them.
  std::vector<placedValue> append(int depth) {
    std::vector<placedValue> values;
    for (auto n = random_() % 6; n > 0 && !out_.isCut(); --n) {
      appendOne(values, depth);
    }
    return values;
  }

 private:
  std::string anyText() { return nastyTexts()[random_() % nastyTexts().size()]; }

  void appendOne(std::vector<placedValue>& values, int depth) {
    const std::string name = anyText();
    const std::size_t before = out_.size();
    placedValue value{.name = utf16Of(name), .isStatic = random_() % 3 == 0};
    switch (random_() % 7) {
      case 0:
        value.code = u"4";
        value.text = u"-12";
        out_.appendNumber(name, typeCode::integer, -12, value.isStatic);
        break;
      case 1:
      case 2:
        appendText(value, name);
        break;
      case 3:
        value.code = u"10";
        value.text = u"NULL";
        value.state = random_() % 2 == 0 ? valueState::null : valueState::notRead;
        out_.appendNullField(name, value.state, value.isStatic);
        break;
      case 4:
        value.code = u"10";
        value.isObject = true;
        value.isStatic = false;
        value.state = random_() % 2 == 0 ? valueState::null : valueState::unreadable;
        out_.appendNullObject(name, value.state);
        break;
      case 5:
        value.code = u"7";
        value.text = u"<redacted:name>";
        value.state = valueState::redacted;
        out_.appendRedacted(name, "name", value.isStatic);
        break;
      default:
        return appendObject(values, std::move(value), name, depth);
    }
    if (out_.size() > before) {
      values.push_back(std::move(value));
    }
    if (random_() % 5 == 0 && !out_.isCut()) {
      out_.noteUnavailable();
      values.push_back({.state = valueState::notAvailable});
    }
  }

  // Of a text that is cut so much as there was room for is compared with.
  void appendText(placedValue& value, const std::string& name) {
    const std::string text = anyText();
    const std::size_t before = out_.size();
    value.code = u"7";
    ::appendText(out_, name, text, value.isStatic);
    if (out_.size() > before) {
      const std::size_t around = name.size() + std::strlen("%3A7%3A%2C");
      value.text = utf16Of(text.substr(0, out_.size() - before - around));
    }
  }

  void appendObject(std::vector<placedValue>& values, placedValue value, const std::string& name,
                    int depth) {
    const std::size_t opened = depth < 4 ? out_.openObject(name) : builder::kNotOpen;
    if (opened == builder::kNotOpen) {
      return;
    }
    value.code = u"10";
    value.isObject = true;
    value.fields = append(depth + 1);
    const bool isEmpty = out_.size() == opened;
    out_.closeObject(opened, value.isStatic);
    value.state = out_.isCut() && isEmpty ? valueState::notRead : valueState::value;
    values.push_back(std::move(value));
  }

  std::mt19937 random_;
  builder& out_;
};

void readsBack(unsigned seed, std::size_t limit) {
  builder out(limit, true);
  randomValues values(seed, out);
  std::vector<placedFrame> expected;
  for (int frame = 0; frame < 3 && !out.isCut(); ++frame) {
    if (!openFrame(out)) {
      break;
    }
    placedFrame& each = expected.emplace_back();
    each.header = {u"a.(B", u"m(", u".B:%40%41", u"1"};
    for (std::size_t section = 0; section < 4; ++section) {
      const std::size_t start = out.size();
      each.sections[section] = values.append(0);
      if (section == 0 || section == 3) {
        out.dropLastSeparator(start);
      }
      const std::array<const char*, 4> marks{"%42", "%43", "%44", "%7C"};
      out.endSection(marks[section]);
    }
  }
  out.dropLastSeparator(0);
  const std::vector<placedFrame> frames = readPlaced(out.text(), out.takePlaces());
  ASSERT_FALSE(::testing::Test::HasFailure()) << seed << ", " << limit << ": " << out.text();
  EXPECT_TRUE(frames == expected) << seed << ", " << limit << ": " << out.text();
}

TEST(recordPlaces, anyValuesAreReadBack) {
  for (unsigned seed = 0; seed < 500 && !::testing::Test::HasFailure(); ++seed) {
    readsBack(seed, kNoLimit);
  }
}

TEST(recordPlaces, anyValuesAreReadBackFromARecordThatIsCutAnywhere) {
  for (std::size_t limit = 0; limit < 1500 && !::testing::Test::HasFailure(); ++limit) {
    readsBack(static_cast<unsigned>(limit % 37), limit);
  }
}

TEST(recordPlaces, aTextThatCannotBeReadLeavesNone) {
  builder out(kNoLimit, true);
  openFrame(out);
  const auto read = [](std::size_t, std::size_t, char*) { return false; };
  out.appendText("s", typeCode::string, 10, 10, read);
  EXPECT_EQ(out.takePlaces().size(), 4U) << "those of the header";
}

TEST(recordPlaces, areNotKeptWhereNobodyWantsThem) {
  builder out(kNoLimit);
  openFrame(out);
  out.appendNumber("n", typeCode::integer, 1);
  out.noteUnavailable();
  EXPECT_TRUE(out.takePlaces().empty());
}

TEST(recordPlaces, theTextIsTheSameWithThem) {
  for (std::size_t limit = 0; limit < 600; ++limit) {
    builder with(limit, true);
    builder without(limit);
    randomValues(7, with).append(0);
    randomValues(7, without).append(0);
    EXPECT_EQ(with.text(), without.text()) << limit;
    EXPECT_EQ(with.isCut(), without.isCut()) << limit;
  }
}

TEST(recordPlaces, areBoundedByTheBudget) {
  constexpr std::size_t kLimit = 4096;
  builder out(kLimit, true);
  for (int i = 0; i < 100'000; ++i) {
    out.noteUnavailable();
  }
  while (!out.isCut()) {
    out.appendNullField("");
  }
  EXPECT_LE(out.takePlaces().size(), 2 * kLimit / 3);
}

TEST(recordPlaces, aRedactedValueIsATextEntry) {
  builder out(kNoLimit);
  out.appendRedacted("pin", "name");
  EXPECT_EQ(out.text(), entry("pin", 7, "<redacted:name>"));
}

}  // namespace
