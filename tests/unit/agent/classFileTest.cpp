// Calls in class files: where they go, what moves with the code, and what is refused.
#include "support/classFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "classFileBuilder.h"

namespace {

using support::callInsertion;
using support::changedClass;
using support::insertCalls;
using test::byteList;
using test::bytes;
using test::classFileBuilder;
using test::methodCode;
using ::testing::ElementsAre;

constexpr const char* kMethod = "park";
constexpr const char* kDescriptor = "(Ljava/lang/Object;)V";

const callInsertion kInsertion{kMethod,  kDescriptor, {0, 1},
                               "a/Hook", "called",    "(Ljava/lang/Object;Ljava/lang/Object;)V"};
constexpr std::size_t kShift = 8;

// Constants that the call refers to, as they are added.
std::size_t addCall(classFileBuilder& builder, const callInsertion& call) {
  const std::size_t cls = builder.constant(7, {builder.utf8(call.calledClass)});
  const std::size_t name = builder.utf8(call.calledMethod);
  const std::size_t descriptor = builder.utf8(call.calledDescriptor);
  return builder.constant(10, {cls, builder.constant(12, {name, descriptor})});
}

// A class with one method of this code and some others.
classFileBuilder classWith(const methodCode& code) {
  classFileBuilder builder;
  for (const char* const name : {"RuntimeVisibleTypeAnnotations", "LineNumberTable",
                                 "LocalVariableTable", "LocalVariableTypeTable", "StackMapTable"}) {
    builder.named(name);
  }
  builder.longConstant();
  builder.field("count");
  builder.method("other", kDescriptor, {.attributes = {{"LineNumberTable", {0, 1, 0, 0, 0, 9}}}});
  builder.method(kMethod, kDescriptor, code);
  builder.abstractMethod("without", kDescriptor);
  builder.named("SourceFile");
  return builder;
}

bytes before(const methodCode& code) {
  return classWith(code).build();
}

std::optional<changedClass> changed(const methodCode& code,
                                    const std::vector<callInsertion>& insertions = {kInsertion}) {
  return insertCalls(before(code), insertions);
}

// What `code` becomes: the same with the call before it, as the other members have been changed by
// the test.
bytes after(methodCode code, const callInsertion& call = kInsertion) {
  classFileBuilder unchanged = classWith(code);
  const std::size_t methodref = addCall(unchanged, call);
  byteList inserted;
  for (const std::uint8_t each : call.arguments) {
    each < 4 ? inserted.u1(std::size_t{0x2A} + each) : inserted.u1(0x19).u1(each);
  }
  inserted.u1(0xB8).u2(methodref);
  inserted.made.resize((inserted.made.size() + 3) / 4 * 4);
  inserted.append(code.instructions);
  code.instructions = inserted.made;
  classFileBuilder builder = classWith(code);
  addCall(builder, call);
  return builder.build();
}

void expectBecomes(const methodCode& from, const methodCode& to) {
  const auto result = changed(from);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->bytes, after(to));
}

void expectAttributeBecomes(const char* name, const byteList& from, const byteList& to) {
  const bytes body(70, 0);  // as many instructions as the tables refer to
  expectBecomes({.instructions = body, .attributes = {{name, from.made}}},
                {.instructions = body, .attributes = {{name, to.made}}});
}

TEST(classFile, aCallStandsBeforeTheCodeAndKeepsItsAlignment) {
  const methodCode code{.maxLocals = 300, .instructions = {0x03, 0xAC}};
  std::vector<bytes> arguments{{}, {0}, {1, 0}, {3, 2, 1, 0}, {4}, {255, 0}};
  for (const bytes& each : arguments) {
    callInsertion call = kInsertion;
    call.arguments = each;
    const auto result = changed(code, {call});
    ASSERT_TRUE(result);
    methodCode expected = code;
    expected.maxStack = std::max(code.maxStack, each.size());
    EXPECT_EQ(result->bytes, after(expected, call)) << each.size();
    EXPECT_THAT(result->isInserted, ElementsAre(true));
  }
}

TEST(classFile, theStackGrowsWhereTheCallNeedsMore) {
  expectBecomes({.maxStack = 0}, {.maxStack = 2});
  expectBecomes({.maxStack = 2}, {.maxStack = 2});
}

