#include "locks/mutexlockprofiler.h"

#include <array>
#include <optional>
#include <utility>

#include "agent/boundary.h"
#include "agent/profilerRegistry.h"
#include "agent/reportOutcome.h"
#include "agent/twAprLib.h"
#include "agent/vmEnd.h"
#include "locks/lockReport.h"
#include "support/fileWriter.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiRecords.h"
#include "support/sourcePlace.h"
#include "support/text.h"

namespace agent {

namespace {

constexpr const char* kSetProfileData = "mutexLockProfiler::setProfileData";
constexpr const char* kSortData = "mutexLockProfiler::sortData";
constexpr const char* kDumpJson = "mutexLockProfiler::dumpJsonObjectFromMapDS";
constexpr const char* kDumpStack = "mutexLockProfiler::dumpStackInFile";
constexpr const char* kUpdateStackTrace = "mutexLockProfiler::updateStackTrace";
constexpr const char* kVMInit = "mutexLockProfiler::VMInit";

constexpr const char* kNoProfiler = "Unable to get mutex profiler";

constexpr jint kMaxFrames = 100;
constexpr std::int64_t kNanosPerMinute = 60000000000;
constexpr std::uint32_t kLastMinuteSlot = 300;

// The locks ranked since the last report; of the process, not of a profiler.
struct reportQueueOfProcess {
  support::mutex mutex;
  mutexLockProfiler::rankedLocks locks GUARDED_BY(mutex);
};

reportQueueOfProcess& reportQueue() {
  static reportQueueOfProcess& queue = *new reportQueueOfProcess;
  return queue;
}

// The start of the block or wait that this native thread is in, 0 for none. A virtual thread may
// end it on another one.
thread_local std::int64_t openStart = 0;

// The time from `start` to `end`; 0 when one of them is not known.
std::uint64_t elapsed(std::int64_t start, std::int64_t end) {
  return start > 0 && end > start ? static_cast<std::uint64_t>(end - start) : 0;
}

std::string describe(const LockSessionConfig& config) {
  std::string text = "*********Session Details :\n\t\tSession Id : ";
  text += std::to_string(config.sessionId);
  text += "\n\t\tSession Name : " + config.sessionName;
  text += "\n\t\tDuration : " + std::to_string(config.duration);
  text += "\n\t\tMax Locks Count  : " + std::to_string(config.maxLockCount.value());
  text += "\n\t\tTop Lock count to capture : " + std::to_string(config.topLockCount);
  text += "\n\t\tMax Thread Per Lock Count : " + std::to_string(config.maxThreadPerLockCount);
  text += "\n\t\tMax Thread Count : " + std::to_string(config.maxThreadCount);
  text += "\n\t\tMax StackTrace Count : " + std::to_string(config.maxStackTraceCount.value());
  text += "\n\t\tMax StackTrace Count Per Thread : " +
          std::to_string(config.maxStackTraceCountPerThread);
  text += "\n\t\tSize of graph array : " + std::to_string(config.graphSize);
  return text;
}

void logUnwritable(const char* function, const char* what, const std::string& path,
                   const std::string& reason,
                   support::sourcePlace where = support::sourcePlace::current()) {
  if (twAprLib::level() < kLogError) {
    return;
  }
  twAprLib::write(nullptr, 0, kLogModule, kSeverityError, where.file, where.line, function,
                  "Unable to write %s '%s'. Error = '%s'", what, path.c_str(), reason.c_str());
}

const profilerKind kThisKind(kMutexLockProfiler, []() -> std::shared_ptr<profiler> {
  return std::make_shared<mutexLockProfiler>();
});

}  // namespace

// What a handler says in the log; null texts are not said.
struct mutexLockProfiler::handlerTexts {
  const char* function;
  const char* objectIsNull;
  const char* noGetClass;
  const char* noGetName;
  const char* classIsEmpty;
  const char* threadIsNull;
  const char* exception;
  bool saysWhoAndWhat = true;  // thread and lock of every event, at Debug

  void error(const char* message,
             support::sourcePlace where = support::sourcePlace::current()) const {
    if (message == nullptr || twAprLib::level() < kLogError) {
      return;
    }
    twAprLib::write(nullptr, 0, kLogModule, kSeverityError, where.file, where.line, function, "%s",
                    message);
  }
};

// One event, and what its handler works on.
struct mutexLockProfiler::monitorEvent {
  jvmtiEnv* jvmti;
  JNIEnv* jni;
  jthread thread;
  jobject object;
  const handlerTexts& texts;
  std::int32_t state;
  std::uint32_t epoch;
  lockStore& store;
  support::threadName name;
  bool nameIsRead = false;
  jlong time = 0;  // 0 when the VM gave none

