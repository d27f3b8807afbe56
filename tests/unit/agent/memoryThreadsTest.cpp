// Tagging from many threads, collections meanwhile, and scans that run into both. Meant for a
// thread sanitizer as much as for what is counted here.
#include <array>
#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "memoryTest.h"

namespace {

using namespace test;

constexpr int kThreads = 8;
constexpr int kObjects = 100;  // of each thread
constexpr jlong kSize = 16;

class memoryThreads : public memoryTest {
 protected:
  // Runs `body(index)` on kThreads attached threads at once and waits for them.
  void onThreads(const std::function<void(int)>& body) {
    std::latch ready(kThreads);
    std::vector<std::unique_ptr<fake::attachedThread>> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.push_back(
          std::make_unique<fake::attachedThread>(vm, "T" + std::to_string(i), [&, i](JNIEnv*) {
            ready.arrive_and_wait();
            body(i);
          }));
    }
    for (const auto& each : threads) {
      each->join();
    }
  }

  // Objects of a class for each thread, "p.T0" and so on.
  void makeObjects() {
    for (int i = 0; i < kThreads; ++i) {
      for (int n = 0; n < kObjects; ++n) {
        objects_[static_cast<std::size_t>(i)].push_back(object("p.T" + std::to_string(i), kSize));
      }
    }
  }

  std::uint64_t totalCount(const std::string& name) {
    return reported(name).value("totalCount", std::uint64_t{0});
  }

  std::array<std::vector<fake::object*>, kThreads> objects_;
};

TEST_F(memoryThreads, everyObjectThatAnyThreadTaggedIsReported) {
  begin();
  makeObjects();
  onThreads([&](int i) {
    for (fake::object* const each : objects_[static_cast<std::size_t>(i)]) {
      tag(each);
    }
  });
  collect();
  EXPECT_EQ(stop(), 1);
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(totalCount("p.T" + std::to_string(i)), static_cast<std::uint64_t>(kObjects));
  }
}

// Whichever collection an object's tag falls between, the generations add up to all objects.
TEST_F(memoryThreads, objectsTaggedDuringCollectionsAreReportedOnce) {
  begin();
  makeObjects();
  std::atomic<bool> done{false};
  {
    fake::attachedThread collector(vm, "VM thread", [&](JNIEnv*) {
      do {
        collect();
      } while (!done);
    });
    onThreads([&](int i) {
      for (int round = 0; round < 3; ++round) {
        for (fake::object* const each : objects_[static_cast<std::size_t>(i)]) {
          tag(each);
        }
      }
    });
    done = true;
  }
  collect();
  EXPECT_EQ(stop(), 1);
  for (int i = 0; i < kThreads; ++i) {
    EXPECT_EQ(totalCount("p.T" + std::to_string(i)), static_cast<std::uint64_t>(kObjects));
  }
}

TEST_F(memoryThreads, collectionsOfManyThreadsAreAllCounted) {
  begin();
  onThreads([&](int) { collect(kObjects); });
  EXPECT_EQ(memory()->gcCounter(), static_cast<std::uint32_t>(1 + kThreads * kObjects));
}

// Reports are whole whatever happens meanwhile: no object is counted twice, none is made up.
TEST_F(memoryThreads, scansRunIntoTaggingAndCollections) {
  begin();
  makeObjects();
  std::atomic<int> busy{kThreads};
  fake::attachedThread taggers(vm, "taggers", [&](JNIEnv*) {
    onThreads([&](int i) {
      for (int round = 0; round < 5; ++round) {
        for (fake::object* const each : objects_[static_cast<std::size_t>(i)]) {
          tag(each);
        }
        collect();
      }
      --busy;
    });
  });
  do {
    EXPECT_EQ(start(), 1);
    EXPECT_EQ(stop(), 1);
    for (const std::string& name : classes()) {
      EXPECT_LE(totalCount(name), static_cast<std::uint64_t>(kObjects)) << name;
    }
  } while (busy > 0);
  taggers.join();
  start();
  collect();
  stop();
  EXPECT_EQ(classes().size(), static_cast<std::size_t>(kThreads));
}

TEST_F(memoryThreads, settingsMayBeReplacedWhileCollectionsReadThem) {
  begin();
  std::atomic<bool> done{false};
  fake::attachedThread collector(vm, "VM thread", [&](JNIEnv*) {
    while (!done) {
      collect();
    }
  });
  for (int id = 1; id <= 50; ++id) {
    EXPECT_EQ(start({.id = id}), 1);
  }
  done = true;
  collector.join();
  stop();
  EXPECT_EQ(report().at("sessionid"), 50);
}

// A tag or a collection that is under way while the agent is unloaded touches nothing freed.
TEST_F(memoryThreads, unloadMeetsTaggingAndCollections) {
  begin();
  makeObjects();
  const auto finish = vm.callbacks().GarbageCollectionFinish;
  std::atomic<int> under{0};
  fake::attachedThread users(vm, "users", [&](JNIEnv*) {
    onThreads([&](int i) {
      for (fake::object* const each : objects_[static_cast<std::size_t>(i)]) {
        tag(each);
        finish(vm.jvmti());
        ++under;
      }
    });
  });
  while (under < kThreads) {
    std::this_thread::yield();
  }
  unload();
  users.join();
  EXPECT_EQ(memory(), nullptr);
}

}  // namespace
