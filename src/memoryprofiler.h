// The memory leak profiler: objects are tagged on request with the garbage-collection generation
// they were tagged in.
//
// gc_finish runs on the VM's threads, setObjectTag on any Java thread; the rest are control calls.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "profiler.h"
#include "support/annotations.h"

namespace agent {

// The settings of a memory session, as they arrive from Java.
struct MemorySessionConfig : sessionSettings {
  std::int32_t memoryLeakEnable = 0;
  std::int64_t duration = 0;
  std::int32_t sessionId = 0;
  std::string sessionName;
  std::int32_t topNClassCount = 0;
  // Free texts; a class or package matches one when its dotted name occurs anywhere in it.
  std::string excludeClasses;
  std::string excludePackages;
  std::string includeClasses;
  std::string includePackages;
};

class memoryProfiler : public profiler {
 public:
  memoryProfiler() : profiler(kMemoryStopped) {}

  void setEventCallbacks() override;
  void addCapabilities() override;
  // Takes a MemorySessionConfig; gcCounter goes on.
  std::int32_t setProfileData(std::unique_ptr<sessionSettings> settings) override;
  void setProfilerEventMode(bool enable) override;

  // Counts a finished collection. Makes no JNI or JVMTI call: the VM allows none here.
  static void JNICALL gc_finish(jvmtiEnv* jvmti);

  // Tags `object` with the current generation; in generation 0 the tag is taken away.
  void setObjectTag(jvmtiEnv* jvmti, JNIEnv* jni, jobject object) const;

  // Garbage collections finished since the first session was configured.
  std::uint32_t gcCounter() const { return gcCounter_.load(); }
  void setGcCounter(std::uint32_t value) { gcCounter_.store(value); }

 private:
  std::atomic<std::uint32_t> gcCounter_{0};
  std::atomic<const MemorySessionConfig*> config_{nullptr};  // the newest of settings_
  support::mutex settingsMutex_;
  // Settings of earlier sessions stay: a handler may still be reading them.
  std::vector<std::unique_ptr<MemorySessionConfig>> settings_ GUARDED_BY(settingsMutex_);
};

}  // namespace agent