TEST(classFile, handlersMoveWithTheCodeThatTheyCover) {
  const bytes body(20, 0);
  expectBecomes(
      {.instructions = body, .handlers = {{0, 20, 0, 7}, {3, 4, 19, 0}}},
      {.instructions = body,
       .handlers = {{kShift, 20 + kShift, kShift, 7}, {3 + kShift, 4 + kShift, 19 + kShift, 0}}});
}

TEST(classFile, theCallBelongsToTheFirstLine) {
  expectAttributeBecomes("LineNumberTable", byteList().u2(2).u2(0).u2(7).u2(5).u2(8),
                         byteList().u2(2).u2(0).u2(7).u2(5 + kShift).u2(8));
}

TEST(classFile, argumentsAreThereInTheCall) {
  for (const char* const table : {"LocalVariableTable", "LocalVariableTypeTable"}) {
    const bytes rest{0, 1, 0, 2, 0, 3};
    expectAttributeBecomes(
        table, byteList().u2(2).u2(0).u2(70).append(rest).u2(4).u2(66).append(rest),
        byteList().u2(2).u2(0).u2(70 + kShift).append(rest).u2(4 + kShift).u2(66).append(rest));
  }
}

TEST(classFile, theFirstFrameMovesAndTheOthersFollowIt) {
  struct row {
    byteList from;
    byteList to;
  };
  const std::vector<row> rows{
      {byteList().u1(0), byteList().u1(kShift)},
      {byteList().u1(55), byteList().u1(63)},
      {byteList().u1(56), byteList().u1(251).u2(64)},
      {byteList().u1(63), byteList().u1(251).u2(71)},
      {byteList().u1(64).u1(1), byteList().u1(64 + kShift).u1(1)},
      {byteList().u1(119).u1(7).u2(9), byteList().u1(127).u1(7).u2(9)},
      {byteList().u1(120).u1(8).u2(3), byteList().u1(247).u2(64).u1(8).u2(3 + kShift)},
      {byteList().u1(247).u2(5).u1(0), byteList().u1(247).u2(5 + kShift).u1(0)},
      {byteList().u1(248).u2(5), byteList().u1(248).u2(5 + kShift)},
      {byteList().u1(251).u2(0), byteList().u1(251).u2(kShift)},
      {byteList().u1(252).u2(5).u1(4), byteList().u1(252).u2(5 + kShift).u1(4)},
      {byteList().u1(254).u2(5).u1(4).u1(7).u2(1).u1(8).u2(0),
       byteList().u1(254).u2(5 + kShift).u1(4).u1(7).u2(1).u1(8).u2(kShift)},
      {byteList().u1(255).u2(5).u2(2).u1(6).u1(8).u2(69).u2(1).u1(7).u2(2),
       byteList().u1(255).u2(5 + kShift).u2(2).u1(6).u1(8).u2(69 + kShift).u2(1).u1(7).u2(2)},
  };
  for (const row& each : rows) {
    SCOPED_TRACE(testing::PrintToString(each.from.made));
    const byteList second = byteList().u1(64).u1(8).u2(1);
    const byteList secondMoved = byteList().u1(64).u1(8).u2(1 + kShift);
    expectAttributeBecomes("StackMapTable",
                           byteList().u2(2).append(each.from.made).append(second.made),
                           byteList().u2(2).append(each.to.made).append(secondMoved.made));
  }
}

TEST(classFile, whatMayHoldOtherOffsetsIsOmitted) {
  const std::pair<std::string, bytes> lines{"LineNumberTable", {0, 0}};
  expectBecomes({.attributes = {{"RuntimeVisibleTypeAnnotations", {1, 2, 3}}, lines}},
                {.attributes = {lines}});
}

TEST(classFile, aClassWithoutTheMethodStaysAsItIs) {
  const bytes unchanged = before({});
  callInsertion otherName = kInsertion;
  otherName.method = "unpark";
  callInsertion otherDescriptor = kInsertion;
  otherDescriptor.descriptor = "()V";
  callInsertion withoutCode = kInsertion;
  withoutCode.method = "without";
  const std::vector<callInsertion> insertions{otherName, otherDescriptor, withoutCode};
  const auto result = insertCalls(unchanged, insertions);
  ASSERT_TRUE(result);
  EXPECT_THAT(result->isInserted, ElementsAre(false, false, false));
  EXPECT_EQ(result->bytes, unchanged);
}

