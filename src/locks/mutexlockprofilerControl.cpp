// Control of the lock profiler: settings, event mode, ranking and report. The event handlers are in
// mutexlockprofiler.cpp.
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/boundary.h"
#include "agent/profilerRegistry.h"
#include "agent/reportOutcome.h"
#include "agent/twAprLib.h"
#include "locks/lockRanking.h"
#include "locks/lockReport.h"
#include "locks/mutexlockprofiler.h"
#include "support/fileWriter.h"
#include "support/sourcePlace.h"
#include "support/text.h"

namespace agent {

namespace {

constexpr const char* kSetProfileData = "mutexLockProfiler::setProfileData";
constexpr const char* kSortData = "mutexLockProfiler::sortData";
constexpr const char* kDumpJson = "mutexLockProfiler::dumpJsonObjectFromMapDS";
constexpr const char* kDumpStack = "mutexLockProfiler::dumpStackInFile";

void logUnwritable(const char* function, const char* what, const std::string& path,
                   const std::string& reason,
                   support::sourcePlace where = support::sourcePlace::current()) {
  if (twAprLib::level() < kLogError) {
    return;
  }
  twAprLib::write(nullptr, 0, kLogModule, kSeverityError, where.file, where.line, function,
                  "Unable to write %s '%s'. Error = '%s'", what, path.c_str(), reason.c_str());
}

const profilerKind kThisKind = profilerKind::of<mutexLockProfiler>(kMutexLockProfiler);

}  // namespace

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
  store()->starts.noteLostEvents();
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
    // Deliberate: a new session keeps the graphs' origin and the queue of ranked locks.
    const auto next = std::make_shared<lockStore>(std::unique_ptr<LockSessionConfig>(given));
    // Described before events take from its countdowns.
    const std::string details =
        twAprLib::level() >= kLogTrace ? next->config->describe() : std::string();
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

void mutexLockProfiler::sortData() {
  constexpr const char* kException = "Exception occured in mutexlockprofiler : sortData";
  contained(kSortData, kException, [&] {
    if (!getMutexProfiler()) {
      TW_LOG(kLogError, kSeverityError, kSortData, "Unable to get mutex profiler");
      return;
    }
    const std::shared_ptr<lockStore> current = store();
    const std::vector<lockBean*> locks = current->locksByName();
    TW_LOG(kLogDebug, kSeverityDebug, kSortData, "In sort data size of Lock Map is :%zu",
           locks.size());
    if (locks.empty()) {
      TW_LOG(kLogError, kSeverityError, kSortData, "No lock object found");
    }
    lockRanking::ofProcess().select(current, locks);
    epoch_.fetch_add(1);
    TW_LOG(kLogDebug, kSeverityDebug, kSortData, "Going to reset count");
    for (lockBean* const lock : locks) {
      lock->resetCounts();
    }
  });
}

topLockBean* mutexLockProfiler::findTopLock(std::string_view lockName) const {
  const std::map<std::string_view, topLockBean*> selected = store()->topLockMap();
  const auto found = selected.find(lockName);
  return found == selected.end() ? nullptr : found->second;
}

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

    std::string reportPath = support::textOf(jni, path);
    TW_LOG(kLogTrace, kSeverityTrace, kDumpJson, "File Path to dump json : %s", reportPath.c_str());
    if (reportPath.empty()) {
      TW_LOG(kLogError, kSeverityError, kDumpJson,
             "No lock report written: the report path is null or empty");
      return 0;
    }
    writeReport(current, std::move(reportPath));
    if (lookups_.perSecond() > 0) {
      TW_LOG(kLogTrace, kSeverityTrace, kDumpJson,
             "Owner lookups left out : %llu , at most %d a second were made",
             static_cast<unsigned long long>(current->ownerLookups.skipped.load()),
             lookups_.perSecond());
    }
    current->clearTopLocks();
    return 1;  // Deliberate: also when the file could not be written; the log has the reason
  });
}

void mutexLockProfiler::writeReport(const std::shared_ptr<lockStore>& store,
                                    std::string path) const {
  support::fileWriter file(support::fileSystemPath(path), support::fileWriter::mode::truncate);
  const sessionSnapshot session =
      snapshotOf(store, lockRanking::ofProcess().takeReportQueue(), lookups_.perSecond());
  if (session.nothingRanked) {
    TW_LOG(kLogWarn, kSeverityWarn, kDumpJson,
           "Agent was not able to find any lockBean data to report genuinely as no problem "
           "occurred");
  }
  for (const lockSnapshot& each : session.locks) {
    if (each.threads.empty()) {  // Deliberate: never, as locks without threads are not reported
      TW_LOG(kLogWarn, kSeverityWarn, kDumpJson,
             "Agent was not able to find any threadBean data for %s to report genuinely as no "
             "problem occurred",
             std::string(each.lockName).c_str());
    }
  }
  if (session.blockingThreads.empty()) {
    TW_LOG(kLogWarn, kSeverityWarn, kDumpJson,
           "Agent was not able to find any blocking thread data to report genuinely as no "
           "problem occurred");
  }
  support::jsonWriter json;
  writeLockReport(json, session);
  file.write(json.text());
  std::string reason = file.close();
  if (!reason.empty()) {
    logUnwritable(kDumpJson, "lock report", path, reason);
  }
  reportOutcomes::ofProcess().end(kMutexLockProfiler, {std::move(path), std::move(reason),
                                                       file.written(), session.ownerLookups});
}

void mutexLockProfiler::dumpStackInFile(lockStore& store) {
  if (!store.config) {
    return;
  }
  const std::string& path = store.config->stackFilePath;
  const std::optional<knownStackTraces::written> written = store.stackTraces.writeTexts(path);
  if (!written) {
    return;
  }
  // Deliberate: only the low half of the graphs' origin goes.
  constexpr std::int64_t kHighHalf = ~std::int64_t{0xFFFFFFFF};
  startTime_.fetch_and(kHighHalf);
  TW_LOG(kLogDebug, kSeverityDebug, kDumpStack, "StackMap size is : %zu", written->traces);
  if (written->traces == 0) {  // Deliberate: never, as nothing is written then
    TW_LOG(kLogWarn, kSeverityWarn, kDumpStack,
           "Agent was not able to find any stackMap data to report genuinely as no problem "
           "occurred");
  }
  if (!written->error.empty()) {
    logUnwritable(kDumpStack, "stack trace file", path, written->error);
  }
}

}  // namespace agent
