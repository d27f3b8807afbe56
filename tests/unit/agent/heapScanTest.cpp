// Tags, names, filters, the choice of classes, and the two walks of a scan.
#include "memory/heapScan.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "memoryTest.h"

namespace {

using namespace test;
using agent::classFilters;
using agent::classNameOf;
using agent::classQueue;
using agent::classRecord;
using agent::classRecords;
using agent::selectClasses;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

constexpr auto kAll = static_cast<std::uint32_t>(-1);

// --- Tags ------------------------------------------------------------------------------------

TEST(heapScanTags, aTagIsTheGenerationAsASigned32BitNumberWidened) {
  EXPECT_EQ(agent::tagOf(1), 1);
  EXPECT_EQ(agent::tagOf(0x7FFFFFFFU), 0x7FFFFFFF);
  EXPECT_EQ(agent::tagOf(0x80000000U), -2147483648LL);
  EXPECT_EQ(agent::tagOf(0xFFFFFFFFU), -1);
}

TEST(heapScanTags, everyGenerationComesBackFromItsTag) {
  for (const std::uint32_t each : {0U, 1U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFEU, 0xFFFFFFFFU}) {
    EXPECT_TRUE(agent::isGeneration(agent::tagOf(each))) << each;
    EXPECT_EQ(agent::generationOf(agent::tagOf(each)), each);
  }
}

TEST(heapScanTags, aTagBeyond32BitsIsNoGeneration) {
  EXPECT_TRUE(agent::isGeneration(0xFFFFFFFFLL));
  EXPECT_FALSE(agent::isGeneration(0x100000000LL));
  EXPECT_TRUE(agent::isGeneration(-0x80000000LL));
  EXPECT_FALSE(agent::isGeneration(-0x80000001LL));
  EXPECT_FALSE(agent::isGeneration(0x7f0012345678LL));
  EXPECT_FALSE(agent::isGeneration(INT64_MIN));
  EXPECT_FALSE(agent::isGeneration(INT64_MAX));
}

// --- Names -----------------------------------------------------------------------------------

TEST(heapScanNames, aClassLosesItsLAndItsSemicolonAndGetsDots) {
  EXPECT_EQ(classNameOf("Lcom/example/Order;"), "com.example.Order");
  EXPECT_EQ(classNameOf("LOrder;"), "Order");
  EXPECT_EQ(classNameOf("Lcom/example/Outer$Inner;"), "com.example.Outer$Inner");
  EXPECT_EQ(classNameOf("Lcom/example/Hidden.0x0123;"), "com.example.Hidden.0x0123");
}

TEST(heapScanNames, anArrayKeepsItsWholeSignature) {
  EXPECT_EQ(classNameOf("[I"), "[I");
  EXPECT_EQ(classNameOf("[[J"), "[[J");
  EXPECT_EQ(classNameOf("[Lcom/example/Order;"), "[Lcom.example.Order;");
  EXPECT_EQ(classNameOf("[LOrder;"), "[LOrder;");
}

TEST(heapScanNames, oddSignaturesAreSurvived) {
  EXPECT_EQ(classNameOf(""), "");
  EXPECT_EQ(classNameOf("L"), "");
  EXPECT_EQ(classNameOf("L;"), "");
  EXPECT_EQ(classNameOf("L\xc3\xa4/\xed\xa0\xbd\xed\xb8\x80;"),
            "\xc3\xa4.\xed\xa0\xbd\xed\xb8\x80");
}

// --- Filters ---------------------------------------------------------------------------------

TEST(heapScanFilters, emptyTextsMatchNothing) {
  const classFilters none;
  for (const char* name : {"a.B", "B", "[I", "[La.B;"}) {
    EXPECT_FALSE(none.excludes(name)) << name;
    EXPECT_FALSE(none.includes(name)) << name;
  }
}

// The name is looked for in the text, not the text in the name.
TEST(heapScanFilters, aClassMatchesWhenItsWholeNameOccursAnywhereInTheText) {
  const classFilters filters{.excludeClasses = "x,com.example.Order;y"};
  EXPECT_TRUE(filters.excludes("com.example.Order"));
  EXPECT_TRUE(filters.excludes("example.Ord")) << "a part of another name";
  EXPECT_TRUE(filters.excludes("Order")) << "a class without a package";
  EXPECT_FALSE(filters.excludes("com.example.Orders"));
  EXPECT_FALSE(filters.excludes("com.example.order"));
}

TEST(heapScanFilters, aPackageMatchesWhenItOccursAnywhereInTheText) {
  const classFilters filters{.excludePackages = "com.example.shop org.acme"};
  EXPECT_TRUE(filters.excludes("com.example.shop.Order"));
  EXPECT_TRUE(filters.excludes("com.example.Order")) << "a part of a listed package";
  EXPECT_TRUE(filters.excludes("org.acme.X"));
  EXPECT_FALSE(filters.excludes("com.example.shop.cart.Order")) << "a package below it";
  EXPECT_FALSE(filters.excludes("net.acme.X"));
}

TEST(heapScanFilters, aClassWithoutADotHasNoPackageToMatch) {
  const classFilters filters{.excludePackages = "Order com", .includePackages = "Order com"};
  EXPECT_FALSE(filters.excludes("Order"));
  EXPECT_FALSE(filters.includes("[I"));
}

TEST(heapScanFilters, patternsAreNoPatterns) {
  const classFilters filters{.excludeClasses = "com.example.*", .excludePackages = "com.*"};
  EXPECT_FALSE(filters.excludes("com.example.Order"));
}

TEST(heapScanFilters, theArrayOfAListedClassIsListedOnlyByItsOwnName) {
  const classFilters byElement{.excludeClasses = "com.example.Order",
                               .excludePackages = "com.example"};
  EXPECT_FALSE(byElement.excludes("[Lcom.example.Order;"));
  const classFilters byName{.excludeClasses = "[Lcom.example.Order;"};
  EXPECT_TRUE(byName.excludes("[Lcom.example.Order;"));
  const classFilters byPackage{.excludePackages = "[Lcom.example"};
  EXPECT_TRUE(byPackage.excludes("[Lcom.example.Order;"));
}

TEST(heapScanFilters, excludedAndIncludedTextsAreKeptApart) {
  const classFilters filters{.excludeClasses = "a.A",
                             .excludePackages = "b",
                             .includeClasses = "c.C",
                             .includePackages = "d"};
  for (const char* name : {"a.A", "b.X"}) {
    EXPECT_TRUE(filters.excludes(name)) << name;
    EXPECT_FALSE(filters.includes(name)) << name;
  }
  for (const char* name : {"c.C", "d.X"}) {
    EXPECT_FALSE(filters.excludes(name)) << name;
    EXPECT_TRUE(filters.includes(name)) << name;
  }
}

// --- Choosing classes ------------------------------------------------------------------------

classRecords recordsOf(const std::vector<std::pair<std::string, std::uint64_t>>& sizes) {
  classRecords records;
  for (const auto& [name, size] : sizes) {
    records[name].totalSize = size;
    records[name].totalCount = 1;
  }
  return records;
}

// Names in the order in which the queue yields them.
std::vector<std::string> drained(classQueue queue) {
  std::vector<std::string> names;
  for (; !queue.empty(); queue.pop()) {
    names.push_back(queue.top().name);
  }
  return names;
}

std::vector<std::string> chosen(const std::vector<std::pair<std::string, std::uint64_t>>& sizes,
                                std::uint32_t most, const classFilters& filters = {}) {
  return drained(selectClasses(recordsOf(sizes), filters, most));
}

TEST(heapScanSelection, theQueueYieldsTheSmallestFirst) {
  EXPECT_THAT(chosen({{"p.A", 30}, {"p.B", 10}, {"p.C", 20}}, 3), ElementsAre("p.B", "p.C", "p.A"));
}

TEST(heapScanSelection, theLargestRemainWhenThereAreMore) {
  EXPECT_THAT(chosen({{"p.A", 10}, {"p.B", 40}, {"p.C", 20}, {"p.D", 30}}, 2),
              ElementsAre("p.D", "p.B"));
}

TEST(heapScanSelection, nothingIsChosenForZero) {
  EXPECT_THAT(chosen({{"p.A", 10}}, 0), IsEmpty());
  EXPECT_THAT(chosen({{"p.A", 10}}, 0, {.includeClasses = "p.A"}), IsEmpty());
}

TEST(heapScanSelection, aNegativeNumberAdmitsEveryClass) {
  EXPECT_THAT(chosen({{"p.A", 1}, {"p.B", 2}, {"p.C", 3}}, static_cast<std::uint32_t>(-1)),
              ElementsAre("p.A", "p.B", "p.C"));
  EXPECT_THAT(chosen({{"p.A", 1}, {"p.B", 2}}, static_cast<std::uint32_t>(INT32_MIN)),
              ElementsAre("p.A", "p.B"));
}

TEST(heapScanSelection, aClassOfSizeZeroIsNeverTaken) {
  EXPECT_THAT(chosen({{"p.A", 0}, {"p.B", 1}}, kAll, {.includeClasses = "p.A"}),
              ElementsAre("p.B"));
}

TEST(heapScanSelection, aClassWithoutADotIsNeverTaken) {
  EXPECT_THAT(chosen({{"Plain", 9}, {"[I", 8}, {"[LPlain;", 7}, {"[Lp.A;", 6}}, kAll,
                     {.includeClasses = "Plain [I [LPlain;"}),
              ElementsAre("[Lp.A;"));
}

TEST(heapScanSelection, onATieTheClassMetFirstStays) {
  EXPECT_THAT(chosen({{"p.A", 10}, {"p.B", 10}, {"p.C", 10}}, 1), ElementsAre("p.A"));
  EXPECT_THAT(chosen({{"p.C", 10}, {"p.B", 10}, {"p.A", 10}}, 2),
              UnorderedElementsAre("p.A", "p.B"));
}

TEST(heapScanSelection, aStrictlyLargerClassTakesTheSmallestOnesPlace) {
  EXPECT_THAT(chosen({{"p.A", 10}, {"p.B", 20}, {"p.C", 11}}, 2), ElementsAre("p.C", "p.B"));
  EXPECT_THAT(chosen({{"p.A", 10}, {"p.B", 20}, {"p.C", 9}}, 2), ElementsAre("p.A", "p.B"));
}

TEST(heapScanSelection, sizesAreComparedAsUnsigned64Bits) {
  EXPECT_THAT(chosen({{"p.A", 1ULL << 32U}, {"p.B", 5}, {"p.C", 0xFFFFFFFFFFFFFFFFULL}}, 2),
              ElementsAre("p.A", "p.C"));
}

TEST(heapScanSelection, anIncludedClassIsTakenBeforeLargerOnes) {
  EXPECT_THAT(chosen({{"p.A", 100}, {"p.B", 50}, {"p.Z", 1}}, 1, {.includeClasses = "p.Z"}),
              ElementsAre("p.Z"));
}

TEST(heapScanSelection, aPackageIsIncludedAsWell) {
  EXPECT_THAT(chosen({{"p.A", 100}, {"q.Z", 1}}, 1, {.includePackages = "q"}), ElementsAre("q.Z"));
}

// In the first pass nothing is displaced: the room goes by name, not by size.
TEST(heapScanSelection, theFirstPassTakesTheFirstNamesWhenTheRoomEnds) {
  EXPECT_THAT(chosen({{"p.A", 1}, {"p.B", 2}, {"p.C", 99}}, 2, {.includePackages = "p"}),
              ElementsAre("p.A", "p.B"));
}

TEST(heapScanSelection, theSecondPassIsLeftOutWhenTheFirstHasFilledTheQueue) {
  EXPECT_THAT(chosen({{"p.A", 1000}, {"q.Y", 1}, {"q.Z", 2}}, 2, {.includePackages = "q"}),
              ElementsAre("q.Y", "q.Z"));
}

TEST(heapScanSelection, theSecondPassFillsTheRoomThatTheFirstLeaves) {
  EXPECT_THAT(chosen({{"p.A", 5}, {"p.B", 7}, {"q.Z", 6}}, 3, {.includePackages = "q"}),
              ElementsAre("p.A", "q.Z", "p.B"));
}

// The queue's smallest is displaced, whichever pass has put it there.
TEST(heapScanSelection, theSecondPassDisplacesASmallIncludedClassOnceTheQueueIsFull) {
  EXPECT_THAT(chosen({{"p.A", 5}, {"p.B", 7}, {"q.Z", 1}}, 2, {.includePackages = "q"}),
              ElementsAre("p.A", "p.B"));
}

TEST(heapScanSelection, anIncludedClassThatFoundNoRoomIsNotTakenInTheSecondPass) {
  EXPECT_THAT(chosen({{"q.A", 1}, {"q.B", 2}}, 1, {.includePackages = "q"}), ElementsAre("q.A"));
}

TEST(heapScanSelection, elementsCarryTheirWholeRecord) {
  classRecords records;
  records["p.A"] = classRecord{.totalCount = 3, .totalSize = 48, .gcSurvived = {{2, {48, 3}}}};
  const classQueue queue = selectClasses(std::move(records), {}, 1);
  ASSERT_EQ(queue.size(), 1U);
  EXPECT_EQ(queue.top().record.totalCount, 3U);
  EXPECT_EQ(queue.top().record.gcSurvived.at(2).size, 48U);
}

TEST(heapScanSelection, noRecordsGiveAnEmptyQueue) {
  EXPECT_TRUE(selectClasses({}, {}, kAll).empty());
}

// --- The walk over the heap ------------------------------------------------------------------

class heapScan : public memoryTest {
 protected:
  fake::object* withTag(std::string_view className, jlong value, jlong size = 16) {
    fake::object* const made = object(className, size);
    made->tag = value;
    return made;
  }
  // One generation, added to `records` as a native method would.
  bool add(std::uint32_t generation, const classFilters& filters = {}) {
    return vm.native([&](JNIEnv* jni) {
      return agent::generationScan(vm.jvmti(), jni, filters, records)
                 .add(generation, generation)
                 .status == JVMTI_ERROR_NONE;
    });
  }

