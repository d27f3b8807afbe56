// The thread-local section of a record.
#include <new>

#include "exceptionTest.h"

namespace {

using namespace test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const captureSettings kThreadLocals{.threadLocals = true};

constexpr const char* kMapClass = "java.lang.ThreadLocal$ThreadLocalMap";
constexpr const char* kEntryClass = "java.lang.ThreadLocal$ThreadLocalMap$Entry";

class threadLocals : public exceptionTest {
 protected:
  threadLocals() {
    mapOfThread_ = vm.makeField(vm.classNamed("java.lang.Thread"), "threadLocals",
                                "Ljava/lang/ThreadLocal$ThreadLocalMap;");
    tableOfMap_ = vm.makeField(vm.makeClass(kMapClass), "table",
                               "[Ljava/lang/ThreadLocal$ThreadLocalMap$Entry;");
    valueOfEntry_ = vm.makeField(vm.makeClass(kEntryClass), "value", "Ljava/lang/Object;");
  }

  fake::object* entryWith(fake::object* value) {
    fake::object* const made = vm.makeObject(kEntryClass);
    vm.setField(made, valueOfEntry_, value);
    return made;
  }
  void setTable(fake::objectArray* table) {
    fake::object* const map = vm.makeObject(kMapClass);
    vm.setField(map, tableOfMap_, table);
    vm.setField(thread(), mapOfThread_, map);
  }
  // Gives the thread these entries; null is an empty slot.
  void setEntries(std::vector<fake::object*> entries) {
    setTable(vm.makeArray("[Ljava.lang.ThreadLocal$ThreadLocalMap$Entry;", std::move(entries)));
  }
  std::string section() { return topOf({frameOf("a.A.m")}).threadLocals; }

  fake::object* cart() { return objectWith("com.example.Cart", {{"items", "I", jint{2}}}); }

