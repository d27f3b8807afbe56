// The registry from many threads.
#include <atomic>
#include <latch>
#include <thread>

#include "agent/profilerRegistry.h"
#include "exceptions/exceptionprofiler.h"
#include "locks/mutexlockprofiler.h"
#include "memory/memoryprofiler.h"
#include "registryFixture.h"

using agent::getExceptionProfiler;
using agent::getMemoryProfiler;
using agent::getMutexProfiler;
using agent::getRegistry;

namespace {

using registry = test::registryTest;

// Handlers look profilers up while control calls make, switch and remove them.
TEST_F(registry, isReadWhileItChanges) {
  constexpr int kReaders = 8;
  constexpr int kChanges = 200;
  for (const std::int32_t kind : {0, 1, 2}) {
    getRegistry()->createProfiler(kind);
  }
  std::atomic<bool> done{false};
  std::latch start(kReaders + 1);
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([&] {
      start.arrive_and_wait();
      while (!done) {
        if (const auto found = getMutexProfiler()) {
          EXPECT_NE(found->store(), nullptr);
        }
        if (const auto found = getMemoryProfiler()) {
          EXPECT_EQ(found->gcCounter(), 0U);
        }
        if (const auto found = getExceptionProfiler()) {
          EXPECT_EQ(found->captureObjType, 3);
        }
      }
    });
  }
  start.arrive_and_wait();
  for (int i = 0; i < kChanges; ++i) {
    const std::int32_t kind = i % 3;
    getRegistry()->switchProfiler(kind, i % 2 == 0);
    getRegistry()->removeProfiler(kind);
    getRegistry()->createProfiler(kind);
  }
  done = true;
  for (std::thread& each : readers) {
    each.join();
  }
}

}  // namespace