  agent::taggedObjects walk() {
    return vm.native([&](JNIEnv*) { return agent::countTaggedObjects(vm.jvmti()); });
  }

  classRecords records;
};

TEST_F(heapScan, theWalkCountsTaggedObjectsAndMeetsTheirGenerations) {
  object("p.A");
  withTag("p.A", 3);
  withTag("p.B", 1);
  withTag("p.B", 3);
  withTag("p.B", 3);
  const agent::taggedObjects met = walk();
  EXPECT_EQ(met.count, 4U);
  EXPECT_EQ(met.status, JVMTI_ERROR_NONE);
  EXPECT_TRUE(met.complete);
  EXPECT_THAT(met.generations, ElementsAre(1U, 3U));
}

TEST_F(heapScan, generationsMayAlternateFromObjectToObject) {
  for (int i = 0; i < 12; ++i) {
    withTag("p.A", 1 + i % 3);
  }
  EXPECT_THAT(walk().generations, ElementsAre(1U, 2U, 3U));
}

TEST_F(heapScan, theWalkLeavesTheTagsOfObjectsAsTheyAre) {
  fake::object* const one = withTag("p.A", 3);
  fake::object* const foreign = withTag("p.A", 0x7f0012345678LL);
  walk();
  EXPECT_EQ(one->tag, 3);
  EXPECT_EQ(foreign->tag, 0x7f0012345678LL);
}

TEST_F(heapScan, theWalkCountsForeignTagsButTheyAreNoGeneration) {
  withTag("p.A", 0x100000001LL);
  const agent::taggedObjects met = walk();
  EXPECT_EQ(met.count, 1U);
  EXPECT_THAT(met.generations, IsEmpty());
}

TEST_F(heapScan, theWalkMeetsNothingInAHeapWithoutTags) {
  object("p.A");
  const agent::taggedObjects met = walk();
  EXPECT_EQ(met.count, 0U);
  EXPECT_TRUE(met.complete);
  EXPECT_THAT(met.generations, IsEmpty());
}

TEST_F(heapScan, aRefusedWalkGivesItsStatusAndDoesNotKnowTheGenerations) {
  withTag("p.A", 1);
  vm.fail("IterateThroughHeap", {.error = JVMTI_ERROR_OUT_OF_MEMORY});
  const agent::taggedObjects met = walk();
  EXPECT_EQ(met.status, JVMTI_ERROR_OUT_OF_MEMORY);
  EXPECT_EQ(met.count, 0U);
  EXPECT_FALSE(met.complete);
}

TEST_F(heapScan, theWalkAsksForUntaggedObjectsToBeLeftOutAndForNoClass) {
  jlong filter = 0;
  const fake::object* type = nullptr;
  vm.on("IterateThroughHeap", [&](const fake::call& made) {
    filter = made.number;
    type = made.target;
  });
  walk();
  EXPECT_EQ(filter, 8);
  EXPECT_EQ(type, nullptr);
}

// --- Adding a generation ---------------------------------------------------------------------

TEST_F(heapScan, objectsOfAGenerationAreAddedByClass) {
  withTag("p.A", 2, 10);
  withTag("p.B", 2, 100);
  withTag("p.A", 2, 20);
  withTag("p.A", 3, 1000);
  EXPECT_TRUE(add(2));
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records["p.A"].totalCount, 2U);
  EXPECT_EQ(records["p.A"].totalSize, 30U);
  ASSERT_EQ(records["p.A"].gcSurvived.size(), 1U);
  EXPECT_EQ(records["p.A"].gcSurvived[2].count, 2U);
  EXPECT_EQ(records["p.A"].gcSurvived[2].size, 30U);
  EXPECT_EQ(records["p.B"].totalSize, 100U);
}

