// The memory leak profiler: objects are tagged on request with the garbage-collection generation
// they were tagged in.
//
// When a session is stopped, the objects that still carry a tag are counted by class and
// generation.
//
// gc_finish runs on the VM's threads, setObjectTag on any Java thread; the rest are control calls.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "agent/profiler.h"
#include "memory/heapScan.h"
#include "memory/instanceTags.h"
#include "support/annotations.h"

namespace agent {

// The settings of a memory session, as they arrive from Java.
struct MemorySessionConfig : sessionSettings {
  std::int32_t memoryLeakEnable = 0;  // Deliberate: taken and logged, and nothing else.
  std::int64_t duration = 0;
  std::int32_t sessionId = 0;
  std::string sessionName;
  std::int32_t topNClassCount = 0;
  classFilters filters;
};

// The JSON text of a report of these classes, in the order in which the queue yields them.
std::string memoryReportOf(std::int32_t sessionId, classQueue chosen);

class memoryProfiler : public profiler {
 public:
  memoryProfiler() : profiler(kMemoryStopped) {}

  void publish(const std::shared_ptr<profiler>& self) override;
  void withdraw() override;
  void setEventCallbacks() override;
  void addCapabilities() override;
  // Takes a MemorySessionConfig. Deliberate: gcCounter goes on.
  std::int32_t setProfileData(std::unique_ptr<sessionSettings> settings) override;
  void setProfilerEventMode(bool enable) override;
  // Collects the objects that carry a tag of an earlier generation, chooses the classes to report
  // and writes the report.
  std::int32_t scanJavaHeap(JNIEnv* jni, jstring path) override;
  // Writes the report of the classes that the last scan has chosen; 0 when it cannot be written.
  std::int32_t dumpJsonObjectFromMapDS(JNIEnv* jni, jstring path) override;

  // Has scans ask for the objects of all generations in one query, without a walk over the heap
  // before. By Agent_OnLoad only.
  void scanInOneQuery() { scansInOneQuery_ = true; }

  // Does nothing; it stands in the table for the lock profiler's while memory sessions run.
  static void JNICALL VMInit(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread);
  // Counts a finished collection. Makes no JNI or JVMTI call: the VM allows none here.
  static void JNICALL gc_finish(jvmtiEnv* jvmti);

  // Tags `object` with the current generation; in generation 0 the tag is taken away. Nothing
  // without a JVMTI environment.
  void setObjectTag(JNIEnv* jni, jobject object) const;

  // Gives instances of these classes the tag of the current generation; see agent::tagInstances.
  // None without a JVMTI environment.
  std::int32_t tagInstances(JNIEnv* jni, jobjectArray classes,
                            std::span<instanceTally> tallies) const;
  // Counts the tagged ones; see agent::countTaggedInstances. False without a JVMTI environment.
  bool countTaggedInstances(JNIEnv* jni, jobjectArray classes,
                            std::span<instanceTally> tallies) const;

  // Garbage collections finished since the first session was configured.
  std::uint32_t gcCounter() const { return gcCounter_.load(); }
  void setGcCounter(std::uint32_t value) { gcCounter_.store(value); }

 private:
  std::uint32_t endOfGenerations() const;
  void addGenerationsMet(jvmtiEnv* jvmti, const taggedObjects& tagged, generationScan& scan) const;
  void addGenerationsAtOnce(jvmtiEnv* jvmti, generationScan& scan) const;

  // Of the registry that made the profiler; tags are set too often to ask it.
  std::atomic<jvmtiEnv*> jvmti_{nullptr};
  std::atomic<std::uint32_t> gcCounter_{0};
  bool scansInOneQuery_ = false;
  std::atomic<const MemorySessionConfig*> config_{nullptr};  // the newest of settings_
  support::mutex settingsMutex_;
  // Deliberate: settings of earlier sessions stay: a handler may still be reading them.
  std::vector<std::unique_ptr<MemorySessionConfig>> settings_ GUARDED_BY(settingsMutex_);
  support::mutex queueMutex_;
  classQueue classQueue_ GUARDED_BY(queueMutex_);  // what the last scan has chosen
};

// The memory profiler of the process, or none. Any thread; never waits for a control call.
std::shared_ptr<memoryProfiler> getMemoryProfiler();

}  // namespace agent