TEST(classFile, callsOfOneClassShareTheirConstants) {
  callInsertion other = kInsertion;
  other.method = "other";
  other.calledMethod = "alsoCalled";
  const std::vector<callInsertion> both{kInsertion, other};
  const bytes one = insertCalls(before({}), {&kInsertion, 1})->bytes;
  const auto two = insertCalls(before({}), both);
  ASSERT_TRUE(two);
  EXPECT_THAT(two->isInserted, ElementsAre(true, true));
  // A name, a name with its type, a reference, and the call itself.
  const std::size_t more = (3 + other.calledMethod.size()) + 5 + 5 + kShift;
  EXPECT_EQ(two->bytes.size(), one.size() + more);
}

// --- Constructors.

callInsertion constructorCall() {
  callInsertion call = kInsertion;
  call.arguments = {0};
  call.place = support::callPlace::afterObjectConstructor;
  return call;
}

// A class whose method begins with a call of `called`, and what the call makes of it.
struct constructorCase {
  explicit constructorCase(std::string_view calledClass = "java/lang/Object",
                           std::string_view name = "<init>", std::string_view descriptor = "()V")
      : builder(classWith({})) {
    const std::size_t cls = builder.constant(7, {builder.utf8(calledClass)});
    const std::size_t nameAndType =
        builder.constant(12, {builder.utf8(name), builder.utf8(descriptor)});
    called = builder.constant(10, {cls, nameAndType});
  }

  // The code after the call, which `more` follows.
  bytes codeWith(const bytes& more) const {
    return byteList().u1(0x2A).u1(0xB7).u2(called).append(more).made;
  }

  classFileBuilder builder;
  std::size_t called = 0;
};

constexpr std::size_t kBehind = 4;      // where the call goes
constexpr std::size_t kLongerCode = 4;  // aload_0, invokestatic

std::optional<changedClass> changedConstructor(
    const bytes& code, const std::vector<std::pair<std::string, bytes>>& attributes = {},
    const std::vector<std::array<std::size_t, 4>>& handlers = {},
    constructorCase made = constructorCase()) {
  made.builder.method("<init>", "()V",
                      {.instructions = code, .handlers = handlers, .attributes = attributes});
  callInsertion call = constructorCall();
  call.method = "<init>";
  call.descriptor = "()V";
  const bytes unchanged = made.builder.build();
  return insertCalls(unchanged, {&call, 1});
}

void expectConstructorBecomes(const std::vector<std::pair<std::string, bytes>>& from,
                              const std::vector<std::pair<std::string, bytes>>& to,
                              const std::vector<std::array<std::size_t, 4>>& handlers = {},
                              const std::vector<std::array<std::size_t, 4>>& handlersThen = {}) {
  const bytes body(70, 0);
  constructorCase made;
  const auto result = changedConstructor(made.codeWith(body), from, handlers, made);
  ASSERT_TRUE(result);
  EXPECT_THAT(result->isInserted, ElementsAre(true));
  // The same, put together by hand: with the constants behind those of the method.
  classFileBuilder names = made.builder;
  names.method("<init>", "()V", {.instructions = {0}, .attributes = from});
  const std::size_t methodref = addCall(names, constructorCall());
  constructorCase expected = made;
  const bytes inserted = byteList().u1(0x2A).u1(0xB8).u2(methodref).made;
  expected.builder.method(
      "<init>", "()V",
      {.instructions = expected.codeWith(byteList().append(inserted).append(body).made),
       .handlers = handlersThen,
       .attributes = to});
  addCall(expected.builder, constructorCall());
  EXPECT_EQ(result->bytes, expected.builder.build());
}

TEST(classFileConstructor, getsItsCallBehindThatOfObject) {
  expectConstructorBecomes({}, {});
}