TEST_F(heapScan, generationsOfAClassAddUp) {
  withTag("p.A", 1, 10);
  withTag("p.A", 2, 20);
  EXPECT_TRUE(add(1));
  EXPECT_TRUE(add(2));
  EXPECT_EQ(records["p.A"].totalCount, 2U);
  EXPECT_EQ(records["p.A"].totalSize, 30U);
  EXPECT_EQ(records["p.A"].gcSurvived[1].size, 10U);
  EXPECT_EQ(records["p.A"].gcSurvived[2].size, 20U);
}

TEST_F(heapScan, aGenerationIsAskedForByItsOneTag) {
  jlong tags = 0;
  vm.on("GetObjectsWithTags", [&](const fake::call& made) { tags = made.number; });
  add(7);
  EXPECT_EQ(tags, 1);
}

TEST_F(heapScan, aGenerationBeyondTheSignedRangeIsFoundByItsNegativeTag) {
  withTag("p.A", agent::tagOf(0x80000001U));
  EXPECT_TRUE(add(0x80000001U));
  EXPECT_EQ(records["p.A"].gcSurvived[0x80000001U].count, 1U);
}

TEST_F(heapScan, excludedClassesGetNoRecord) {
  withTag("p.A", 1);
  withTag("q.B", 1);
  withTag("r.C", 1);
  EXPECT_TRUE(add(1, {.excludeClasses = "p.A", .excludePackages = "q"}));
  EXPECT_EQ(records.size(), 1U);
  EXPECT_TRUE(records.contains("r.C"));
}

