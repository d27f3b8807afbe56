// Counts of sites while many threads throw, and while they are written.
#include <atomic>
#include <memory>

#include "exceptionTest.h"
#include "exceptions/siteCounts.h"
#include "exceptions/siteReport.h"

namespace {

using namespace test;
using nlohmann::json;

constexpr int kThreads = 8;
constexpr int kRounds = 100;

class siteCountThreads : public exceptionTest {
 protected:
  // Has threads run `body` to its end.
  void onThreads(const std::function<void(fake::javaThread*)>& body) {
    std::vector<std::unique_ptr<fake::attachedThread>> all;
    for (int i = 0; i < kThreads; ++i) {
      fake::javaThread* const java = vm.makeThread("thrower");
      all.push_back(std::make_unique<fake::attachedThread>(vm, java, [=](JNIEnv*) { body(java); }));
    }
  }
  static json report() {
    return json::parse(agent::siteReport(agent::siteCounts::ofProcess(), "thrown", 1));
  }
};

TEST_F(siteCountThreads, eachThrowIsCountedOnce) {
  begin({.rate = 1});
  std::vector<fake::frame> frames;
  for (int i = 0; i < 20; ++i) {
    frames.push_back(frameOf("a.A.m" + std::to_string(i)));
  }
  fake::object* const thrown = vm.makeObject(kFailure);
  onThreads([&](fake::javaThread* java) {
    for (int round = 0; round < kRounds; ++round) {
      for (const fake::frame& each : frames) {
        java->setFrames({each});
        vm.exception(java, each.code, each.location, thrown);
      }
    }
  });
  const json read = report();
  ASSERT_EQ(read["sites"].size(), frames.size());
  for (const json& row : read["sites"]) {
    EXPECT_EQ(row["thrown"], kThreads * kRounds);
    EXPECT_EQ(row["uncaught"], kThreads * kRounds);
  }
  EXPECT_EQ(read["total"]["recorded"], 1);
}

TEST_F(siteCountThreads, waysToASiteCrowdOutEachOtherAndNothingIsLost) {
  begin({.rate = 1});
  const fake::frame frame = frameOf("a.A.m");
  frame.code->lines = {{0, 42}};
  fake::object* const thrown = vm.makeObject(kFailure);
  constexpr int kPlaces = 6'000;
  onThreads([&](fake::javaThread* java) {
    fake::frame mine = frame;
    for (mine.location = 0; mine.location < kPlaces; ++mine.location) {
      java->setFrames({mine});
      vm.exception(java, mine.code, mine.location, thrown);
    }
  });
  const json read = report();
  ASSERT_EQ(read["sites"].size(), 1U);
  EXPECT_EQ(read["sites"][0]["thrown"], kThreads * kPlaces);
}

TEST_F(siteCountThreads, objectsThatAreThrownAgainByManyHaveOneFateEach) {
  begin();
  exceptions()->recordEachOnce(true);
  const fake::frame frame = frameOf("a.A.m");
  onThreads([&](fake::javaThread* java) {
    for (int round = 0; round < kRounds; ++round) {
      fake::object* const thrown = vm.makeObject(kFailure);
      java->setFrames({frame});
      vm.exception(java, frame.code, frame.location, thrown);
      vm.exception(java, frame.code, frame.location, thrown);
      if (round % 40 == 39) {
        exceptions()->recordEachOnce(false);
        exceptions()->recordEachOnce(true);
      }
    }
  });
  const json total = report()["total"];
  EXPECT_EQ(total["thrown"], 2 * kThreads * kRounds);
  EXPECT_EQ(total["recorded"].get<int>() + total["rethrown"].get<int>(), 2 * kThreads * kRounds);
  EXPECT_GT(total["rethrown"], kThreads * kRounds / 2);
}

TEST_F(siteCountThreads, areReadWhileOthersThrow) {
  begin({.rate = 1});
  fake::object* const thrown = vm.makeObject(kFailure);
  std::vector<fake::frame> frames;
  for (int i = 0; i < 200; ++i) {
    frames.push_back(frameOf("a.A.m" + std::to_string(i)));
  }
  std::atomic<bool> enough = false;
  std::vector<std::unique_ptr<fake::attachedThread>> all;
  for (int i = 0; i < kThreads; ++i) {
    fake::javaThread* const java = vm.makeThread("thrower");
    all.push_back(std::make_unique<fake::attachedThread>(vm, java, [&, java](JNIEnv*) {
      do {
        for (const fake::frame& each : frames) {
          java->setFrames({each});
          vm.exception(java, each.code, each.location, thrown);
        }
      } while (!enough);
    }));
  }
  for (int i = 0; i < 20; ++i) {
    const json read = report();
    for (const json& row : read["sites"]) {
      EXPECT_GE(row["thrown"],
                row["overRate"].get<std::uint64_t>() + row["recorded"].get<std::uint64_t>());
    }
  }
  enough = true;
  all.clear();
  const json total = report()["total"];
  EXPECT_EQ(total["thrown"], total["overRate"].get<std::uint64_t>() + 1);
}

}  // namespace
