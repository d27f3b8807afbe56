#include "contention/lockLook.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

#include "contention/lockField.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"

namespace agent {

namespace {

// The frames of monitors that a thread holds, with local references.
class heldMonitors {
 public:
  heldMonitors(jvmtiEnv* jvmti, JNIEnv* jni)
      : jni_(jni), frame_(jni, kExpectedMonitors), held_(jvmti) {}
  ~heldMonitors() {
    if (frame_.pushed()) {
      return;
    }
    for (jint i = 0; i < count_; ++i) {
      jni_->DeleteLocalRef(held_[i].monitor);
    }
  }
  heldMonitors(const heldMonitors&) = delete;
  heldMonitors& operator=(const heldMonitors&) = delete;

  jvmtiError read(jvmtiEnv* jvmti, jthread thread) {
    jint count = 0;
    const jvmtiError error = held_.fill([&](jvmtiMonitorStackDepthInfo** out) {
      return jvmti->GetOwnedMonitorStackDepthInfo(thread, &count, out);
    });
    count_ = error == JVMTI_ERROR_NONE ? count : 0;
    return error;
  }

  std::span<const jvmtiMonitorStackDepthInfo> all() const {
    return {held_.get(), static_cast<std::size_t>(count_)};
  }

 private:
  static constexpr jint kExpectedMonitors = 1024;

