#include "locks/mutexlockprofiler.h"

#include <array>
#include <optional>
#include <string>
#include <utility>

#include "agent/boundary.h"
#include "agent/profilerRegistry.h"
#include "agent/twAprLib.h"
#include "locks/monitorEvent.h"
#include "support/sourcePlace.h"
#include "support/text.h"
#include "support/waitReturn.h"

namespace agent {

namespace {

constexpr const char* kUpdateStackTrace = "mutexLockProfiler::updateStackTrace";
constexpr const char* kVMInit = "mutexLockProfiler::VMInit";

constexpr jint kMaxFrames = 100;
constexpr std::int64_t kNanosPerMinute = 60000000000;
constexpr std::uint32_t kLastMinuteSlot = 300;

thread_local support::notifiedWaiter lastWait;

// An error of a handler; a null text is not written.
void logError(const handlerTexts& texts, const char* message,
              support::sourcePlace where = support::sourcePlace::current()) {
  if (message == nullptr || twAprLib::level() < kLogError) {
    return;
  }
  twAprLib::write(nullptr, 0, kLogModule, kSeverityError, where.file, where.line, texts.function,
                  "%s", message);
}

// Why an event goes no further; without a failure it has no thread.
void logUnidentified(const handlerTexts& texts, identityFailure failure) {
  logError(texts, failure == identityFailure::none
                      ? texts.threadIsNull
                      : texts.notIdentified.at(static_cast<std::size_t>(failure)));
}

void logThreadAndLock(monitorEvent& event, const identifiedLock& lock) {
  TW_LOG(kLogDebug, kSeverityDebug, event.texts.function,
         "Current Thread is : %s , Curent lock name : %s", event.threadName().c_str(),
         lock.name().c_str());
}

}  // namespace

void JNICALL mutexLockProfiler::VMInit(jvmtiEnv* /*jvmti*/, JNIEnv* /*jni*/, jthread /*thread*/) {
  contained(kVMInit, "Exception occured in mutexprofiler : VMInit", [] {
    const std::shared_ptr<mutexLockProfiler> self = getMutexProfiler();
    if (!self) {
      TW_LOG(kLogError, kSeverityError, kVMInit, "Unable to get mutex profiler");
    } else if (self->state() == kLockStopped) {
      TW_LOG(kLogError, kSeverityError, kVMInit, "profiler is already stopped");
    }
  });
}

template <typename Handle>
void mutexLockProfiler::handle(const handlerTexts& texts, jvmtiEnv* jvmti, JNIEnv* jni,
                               jthread thread, jobject object, Handle&& handleEvent) {
  contained(texts.function, texts.exception, [&] {
    const std::shared_ptr<const lockWork> work = getLockWork();
    if (!work || !work->profiler->enabled()) {
      return;
    }
    mutexLockProfiler& self = *work->profiler;
    const std::uint32_t epoch = self.epoch_.load();  // before the state that it belongs to
    const std::int32_t state = self.state();
    if (state == kLockStopped) {
      blockStarts::forget();
      return;
    }
    monitorEvent event{jvmti,  jni,          thread,
                       object, texts,        state,
                       epoch,  *work->store, support::threadName(jvmti, jni)};
    handleEvent(self, event);
  });
}

void JNICALL mutexLockProfiler::MonitorContendedEnter(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                                      jobject object) {
  handle(kEnterTexts, jvmti, jni, thread, object,
         [](mutexLockProfiler& self, monitorEvent& event) { self.contendedEnter(event); });
}

void JNICALL mutexLockProfiler::MonitorContendedEntered(jvmtiEnv* jvmti, JNIEnv* jni,
                                                        jthread thread, jobject object) {
  handle(kEnteredTexts, jvmti, jni, thread, object,
         [](mutexLockProfiler& self, monitorEvent& event) { self.contendedEntered(event); });
}

void JNICALL mutexLockProfiler::MonitorWait(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                            jobject object, jlong /*timeout*/) {
  handle(kWaitTexts, jvmti, jni, thread, object,
         [](mutexLockProfiler& self, monitorEvent& event) { self.wait(event); });
}

void JNICALL mutexLockProfiler::MonitorWaited(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                              jobject object, jboolean timedOut) {
  handle(kWaitedTexts, jvmti, jni, thread, object,
         [&](mutexLockProfiler& self, monitorEvent& event) {
           lastWait.waited(timedOut == JNI_TRUE);
           self.waited(event);
         });
}

// Which lock the event is about. False, and the reason is in the log, when the VM does not name it
// or the event has no thread.
inline bool mutexLockProfiler::identify(monitorEvent& event, identifiedLock& lock) {
  const bool isShown = event.showsThreadAndLock();
  const identityFailure failure = event.store.identify(event.jvmti, event.jni, event.object,
                                                       classes_, event.detail() || isShown, lock);
  if (failure != identityFailure::none || event.thread == nullptr) {
    logUnidentified(event.texts, failure);
    return false;
  }
  if (isShown) {
    logThreadAndLock(event, lock);
  }
  return true;
}

void mutexLockProfiler::contendedEnter(monitorEvent& event) {
  if (lastWait.comesBack(event.jvmti, event.jni, event.thread)) {
    return;  // its end finds that it is back from a wait
  }
  event.leaveStart();
  beginGraphs(event.time);
  identifiedLock lock;
  if (!identify(event, lock)) {
    return;
  }
  if (lock.bean == nullptr) {
    const lockStore::recordedLock recorded = recordLock(event, lock);
    if (recorded.made) {
      return;
    }
    lock.bean = recorded.bean;
  }
  if (event.detail()) {
    countDetail(event, lock.bean);
  } else if (lock.bean != nullptr) {
    lock.bean->countEntry();
  }
}

void mutexLockProfiler::contendedEntered(monitorEvent& event) {
  // A waiter whose end was not understood here must not count as waiting forever.
  struct missedEvent {
    std::atomic<std::uint32_t>& epoch;
    bool missed = true;
    ~missedEvent() {
      if (missed) {
        epoch.fetch_add(1);
      }
    }
  } guard{epoch_};

  const blockStarts::begun begun = event.takeStart();
  if (begun.isBackFromWait) {
    guard.missed = false;  // without an entry
    return;
  }
  identifiedLock lock;
  if (!identify(event, lock)) {
    return;
  }
  if (lock.bean == nullptr) {
    guard.missed = false;
    return;
  }
  topLockBean* const top = event.detail() ? lock.bean->top() : nullptr;
  const bool hasKnownWaiters = top != nullptr && top->waiters.leave(event.epoch) > 0;
  guard.missed = false;

  lock.bean->setName();
  if (begun.start) {
    threadBean* const thread =
        event.detail() ? lock.bean->findThread(event.threadName().view()) : nullptr;
    lock.bean->addBlock(thread, *begun.start, event.time);
  }
  if (top != nullptr) {
    closePeriod(event, *top);
    openPeriod(event, *top, hasKnownWaiters);
  }
}

void mutexLockProfiler::wait(monitorEvent& event) {
  event.leaveStart();
  identifiedLock lock;
  if (!identify(event, lock)) {
    return;
  }
  if (lock.bean == nullptr) {
    recordLock(event, lock);
  }
  TW_LOG(kLogDebug, kSeverityDebug, event.texts.function, "wait start time%lld",
         static_cast<long long>(event.time));
}

void mutexLockProfiler::waited(monitorEvent& event) {
  if (!event.detail()) {  // waits are measured in detail sessions only
    event.leaveWait();
    if (event.object != nullptr && event.thread == nullptr) {
      logError(event.texts, event.texts.threadIsNull);
    }
    return;
  }
  const std::optional<std::int64_t> start = event.takeStart().start;
  event.leaveWait();
  identifiedLock lock;
  if (!identify(event, lock) || lock.bean == nullptr) {
    return;
  }
  threadBean* const thread = lock.bean->threadForWait(event.threadName().view());
  if (start) {
    lock.bean->addWait(thread, *start, event.time);
  }
}

// Records a lock met for the first time, budget permitting; none are made in a detail session. When
// another event has made it meanwhile, that record is given.
lockStore::recordedLock mutexLockProfiler::recordLock(monitorEvent& event,
                                                      const identifiedLock& lock) {
  lockStore& store = event.store;
  if (!store.config) {
    return {};
  }
  // Deliberate: a detail session records no new lock, yet takes from the budget.
  if (event.detail() || !lock.cls) {
    store.config->maxLockCount.take();
    return {};
  }
  const lockStore::recordedLock recorded = store.recordLock(lock.cls, lock.hash);
  if (recorded.made) {
    TW_LOG(kLogDebug, kSeverityDebug, event.texts.function,
           "Going to create lockbean obj,Max Locks Count is :  %d and top n mutex lock is : %d",
           recorded.budgetLeft, store.config->topLockCount);
    // Deliberate: an error word at the debug threshold, as operators know it.
    TW_LOG(kLogDebug, kSeverityError, event.texts.function, "add new object %s",
           recorded.bean->lockName.c_str());
  }
  return recorded;
}

// A contended entry of a detail session; `lock` is null when it has no record, and then it is not
// selected: the ranking takes what has one.
void mutexLockProfiler::countDetail(monitorEvent& event, lockBean* lock) {
  threadBean* thread = nullptr;
  topLockBean* top = nullptr;
  if (lock != nullptr) {
    thread = lock->countEntry(event.threadName().view(), minuteSlot(event.time));
    top = lock->top();
  }
  if (top != nullptr) {
    top->waiters.enter(event.epoch);
    findOwner(event, *top);
  }
  updateStackTrace(event, thread, top);
}

// The first contended entry is the origin of the minute graphs.
inline void mutexLockProfiler::beginGraphs(std::int64_t time) {
  std::int64_t origin = startTime_.load();
  if (origin < 1 && time > 0) {
    startTime_.compare_exchange_strong(origin, time);
  }
}

// The whole minutes since the first contended entry. Deliberate: their low 32 bits without sign,
// and 0 for what lies outside the graph then.
std::size_t mutexLockProfiler::minuteSlot(std::int64_t time) const {
  const auto slot = static_cast<std::uint32_t>((time - startTime_.load()) / kNanosPerMinute);
  return slot > kLastMinuteSlot ? 0 : slot;
}

// Finds out who owns the monitor that the event's thread waits for, and counts that owner.
void mutexLockProfiler::findOwner(monitorEvent& event, topLockBean& top) {
  const std::optional<foundOwner> owner =
      top.findOwner(lookups_, event.question(), event.store.ownerLookups);
  if (!owner) {
    return;
  }
  if (!owner->isNamed) {
    logError(event.texts, "monitor usage owner not found");
    return;
  }
  TW_LOG(kLogDebug, kSeverityDebug, event.texts.function, "Monitor owner name :  %s",
         owner->name.c_str());
  LockSessionConfig* const config = event.store.config.get();
  top.found(owner->name, config == nullptr ? nullptr : &config->maxThreadCountCopy);
}

// The owner last seen has let the monitor go.
void mutexLockProfiler::closePeriod(const monitorEvent& event, topLockBean& top) {
  const bool isLogged = twAprLib::level() >= kLogDebug;
  std::string owner;
  if (!top.closePeriod(event.time, isLogged ? &owner : nullptr) || !isLogged) {
    return;
  }
  // Deliberate: the flag is always 1, as without it no period is closed.
  TW_LOG(kLogDebug, kSeverityDebug, event.texts.function,
         "Current blocking thread : %s ,flag is : %d", owner.c_str(), 1);
}

// The event's thread owns the monitor now. If it is a known owner and others wait, a period in
// which it holds them up begins. The VM is asked for waiters only when the events have shown none.
void mutexLockProfiler::openPeriod(monitorEvent& event, topLockBean& top, bool hasKnownWaiters) {
  const std::string_view self = event.threadName().view();
  if (hasKnownWaiters || (top.knows(self) && lookups_.hasWaiters(event.question()))) {
    top.openPeriod(self, event.time);
  }
}

// Names the stack of the event's thread by its hash, and counts the sighting for the thread on this
// lock and for the thread as an owner of it.
void mutexLockProfiler::updateStackTrace(monitorEvent& event, threadBean* thread,
                                         topLockBean* top) {
  std::array<jvmtiFrameInfo, kMaxFrames> frames;
  jint count = 0;
  if (event.jvmti->GetStackTrace(event.thread, 0, kMaxFrames, frames.data(), &count) !=
      JVMTI_ERROR_NONE) {
    count = 0;  // Deliberate: counts as the empty trace.
  }
  const std::uint64_t hash =
      hashOf(event, stackFrames(frames.data(), static_cast<std::size_t>(count)));
  if (thread != nullptr) {
    thread->countStack(hash);
  }
  if (top != nullptr) {
    top->countStack(event.threadName().view(), hash);
  }
}

// The hash of a trace's text; the text of a new trace is kept.
std::uint64_t mutexLockProfiler::hashOf(const monitorEvent& event, stackFrames frames) {
  lockStore& store = event.store;
  if (const auto known = store.stackTraces.find(event.jni, frames)) {
    return *known;
  }

  stackText trace = textOfFrames(event.jvmti, event.jni, stackClasses_, frames);
  const std::uint64_t hash = support::fnv1a64(trace.text);
  if (store.stackTraces.add(hash, trace.text)) {
    TW_LOG(kLogDebug, kSeverityDebug, kUpdateStackTrace, "Hashcode for current stackTrace : %llu",
           static_cast<unsigned long long>(hash));
    const bool inBudget = store.config && store.config->maxStackTraceCount.take();
    // Deliberate: the budget bounds nothing but this early writing. One more than the frames is
    // above the limit only for a trace that was cut there.
    if (inBudget && frames.size() + 1 > kMaxFrames) {
      dumpStackInFile(store);
    }
  }
  if (trace.classes) {
    store.stackTraces.remember(frames, hash, *std::move(trace.classes));
  }
  return hash;
}

}  // namespace agent