TEST_F(heapScan, classesOfOneNameFromTwoLoadersShareARecord) {
  for (int loader = 0; loader < 2; ++loader) {
    fake::object* const one = vm.makeObject(vm.makeClass("p.Twin"));
    one->tag = 1;
  }
  EXPECT_TRUE(add(1));
  EXPECT_EQ(records["p.Twin"].totalCount, 2U);
}

TEST_F(heapScan, classesOfOneHashAreKeptApart) {
  fake::javaClass* const a = vm.makeClass("p.A");
  fake::javaClass* const b = vm.makeClass("p.B");
  b->hash = a->hash.load();
  for (int i = 0; i < 3; ++i) {
    vm.makeObject(a)->tag = 1;
    vm.makeObject(b)->tag = 1;
  }
  EXPECT_TRUE(add(1));
  EXPECT_EQ(records["p.A"].totalCount, 3U);
  EXPECT_EQ(records["p.B"].totalCount, 3U);
}

TEST_F(heapScan, classesStringsAndThreadsAreObjectsToo) {
  vm.makeClass("p.Tagged")->tag = 1;
  vm.makeString("text")->tag = 1;
  vm.makeThread("T")->tag = 1;
  EXPECT_TRUE(add(1));
  EXPECT_EQ(records["java.lang.Class"].totalCount, 1U);
  EXPECT_EQ(records["java.lang.String"].totalCount, 1U);
  EXPECT_EQ(records["java.lang.Thread"].totalCount, 1U);
}