  JNIEnv* jni_;
  support::localFrame frame_;  // the references
  support::jvmtiPtr<jvmtiMonitorStackDepthInfo> held_;
  jint count_ = 0;
};

}  // namespace

lockSeen lockLook::at(std::uint32_t place, const std::vector<waitingThread>& waiting,
                      std::size_t most) {
  constexpr jint kExpected = 64;
  lockSeen seen;
  const support::localFrame frame(jni_, kExpected);
  lockRecord& record = recorder_.locks().at(place);
  jobject const lock = frame.pushed() ? jni_->NewLocalRef(record.object) : nullptr;
  if (lock == nullptr) {
    return seen;
  }
  std::vector<jthread> threads;
  std::vector<waitingThread> shown;
  for (auto each = waiting.begin(); each != waiting.end() && threads.size() < most; ++each) {
    if (jthread const thread = recorder_.threads().threadOf(jni_, each->slot, each->block)) {
      threads.push_back(thread);
      shown.push_back(*each);
      seen.waiters.push_back({nameOf(thread), 0, each->block.since});
      record.hasVirtuals |= classes_.virtualThread != nullptr &&
                            jni_->IsInstanceOf(thread, classes_.virtualThread) != JNI_FALSE;
    }
  }
  readOwner(record, lock, seen.owner);
  if (!threads.empty() && isContention(record.kind) && samples_.takeFieldLook(record.id)) {
    samples_.fields.at(record.id)->name = staticFieldOf(jvmti_, jni_, lock, threads.front());
  }
  for (std::size_t i = seen.waiters.size(); i-- > 0;) {
    seen.waiters[i].stack = stackOf(threads[i]);
    blockedThread now{};
    if (!recorder_.threads().read(shown[i].slot, now) || now.word != shown[i].block.word) {
      seen.waiters.erase(seen.waiters.begin() + static_cast<std::ptrdiff_t>(i));  // it went on
    }
  }
  return seen;
}

// Its stack counts only when it holds the lock before and afterwards, too.
void lockLook::readOwner(const lockRecord& record, jobject lock, ownerSeen& seen) {
  support::monitorUsage usage(jvmti_, jni_);
  bool isAsked = true;
  jthread const owner = ownerOf(record, lock, usage, isAsked);
  if (owner == nullptr) {
    seen.note = isAsked ? noteWithout(record) : ownerNote::changed;
    samples_.ownersChanged += isAsked ? 0 : 1;
    return;
  }
  std::int32_t frameBefore = -1;
  std::int32_t frame = -1;
  // Without the frames, a safepoint would give nothing but the check afterwards.
  const bool held = !canCheck_ || holdsStill(record, lock, owner, frameBefore);
  const std::uint32_t stack = held ? stackOf(owner) : 0;
  if (!held || !holdsStill(record, lock, owner, frame)) {
    seen.note = ownerNote::changed;
    ++samples_.ownersChanged;
    return;
  }
  // One that runs may have called or returned, so that the number is that of another frame.
  const std::size_t depth = stack == 0 ? 0 : samples_.stacks.at(stack).frames.size();
  const bool isShown = frame >= 0 && static_cast<std::size_t>(frame) < depth;
  seen.holdingFrame = frame == frameBefore && isShown ? frame : -1;
  seen.note = ownerNote::known;
  seen.thread = nameOf(owner);
  seen.stack = stack;
  const std::uint32_t awaited = recorder_.awaitedBy(jvmti_, owner);
  if (awaited < blockRecorder::kOthers) {
    seen.waitsFor = recorder_.locks().at(awaited).id;
  }
}

jthread lockLook::ownerOf(const lockRecord& record, jobject lock, support::monitorUsage& usage,
                          bool& isAsked) {
  if (record.kind == lockKind::monitor) {
    isAsked = samples_.cost.safepoint([&] { return usage.read(lock); });
    return usage.owner();
  }
  if (record.kind != lockKind::lock || classes_.owner == nullptr ||
      jni_->IsInstanceOf(lock, classes_.synchronizer) == JNI_FALSE) {
    return nullptr;
  }
  return jni_->GetObjectField(lock, classes_.owner);
}

ownerNote lockLook::noteWithout(const lockRecord& record) const {
  if (!isContention(record.kind)) {
    return ownerNote::none;
  }
  if (record.kind == lockKind::monitor) {
    return record.hasVirtuals ? ownerNote::isVirtual : ownerNote::none;
  }
  const std::string_view name = samples_.classNames[record.cls];
  constexpr std::string_view kReentrant = "java.util.concurrent.locks.ReentrantLock$";
  if (name.substr(0, kReentrant.size()) != kReentrant) {
    return ownerNote::notKept;
  }
  return name.substr(kReentrant.size()) == "FairSync" ? ownerNote::handedOver : ownerNote::none;
}

bool lockLook::holdsStill(const lockRecord& record, jobject lock, jthread owner,
                          std::int32_t& holdingFrame) {
  if (record.kind != lockKind::monitor) {
    jobject const now = jni_->GetObjectField(lock, classes_.owner);
    return jni_->IsSameObject(now, owner) != JNI_FALSE;
  }
  return holdsMonitor(lock, owner, holdingFrame);
}

bool lockLook::holdsMonitor(jobject monitor, jthread owner, std::int32_t& holdingFrame) {
  if (canCheck_) {
    heldMonitors held(jvmti_, jni_);
    if (samples_.cost.handshake([&] { return held.read(jvmti_, owner); }) == JVMTI_ERROR_NONE) {
      const auto all = held.all();
      const auto found = std::find_if(all.begin(), all.end(), [&](const auto& each) {
        return jni_->IsSameObject(each.monitor, monitor) != JNI_FALSE;
      });
      holdingFrame = found == all.end() ? -1 : found->stack_depth;
      return found != all.end();
    }
  }
  support::monitorUsage again(jvmti_, jni_);
  samples_.cost.safepoint([&] { again.read(monitor); });
  return again.owner() != nullptr && jni_->IsSameObject(again.owner(), owner) != JNI_FALSE;
}

// The id of a thread's stack; 0 when the VM does not give it. One thread is asked for at a time: a
// call for several stops the whole program.
std::uint32_t lockLook::stackOf(jthread thread) {
  constexpr jint kDepth = instruments::stackTable::kMostDepth;
  std::array<jvmtiFrameInfo, kDepth + 1> frames;
  jint count = 0;
  const jvmtiError error = samples_.cost.handshake(
      [&] { return jvmti_->GetStackTrace(thread, 0, kDepth + 1, frames.data(), &count); });
  if (error != JVMTI_ERROR_NONE || count <= 0) {
    return 0;
  }
  return samples_.stacks.idOf(jvmti_, jni_,
                              {frames.data(), static_cast<std::size_t>(std::min(count, kDepth))},
                              count > kDepth);
}

std::uint32_t lockLook::nameOf(jthread thread) {
  support::threadName name(jvmti_, jni_);
  name.read(thread);
  return samples_.names.idOf(name.view());
}

}  // namespace agent
