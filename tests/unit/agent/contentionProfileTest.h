// What tests of the whole contention profile share: its natives, and what became of its session.
#pragma once

#include <com_korvane_twutils_nativeagent_AgentContention.h>

#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "agentTest.h"
#include "classFileBuilder.h"
#include "contention/contentionProfile.h"
#include "contentionTest.h"

#define TW_CONTENTION(method) Java_com_korvane_twutils_nativeagent_AgentContention_##method

namespace test {

// The profile of the process. It keeps references to classes for good, and those of its last
// session.
class contentionProfileTest : public agentTest {
 protected:
  contentionProfileTest() { load("logLevel=4"); }

  void TearDown() override {
    stop();
    vm.runAgentThreads();
    unload();
    EXPECT_EQ(vm.memoryHeld(), 0U);
    EXPECT_EQ(vm.charactersHeld(), 0U);
    EXPECT_EQ(vm.localReferences(), 0U);
    EXPECT_EQ(vm.pendingException(), nullptr);
  }

  // The text for Java; empty for null.
  std::string start(const agent::contentionSettings& settings = {}) {
    return vm.native([&](JNIEnv* jni) {
      return takeText(jni, TW_CONTENTION(start)(jni, nullptr, settings.locks,
                                                settings.samplesPerSecond, settings.budgetPercent,
                                                settings.stuckMillis, settings.windowMillis));
    });
  }
  bool isRunning() {
    return vm.native(
        [&](JNIEnv* jni) { return TW_CONTENTION(isRunning)(jni, nullptr) != JNI_FALSE; });
  }
  bool stop() {
    return vm.native([&](JNIEnv* jni) { return TW_CONTENTION(stop)(jni, nullptr) != JNI_FALSE; });
  }
  std::string snapshot(const std::string& path) {
    return vm.native([&](JNIEnv* jni) {
      return takeText(jni, TW_CONTENTION(snapshot)(jni, nullptr, vm.ref(vm.makeString(path))));
    });
  }
  std::string snapshotPath() const { return folder() / "contention.json"; }
  nlohmann::json snapshot() {
    EXPECT_EQ(snapshot(snapshotPath()), "");
    return nlohmann::json::parse(readFile(snapshotPath()));
  }

  void block(fake::javaThread* thread, fake::object* by) {
    EXPECT_TRUE(vm.contendedEnter(thread, by));
    EXPECT_TRUE(vm.contendedEntered(thread, by));
  }

  // The classes that threads park in, as the JDK has them since 17.
  void loadParkClasses() {
    using namesOfMethods = std::vector<std::pair<std::string, std::string>>;
    const auto give = [&](fake::javaClass* cls, const namesOfMethods& methods) {
      classFileBuilder builder;
      for (const auto& [method, descriptor] : methods) {
        builder.method(method, descriptor, {});
      }
      cls->originalBytes = builder.build();
    };
    const std::string locks = "java.util.concurrent.locks.";
    const std::string queued = "(Ljava/util/concurrent/locks/AbstractQueued";
    give(vm.makeClass(locks + "LockSupport"),
         {{"setBlocker", "(Ljava/lang/Thread;Ljava/lang/Object;)V"},
          {"setCurrentBlocker", "(Ljava/lang/Object;)V"}});
    give(vm.makeClass(locks + "AbstractQueuedSynchronizer"),
         {{"acquire", queued + "Synchronizer$Node;IZZZJ)I"}});
    give(vm.makeClass(locks + "AbstractQueuedLongSynchronizer"),
         {{"acquire", queued + "LongSynchronizer$Node;JZZZJ)I"}});
    give(types.stampedLock, {{"acquireWrite", "(ZZJ)J"}, {"acquireRead", "(ZZJ)J"}});
  }

  const parkTypes types{vm};
  fake::javaThread* worker = vm.makeThread("worker-1");
  fake::object* lock = vm.makeObject("com.example.Stock");

 private:
  std::string takeText(JNIEnv* jni, jstring text) {
    if (text == nullptr) {
      return {};
    }
    std::string taken = static_cast<fake::javaString*>(vm.target(text))->text;
    jni->DeleteLocalRef(text);
    return taken;
  }
};

}  // namespace test