TEST_F(heapScan, anEmptyGenerationAddsNothing) {
  EXPECT_TRUE(add(1));
  EXPECT_THAT(records, IsEmpty());
}

TEST_F(heapScan, theNameOfAClassIsReadOnceForAllItsObjects) {
  for (int i = 0; i < 100; ++i) {
    withTag("p.A", 1);
    withTag("p.B", 1);
  }
  EXPECT_TRUE(add(1));
  EXPECT_EQ(vm.calls("GetClassSignature"), 2U);
  EXPECT_EQ(vm.calls("GetTag"), 0U);
  EXPECT_EQ(vm.calls("GetObjectSize"), 200U);
}

TEST_F(heapScan, manyClassesAreToldApart) {
  constexpr int kClasses = 20;
  for (int i = 0; i < 5 * kClasses; ++i) {
    withTag("p.C" + std::to_string(i % kClasses), 1, 8);
  }
  EXPECT_TRUE(add(1));
  EXPECT_EQ(vm.calls("GetClassSignature"), static_cast<unsigned>(kClasses));
  ASSERT_EQ(records.size(), static_cast<std::size_t>(kClasses));
  for (const auto& [name, record] : records) {
    EXPECT_EQ(record.totalCount, 5U) << name;
    EXPECT_EQ(record.totalSize, 40U) << name;
  }
}

