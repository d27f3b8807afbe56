// What tests of the whole allocation profile share: its natives, and allocations that it samples.
#pragma once

#include <com_korvane_twutils_nativeagent_AgentAllocations.h>

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "agentTest.h"
#include "allocations/allocationSettings.h"

#define TW_ALLOCATIONS(method) Java_com_korvane_twutils_nativeagent_AgentAllocations_##method

namespace test {

// The profile of the process. What its last session knows of classes stays.
class allocationProfileTest : public agentTest {
 protected:
  allocationProfileTest() { load("logLevel=4"); }

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
  std::string start(jlong intervalBytes, jint liveSamples) {
    return vm.native([&](JNIEnv* jni) {
      return takeText(jni, TW_ALLOCATIONS(start)(jni, nullptr, intervalBytes, liveSamples));
    });
  }
  std::string start() { return start(kInterval, agent::allocationSettings::kFewestSamples); }
  bool isRunning() {
    return vm.native(
        [&](JNIEnv* jni) { return TW_ALLOCATIONS(isRunning)(jni, nullptr) != JNI_FALSE; });
  }
  bool stop(bool afterCollection = false) {
    return vm.native([&](JNIEnv* jni) {
      return TW_ALLOCATIONS(stop)(jni, nullptr, afterCollection ? JNI_TRUE : JNI_FALSE) !=
             JNI_FALSE;
    });
  }
  std::string snapshot(const std::string& path, bool afterCollection) {
    return vm.native([&](JNIEnv* jni) {
      return takeText(jni, TW_ALLOCATIONS(snapshot)(jni, nullptr, vm.ref(vm.makeString(path)),
                                                    afterCollection ? JNI_TRUE : JNI_FALSE));
    });
  }
  std::string snapshotPath() const { return folder() / "allocations.json"; }
  nlohmann::json written() const { return nlohmann::json::parse(readFile(snapshotPath())); }
  nlohmann::json snapshot(bool afterCollection = false) {
    EXPECT_EQ(snapshot(snapshotPath(), afterCollection), "");
    return written();
  }
  bool reportAtEnd(bool isEnding) {
    return vm.native([&](JNIEnv* jni) {
      return TW_ALLOCATIONS(reportAtEnd)(jni, nullptr, vm.ref(vm.makeString(snapshotPath())),
                                         isEnding ? JNI_TRUE : JNI_FALSE) != JNI_FALSE;
    });
  }
  void shutdownBegins(bool afterCollection) {
    vm.native([&](JNIEnv* jni) {
      TW_ALLOCATIONS(shutdownBegins)(jni, nullptr, afterCollection ? JNI_TRUE : JNI_FALSE);
    });
  }
  void leaveOut(bool isLeftOut) {
    vm.native([&](JNIEnv* jni) {
      TW_ALLOCATIONS(leaveOut)(jni, nullptr, isLeftOut ? JNI_TRUE : JNI_FALSE);
    });
  }

  // A sampled allocation. One that is not kept goes with the next collection.
  fake::object* allocate(fake::javaClass* cls, bool isKept, jlong size = kSize) {
    fake::object* const made = vm.makeObject(cls);
    made->reachable = isKept;
    EXPECT_TRUE(vm.sampledAllocation(worker, made, size));
    return made;
  }
  // Whether a profile saw one.
  bool isSampled() { return vm.sampledAllocation(worker, vm.makeObject(session), kSize); }

  // The only site of that class; null when there is none.
  static nlohmann::json siteOf(const nlohmann::json& report, std::string_view cls) {
    nlohmann::json found;
    for (const nlohmann::json& each : report.at("sites")) {
      if (each.at("class") == cls) {
        EXPECT_TRUE(found.is_null()) << "more than one " << cls;
        found = each;
      }
    }
    return found;
  }
  static int samplesOf(const nlohmann::json& amounts) { return amounts.at("samples").get<int>(); }

  static constexpr jlong kInterval = 1024;
  static constexpr jlong kSize = 1024;

  fake::javaThread* worker = vm.makeThread("worker-1");
  fake::javaClass* session = vm.makeClass("com.example.Session");

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
