#include "exceptions/exceptionprofiler.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <new>
#include <utility>

#include "agent/boundary.h"
#include "agent/profilerRegistry.h"
#include "agent/twAprLib.h"
#include "agent/vmEnd.h"
#include "exceptions/captureMode.h"
#include "exceptions/exceptionRecord.h"
#include "exceptions/frameCapture.h"
#include "exceptions/madeExceptions.h"
#include "exceptions/madeHook.h"
#include "exceptions/raisedInHandler.h"
#include "exceptions/recordPlaces.h"
#include "exceptions/siteCounts.h"
#include "exceptions/undeliveredRecords.h"
#include "instruments/costAccount.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiRecords.h"
#include "support/stackRoom.h"

namespace agent {

namespace {

constexpr const char* kSetProfileData = "exceptionProfiler::setProfileData";

constexpr const char* kSwitchMade = "exceptionProfiler::switchMade";

constexpr std::int64_t kWindowSeconds = 60;

// Set while the handler runs on a thread: what the Java code that it calls throws is not recorded.
thread_local bool handlerRuns = false;

class handlerScope {
 public:
  handlerScope() { handlerRuns = true; }
  ~handlerScope() { handlerRuns = false; }
  handlerScope(const handlerScope&) = delete;
  handlerScope& operator=(const handlerScope&) = delete;
};

// What exceptions that are being made are looked at with; set before any is handed over.
std::atomic<jvmtiEnv*> madeEnvironment{nullptr};

// Set while the callback has a record that was cut.
thread_local bool recordIsCut = false;

// Stack that a record is built on, with what the VM guards at its end. Where Java code may still be
// called there is more: the VM keeps 80 KiB free below each of its frames.
constexpr std::size_t kStackNeeded = std::size_t{48} << 10U;

// Where exceptions are made in great numbers, to find out who makes them would be most of their
// cost: so often in a second it is done in any case. Beyond that, while a class is over its rate,
// its exceptions count without a site; it is asked again after so long.
constexpr std::int32_t kMakerLookups = 2000;
constexpr std::chrono::milliseconds kOverRate{100};

std::int64_t steadySeconds() {
  return instruments::steadyNanos() / 1'000'000'000;
}

constexpr siteCount siteCountOf(exceptionCount which) {
  switch (which) {
    case exceptionCount::filtered:
      return siteCount::filtered;
    case exceptionCount::blackListed:
      return siteCount::blackListed;
    case exceptionCount::overRate:
      return siteCount::overRate;
    case exceptionCount::delivered:
      return siteCount::recorded;
    case exceptionCount::cut:
      return siteCount::cut;
    case exceptionCount::rethrown:
      return siteCount::rethrown;
    default:
      return siteCount::failed;
  }
}

// Counts what became of an exception; as thrown somewhere when its site is not known.
void count(throwEvent& event, exceptionCount which) {
  exceptionCounts::ofProcess().add(which);
  if (event.site == nullptr) {
    event.site = &siteCounts::ofProcess().thrownSomewhere(event);
  }
  event.site->add(siteCountOf(which));
}

const profilerKind kThisKind = profilerKind::of<exceptionProfiler>(kExceptionProfiler);

// Without the capability to read variables there are records without values.
void omitUnreadable(ExceptionCaptureSettings& settings) {
  jvmtiCapabilities given{};
  jvmtiEnv* const jvmti = getRegistry()->environment();
  if (jvmti == nullptr || jvmti->GetCapabilities(&given) != JVMTI_ERROR_NONE ||
      given.can_access_local_variables != 0) {
    return;
  }
  settings.captureClassVariables = false;
  settings.captureMethodArguments = false;
  settings.captureLocalVariables = false;
  TW_LOG(kLogWarn, kSeverityWarn, kSetProfileData,
         "The VM does not let variables be read: records have no values but thread locals");
}

}  // namespace

exceptionProfiler::exceptionProfiler() : profiler(kExceptionStopped) {
  makerLookups_.set(kMakerLookups);
}

void exceptionProfiler::publish(const std::shared_ptr<profiler>& self) {
  setExceptionProfiler(std::dynamic_pointer_cast<exceptionProfiler>(self));
}

void exceptionProfiler::withdraw() {
  setExceptionProfiler(nullptr);
}

void exceptionProfiler::setEventCallbacks() {
  const std::shared_ptr<profilerRegistry> registry = getRegistry();
  if (registry->environment() == nullptr) {
    return;
  }
  registry->callbacks.Exception = ExceptionCallback;
}

void exceptionProfiler::addCapabilities() {
  const std::shared_ptr<profilerRegistry> registry = getRegistry();
  if (registry->environment() == nullptr) {
    return;
  }
  registry->capabilities.can_get_source_file_name = 1;
  registry->capabilities.can_get_line_numbers = 1;
  registry->capabilities.can_access_local_variables = 1;
  if (!exceptionsAreCapturedWhereMade()) {
    registry->capabilities.can_generate_exception_events = 1;
  }
}

void exceptionProfiler::setProfilerEventMode(bool enable) {
  jvmtiEnv* const jvmti = getRegistry()->environment();
  if (jvmti == nullptr) {
    return;
  }
  if (enable) {  // Deliberate: it stays so when the events are disabled.
    setState(kExceptionRunning);
  }
  if (exceptionsAreCapturedWhereMade()) {
    return;
  }
  for (const jvmtiEvent event : {JVMTI_EVENT_VM_INIT, JVMTI_EVENT_EXCEPTION}) {
    jvmti->SetEventNotificationMode(enable ? JVMTI_ENABLE : JVMTI_DISABLE, event, nullptr);
  }
}

std::int32_t exceptionProfiler::setProfileData(std::unique_ptr<sessionSettings> settings) {
  constexpr const char* kException = "Exception occured in  exceptionprofiler : setProfileData";
  return contained(kSetProfileData, kException, 0, [&] {
    auto* const given = dynamic_cast<ExceptionCaptureSettings*>(settings.get());
    if (given == nullptr) {
      TW_LOG(kLogError, kSeverityError, kSetProfileData, "Unable to get Exception profiler");
      return 0;
    }
    settings.release();
    const std::shared_ptr<ExceptionCaptureSettings> taken(given);
    if (taken->enabled) {
      siteCounts::ofProcess().begin(coarseMillis());  // has its memory before anything is thrown
    }
    if (taken->enabled && exceptionsAreCapturedWhereMade()) {
      omitUnreadable(*taken);
    }
    {
      const support::lockGuard guard(settingsMutex_);
      settings_.store(taken);
    }
    if (taken->enabled) {
      TW_LOG(kLogTrace, kSeverityTrace, kSetProfileData, "%s", taken->describe().c_str());
    }
    return 1;
  });
}

// --- Where they are made ---------------------------------------------------------------------

namespace {

// Never destroyed: it may be asked for while the process ends.
struct madeState {
  support::mutex mutex;
  std::string problem GUARDED_BY(mutex);
};

madeState& made() {
  static madeState& state = *new madeState;
  return state;
}

}  // namespace

std::string exceptionProfiler::madeProblem() {
  const support::lockGuard guard(made().mutex);
  return made().problem;
}

bool exceptionProfiler::switchMade(JNIEnv* jni, bool enable) {
  if (!enable) {
    madeHook::switchOff();
    return true;
  }
  jvmtiEnv* const jvmti = getRegistry()->environment();
  if (jvmti == nullptr) {
    return false;
  }
  madeEnvironment.store(jvmti, std::memory_order_release);
  madeHook& hook = madeHook::ofProcess();
  const std::string problem = hook.switchOn(jni, exceptionMade);
  if (!problem.empty()) {
    TW_LOG(kLogError, kSeverityError, kSwitchMade, "Exceptions where they are made: %s",
           problem.c_str());
  }
  const support::lockGuard guard(made().mutex);
  made().problem = problem;
  return hook.isInstalled();
}

// --- The filter ------------------------------------------------------------------------------

bool exceptionProfiler::takeRate(const std::string& className, std::int32_t rate, std::time_t now) {
  const support::lockGuard guard(rateMutex_);
  const auto [entry, isNew] = rates_.try_emplace(className, ExceptionRateEntry{1, now});
  if (isNew) {
    return true;
  }
  ExceptionRateEntry& known = entry->second;
  if (known.count != rate) {
    known.count = static_cast<std::int32_t>(static_cast<std::uint32_t>(known.count) + 1);
    return true;
  }
  // Deliberate: rates below 1 equal no count, and so set no limit.
  if (now - known.windowStart <= kWindowSeconds) {
    return false;
  }
  known = {1, now};
  return true;
}

void JNICALL exceptionProfiler::ExceptionCallback(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                                  jmethodID method, jlocation location,
                                                  jobject exception, jmethodID catchMethod,
                                                  jlocation /*catchLocation*/) {
  if (handlerRuns) {
    return;
  }
  const handlerScope scope;
  try {
    exceptionOccurred({.jvmti = jvmti,
                       .jni = jni,
                       .thread = thread,
                       .method = method,
                       .location = location,
                       .exception = exception,
                       .settings = {},
                       .isCaught = catchMethod != nullptr});
  } catch (...) {
    logRefusal("Exception occured in exceptionprofiler : ExceptionCallback");
  }
}

void exceptionProfiler::exceptionMade(JNIEnv* jni, jobject exception) noexcept {
  if (handlerRuns || vmIsEnding()) {
    return;
  }
  const handlerScope scope;
  throwEvent event{.jvmti = nullptr,
                   .jni = jni,
                   .thread = nullptr,
                   .method = nullptr,
                   .location = 0,
                   .exception = exception,
                   .settings = {},
                   .isMade = true};
  if (support::stackLeft() < kStackNeeded) {
    exceptionCounts::ofProcess().add(exceptionCount::seen);
    return count(event, exceptionCount::noStack);
  }
  try {
    event.jvmti = madeEnvironment.load(std::memory_order_acquire);
    exceptionOccurred(std::move(event));
  } catch (...) {
    logRefusal("Exception occured in exceptionprofiler : exceptionMade");
  }
}

void exceptionProfiler::exceptionOccurred(throwEvent event) {
  const std::shared_ptr<exceptionProfiler> self = getExceptionProfiler();
  if (!self) {
    return logRefusal("Unable to get Exception profiler");
  }
  event.settings = self->settings_.load();
  if (!event.settings || !event.settings->enabled) {
    return logRefusal("Exception is not enabled");
  }
  if (event.exception == nullptr) {
    return logRefusal("exception object is NULL");
  }
  if (self->state() == kExceptionStopped) {
    return logRefusal("Exception profiler stage is stopped");
  }
  exceptionCounts::ofProcess().add(exceptionCount::seen);
  self->exceptionThrown(event);
}

void exceptionProfiler::exceptionThrown(throwEvent& event) {
  try {
    const std::optional<exceptionCount> refused = refusal(event);
    if (!refused) {
      return recordAndDeliver(event);
    }
    if (*refused == exceptionCount::vm) {
      const bool isWithoutMaker = event.isMade && event.lastError == JVMTI_ERROR_NONE;
      return lose(event, *refused, isWithoutMaker ? "no frame made it" : nullptr);
    }
    count(event, *refused);
    if (event.isMade && event.method != nullptr && *refused == exceptionCount::overRate) {
      event.info->value.overRateUntil.store(
          instruments::steadyNanos() + std::chrono::nanoseconds(kOverRate).count(),
          std::memory_order_relaxed);
    }
  } catch (const std::bad_alloc&) {
    lose(event, exceptionCount::noMemory, "there is no memory");
    throw;
  } catch (...) {
    lose(event, exceptionCount::vm, "something was thrown in the agent");
    throw;
  }
}

std::optional<exceptionCount> exceptionProfiler::refusal(throwEvent& event) {
  jvmtiError error = JVMTI_ERROR_NONE;
  const support::localRef<jclass> exceptionClass(event.jni,
                                                 event.jni->GetObjectClass(event.exception));
  if (!exceptionClass) {
    return exceptionCount::vm;
  }
  event.info = classes_.of(event.jvmti, event.jni, exceptionClass.get(), error);
  if (event.failed(error) || !event.info) {
    return exceptionCount::vm;
  }
  if (event.isMade) {
    if (goesWithoutSite(event)) {
      return exceptionCount::overRate;
    }
    if (!findMaker(event, exceptionClass.get())) {
      return exceptionCount::vm;
    }
  }
  if (event.method != nullptr) {
    if (const std::optional<exceptionCount> refused = refusalOfThrower(event)) {
      return refused;
    }
  }
  // Where it is made, no object is met again.
  if (event.isCaught && recorded_.isOn() &&
      recorded_.has(event.jvmti, event.jni, event.exception)) {
    return exceptionCount::rethrown;
  }
  return refusalOfClass(event);
}

bool exceptionProfiler::goesWithoutSite(const throwEvent& event) {
  const std::int64_t until = event.info->value.overRateUntil.load(std::memory_order_relaxed);
  if (until == 0) {
    return false;
  }
  const std::int64_t now = instruments::steadyNanos();
  return now < until && !makerLookups_.take(now);
}

std::optional<exceptionCount> exceptionProfiler::refusalOfThrower(throwEvent& event) {
  jclass declaring = nullptr;
  if (event.failed(event.jvmti->GetMethodDeclaringClass(event.method, &declaring))) {
    return exceptionCount::vm;
  }
  const support::localRef<jclass> throwerClass(event.jni, declaring);
  jvmtiError error = JVMTI_ERROR_NONE;
  const knownClasses::entry thrower = classes_.of(event.jvmti, event.jni, declaring, error);
  if (event.failed(error)) {
    return exceptionCount::vm;
  }
  if (thrower) {
    event.site = &siteCounts::ofProcess().thrown(event, thrower->value, declaring);
  }
  if (!thrower || !thrower->value.ignoredAsThrower) {
    return std::nullopt;
  }
  TW_LOG(kLogDebug, kSeverityError, kExceptionCallback, "Default exception class %s  %s",
         thrower->value.name.c_str(), event.info->value.signature.c_str());
  return exceptionCount::filtered;
}

std::optional<exceptionCount> exceptionProfiler::refusalOfClass(const throwEvent& event) {
  const std::string& className = event.info->value.lowerCaseName;
  const ExceptionCaptureSettings& settings = *event.settings;
  if (className.empty()) {
    logRefusal("exception class is empty");
    return exceptionCount::vm;
  }
  // Deliberate: before the black list, so that what that refuses uses up its class's rate too.
  const bool isWithinRate =
      spread_.isOn() ? spread_.take(className, settings.captureRate, event.site, steadySeconds())
                     : takeRate(className, settings.captureRate, std::time(nullptr));
  if (!isWithinRate) {
    logRefusal("exception ratecount exceed");
    return exceptionCount::overRate;
  }
  const std::vector<std::string>& blackList = settings.blackList;
  if (std::find(blackList.begin(), blackList.end(), className) == blackList.end()) {
    return std::nullopt;
  }
  TW_LOG(kLogDebug, kSeverityError, kExceptionCallback, "exception class %s found in black list",
         className.c_str());
  return exceptionCount::blackListed;
}

void exceptionProfiler::lose(throwEvent& event, exceptionCount reason, const char* why) noexcept {
  if (event.lastError == JVMTI_ERROR_OUT_OF_MEMORY) {
    reason = exceptionCount::noMemory;
  }
  count(event, reason);
  // Nothing is recorded any more when the VM has ended.
  if (twAprLib::level() < kLogWarn || event.lastError == JVMTI_ERROR_WRONG_PHASE) {
    return;
  }
  const char* const name = event.info ? event.info->value.name.c_str() : "a class without a name";
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  try {
    if (!lossLines_.take(name, reason, std::chrono::ceil<std::chrono::seconds>(now).count())) {
      return;
    }
  } catch (...) {
    return;  // the system refuses a lock
  }
  std::array<char, 64> refusal;
  std::snprintf(refusal.data(), refusal.size(), "the VM refused something with error %d",
                static_cast<int>(event.lastError));
  TW_LOG(kLogWarn, kSeverityWarn, kExceptionCallback, "The record of a thrown %s is lost: %s", name,
         why == nullptr ? refusal.data() : why);
}

// --- The record ------------------------------------------------------------------------------

void exceptionProfiler::recordAndDeliver(throwEvent& event) {
  if (support::stackLeft() < kStackNeeded) {
    return lose(event, exceptionCount::noStack, "there is no stack to build it on");
  }
  support::localRef<jthread> maker;
  if (event.isMade) {  // which has no thread yet
    if (event.failed(event.jvmti->GetCurrentThread(&event.thread))) {
      return lose(event, exceptionCount::vm, nullptr);
    }
    maker = support::localRef<jthread>(event.jni, event.thread);
  }
  // From here on Java is called, and after its end no more.
  raisedInHandler raised(event.jvmti, event.jni, event.thread);
  event.raised = &raised;
  record::builder built(static_cast<std::size_t>(recordBytes),
                        event.settings->onExceptionRecordMethod != nullptr);
  const captureDepths depths{captureObjType, captureObjDepth, captureSTDepth};
  if (!frameCapture(event, built, depths, classes_, localTurns_).appendStack()) {
    return lose(event, exceptionCount::vm, nullptr);
  }
  if (built.isCut()) {
    count(event, exceptionCount::cut);
    TW_LOG(kLogError, kSeverityError, kExceptionCallback,
           "The record of a thrown %s is cut and ends after %zu bytes (recordBytes=%d)",
           event.info->value.name.c_str(), built.size(), static_cast<int>(recordBytes));
  }
  if (vmIsEnding()) {
    return lose(event, exceptionCount::vm, "the VM is ending");
  }
  deliver(event, built);
}

bool exceptionProfiler::isInHandler() {
  return handlerRuns;
}

bool exceptionProfiler::isRecordCut() {
  return recordIsCut;
}

void exceptionProfiler::deliver(throwEvent& event, record::builder& built) {
  built.dropLastSeparator(0);
  finishedRecord record{.isCut = built.isCut()};
  if (built.size() == 0) {
    return lose(event, exceptionCount::vm,
                record.isCut ? "its first frame is larger than recordBytes" : "it has no frame");
  }
  const ExceptionCaptureSettings& settings = *event.settings;
  if (settings.onExceptionRecordMethod != nullptr) {
    record.places = built.takePlaces();
    record.facts = factsOf(event, record.isCut);
  }
  record.text = built.take();
  if (settings.callbackClass == nullptr || settings.onExceptionOccuredMethod == nullptr) {
    logRefusal("exception id  not found");
    return lose(event, exceptionCount::callback, "there is no callback");
  }
  if (handOver(event, record) == raisedInHandler::kind::noStack) {
    keepForLater(event, std::move(record));
  }
}

std::uint32_t exceptionProfiler::factsOf(const throwEvent& event, bool isCut) const {
  return record::packed({.isCaught = event.isCaught,
                         .isCut = isCut,
                         .isVirtual = isVirtual(event),
                         .isMade = event.isMade,
                         .objectDepth = captureObjDepth,
                         .objectType = captureObjType,
                         .stackDepth = captureSTDepth});
}

// Calls the callback, and counts what became of the record.
raisedInHandler::kind exceptionProfiler::handOver(throwEvent& event, const finishedRecord& record) {
  JNIEnv* const jni = event.jni;
  const support::localRef<jstring> string(jni, jni->NewStringUTF(record.text.c_str()));
  if (!string) {
    const raisedInHandler::kind raised = event.raised->clear();
    loseByRaised(event, raised, false);
    return raised;
  }
  // Deliberate: "38" is text.
  TW_LOG(kLogDebug, kSeverityDebug, kExceptionCallback, "Going to Dump 38 Record for -> %s\n\n\n",
         record.text.c_str());
  support::localRef<jintArray> places;
  if (!record.places.empty()) {
    places = support::newNumbers(jni, record.places);
    if (!places) {
      event.raised->clear();  // the text goes without them
    }
  }
  recordIsCut = record.isCut;
  raisedInHandler::beginCallback();
  call(event, string.get(), places.get(), record.facts);
  recordIsCut = false;
  const raisedInHandler::kind raised = event.raised->clearAfterCallback();
  if (raised == raisedInHandler::kind::none) {
    count(event, exceptionCount::delivered);
    if (event.isCaught && recorded_.isOn()) {
      recorded_.add(event.jvmti, event.jni, event.exception);
    }
  } else {
    loseByRaised(event, raised, true);
  }
  return raised;
}

void exceptionProfiler::call(const throwEvent& event, jstring text, jintArray places,
                             std::uint32_t facts) {
  const ExceptionCaptureSettings& settings = *event.settings;
  if (places == nullptr) {
    event.jni->CallStaticVoidMethod(settings.callbackClass, settings.onExceptionOccuredMethod, text,
                                    event.exception);
  } else {
    event.jni->CallStaticVoidMethod(settings.callbackClass, settings.onExceptionRecordMethod, text,
                                    event.exception, places, static_cast<jint>(facts));
  }
}

// Of a record that could not be handed over for what is no longer pending now.
void exceptionProfiler::loseByRaised(throwEvent& event, raisedInHandler::kind raised,
                                     bool wasCalled) {
  using kind = raisedInHandler::kind;
  switch (raised) {
    case kind::noStack:
      return lose(event, exceptionCount::noStack, "there is no stack to call Java on");
    case kind::noMemory:
      return lose(event, exceptionCount::noMemory, "there is no memory");
    case kind::asynchronous:
      return lose(event, exceptionCount::callback, "its thread was sent an exception meanwhile");
    case kind::other:
    case kind::none:
      break;
  }
  if (!wasCalled) {
    return lose(event, exceptionCount::noMemory, "there is no memory");
  }
  std::array<char, 256> why;
  std::snprintf(why.data(), why.size(), "the callback threw %s", event.raised->className().c_str());
  lose(event, exceptionCount::callback, why.data());
}

// Whether its thread is a virtual one.
bool exceptionProfiler::isVirtual(const throwEvent& event) {
  const support::localRef<jclass> cls(event.jni, event.jni->GetObjectClass(event.thread));
  support::jvmtiText signature(event.jvmti);
  signature.fill(
      [&](char** out) { return event.jvmti->GetClassSignature(cls.get(), out, nullptr); });
  return signature.view() == "Ljava/lang/VirtualThread;";
}

// Without memory to keep it, the record stays lost.
void exceptionProfiler::keepForLater(const throwEvent& event, finishedRecord record) {
  using std::chrono::milliseconds;
  try {
    support::threadName thread(event.jvmti, event.jni);
    thread.read(event.thread);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    undeliveredRecords::ofProcess().keep({std::chrono::duration_cast<milliseconds>(now).count(),
                                          std::string(thread.view()), event.info->value.name,
                                          std::move(record.text), record.isCut, isVirtual(event),
                                          std::move(record.places), record.facts, event.site});
  } catch (...) {
    return;
  }
}

}  // namespace agent
