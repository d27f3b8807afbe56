#include "allocations/allocationRecorder.h"

#include <array>
#include <chrono>
#include <cmath>
#include <span>

#include "allocations/allocationNames.h"
#include "instruments/costAccount.h"
#include "support/heldClasses.h"
#include "support/jniRef.h"
#include "support/jvmtiRecords.h"
#include "support/text.h"

namespace agent {

namespace {

constexpr const char* kVirtualThreads = "virtual threads";

// The name of a platform thread, asked for once a second at most.
struct ownName {
  std::uint32_t session = 0;
  std::uint32_t id = 0;
  std::int64_t readAt = 0;
};
thread_local ownName theName;
thread_local bool isLeftOutHere = false;

}  // namespace

double estimatedBytes(std::int64_t size, std::int64_t interval) {
  const auto bytes = static_cast<double>(size);
  return interval <= 0 || bytes <= 0 ? bytes
                                     : bytes / -std::expm1(-bytes / static_cast<double>(interval));
}

void allocationRecorder::begin(jclass virtualThread, std::int64_t interval) {
  virtualThread_ = virtualThread;
  interval_.store(interval);
  for (std::atomic<std::uint64_t>* const each :
       {&counts_.samples, &counts_.nanos, &counts_.lost, &counts_.lostBytes, &counts_.failed,
        &counts_.leftOut}) {
    each->store(0);
  }
  {
    const support::lockGuard guard(namesMutex_);
    classes_.clear();
    threads_.clear();
  }
  session_.fetch_add(1);
  isOn_.store(true);
}

void allocationRecorder::leaveOutThisThread(bool isLeftOut) {
  isLeftOutHere = isLeftOut;
}

void allocationRecorder::take(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject object,
                              jclass cls, jlong size) {
  const instruments::handlerGate::pass inside(gate_);
  if (!isOn()) {
    return;
  }
  if (isLeftOutHere) {
    counts_.leftOut.fetch_add(1);
    return;
  }
  const std::int64_t begin = instruments::steadyNanos();
  counts_.samples.fetch_add(1);
  support::pendingExceptionGuard exceptions(jni);
  takenSample sample;
  sample.at = begin;
  sample.size = size;
  sample.interval = interval();
  sample.cls = classOf(jvmti, cls);
  sample.thread = threadOf(jvmti, jni, thread, begin);
  sample.object = jni->NewWeakGlobalRef(object);
  if (sample.object == nullptr) {
    counts_.failed.fetch_add(1);
  } else {
    queue(jvmti, jni, sample);
  }
  counts_.nanos.fetch_add(static_cast<std::uint64_t>(instruments::steadyNanos() - begin));
}

// Adds the stack of the calling thread.
void allocationRecorder::queue(jvmtiEnv* jvmti, JNIEnv* jni, const takenSample& sample) {
  constexpr jint kDepth = sampleQueue::kMostDepth;
  std::array<jvmtiFrameInfo, static_cast<std::size_t>(kDepth) + 1> frames;
  jint depth = 0;
  if (jvmti->GetStackTrace(nullptr, 0, kDepth + 1, frames.data(), &depth) != JVMTI_ERROR_NONE) {
    depth = 0;
    counts_.failed.fetch_add(1);
  }
  const bool isCut = depth > kDepth;
  const std::size_t kept = static_cast<std::size_t>(isCut ? kDepth : depth);
  const std::size_t queued = queue_.add(sample, std::span(frames).first(kept), isCut);
  if (queued == 0) {
    counts_.lost.fetch_add(1);
    const double bytes = estimatedBytes(sample.size, sample.interval);
    counts_.lostBytes.fetch_add(static_cast<std::uint64_t>(bytes));
    jni->DeleteWeakGlobalRef(sample.object);
  }
  if (queued == sampleQueue::kWaking) {
    wake_();
  }
}

std::uint32_t allocationRecorder::classOf(jvmtiEnv* jvmti, jclass cls) {
  const support::classSignature signature(jvmti, cls);
  if (!signature) {
    return 0;
  }
  const std::string_view stable = support::withoutAddress(signature.view());
  const support::lockGuard guard(namesMutex_);
  return classes_.idOf(stable);
}

std::uint32_t allocationRecorder::threadOf(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                           std::int64_t now) {
  constexpr std::int64_t kKept = std::chrono::nanoseconds(std::chrono::seconds(1)).count();
  if (virtualThread_ != nullptr && jni->IsInstanceOf(thread, virtualThread_) != JNI_FALSE) {
    const support::lockGuard guard(namesMutex_);
    return threads_.idOf(kVirtualThreads);
  }
  const std::uint32_t session = session_.load();
  if (theName.session != session || now - theName.readAt > kKept) {
    support::threadName name(jvmti, jni);
    name.read(thread);
    const support::lockGuard guard(namesMutex_);
    theName = {session, name.view().empty() ? 0 : threads_.idOf(name.view()), now};
  }
  return theName.id;
}

std::string allocationRecorder::className(std::uint32_t id) const {
  const support::lockGuard guard(namesMutex_);
  return id == 0 ? std::string() : sourceNameOf(classes_.at(id));
}

std::string allocationRecorder::threadName(std::uint32_t id) const {
  const support::lockGuard guard(namesMutex_);
  return id == 0 ? std::string() : threads_.at(id);
}

allocationRecorder::droppedNames allocationRecorder::dropped() const {
  const support::lockGuard guard(namesMutex_);
  return {classes_.dropped(), threads_.dropped()};
}

}  // namespace agent