 private:
  fake::field* mapOfThread_ = nullptr;
  fake::field* tableOfMap_ = nullptr;
  fake::field* valueOfEntry_ = nullptr;
};

// --- What is written.

TEST_F(threadLocals, entriesAreWrittenAsObjectsByTheirIndex) {
  begin(kThreadLocals, "captureObjType=4");
  setEntries({entryWith(cart())});
  EXPECT_EQ(recordOf({frameOf("a.A.m")}),
            "a.A.m(A.java:42)%40%41%42%43%44"
            "!%23ThreadLocals0%3A10%3A!%23value%3A10%3Aitems%3A4%3A2%2C!%23%2C!%23");
}

TEST_F(threadLocals, emptySlotsAreSkippedAndIndexesAreThoseOfTheTable) {
  begin(kThreadLocals, "captureObjType=4");
  setEntries({nullptr, entryWith(nullptr), nullptr, nullptr, entryWith(cart()), nullptr});
  EXPECT_EQ(section() + "%2C",
            objectEntry("ThreadLocals1", nullField("value")) +
                objectEntry("ThreadLocals4", objectEntry("value", entry("items", 4, "2"))));
}

// Asking a class for a field waits for its initialiser, and that may wait for this very thread.
TEST_F(threadLocals, aThreadWhoseClassIsBeingInitialisedIsNotAskedForTheField) {
  begin(kThreadLocals, "captureObjType=4");
  setEntries({entryWith(cart())});
  fake::javaClass* const thread = vm.classNamed("java.lang.Thread");
  thread->initialized = false;
  vm.on("GetFieldID", [&](const fake::call& made) {
    EXPECT_TRUE(made.name != "threadLocals" || thread->initialized) << "this would wait";
  });
  vm.on("FindClass", [&] { thread->initialized = true; });  // as the VM's own class always is
  EXPECT_EQ(section() + "%2C",
            objectEntry("ThreadLocals0", objectEntry("value", entry("items", 4, "2"))));
}

TEST_F(threadLocals, theSectionLosesItsLastThreeCharacters) {
  begin(kThreadLocals);
  setEntries({entryWith(nullptr)});
  EXPECT_EQ(section(), "!%23ThreadLocals0%3A10%3Avalue%3A10%3ANULL%2C!%23");
}

TEST_F(threadLocals, valuesAreNotExpandedAtFirst) {
  begin(kThreadLocals);
  setEntries({entryWith(cart())});
  EXPECT_EQ(section() + "%2C", objectEntry("ThreadLocals0", nullField("value")));
}

TEST_F(threadLocals, typesOneAndTwoDoNotExpandThem) {
  begin(kThreadLocals, "captureObjType=3,captureObjDepth=5");
  setEntries({entryWith(cart())});
  EXPECT_EQ(section() + "%2C", objectEntry("ThreadLocals0", nullField("value")));
}

TEST_F(threadLocals, allTypesExpandThem) {
  begin(kThreadLocals, "captureObjType=7");
  setEntries({entryWith(cart())});
  EXPECT_EQ(section() + "%2C",
            objectEntry("ThreadLocals0", objectEntry("value", entry("items", 4, "2"))));
}

TEST_F(threadLocals, aFullTableIsWrittenWhole) {
  begin(kThreadLocals);
  setEntries(std::vector<fake::object*>(64, entryWith(nullptr)));
  std::string expected;
  for (int i = 0; i < 64; ++i) {
    expected += objectEntry("ThreadLocals" + std::to_string(i), nullField("value"));
  }
  EXPECT_EQ(section() + "%2C", expected);
}

TEST_F(threadLocals, aTableWithoutEntriesGivesAnEmptySection) {
  begin(kThreadLocals, "logLevel=4");
  setEntries({nullptr, nullptr});
  EXPECT_EQ(section(), "");
  EXPECT_THAT(errors(), ElementsAre("FQM :- a.A.m()"));
  setEntries({});
  EXPECT_EQ(section(), "");
}

TEST_F(threadLocals, onlyTheTopFrameHasThem) {
  begin(kThreadLocals);
  setEntries({entryWith(nullptr)});
  const std::vector<frameSections> frames =
      framesIn(recordOf({frameOf("a.A.m"), frameOf("b.B.n")}));
  ASSERT_EQ(frames.size(), 2U);
  EXPECT_NE(frames[0].threadLocals, "");
  EXPECT_EQ(frames[1].threadLocals, "");
}

TEST_F(threadLocals, framesWithoutOtherValuesHaveThem) {
  begin(kThreadLocals);
  setEntries({entryWith(nullptr)});
  EXPECT_NE(topOf({frameOf("com.sun.proxy.Proxy.m")}).threadLocals, "");
}

TEST_F(threadLocals, theyAreNotReadUnlessAskedFor) {
  begin({.methodArguments = true});
  setEntries({entryWith(nullptr)});
  vm.resetCalls();
  EXPECT_EQ(section(), "");
  EXPECT_EQ(vm.calls("GetObjectArrayElement"), 0U);
}

TEST_F(threadLocals, threadsOfADerivedClassHaveThem) {
  begin(kThreadLocals);
  setEntries({entryWith(nullptr)});
  thread()->type = vm.makeClass("com.example.Worker", thread()->type);
  EXPECT_EQ(section() + "%2C", objectEntry("ThreadLocals0", nullField("value")));
}

// --- What can be missing.

class missingThreadLocals : public threadLocals {
 protected:
  // The errors of a record whose section is empty, at level 1 and at level 0.
  std::vector<std::string> errorsAtLevel1() {
    agent::twAprLib::setLevel(1);
    EXPECT_EQ(section(), "");
    std::vector<std::string> said = errors();
    agent::twAprLib::setLevel(0);
    EXPECT_EQ(section(), "");
    EXPECT_EQ(errors(), said) << "logged at level 0";
    return said;
  }
  // Fails calls of a function that are made while the section is read: after the method's name.
  void failInside(const char* function, fake::failure how) {
    vm.on("GetLineNumberTable", [this, function, how] {
      vm.succeed(function);
      vm.fail(function, how);
    });
  }
};

TEST_F(missingThreadLocals, aThreadWithoutThreadLocalsHasAnEmptySection) {
  begin(kThreadLocals);
  EXPECT_THAT(errorsAtLevel1(), ElementsAre("Unable to get threadmap object"));
  agent::twAprLib::setLevel(1);
  section();
  EXPECT_EQ(log().back().function, "exceptionProfiler::getThreadLocalVars");
}

TEST_F(missingThreadLocals, withoutAThread) {
  begin(kThreadLocals, "logLevel=1");
  vm.native([&](JNIEnv* jni) {
    thread()->setFrames({frameOf("a.A.m")});
    // A null thread stands for the current one, which has a stack of its own.
    vm.currentThread()->setFrames({frameOf("b.B.n")});
    agent::exceptionProfiler::ExceptionCallback(vm.jvmti(), jni, nullptr, nullptr, 0,
                                                vm.ref(vm.makeObject(kFailure)), nullptr, 0);
  });
  EXPECT_THAT(errors(), ElementsAre("Unable to get Exception thread"));
  ASSERT_EQ(deliveries().size(), 1U);
  EXPECT_EQ(deliveries()[0].record, "b.B.n(B.java:42)%40%41%42%43%44");
}

TEST_F(missingThreadLocals, withoutTheProfiler) {
  begin(kThreadLocals, "logLevel=1");
  vm.on("GetLineNumberTable", [this] { unload(); });
  EXPECT_EQ(section(), "") << "the record under way is still delivered";
  EXPECT_THAT(errors(), ElementsAre("Unable to get Exception profiler"));
}

TEST_F(missingThreadLocals, withoutTheClassOfTheThread) {
  begin(kThreadLocals);
  failInside("GetObjectClass", {.times = 1});
  EXPECT_THAT(errorsAtLevel1(), ElementsAre("Unable to get Exception thread class"));
}

TEST_F(missingThreadLocals, withoutTheFieldOfTheThread) {
  begin(kThreadLocals);
  vm.fail("GetFieldID", {.name = "threadLocals", .throwing = true});
  EXPECT_THAT(errorsAtLevel1(), ElementsAre("Unable to get field id for thread class"));
}

TEST_F(missingThreadLocals, withoutTheClassOfTheMap) {
  begin(kThreadLocals);
  setEntries({entryWith(nullptr)});
  failInside("GetObjectClass", {.from = 2, .times = 1});
  EXPECT_THAT(errorsAtLevel1(), ElementsAre("Unable to get threadmap class"));
}

TEST_F(missingThreadLocals, withoutTheFieldOfTheMap) {
  begin(kThreadLocals);
  setEntries({entryWith(nullptr)});
  vm.fail("GetFieldID", {.name = "table", .throwing = true});
  EXPECT_THAT(errorsAtLevel1(), ElementsAre("Unable to get field id"));
}

TEST_F(missingThreadLocals, withoutATable) {
  begin(kThreadLocals);
  setTable(nullptr);
  EXPECT_THAT(errorsAtLevel1(), ElementsAre("Unable to get entry array"));
}

TEST_F(threadLocals, anElementThatCannotBeReadIsSkipped) {
  begin(kThreadLocals);
  setEntries({entryWith(nullptr), entryWith(nullptr), entryWith(nullptr)});
  vm.fail("GetObjectArrayElement", {.from = 2, .times = 1, .throwing = true});
  EXPECT_EQ(section() + "%2C", objectEntry("ThreadLocals0", nullField("value")) +
                                   objectEntry("ThreadLocals2", nullField("value")));
}

TEST_F(threadLocals, anEntryThatCannotBeReadKeepsItsTextSoFarAndTheRest) {
  begin(kThreadLocals);
  setEntries({entryWith(nullptr), entryWith(nullptr)});
  vm.fail("GetClassFields", {.times = 1});
  EXPECT_EQ(section() + "%2C",
            objectEntry("ThreadLocals0", "") + objectEntry("ThreadLocals1", nullField("value")));
}

TEST_F(missingThreadLocals, whatIsThrownInsideEndsTheSectionOnly) {
  begin(kThreadLocals, "logLevel=1");
  setEntries({entryWith(nullptr), entryWith(nullptr)});
  int elements = 0;
  vm.on("GetObjectArrayElement", [&elements] {
    if (++elements % 2 == 0) {
      throw std::bad_alloc();
    }
  });
  EXPECT_EQ(section() + "%2C", objectEntry("ThreadLocals0", nullField("value")));
  EXPECT_THAT(errors(),
              ElementsAre("Exception occured in  exceptionprofiler : getThreadLocalVars"));
  agent::twAprLib::setLevel(0);
  EXPECT_EQ(section() + "%2C", objectEntry("ThreadLocals0", nullField("value")));
  EXPECT_EQ(errors().size(), 1U);
}

}  // namespace