  bool detail() const { return state == kLockDetail; }
  bool saysWhoAndWhat() const { return texts.saysWhoAndWhat && twAprLib::level() >= kLogDebug; }
  void readTime() {
    if (jvmti->GetTime(&time) != JVMTI_ERROR_NONE) {
      time = 0;
    }
  }
  // The name of the event's thread; asked for when it is used first.
  const support::threadName& threadName() {
    if (!nameIsRead) {
      name.read(thread);
    }
    nameIsRead = true;
    return name;
  }
};

// The lock of an event: its record, or what it would be recorded under.
struct mutexLockProfiler::namedMonitor {
  lockBean* bean = nullptr;
  // Its class, where a record may yet be made or looked up by name.
  std::shared_ptr<const support::namedClass> cls;
  jint hash = 0;

  std::string name() const { return bean ? bean->lockName : lockNameOf(cls->value, hash); }
};

mutexLockProfiler::mutexLockProfiler()
    : profiler(kLockStopped), store_(std::make_shared<lockStore>(nullptr)) {}

std::shared_ptr<lockStore> mutexLockProfiler::store() const {
  const support::lockGuard guard(storeMutex_);
  return store_;
}

// False, and nothing has changed, when this profiler was removed.
bool mutexLockProfiler::useStore(std::shared_ptr<lockStore> next) {
  const support::lockGuard guard(storeMutex_);
  if (!publishLockStore(*this, next)) {
    return false;
  }
  store_.swap(next);
  return true;
}

void mutexLockProfiler::setState(std::int32_t state) {
  epoch_.fetch_add(1);
  const bool ignoredEvents = this->state() == kLockStopped;
  profiler::setState(state);
  epoch_.fetch_add(1);
  if (ignoredEvents) {
    noteLostEvents();
  }
}

void mutexLockProfiler::noteLostEvents() {
  epoch_.fetch_add(1);
  store()->noteLostEvents();
}

void mutexLockProfiler::publish(const std::shared_ptr<profiler>& self) {
  publishLockWork(std::dynamic_pointer_cast<mutexLockProfiler>(self), store());
}

void mutexLockProfiler::withdraw() {
  publishLockWork(nullptr, nullptr);
}

void mutexLockProfiler::setEventCallbacks() {
  const std::shared_ptr<profilerRegistry> registry = getRegistry();
  if (registry->environment() == nullptr) {
    return;
  }
  registry->callbacks.VMInit = VMInit;
  registry->callbacks.MonitorWait = MonitorWait;
  registry->callbacks.MonitorWaited = MonitorWaited;
  registry->callbacks.MonitorContendedEnter = MonitorContendedEnter;
  registry->callbacks.MonitorContendedEntered = MonitorContendedEntered;
  setState(kLockProfiling);
}

void mutexLockProfiler::release() {
  auto empty = std::make_shared<lockStore>(nullptr);
  const support::lockGuard guard(storeMutex_);
  publishLockStore(*this, empty);  // unless it was removed
  store_.swap(empty);
}

void mutexLockProfiler::addCapabilities() {
  const std::shared_ptr<profilerRegistry> registry = getRegistry();
  if (registry->environment() == nullptr) {
    return;
  }
  registry->capabilities.can_get_owned_monitor_info = 1;
  registry->capabilities.can_get_current_contended_monitor = 1;
  registry->capabilities.can_get_monitor_info = 1;
  registry->capabilities.can_generate_monitor_events = 1;
}

std::int32_t mutexLockProfiler::setProfileData(std::unique_ptr<sessionSettings> settings) {
  constexpr const char* kException = "Exception occured in mutexlockprofiler : setProfileData";
  return contained(kSetProfileData, kException, 0, [&] {
    auto* const given = dynamic_cast<LockSessionConfig*>(settings.get());
    if (given == nullptr) {
      return 0;
    }
    settings.release();
    const auto next = std::make_shared<lockStore>(std::unique_ptr<LockSessionConfig>(given));
    // Described before events take from its countdowns.
    const std::string details =
        twAprLib::level() >= kLogTrace ? describe(*next->config) : std::string();
    if (!useStore(next)) {
      return 0;
    }
    epoch_.fetch_add(1);
    TW_LOG(kLogTrace, kSeverityTrace, kSetProfileData, "%s", details.c_str());
    return 1;
  });
}

void mutexLockProfiler::setProfilerEventMode(bool enable) {
  const std::shared_ptr<profilerRegistry> registry = getRegistry();
  jvmtiEnv* const jvmti = registry->environment();
  if (state() != kLockProfiling || jvmti == nullptr) {
    return;
  }
  for (const jvmtiEvent event :
       {JVMTI_EVENT_VM_INIT, JVMTI_EVENT_MONITOR_WAIT, JVMTI_EVENT_MONITOR_WAITED,
        JVMTI_EVENT_MONITOR_CONTENDED_ENTER, JVMTI_EVENT_MONITOR_CONTENDED_ENTERED}) {
    jvmti->SetEventNotificationMode(enable ? JVMTI_ENABLE : JVMTI_DISABLE, event, nullptr);
  }
}

// --- Ranking ---------------------------------------------------------------------------------

void mutexLockProfiler::sortData() {
  constexpr const char* kException = "Exception occured in mutexlockprofiler : sortData";
  contained(kSortData, kException, [&] {
    if (!getMutexProfiler()) {
      TW_LOG(kLogError, kSeverityError, kSortData, "%s", kNoProfiler);
      return;
    }
    const std::shared_ptr<lockStore> current = store();
    const std::vector<lockBean*> locks = current->locksByName();
    TW_LOG(kLogDebug, kSeverityDebug, kSortData, "In sort data size of Lock Map is :%zu",
           locks.size());
    if (locks.empty()) {
      TW_LOG(kLogError, kSeverityError, kSortData, "No lock object found");
    }
    select(current, locks);
    TW_LOG(kLogDebug, kSeverityDebug, kSortData, "Going to reset count");
    for (lockBean* const lock : locks) {
      lock->count.store(0);
      lock->totalBlockTime.store(0);
    }
  });
}

// Keeps the locks with the longest block times; at the cut, the one met first stays.
void mutexLockProfiler::select(const std::shared_ptr<lockStore>& store,
                               const std::vector<lockBean*>& locks) {
  const auto most = static_cast<std::uint32_t>(store->config ? store->config->topLockCount : 0);
  rankedLocks selectionHeap;
  for (lockBean* const lock : locks) {
    const auto blockTime = static_cast<std::int64_t>(lock->totalBlockTime.load());
    if (selectionHeap.size() >= most) {
      if (most == 0 || blockTime <= selectionHeap.top().blockTime) {
        continue;
      }
      selectionHeap.pop();
    }
    selectionHeap.push({lock->lockName, blockTime, store, lock});
  }

  for (; !selectionHeap.empty(); selectionHeap.pop()) {
    {
      const support::lockGuard guard(reportQueue().mutex);
      reportQueue().locks.push(selectionHeap.top());
    }
    selectionHeap.top().bean->select();
  }
  epoch_.fetch_add(1);
}

topLockBean* mutexLockProfiler::findTopLock(std::string_view lockName) const {
  const std::map<std::string_view, topLockBean*> selected = store()->topLockMap();
  const auto found = selected.find(lockName);
  return found == selected.end() ? nullptr : found->second;
}

mutexLockProfiler::rankedLocks mutexLockProfiler::takeReportQueue() {
  rankedLocks taken;
  const support::lockGuard guard(reportQueue().mutex);
  taken.swap(reportQueue().locks);
  return taken;
}

// --- Reports ---------------------------------------------------------------------------------

std::int32_t mutexLockProfiler::dumpJsonObjectFromMapDS(JNIEnv* jni, jstring path) {
  constexpr const char* kException =
      "Exception occured in  mutexprofiler : dumpJsonObjectFromMapDS";
  return contained(kDumpJson, kException, 0, [&] {
    reportOutcomes::ofProcess().begin(kMutexLockProfiler);
    const std::shared_ptr<lockStore> current = store();
    if (!getMutexProfiler()) {
      return 0;
    }
    if (!current->config) {
      TW_LOG(kLogError, kSeverityError, kDumpJson,
             "No lock report written: no lock profiling session was started");
      return 0;
    }
    dumpStackInFile(*current);

    const std::string reportPath = support::textOf(jni, path);
    TW_LOG(kLogTrace, kSeverityTrace, kDumpJson, "File Path to dump json : %s", reportPath.c_str());
    if (reportPath.empty()) {
      TW_LOG(kLogError, kSeverityError, kDumpJson,
             "No lock report written: the report path is null or empty");
      return 0;
    }
    support::fileWriter file(support::fileSystemPath(reportPath),
                             support::fileWriter::mode::truncate);

    support::jsonWriter json;
    json.beginObject();
    writeSession(json, *current->config);

    json.key("lockmap").beginObject();
    rankedLocks ranked = takeReportQueue();
    if (ranked.empty()) {
      TW_LOG(kLogWarn, kSeverityWarn, kDumpJson,
             "Agent was not able to find any lockBean data to report genuinely as no problem "
             "occurred");
    }
    for (; !ranked.empty(); ranked.pop()) {
      const rankedLock& each = ranked.top();
      // A lock of an earlier session is not reported any more.
      if (each.store.lock() != current || !each.bean->hasThreads()) {
        continue;
      }
      if (writeLock(json, *each.bean, current->config->graphSize) == 0) {
        TW_LOG(kLogWarn, kSeverityWarn, kDumpJson,
               "Agent was not able to find any threadBean data for %s to report genuinely as no "
               "problem occurred",
               each.lockName.c_str());
      }
    }
    json.endObject();

    writeStackHashes(json, *current);

    const blockingThreadBeans owners = mergeBlockingThreads(current->topLockMap());
    if (owners.empty()) {
      TW_LOG(kLogWarn, kSeverityWarn, kDumpJson,
             "Agent was not able to find any blocking thread data to report genuinely as no "
             "problem occurred");
    }
    writeBlockingThreads(json, owners);
    std::optional<ownerLookupCounts> lookups;
    if (ownerLookups_.perSecond() > 0) {
      lookups = writeOwnerLookups(json, *current, ownerLookups_.perSecond());
    }
    json.endObject();

    file.write(json.text());
    const std::string reason = file.close();
    reportOutcomes::ofProcess().end(kMutexLockProfiler, reportPath, reason, file.written(),
                                    lookups);
    if (!reason.empty()) {
      logUnwritable(kDumpJson, "lock report", reportPath, reason);
    }
    logLeftOutOwnerLookups(*current);
    current->clearTopLocks();
    return 1;
  });
}

void mutexLockProfiler::logLeftOutOwnerLookups(const lockStore& store) const {
  if (ownerLookups_.perSecond() == 0) {
    return;
  }
  TW_LOG(kLogTrace, kSeverityTrace, kDumpJson,
         "Owner lookups left out : %llu , at most %d a second were made",
         static_cast<unsigned long long>(store.leftOutOwnerLookups.load()),
         ownerLookups_.perSecond());
}

void mutexLockProfiler::dumpStackInFile(lockStore& store) {
  if (!store.config) {
    return;
  }
  const std::string& path = store.config->stackFilePath;
  std::size_t written = 0;
  std::string reason;
  {
    const support::lockGuard guard(store.stackMapMutex);
    if (store.stacktracemap.empty()) {
      return;
    }
    support::fileWriter file(support::fileSystemPath(path), support::fileWriter::mode::append);
    written = store.stacktracemap.size();
    for (const auto& [hash, text] : store.stacktracemap) {
      file.write(std::to_string(hash));
      file.write("=[");
      file.write(text);
      file.write("]\n");
    }
    store.stacktracemap.clear();
    // Only the low half of the graphs' origin goes.
    constexpr std::int64_t kHighHalf = ~std::int64_t{0xFFFFFFFF};
    startTime_.fetch_and(kHighHalf);
    reason = file.close();
  }
  TW_LOG(kLogDebug, kSeverityDebug, kDumpStack, "StackMap size is : %zu", written);
  if (written == 0) {
    TW_LOG(kLogWarn, kSeverityWarn, kDumpStack,
           "Agent was not able to find any stackMap data to report genuinely as no problem "
           "occurred");
  }
  if (!reason.empty()) {
    logUnwritable(kDumpStack, "stack trace file", path, reason);
  }
}

// --- Events ----------------------------------------------------------------------------------

void JNICALL mutexLockProfiler::VMInit(jvmtiEnv* /*jvmti*/, JNIEnv* /*jni*/, jthread /*thread*/) {
  contained(kVMInit, "Exception occured in mutexprofiler : VMInit", [] {
    const std::shared_ptr<mutexLockProfiler> self = getMutexProfiler();
    if (!self) {
      TW_LOG(kLogError, kSeverityError, kVMInit, "%s", kNoProfiler);
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
      openStart = 0;  // it has ended now, or another one has begun whose start is not left
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
  static constexpr handlerTexts kTexts = {
      "mutexLockProfiler::MonitorContendedEnter",
      "monitor object is NULL",
      "Unable to get method id of class object",
      "Unable to get method id for java/lang/string",
      "object class is empty",
      "object thread is NULL",
      "Exception occured in mutexprofiler : MonitorContendedEnter"};
  handle(kTexts, jvmti, jni, thread, object,
         [](mutexLockProfiler& self, monitorEvent& event) { self.contendedEnter(event); });
}

void JNICALL mutexLockProfiler::MonitorContendedEntered(jvmtiEnv* jvmti, JNIEnv* jni,
                                                        jthread thread, jobject object) {
  static constexpr handlerTexts kTexts = {
      "mutexLockProfiler::MonitorContendedEntered",
      "monitor entered object is NULL",
      "entered method is not found",
      "entered mid for java/lang/string not found",
      "enter class is empty",
      "entered thread is NULL",
      "Exception occured in  mutexprofiler : MonitorContendedEntered"};
  handle(kTexts, jvmti, jni, thread, object,
         [](mutexLockProfiler& self, monitorEvent& event) { self.contendedEntered(event); });
}

void JNICALL mutexLockProfiler::MonitorWait(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                            jobject object, jlong /*timeout*/) {
  static constexpr handlerTexts kTexts = {"mutexLockProfiler::MonitorWait",
                                          "wait object is NULL",
                                          "wait method is is empty",
                                          "wait mid for java/lang/string is empty",
                                          "wait class is empty",
                                          "wait thread is NULL",
                                          "Exception occured in  mutexprofiler : MonitorWait"};
  handle(kTexts, jvmti, jni, thread, object,
         [](mutexLockProfiler& self, monitorEvent& event) { self.wait(event); });
}

void JNICALL mutexLockProfiler::MonitorWaited(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                              jobject object, jboolean /*timedOut*/) {
  static constexpr handlerTexts kTexts = {"mutexLockProfiler::MonitorWaited",
                                          nullptr,
                                          nullptr,
                                          nullptr,
                                          nullptr,
                                          "waited thread is NULL",
                                          "Exception occured in  mutexprofiler : MonitorWaited",
                                          false};
  handle(kTexts, jvmti, jni, thread, object,
         [](mutexLockProfiler& self, monitorEvent& event) { self.waited(event); });
}

// Leaves the event's time in its thread's storage, as the start of a block or wait.
inline void mutexLockProfiler::leaveStart(monitorEvent& event) {
  event.readTime();
  event.store.noteStart(event.time);
  openStart = event.time;
  void* const stored = reinterpret_cast<void*>(static_cast<std::intptr_t>(event.time));
  const jvmtiError error = event.jvmti->SetThreadLocalStorage(event.thread, stored);
  if (error != JVMTI_ERROR_NONE) {
    event.store.noteLostEvents();  // an older start stays there
  }
}

// The start of the block or wait that the event ends, as an earlier event of the thread has left
// it; none when it is not known. What an earlier session has left is not known. What was left
// before events were lost may have ended since, unless this native thread is in it still.
inline std::optional<std::int64_t> mutexLockProfiler::takeStart(const monitorEvent& event) const {
  const std::int64_t open = std::exchange(openStart, 0);
  void* stored = nullptr;
  if (event.jvmti->GetThreadLocalStorage(event.thread, &stored) != JVMTI_ERROR_NONE ||
      stored == nullptr) {
    return std::nullopt;
  }
  const auto start = static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(stored));
  const bool known =
      event.store.hasLeftSinceLoss(start) || (start == open && event.store.hasLeft(start));
  return known ? std::optional(start) : std::nullopt;
}

void mutexLockProfiler::contendedEnter(monitorEvent& event) {
  leaveStart(event);
  std::int64_t origin = startTime_.load();
  if (origin < 1 && event.time > 0) {
    startTime_.compare_exchange_strong(origin, event.time);
  }

  namedMonitor monitor;
  if (!nameMonitor(event, monitor) || !nameThread(event, monitor)) {
    return;
  }
  if (monitor.bean == nullptr) {
    bool made = false;
    monitor.bean = makeLock(event, monitor, made);
    if (made) {
      return;
    }
  }
  if (!event.detail()) {
    if (monitor.bean == nullptr) {
      return;
    }
    monitor.bean->count.fetch_add(1, std::memory_order_relaxed);
    monitor.bean->setName();
    return;
  }

  threadBean* thread = nullptr;
  if (monitor.bean != nullptr) {
    thread = monitor.bean->countEntry(event.threadName().view(), minuteSlot(event.time));
  }
  // A lock without a record cannot be selected: the ranking takes what has one.
  topLockBean* const top = monitor.bean != nullptr ? monitor.bean->top() : nullptr;
  if (top != nullptr) {
    top->waiters.enter(event.epoch);
    lookUpOwner(event, *top);
  }
  updateStackTrace(event, thread, top);
}

void mutexLockProfiler::contendedEntered(monitorEvent& event) {
  // A waiter whose end was not understood here must not count as waiting for ever.
  struct missedEvent {
    std::atomic<std::uint32_t>& epoch;
    bool missed = true;
    ~missedEvent() {
      if (missed) {
        epoch.fetch_add(1);
      }
    }
  } guard{epoch_};

  event.readTime();
  const std::optional<std::int64_t> start = takeStart(event);
  namedMonitor monitor;
  if (!nameMonitor(event, monitor) || !nameThread(event, monitor)) {
    return;
  }
  if (monitor.bean == nullptr) {
    guard.missed = false;
    return;
  }
  topLockBean* const top = event.detail() ? monitor.bean->top() : nullptr;
  const bool hasKnownWaiters = top != nullptr && top->waiters.leave(event.epoch) > 0;
  guard.missed = false;

  monitor.bean->setName();
  if (start) {
    const std::uint64_t blocked = elapsed(*start, event.time);
    monitor.bean->totalBlockTime.fetch_add(blocked, std::memory_order_relaxed);
    threadBean* const thread =
        event.detail() ? monitor.bean->findThread(event.threadName().view()) : nullptr;
    if (thread != nullptr) {
      thread->totalBlockTime.fetch_add(blocked, std::memory_order_relaxed);
      thread->lastEnterTime.store(*start, std::memory_order_relaxed);
    }
  }
  if (top == nullptr) {
    return;
  }
  closeOwnersPeriod(event, *top);
  openOwnPeriod(event, *top, hasKnownWaiters);
}

void mutexLockProfiler::wait(monitorEvent& event) {
  leaveStart(event);
  namedMonitor monitor;
  if (!nameMonitor(event, monitor) || !nameThread(event, monitor)) {
    return;
  }
  if (monitor.bean == nullptr) {
    bool made = false;
    makeLock(event, monitor, made);
  }
  TW_LOG(kLogDebug, kSeverityDebug, event.texts.function, "wait start time%lld",
         static_cast<long long>(event.time));
}

void mutexLockProfiler::waited(monitorEvent& event) {
  if (!event.detail()) {  // waits are measured in detail sessions only
    openStart = 0;
    if (event.object != nullptr && event.thread == nullptr) {
      event.texts.error(event.texts.threadIsNull);
    }
    return;
  }
  event.readTime();
  const std::optional<std::int64_t> start = takeStart(event);
  namedMonitor monitor;
  if (!nameMonitor(event, monitor) || !nameThread(event, monitor)) {
    return;
  }
  if (monitor.bean == nullptr) {
    return;
  }
  threadBean* const thread = monitor.bean->threadForWait(event.threadName().view());
  if (!start) {
    return;
  }
  const std::uint64_t waited = elapsed(*start, event.time);
  monitor.bean->totalWaitTime.fetch_add(waited, std::memory_order_relaxed);
  if (thread == nullptr) {
    return;
  }
  thread->totalWaitTime.fetch_add(waited, std::memory_order_relaxed);
  thread->lastWaitTime.store(*start, std::memory_order_relaxed);
}

// Finds the lock of the event, or the class name and hash it would be recorded under. False, after
// saying so, when the VM does not tell them.
bool mutexLockProfiler::nameMonitor(monitorEvent& event, namedMonitor& monitor) {
  if (event.object == nullptr) {
    event.texts.error(event.texts.objectIsNull);
    return false;
  }
  const support::localRef<jclass> cls(event.jni, event.jni->GetObjectClass(event.object));
  if (!cls) {
    event.texts.error(event.texts.noGetClass);
    return false;
  }
  const bool hashed =
      event.jvmti->GetObjectHashCode(event.object, &monitor.hash) == JVMTI_ERROR_NONE;
  if (hashed) {
    monitor.bean = event.store.findLock(event.jni, cls.get(), monitor.hash);
    if (monitor.bean != nullptr) {
      return true;
    }
    // Beyond the budget, what a lock would be called matters only to those who read of it.
    if (!event.detail() && !event.saysWhoAndWhat() && event.store.refuses(monitor.hash)) {
      return true;
    }
  }
  support::classNameResult named = classes_.of(event.jvmti, event.jni, event.object, cls.get());
  switch (named.failure) {
    case support::classNameFailure::none:
      break;
    case support::classNameFailure::noGetClass:
      event.texts.error(event.texts.noGetClass);
      return false;
    case support::classNameFailure::noGetName:
      event.texts.error(event.texts.noGetName);
      return false;
    case support::classNameFailure::empty:
      event.texts.error(event.texts.classIsEmpty);
      return false;
  }
  monitor.cls = std::move(named.found);
  if (!hashed) {
    return false;
  }
  monitor.bean = event.store.findLock(*monitor.cls, monitor.hash);
  return true;
}

// Whether the event has a thread; at Debug, says which thread and lock it is about.
bool mutexLockProfiler::nameThread(monitorEvent& event, const namedMonitor& monitor) {
  if (event.thread == nullptr) {
    event.texts.error(event.texts.threadIsNull);
    return false;
  }
  if (event.saysWhoAndWhat()) {
    TW_LOG(kLogDebug, kSeverityDebug, event.texts.function,
           "Current Thread is : %s , Curent lock name : %s", event.threadName().c_str(),
           monitor.name().c_str());
  }
  return true;
}

// Records a lock met for the first time, budget permitting; none are made in a detail session. When
// another event has made it meanwhile, `made` is false and that record is given.
lockBean* mutexLockProfiler::makeLock(monitorEvent& event, const namedMonitor& monitor,
                                      bool& made) {
  lockStore& store = event.store;
  if (!store.config) {
    return nullptr;
  }
  if (event.detail() || !monitor.cls) {
    store.config->maxLockCount.take();
    return nullptr;
  }
  const lockStore::recordedLock recorded = store.recordLock(monitor.cls, monitor.hash);
  made = recorded.made;
  if (made) {
    TW_LOG(kLogDebug, kSeverityDebug, event.texts.function,
           "Going to create lockbean obj,Max Locks Count is :  %d and top n mutex lock is : %d",
           recorded.budgetLeft, store.config->topLockCount);
    // An error word at the debug threshold, as operators know it.
    TW_LOG(kLogDebug, kSeverityError, event.texts.function, "add new object %s",
           recorded.bean->lockName.c_str());
  }
  return recorded.bean;
}

// The whole minutes since the first contended entry; 0 for what lies outside the graph.
std::size_t mutexLockProfiler::minuteSlot(std::int64_t time) const {
  const auto slot = static_cast<std::uint32_t>((time - startTime_.load()) / kNanosPerMinute);
  return slot > kLastMinuteSlot ? 0 : slot;
}

// Takes one of the looks of this second; where there is none left, the event goes without an owner.
bool mutexLockProfiler::mayLookUpOwner(const monitorEvent& event) {
  if (ownerLookups_.perSecond() == 0) {
    return true;
  }
  const bool may = ownerLookups_.take(event.time);
  lockStore& store = event.store;
  (may ? store.madeOwnerLookups : store.leftOutOwnerLookups)
      .fetch_add(1, std::memory_order_relaxed);
  return may;
}

// Finds out who owns the monitor that the event's thread waits for, and counts that owner.
void mutexLockProfiler::lookUpOwner(monitorEvent& event, topLockBean& top) {
  std::shared_ptr<ownerLookup> lookup;
  bool looks = false;
  {
    const support::lockGuard guard(top.mutex);
    top.ownerSeen = true;
    looks = !top.lookup || !top.lookup->join();
    if (looks && !mayLookUpOwner(event)) {
      return;
    }
    if (looks) {
      top.lookup = std::make_shared<ownerLookup>();
    }
    lookup = top.lookup;
  }
  std::optional<foundOwner> found;
  if (!looks) {
    found = lookup->wait();
    if (!found) {  // nobody else is to wait for it
      const support::lockGuard guard(top.mutex);
      if (top.lookup == lookup) {
        top.lookup = nullptr;
      }
      if (!mayLookUpOwner(event)) {
        return;
      }
    }
  }
  if (!found) {
    found = askForOwner(event, looks ? lookup.get() : nullptr);
  }
  if (!found) {
    return;
  }
  if (!found->isNamed) {
    event.texts.error("monitor usage owner not found");
    return;
  }
  TW_LOG(kLogDebug, kSeverityDebug, event.texts.function, "Monitor owner name :  %s",
         found->name.c_str());

  const support::lockGuard guard(top.mutex);
  top.ownerName = found->name;
  const auto owner = top.blockingThreads.find(found->name);
  if (owner != top.blockingThreads.end()) {
    ++owner->second.blockingCount;
  } else if (event.store.config && event.store.config->maxThreadCountCopy.take()) {
    top.blockingThreads.try_emplace(found->name);
  }
}

// Asks the VM for the owner; what is found is told to those who wait for `lookup`, if it is given.
// Nothing when the VM is ending.
std::optional<foundOwner> mutexLockProfiler::askForOwner(monitorEvent& event, ownerLookup* lookup) {
  struct announcement {
    ownerLookup* lookup;
    std::optional<foundOwner> found;
    ~announcement() {
      if (lookup == nullptr) {
        return;
      }
      lookup->begin();
      lookup->publish(std::move(found));
    }
  } announced{lookup, std::nullopt};

  foundOwner found;
  support::monitorUsage usage(event.jvmti, event.jni);
  {
    const support::vmTurn turn(usageTurns_);
    if (lookup != nullptr) {
      lookup->begin();
    }
    if (vmIsEnding()) {
      return std::nullopt;
    }
    usage.read(event.object);
  }
  if (usage.owner() != nullptr) {
    support::threadName owner(event.jvmti, event.jni);
    owner.read(usage.owner());
    found = {true, std::string(owner.view())};
  }
  announced.found = found;
  return found;
}

// The owner last seen has let the monitor go: charges it with the period it held up others.
void mutexLockProfiler::closeOwnersPeriod(const monitorEvent& event, topLockBean& top) {
  std::string ownerName;
  {
    const support::lockGuard guard(top.mutex);
    if (top.ownerName.empty() || !top.ownerSeen) {
      return;
    }
    const auto owner = top.blockingThreads.find(top.ownerName);
    if (owner == top.blockingThreads.end()) {
      return;
    }
    owner->second.totalBlockingTime += elapsed(owner->second.blockStartTime, event.time);
    owner->second.blockStartTime = 0;
    if (twAprLib::level() < kLogDebug) {
      return;
    }
    ownerName = top.ownerName;
  }
  TW_LOG(kLogDebug, kSeverityDebug, event.texts.function,
         "Current blocking thread : %s ,flag is : %d", ownerName.c_str(), 1);
}

// The event's thread owns the monitor now. If it is a known owner and others wait, a period in
// which it holds them up begins. The VM is asked for waiters only when the events told of none.
void mutexLockProfiler::openOwnPeriod(monitorEvent& event, topLockBean& top, bool hasKnownWaiters) {
  const std::string_view self = event.threadName().view();
  const auto open = [&](blockingThreadBean& own) {
    ++own.blockCount;
    own.blockStartTime = event.time;
  };
  {
    const support::lockGuard guard(top.mutex);
    const auto own = top.blockingThreads.find(self);
    if (own == top.blockingThreads.end()) {
      return;
    }
    if (hasKnownWaiters) {
      open(own->second);
      return;
    }
  }
  if (!ownerLookups_.take(event.time)) {
    return;
  }
  support::monitorUsage usage(event.jvmti, event.jni);
  {
    const support::vmTurn turn(usageTurns_);
    if (vmIsEnding()) {
      return;
    }
    usage.read(event.object);
  }
  if (usage.waiterCount() <= 0) {
    return;
  }
  const support::lockGuard guard(top.mutex);
  const auto own = top.blockingThreads.find(self);
  if (own != top.blockingThreads.end()) {
    open(own->second);
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
  if (!store.knowsStackTrace(hash) && store.addStackTrace(hash, trace.text)) {
    TW_LOG(kLogDebug, kSeverityDebug, kUpdateStackTrace, "Hashcode for current stackTrace : %llu",
           static_cast<unsigned long long>(hash));
    const bool inBudget = store.config && store.config->maxStackTraceCount.take();
    if (inBudget && frames.size() + 1 > kMaxFrames) {
      dumpStackInFile(store);
    }
  }
  if (trace.classes) {
    store.stackTraces.remember(frames, hash, *std::move(trace.classes));
  }
  return hash;
}

// Names the stack of the event's thread by its hash, and counts the sighting for the thread on this
// lock and for the thread as an owner of it.
void mutexLockProfiler::updateStackTrace(monitorEvent& event, threadBean* thread,
                                         topLockBean* top) {
  std::array<jvmtiFrameInfo, kMaxFrames> frames;
  jint count = 0;
  if (event.jvmti->GetStackTrace(event.thread, 0, kMaxFrames, frames.data(), &count) !=
      JVMTI_ERROR_NONE) {
    count = 0;
  }
  const std::uint64_t hash =
      hashOf(event, stackFrames(frames.data(), static_cast<std::size_t>(count)));
  if (thread != nullptr) {
    const support::lockGuard guard(thread->stackMutex);
    countStackTrace(thread->stacktracebean, hash);
  }
  if (top != nullptr) {
    const std::string_view threadName = event.threadName().view();
    const support::lockGuard guard(top->mutex);
    const auto own = top->blockingThreads.find(threadName);
    if (own != top->blockingThreads.end()) {
      countStackTrace(own->second.stacktracebean, hash);
    }
  }
}

}  // namespace agent
