// What the agent holds under workloads that bring something new with every event: beyond the limits
// of a session nothing is added, and where there is no limit each new thing costs what
// docs/bounds.md says. Every case prints what it measured.
#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "../agent/exceptionTest.h"
#include "../agent/lockTest.h"
#include "../agent/memoryTest.h"
#include "fakevm/agentCode.h"

#define TW_NATIVE(method) Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_##method

// --- Bytes that the agent's code has allocated and nobody has freed ----------------------------

namespace {

std::atomic<std::size_t> heldBytes{0};
std::atomic<std::size_t> mostBytes{0};  // that were held at once

// Stands before every block of memory.
struct alignas(std::max_align_t) blockHead {
  std::size_t agentsBytes;
};

void* allocate(std::size_t size) {
  auto* const head = static_cast<blockHead*>(std::malloc(sizeof(blockHead) + size));
  if (head == nullptr) {
    throw std::bad_alloc();
  }
  head->agentsBytes = fake::agentCode::runs() ? size : 0;
  const std::size_t now = heldBytes += head->agentsBytes;
  if (now > mostBytes) {
    mostBytes = now;
  }
  return head + 1;
}

void release(void* memory) {
  if (memory == nullptr) {
    return;
  }
  blockHead* const head = static_cast<blockHead*>(memory) - 1;
  heldBytes -= head->agentsBytes;
  std::free(head);
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void operator delete(void* memory) noexcept {
  release(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  release(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  release(memory);
}

namespace {

using namespace test;

constexpr int kLimit = 100;    // of locks, of threads of a lock, of owners
constexpr int kFirst = 300;    // new things until the limits are surely met
constexpr int kSecond = 3000;  // and further ones

struct growth {
  std::size_t first;   // bytes added by the first kFirst new things
  std::size_t second;  // bytes added by the kSecond after them
};

// Brings new things up, numbered from 0, and prints what each step left.
growth grow(const char* what, const std::function<void(int)>& bring) {
  const std::size_t before = heldBytes;
  for (int i = 0; i < kFirst; ++i) {
    bring(i);
  }
  const std::size_t between = heldBytes;
  for (int i = kFirst; i < kFirst + kSecond; ++i) {
    bring(i);
  }
  const std::size_t after = heldBytes;
  const growth found{between - before, after < between ? 0 : after - between};
  std::printf("measured: %s: %d hold %zu bytes, %d more add %zu (%zu each)\n", what, kFirst,
              found.first, kSecond, found.second, found.second / kSecond);
  return found;
}

lockSession limited() {
  lockSession session;
  session.topLocks = kLimit;
  session.locks = kLimit;
  session.threadsPerLock = kLimit;
  session.threads = kLimit;
  return session;
}

std::string numbered(const char* name, int number) {
  return name + std::to_string(number);
}

// --- Locks -------------------------------------------------------------------------------------

class lockBounds : public lockTest {
 protected:
  fake::object* lock = vm.makeObject("a.Lock");
  fake::javaThread* thread = vm.makeThread("T");
};

TEST_F(lockBounds, aNewClassAndLockEachTimeStopAtTheLimitOfLocks) {
  load();
  beginDetail({lock}, limited());
  const growth found = grow("locks, each of a new class that goes with it", [&](int i) {
    fake::javaClass* const cls = vm.makeClass(numbered("a.b.Lock", i));
    contend(thread, vm.makeObject(cls));
    vm.unload(cls);
  });
  // The caches of classes drop those that are gone when they have doubled.
  EXPECT_LE(found.second, 32U * 1024);
}

TEST_F(lockBounds, aNewLockEachTimeStopsAtTheLimitInTheSummaryToo) {
  load();
  beginSummary(limited());
  const growth found =
      grow("locks of one class", [&](int) { contend(thread, vm.makeObject("a.Lock")); });
  EXPECT_EQ(found.second, 0U);
  EXPECT_EQ(lockCount(), std::size_t{kLimit});
}

TEST_F(lockBounds, aNewThreadNameEachTimeStopsAtTheLimitOfThreads) {
  load();
  beginDetail({lock}, limited());
  const growth found = grow("threads on a lock", [&](int i) {
    contend(vm.makeThread(numbered("some thread of the pool ", i)), lock);
  });
  EXPECT_EQ(found.second, 0U);
}

TEST_F(lockBounds, aNewOwnerEachTimeStopsAtTheLimitOfOwners) {
  load();
  beginDetail({lock}, limited());
  const growth found = grow("owners", [&](int i) {
    vm.setOwner(lock, vm.makeThread(numbered("some owner of the pool ", i)));
    contend(thread, lock);
  });
  EXPECT_LE(found.second, 64U);  // the newest owner's name is kept besides, and grows by digits
}

TEST_F(lockBounds, aNewStackEachTimeIsKeptUntilTheNextSession) {
  constexpr int kFrames = 10;
  load();
  beginDetail({lock}, limited());
  std::vector<fake::frame> stack;
  for (int i = 1; i < kFrames; ++i) {
    stack.push_back({.code = vm.makeMethod("com.example.shop.Shop", numbered("method", i))});
  }
  const growth found = grow("stacks of 10 frames on one thread", [&](int i) {
    std::vector<fake::frame> frames = stack;
    frames.push_back({.code = vm.makeMethod("com.example.shop.Shop", numbered("entry", i))});
    thread->setFrames(std::move(frames));
    contend(thread, lock);
  });
  EXPECT_LE(found.second / kSecond, 1024U);

  const std::size_t before = heldBytes;
  stopDetail();
  stopProfiling();
  std::printf("measured: the stack file takes %zu bytes with it\n", before - heldBytes);
  const std::size_t between = heldBytes;
  startProfiling(limited());
  std::printf("measured: the next session takes %zu more\n", between - heldBytes);
  EXPECT_LE(heldBytes, before - (found.first + found.second) * 9 / 10);
}

TEST_F(lockBounds, sessionAfterSessionHoldsWhatOneDoes) {
  load();
  const auto session = [&](int i) {
    beginDetail({lock}, limited());
    contend(vm.makeThread(numbered("T", i % 10)), lock);
    stopDetail();
    stopProfiling();
  };
  for (int i = 0; i < 10; ++i) {
    session(i);
  }
  const std::size_t before = heldBytes;
  for (int i = 0; i < 100; ++i) {
    session(i);
  }
  std::printf("measured: 100 sessions more: %zu bytes before, %zu after\n", before,
              heldBytes.load());
  EXPECT_LE(heldBytes, before + 1024);
}

// --- Exceptions --------------------------------------------------------------------------------

class exceptionBounds : public exceptionTest {
 protected:
  // That what is built for a record is less than so many times its budget.
  void takesLessThan(std::size_t times);
};

TEST_F(exceptionBounds, aNewClassEachTimeKeepsItsName) {
  begin({.rate = 5});
  const std::vector<fake::frame> stack{frameOf("a.B.run")};
  thread()->setFrames(stack);
  const growth found = grow("exceptions, each of a new class that goes with it", [&](int i) {
    fake::javaClass* const cls = vm.makeClass(numbered("com.example.shop.Failure", i));
    vm.exception(thread(), stack[0].code, 0, vm.makeObject(cls));
    vm.unload(cls);
  });
  EXPECT_LE(found.second / kSecond, 256U);
}

// What is built for a record, next to which its String may take twice as much in Java: a character
// of one byte can be one of two there.
TEST_F(exceptionBounds, aRecordTakesLessThanTwiceItsBudget) {
  takesLessThan(2);
}

TEST_F(exceptionBounds, aRecordWithPlacesTakesLessThanThreeTimesItsBudget) {
  takesPlaces = true;
  takesLessThan(3);
}

void exceptionBounds::takesLessThan(std::size_t times) {
  fake::javaClass* const colour = vm.makeClass("com.example.Colour");
  for (int i = 0; i < 40; ++i) {
    vm.setStatic(vm.makeField(colour, "C" + std::to_string(i), "Lcom/example/Colour;", 0x0008),
                 vm.makeObject(colour));
  }
  fake::object* const text =
      objectWith("a.T", {{"s", "Ljava/lang/String;", vm.makeString(std::string(2 << 20, 'x'))}});
  begin({.localVariables = true}, "captureObjDepth=5");
  // A long walk over objects might end early on a slow machine.
  for (const auto& [budget, value] : std::vector<std::pair<std::int32_t, fake::object*>>{
           {65'536, vm.makeObject(colour)}, {65'536, text}, {1 << 20, text}}) {
    exceptions()->recordBytes = budget;
    recordOf({frameOf("a.A.m")});
    const std::size_t before = heldBytes;
    mostBytes = before;
    const std::string record = recordOf({frameOf("a.A.m", {}, {{"v", "Lx/Y;", value}})});
    EXPECT_GT(record.size(), static_cast<std::size_t>(budget) * 9 / 10);
    EXPECT_LT(mostBytes - before, static_cast<std::size_t>(budget) * times);
    std::printf("measured: a record of %zu bytes, held at once: %zu bytes\n", record.size(),
                mostBytes - before);
  }
}

// --- Memory ------------------------------------------------------------------------------------

class memoryBounds : public memoryTest {
 protected:
  void startCounted(jstring text) {
    vm.native([&](JNIEnv* jni) {
      const fake::agentCode scope(true);
      TW_NATIVE(startMemoryLeaksProfileSession)
      (jni, nullptr, JNI_TRUE, 60, 7, text, -1, text, text, text, text);
    });
  }
};

TEST_F(memoryBounds, eachSessionKeepsItsSettings) {
  load();
  const jstring text = vm.ref(vm.makeString("com.example.shop.Session,com.example.shop.Cart"));
  const growth found = grow("memory sessions", [&](int) { startCounted(text); });
  EXPECT_GT(found.second, 0U);
  EXPECT_LE(found.second / kSecond, 1024U);
}

TEST_F(memoryBounds, aReportOfManyClassesLeavesNothing) {
  begin();
  for (int i = 0; i < kSecond; ++i) {
    tagged(numbered("com.example.Session", i));
  }
  collect();
  const jstring path = vm.ref(vm.makeString(reportPath()));
  const std::size_t before = heldBytes;
  vm.native([&](JNIEnv* jni) {
    const fake::agentCode scope(true);
    EXPECT_EQ(TW_NATIVE(stopMemoryLeaksProfileSession)(jni, nullptr, 7, path), 1);
  });
  EXPECT_EQ(classes().size(), std::size_t{kSecond});
  EXPECT_LE(heldBytes, before + 512) << "what became of it stays until the next report";
}

}  // namespace