TEST(classFileConstructor, whatComesBeforeTheCallStaysInItsPlace) {
  const auto lines = [](std::size_t by) {
    return byteList().u2(3).u2(0).u2(7).u2(4).u2(8).u2(5 + by).u2(9).made;
  };
  const auto variables = [](std::size_t by) {
    return byteList()
        .u2(2)
        .u2(0)
        .u2(74 + by)
        .u2(1)
        .u2(2)
        .u2(0)
        .u2(9 + by)
        .u2(65)
        .u2(1)
        .u2(2)
        .u2(1)
        .made;
  };
  const auto frames = [](std::size_t by) {
    return byteList().u2(2).u1(9 + by).u1(64).u1(8).u2(20 + by).made;
  };
  expectConstructorBecomes({{"LineNumberTable", lines(0)},
                            {"LocalVariableTable", variables(0)},
                            {"StackMapTable", frames(0)}},
                           {{"LineNumberTable", lines(kLongerCode)},
                            {"LocalVariableTable", variables(kLongerCode)},
                            {"StackMapTable", frames(kLongerCode)}});
}

TEST(classFileConstructor, handlersDoNotCoverTheCall) {
  expectConstructorBecomes(
      {}, {}, {{0, 4, 20, 7}, {4, 74, 20, 7}},
      {{0, 4, 20 + kLongerCode, 7}, {4 + kLongerCode, 74 + kLongerCode, 20 + kLongerCode, 7}});
}

TEST(classFileConstructor, aJumpToWhatFollowsTheCallGoesThereStill) {
  expectConstructorBecomes({{"StackMapTable", byteList().u2(1).u1(kBehind).made}},
                           {{"StackMapTable", byteList().u2(1).u1(kBehind + kLongerCode).made}});
}

TEST(classFileConstructor, thatBeginsInAnotherWayIsRefused) {
  const constructorCase made;
  const bytes good = made.codeWith({0xB1});
  ASSERT_TRUE(changedConstructor(good, {}, {}, made));
  bytes otherVariable = good;
  otherVariable[0] = 0x2B;
  bytes otherCall = good;
  otherCall[1] = 0xB6;
  bytes notAMethod = good;
  notAMethod[3] = static_cast<std::uint8_t>(made.called - 1);
  bytes noConstant = good;
  noConstant[2] = 0xFF;
  bytes first{0x00};
  first.insert(first.end(), good.begin(), good.end());
  for (const bytes& each : {otherVariable, otherCall, notAMethod, noConstant, first, bytes{0xB1},
                            bytes{0x2A}, bytes(good.begin(), good.end() - 1)}) {
    EXPECT_FALSE(changedConstructor(each, {}, {}, made)) << testing::PrintToString(each);
  }
  for (const constructorCase& other :
       {constructorCase("java/lang/Throwable"), constructorCase("java/lang/Object", "init"),
        constructorCase("java/lang/Object", "<init>", "(I)V")}) {
    EXPECT_FALSE(changedConstructor(other.codeWith({0xB1}), {}, {}, other));
  }
}

TEST(classFileConstructor, thatHasAHandlerAroundTheCallIsRefused) {
  const constructorCase made;
  const bytes code = made.codeWith(bytes(20, 0));
  EXPECT_TRUE(changedConstructor(code, {}, {{0, 4, 10, 0}}, made));
  EXPECT_FALSE(changedConstructor(code, {}, {{0, 5, 10, 0}}, made));
  EXPECT_FALSE(changedConstructor(code, {{"StackMapTable", {0, 1, 3}}}, {}, made));
}

// --- What is refused.

// A method with all that a class file may have.
methodCode fullCode() {
  return {.instructions = bytes(70, 0),
          .handlers = {{0, 20, 30, 7}},
          .attributes = {
              {"LineNumberTable", byteList().u2(1).u2(0).u2(7).made},
              {"LocalVariableTable", byteList().u2(1).u2(0).u2(70).u2(1).u2(2).u2(3).made},
              {"StackMapTable", byteList().u2(1).u1(255).u2(5).u2(1).u1(8).u2(1).u2(0).made}}};
}

