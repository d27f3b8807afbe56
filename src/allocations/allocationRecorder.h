// What handlers do with a sampled allocation: its class, thread and stack go into a queue, with a
// weak reference on the object.
#pragma once

#include <jvmti.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "allocations/sampleQueue.h"
#include "instruments/handlerGate.h"
#include "instruments/nameTable.h"
#include "support/annotations.h"

namespace agent {

// What an allocation of `size` bytes stands for when one of `interval` bytes is sampled on average:
// size / (1 - e^(-size/interval)).
double estimatedBytes(std::int64_t size, std::int64_t interval);

class allocationRecorder {
 public:
  static constexpr std::size_t kMostClasses = 16'384;
  static constexpr std::size_t kMostThreads = 4096;

  // Samples that were not kept, and what the handlers cost.
  struct counts {
    std::atomic<std::uint64_t> samples{0};  // seen
    std::atomic<std::uint64_t> nanos{0};
    std::atomic<std::uint64_t> lost{0};  // the queue was full
    std::atomic<std::uint64_t> lostBytes{0};
    std::atomic<std::uint64_t> failed{0};   // the VM did not answer
    std::atomic<std::uint64_t> leftOut{0};  // of threads whose allocations do not count
  };

  // `wake` is called when the queue should be emptied soon; any thread.
  explicit allocationRecorder(std::function<void()> wake) : wake_(std::move(wake)) {}

  // All is as at first. No handler runs. `virtualThread` is the class of virtual threads, or null.
  void begin(jclass virtualThread, std::int64_t interval) EXCLUDES(namesMutex_);
  void end() { isOn_.store(false); }
  bool isOn() const { return isOn_.load(); }

  // For a handler of SampledObjectAlloc. Nothing is thrown, and no Java exception is left.
  void take(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object, jclass cls, jlong size);

  // Whether allocations of the calling thread are skipped from now on.
  static void leaveOutThisThread(bool isLeftOut);

  void setInterval(std::int64_t bytes) { interval_.store(bytes); }
  std::int64_t interval() const { return interval_.load(); }

  sampleQueue& queue() { return queue_; }
  const instruments::handlerGate& gate() const { return gate_; }
  const counts& counted() const { return counts_; }
  void countFailure() { counts_.failed.fetch_add(1); }

  // Texts of the ids in samples; "" for 0.
  std::string className(std::uint32_t id) const EXCLUDES(namesMutex_);
  std::string threadName(std::uint32_t id) const EXCLUDES(namesMutex_);
  struct droppedNames {
    std::uint64_t classes = 0;
    std::uint64_t threads = 0;
  };
  droppedNames dropped() const EXCLUDES(namesMutex_);

 private:
  std::uint32_t classOf(jvmtiEnv* jvmti, jclass cls) EXCLUDES(namesMutex_);
  std::uint32_t threadOf(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, std::int64_t now)
      EXCLUDES(namesMutex_);
  void queue(jvmtiEnv* jvmti, JNIEnv* jni, const takenSample& sample);

  const std::function<void()> wake_;
  std::atomic<bool> isOn_{false};
  std::atomic<std::uint32_t> session_{0};  // names of threads are kept for one
  std::atomic<std::int64_t> interval_{0};
  jclass virtualThread_ = nullptr;  // set while no handler runs
  instruments::handlerGate gate_;
  counts counts_;
  sampleQueue queue_;

  mutable support::mutex namesMutex_;
  instruments::nameTable classes_ GUARDED_BY(namesMutex_){kMostClasses};
  instruments::nameTable threads_ GUARDED_BY(namesMutex_){kMostThreads};
};

}  // namespace agent