TEST_F(heapScan, theNameOfAClassIsReadOnceForAllGenerations) {
  for (jlong generation : {1, 2, 3}) {
    withTag("p.A", generation, 10);
  }
  const classFilters none;
  vm.native([&](JNIEnv* jni) {
    agent::generationScan scan(vm.jvmti(), jni, none, records);
    for (std::uint32_t generation : {1U, 2U, 3U}) {
      scan.add(generation, generation);
    }
  });
  EXPECT_EQ(vm.calls("GetClassSignature"), 1U);
  EXPECT_EQ(records["p.A"].totalSize, 30U);
  EXPECT_EQ(records["p.A"].gcSurvived.size(), 3U);
}

TEST_F(heapScan, aRefusedGenerationAddsNothing) {
  withTag("p.A", 1);
  vm.fail("GetObjectsWithTags");
  EXPECT_FALSE(add(1));
  EXPECT_THAT(records, IsEmpty());
}

TEST_F(heapScan, anExcludedClassIsNamedOnce) {
  for (int i = 0; i < 10; ++i) {
    withTag("p.A", 1);
  }
  EXPECT_TRUE(add(1, {.excludeClasses = "p.A"}));
  EXPECT_EQ(vm.calls("GetClassSignature"), 1U);
  EXPECT_EQ(vm.calls("GetObjectHashCode"), 1U);
}

// Objects of one size are compared with the classes that had it before: four of them at most.
TEST_F(heapScan, fourClassesOfOneSizeAreToldApartWithoutHashCodes) {
  for (int i = 0; i < 40; ++i) {
    for (const char* const name : {"p.A", "p.B", "p.C", "p.D"}) {
      withTag(name, 1);
    }
  }
  EXPECT_TRUE(add(1));
  EXPECT_EQ(vm.calls("GetObjectHashCode"), 4U);
}

// One answer of the VM and a class at a time, however many objects there are.
TEST_F(heapScan, referencesAreDeletedAsSoonAsTheirObjectWasCounted) {
  constexpr std::size_t kObjects = 1000;
  for (std::size_t i = 0; i < kObjects; ++i) {
    withTag("p.A", 1);
  }
  vm.resetCalls();
  std::vector<std::size_t> held;
  vm.on("GetObjectSize", [&] { held.push_back(vm.localReferences()); });
  EXPECT_TRUE(add(1));
  ASSERT_EQ(held.size(), kObjects);
  EXPECT_LE(held.front(), kObjects + 2);
  EXPECT_LE(held.back(), 3U);
  EXPECT_LE(vm.peakLocalReferences(), kObjects + 2);
  EXPECT_EQ(vm.localReferences(), 0U);
}

TEST_F(heapScan, theFrameHasRoomForWhatTheVmAnswered) {
  withTag("p.A", 1);
  vm.setLogging(true);
  EXPECT_TRUE(add(1));
  const std::vector<std::string> calls = vm.callLog();
  const auto position = [&](const char* name) {
    return std::find(calls.begin(), calls.end(), name) - calls.begin();
  };
  EXPECT_LT(position("PushLocalFrame"), position("GetObjectsWithTags"));
  EXPECT_LT(position("GetObjectsWithTags"), position("EnsureLocalCapacity"));
  EXPECT_LT(position("EnsureLocalCapacity"), position("GetObjectClass"));
  EXPECT_EQ(calls.back(), "PopLocalFrame");
}

}  // namespace