TEST(classFile, aPartOfAClassFileIsRefusedWhateverItsLength) {
  const bytes whole = before(fullCode());
  ASSERT_TRUE(insertCalls(whole, {&kInsertion, 1}));
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const bytes part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_FALSE(insertCalls(part, {&kInsertion, 1})) << length;
  }
}

TEST(classFile, moreThanAClassFileIsRefused) {
  bytes more = before(fullCode());
  more.push_back(0);
  EXPECT_FALSE(insertCalls(more, {&kInsertion, 1}));
}

// Under the sanitizers this shows that nothing is read or written out of bounds.
TEST(classFile, ofBytesThatAreNotRightComesAWellFormedClassOrNone) {
  const bytes whole = before(fullCode());
  std::size_t refused = 0;
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const unsigned flip : {0x01U, 0x02U, 0x04U, 0x10U, 0x40U, 0x80U, 0xFFU}) {
      bytes wrong = whole;
      wrong[at] = static_cast<std::uint8_t>(wrong[at] ^ flip);
      const auto result = insertCalls(wrong, {&kInsertion, 1});
      if (!result) {
        ++refused;
        continue;
      }
      const auto again = insertCalls(result->bytes, {});
      ASSERT_TRUE(again) << at;
      EXPECT_EQ(again->bytes, result->bytes) << at;
    }
  }
  EXPECT_GT(refused, whole.size());
}

TEST(classFile, tablesThatReferBeyondTheCodeAreRefused) {
  const bytes body(20, 0);
  const std::vector<methodCode> codes{
      {.instructions = {}},
      {.instructions = body, .handlers = {{20, 20, 0, 0}}},
      {.instructions = body, .handlers = {{0, 21, 0, 0}}},
      {.instructions = body, .handlers = {{0, 20, 20, 0}}},
      {.instructions = body, .attributes = {{"LineNumberTable", {0, 1, 0, 20, 0, 1}}}},
      {.instructions = body, .attributes = {{"LineNumberTable", {0, 0, 0}}}},
      {.instructions = body,
       .attributes = {{"LocalVariableTable", {0, 1, 0, 1, 0, 20, 0, 1, 0, 1, 0, 1}}}},
      {.instructions = body, .attributes = {{"StackMapTable", {0, 1, 64, 8, 0, 20}}}},
      {.instructions = body, .attributes = {{"StackMapTable", {0, 1, 64, 9}}}},
      {.instructions = body, .attributes = {{"StackMapTable", {0, 1, 128, 0, 0}}}},
      {.instructions = body, .attributes = {{"StackMapTable", {0, 1, 246, 0, 0}}}},
      {.instructions = body, .attributes = {{"StackMapTable", {0, 1, 251, 0xFF, 0xFF}}}},
  };
  ASSERT_TRUE(changed({.instructions = body}));
  for (std::size_t i = 0; i < codes.size(); ++i) {
    EXPECT_FALSE(changed(codes[i])) << i;
  }
}

TEST(classFile, codeThatWouldGetTooLongIsRefused) {
  EXPECT_TRUE(changed({.instructions = bytes(65535 - kShift, 0)}));
  EXPECT_FALSE(changed({.instructions = bytes(65536 - kShift, 0)}));
  EXPECT_FALSE(changed({.instructions = bytes(70000, 0)}));
}

TEST(classFile, constantsThatHaveNoRoomAreRefused) {
  constexpr std::size_t kAdded = 6;
  const auto withConstants = [](std::size_t count) {
    classFileBuilder builder;
    builder.named("SourceFile");
    builder.method(kMethod, kDescriptor, {});
    for (std::size_t number = builder.utf8(""); number + 1 < count;) {
      number = builder.utf8("");
    }
    return builder.build();
  };
  EXPECT_TRUE(insertCalls(withConstants(65535 - kAdded), {&kInsertion, 1}));
  EXPECT_FALSE(insertCalls(withConstants(65536 - kAdded), {&kInsertion, 1}));
  EXPECT_TRUE(insertCalls(withConstants(65535), {}));
}

TEST(classFile, anArgumentThatTheCodeDoesNotHaveIsRefused) {
  EXPECT_TRUE(changed({.maxLocals = 2}));
  EXPECT_FALSE(changed({.maxLocals = 1}));
}

}  // namespace
