#include "contention/contentionProfile.h"

#include <chrono>
#include <vector>

#include "agent/boundary.h"
#include "agent/twAprLib.h"
#include "contention/parkHook.h"
#include "instruments/costAccount.h"
#include "support/jniRef.h"
#include "support/jvmtiStatus.h"
#include "support/vmTurn.h"

namespace agent {

namespace {

constexpr const char* kThreadName = "Contention profile";
constexpr const char* kStart = "contentionProfile::start";
constexpr std::chrono::seconds kPatience{2};

const std::vector<jvmtiEvent>& events() {
  static const std::vector<jvmtiEvent> all = {
      JVMTI_EVENT_MONITOR_CONTENDED_ENTER, JVMTI_EVENT_MONITOR_CONTENDED_ENTERED,
      JVMTI_EVENT_MONITOR_WAIT, JVMTI_EVENT_MONITOR_WAITED, JVMTI_EVENT_VM_DEATH};
  return all;
}

jvmtiCapabilities wantedCapabilities() {
  jvmtiCapabilities wanted{};
  wanted.can_generate_monitor_events = 1;
  wanted.can_get_monitor_info = 1;
  wanted.can_get_owned_monitor_stack_depth_info = 1;
  wanted.can_get_line_numbers = 1;
  wanted.can_get_source_file_name = 1;
  wanted.can_retransform_classes = 1;
  return wanted;
}

// A class by name, for good; null when the JDK has none of that name.
jclass classFor(JNIEnv* jni, const char* name) {
  const support::localRef<jclass> cls(jni, jni->FindClass(name));
  if (!cls) {
    jni->ExceptionClear();
    return nullptr;
  }
  return static_cast<jclass>(jni->NewGlobalRef(cls.get()));
}

}  // namespace

contentionProfile& contentionProfile::ofProcess() {
  static contentionProfile& profile = *new contentionProfile;
  return profile;
}

contentionProfile::contentionProfile()
    : sampler_(recorder_, samples_),
      thread_(kThreadName, [this](JNIEnv* jni) { return takeStep(jni); }) {}

// --- Handlers -----------------------------------------------------------------------------------

void JNICALL contentionProfile::VMInit(jvmtiEnv* jvmti, JNIEnv* jni, jthread /*thread*/) {
  contained("contentionProfile::VMInit", "Exception occured in contentionProfile : VMInit", [&] {
    jvmti->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_VM_INIT, nullptr);
    contentionProfile& self = ofProcess();
    const std::string problem = self.start(self.environment_.vm(), jni, self.settingsForVm_);
    if (!problem.empty()) {
      TW_LOG(kLogError, kSeverityError, kStart, "The contention profile does not run: %s",
             problem.c_str());
    }
  });
}

void JNICALL contentionProfile::VMDeath(jvmtiEnv* /*jvmti*/, JNIEnv* jni) {
  contained("contentionProfile::VMDeath", "Exception occured in contentionProfile : VMDeath",
            [&] { ofProcess().endWithVm(jni); });
}

void JNICALL contentionProfile::MonitorContendedEnter(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                                      jobject object) {
  ofProcess().recorder_.blockBegins(jvmti, jni, nullptr, thread, channel::enter, object);
}

void JNICALL contentionProfile::MonitorContendedEntered(jvmtiEnv* jvmti, JNIEnv* jni,
                                                        jthread /*thread*/, jobject /*object*/) {
  ofProcess().recorder_.blockEnds(jvmti, jni, nullptr, channel::enter);
}

void JNICALL contentionProfile::MonitorWait(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                            jobject object, jlong /*timeout*/) {
  ofProcess().recorder_.blockBegins(jvmti, jni, nullptr, thread, channel::wait, object);
}

void JNICALL contentionProfile::MonitorWaited(jvmtiEnv* jvmti, JNIEnv* jni, jthread /*thread*/,
                                              jobject /*object*/, jboolean timedOut) {
  ofProcess().recorder_.waitEnds(jvmti, jni, timedOut == JNI_TRUE);
}

void contentionProfile::acquisitionBegins(JNIEnv* /*jni*/) {
  contentionProfile& self = ofProcess();
  self.recorder_.acquisitionBegins(self.environment_.jvmti());
}

// The thread may be a carrier in the midst of its virtual thread's work: its own word counts.
void contentionProfile::blockerSet(JNIEnv* jni, jthread thread, jobject blocker) {
  contentionProfile& self = ofProcess();
  jvmtiEnv* const jvmti = self.environment_.jvmti();
  if (blocker != nullptr) {
    self.recorder_.blockBegins(jvmti, jni, thread, thread, channel::park, blocker);
  } else {
    self.recorder_.blockEnds(jvmti, jni, thread, channel::park);
  }
}

// --- Control ------------------------------------------------------------------------------------

std::string contentionProfile::open(JavaVM* vm) {
  jvmtiEventCallbacks callbacks{};
  callbacks.VMInit = VMInit;
  callbacks.VMDeath = VMDeath;
  callbacks.MonitorContendedEnter = MonitorContendedEnter;
  callbacks.MonitorContendedEntered = MonitorContendedEntered;
  callbacks.MonitorWait = MonitorWait;
  callbacks.MonitorWaited = MonitorWaited;
  callbacks.ClassFileLoadHook = parkHook::ClassFileLoadHook;
  std::string problem = environment_.open(vm, wantedCapabilities(), callbacks);
  if (!problem.empty()) {
    return problem;
  }
  const jvmtiCapabilities& given = environment_.capabilities();
  return given.can_generate_monitor_events == 0 || given.can_get_monitor_info == 0
             ? "the VM does not give the events of monitors"
             : "";
}

std::string contentionProfile::startWithVm(JavaVM* vm, const contentionSettings& settings) {
  std::string problem = open(vm);
  settingsForVm_ = settings;
  if (problem.empty() && !environment_.enable({JVMTI_EVENT_VM_INIT})) {
    problem = "the VM refuses its event VMInit";
  }
  return problem;
}

bool contentionProfile::hasContention() const {
  if (!isRunning()) {
    return false;
  }
  const lockTable& locks = recorder_.locks();
  bool isThere = recorder_.omitted().otherLocks.load() > 0;
  for (std::uint32_t place = 0; place < locks.end() && !isThere; ++place) {
    isThere = locks.isLive(place) && isContention(locks.at(place).kind);
  }
  return isThere;
}

bool contentionProfile::handlersHaveLeft() {
  instruments::handlerGate::departure departure;
  return instruments::comesSoon([&] { return departure.isOver(recorder_.gate()); });
}

void contentionProfile::leaveBeforeVmEnds() {
  if (isRunning()) {
    environment_.disable({JVMTI_EVENT_MONITOR_CONTENDED_ENTER,
                          JVMTI_EVENT_MONITOR_CONTENDED_ENTERED, JVMTI_EVENT_MONITOR_WAIT,
                          JVMTI_EVENT_MONITOR_WAITED});
    handlersHaveLeft();
  }
}

void contentionProfile::findClasses(JNIEnv* jni) {
  const auto find = [&](jclass& cls, const char* name) {
    if (cls == nullptr) {
      cls = classFor(jni, name);
    }
  };
  find(parks_.synchronizer, "java/util/concurrent/locks/AbstractOwnableSynchronizer");
  find(parks_.latch, "java/util/concurrent/CountDownLatch$Sync");
  find(parks_.stampedLock, "java/util/concurrent/locks/StampedLock");
  find(parks_.pool, "java/util/concurrent/ForkJoinPool");
  owners_.synchronizer = parks_.synchronizer;
  if (support::mayHaveVirtualThreads(environment_.jvmti())) {
    find(owners_.virtualThread, "java/lang/BaseVirtualThread");
  }
  if (owners_.synchronizer != nullptr && owners_.owner == nullptr) {
    owners_.owner =
        jni->GetFieldID(owners_.synchronizer, "exclusiveOwnerThread", "Ljava/lang/Thread;");
    if (owners_.owner == nullptr) {
      jni->ExceptionClear();
    }
  }
}

// What the report states about parks.
std::string contentionProfile::hookParks(JNIEnv* jni) {
  static constexpr parkCallbacks kCallbacks{acquisitionBegins, blockerSet};
  if (environment_.capabilities().can_retransform_classes == 0) {
    return "the VM does not let classes be retransformed";
  }
  if (parks_.synchronizer == nullptr || parks_.latch == nullptr || parks_.stampedLock == nullptr ||
      parks_.pool == nullptr) {
    return "the VM does not give the classes that tell locks from other parks";
  }
  const parkHookResult hooked = parkHook::install(environment_.jvmti(), jni, kCallbacks);
  if (hooked.level == parkHookLevel::exact) {
    return "exact";
  }
  TW_LOG(kLogWarn, kSeverityWarn, kStart, "Locks of java.util.concurrent: %s",
         hooked.missing.c_str());
  return hooked.level == parkHookLevel::parks ? "parks" : hooked.missing;
}

// The tables of a new session, and its handlers on. What throws leaves none.
void contentionProfile::begin(JNIEnv* jni, const contentionSettings& settings) {
  const support::lockGuard guard(samplesMutex_);
  keepWindow(jni);
  endSession(jni);
  const std::int64_t now = instruments::steadyNanos();
  const bool canCheck = environment_.capabilities().can_get_owned_monitor_stack_depth_info != 0;
  sampler_.begin(settings, owners_, canCheck, now);
  session_ = {settings, now, 0, "not yet"};
  recorder_.begin(jni, settings.locks, parks_);
}

// Of a start that came to nothing.
void contentionProfile::takeBack(JNIEnv* jni) {
  recorder_.end();
  thread_.stop();
  const support::lockGuard guard(samplesMutex_);
  recorder_.threads().dropAll(jni);
  session_ = {};
}

std::string contentionProfile::start(JavaVM* vm, JNIEnv* jni, const contentionSettings& settings) {
  const support::lockGuard oneCall(controlMutex_);
  if (isRunning()) {
    return "the contention profile runs already";
  }
  if (hasLeft_) {
    return "the agent is detached";
  }
  std::string problem = open(vm);
  if (!problem.empty()) {
    return problem;
  }
  if (!handlersHaveLeft() || !thread_.hasEnded()) {
    return "the contention profile of before has not ended yet";
  }
  findClasses(jni);
  begin(jni, settings);
  problem = thread_.start(environment_, jni) ? "" : "the VM gives it no thread";
  if (problem.empty() && !environment_.enable(events())) {
    problem = "the VM refuses the events of monitors";
  }
  if (!problem.empty()) {
    takeBack(jni);
    return problem;
  }
  const std::string parks = hookParks(jni);
  const support::lockGuard guard(samplesMutex_);
  session_.parks = parks;
  return "";
}

bool contentionProfile::stop(JNIEnv* jni) {
  const support::lockGuard oneCall(controlMutex_);
  if (!isRunning()) {
    return false;
  }
  if (!lastReport_.takeBack()) {
    return true;
  }
  const std::string problem = end(jni);
  if (!problem.empty()) {
    TW_LOG(kLogWarn, kSeverityWarn, "contentionProfile::stop", "%s", problem.c_str());
  }
  return true;
}

// Why the hook of parks stays, or an empty text.
std::string contentionProfile::end(JNIEnv* jni) {
  environment_.disable(events());
  {
    const support::lockGuard guard(samplesMutex_);
    recorder_.end();
    session_.ended = instruments::steadyNanos();
    sampler_.catchUp(environment_.jvmti(), jni, session_.ended);
  }
  thread_.stop();
  std::string problem = parkHook::remove(environment_.jvmti(), jni);
  handlersHaveLeft();  // so that none leaves a reference to its thread any more
  const support::lockGuard guard(samplesMutex_);
  recorder_.threads().dropAll(jni);
  return problem;
}

std::string contentionProfile::leave(JNIEnv* jni) {
  const support::lockGuard oneCall(controlMutex_);
  hasLeft_ = true;
  std::string problem;
  if (isRunning()) {
    if (!lastReport_.takeBack()) {
      return "the VM is ending";
    }
    const bool canHook = environment_.capabilities().can_retransform_classes != 0;
    problem = end(jni);
    if (!canHook) {
      problem.clear();  // there was no hook
    }
  }
  if (!problem.empty() || !handlersHaveLeft() || !thread_.hasEnded()) {
    return problem.empty() ? "its handlers or its thread have not ended" : problem;
  }
  {
    const support::lockGuard guard(samplesMutex_);
    keepWindow(jni);
    endSession(jni);
    samples_.clear();
    recorder_.locks().begin(jni, contentionSettings::kFewestLocks);
  }
  dropClasses(jni);
  return environment_.close();
}

void contentionProfile::comeBack() {
  const support::lockGuard oneCall(controlMutex_);
  hasLeft_ = false;
}

void contentionProfile::dropClasses(JNIEnv* jni) {
  for (jclass const each : {parks_.synchronizer, parks_.latch, parks_.stampedLock, parks_.pool,
                            owners_.virtualThread}) {
    if (each != nullptr) {
      jni->DeleteGlobalRef(each);
    }
  }
  parks_ = {};
  owners_ = {};
}

bool contentionProfile::reportAtEnd(const std::string& path, bool isEnding) {
  const support::lockGuard oneCall(controlMutex_);
  if (!isRunning()) {
    return false;
  }
  lastReport_.order(path, isEnding);
  return true;
}

// The last words, after all of the program's shutdown hooks. Nothing here waits for long: what has
// not come by then was suspended by a debugger.
void contentionProfile::endWithVm(JNIEnv* jni) {
  constexpr const char* kFunction = "contentionProfile::endWithVm";
  if (!isRunning()) {
    return;
  }
  const std::string path = lastReport_.path();
  recorder_.end();
  thread_.stop();
  if (path.empty()) {
    thread_.hasEnded();  // the VM would wait for a thread that is in native code
    return;
  }
  std::string text;
  if (!thread_.hasEnded() ||
      !samplesMutex_.tryLockUntil(support::patienceClock::now() + kPatience)) {
    TW_LOG(kLogError, kSeverityError, kFunction, "%s was not written at the end", path.c_str());
    return;
  }
  try {
    session_.ended = instruments::steadyNanos();
    sampler_.catchUp(environment_.jvmti(), jni, session_.ended);
    text = reportText(jni);
  } catch (...) {
    samplesMutex_.unlock();
    throw;
  }
  samplesMutex_.unlock();
  instruments::lastReport::write(path, text, kFunction);
}

std::string contentionProfile::snapshot(JNIEnv* jni, const std::string& path) {
  const support::lockGuard oneCall(controlMutex_);
  std::string text;
  {
    const support::lockGuard guard(samplesMutex_);
    if (session_.started == 0) {
      return "the contention profile was never started";
    }
    if (session_.ended == 0) {
      sampler_.catchUp(environment_.jvmti(), jni, instruments::steadyNanos());
    }
    text = reportText(jni);
  }
  return instruments::writeReport(path, text);
}

std::string contentionProfile::reportText(JNIEnv* jni) {
  support::jsonWriter json;
  const std::int64_t now = session_.ended == 0 ? instruments::steadyNanos() : session_.ended;
  writeContentionReport(json, jni, session_, recorder_, samples_, sampler_, now);
  return json.text() + '\n';
}

// --- Figures ------------------------------------------------------------------------------------

void contentionProfile::addSession(JNIEnv* jni, contentionFigures& all) {
  if (session_.started == 0) {
    return;
  }
  sessionFigures session(recorder_);
  session.read();
  if (session_.ended == 0) {
    sampler_.catchUp(environment_.jvmti(), jni, instruments::steadyNanos());
  }
  session.addTo(all, samples_, sampler_);
}

// What it has counted goes on in the figures.
void contentionProfile::endSession(JNIEnv* jni) {
  contentionFigures ended;
  addSession(jni, ended);
  earlier_.keep(ended);
  session_ = {};
}

contentionFigures contentionProfile::figures(JNIEnv* jni) {
  const support::lockGuard guard(samplesMutex_);
  contentionFigures all = earlier_;
  addSession(jni, all);
  all.isRunning = isRunning() && session_.started != 0 && session_.ended == 0;
  if (!all.isRunning) {
    all.blockedThreads.fill(0);
    return all;
  }
  all.budgetPercent = session_.settings.budgetPercent;
  for (const stuckLock& each : samples_.stuck) {
    all.stuckThreads += each.waiterCount;
  }
  all.stuckLocksDropped = samples_.stuckDropped;
  all.deadlocks = samples_.deadlocks.size();
  return all;
}

// --- Windows ------------------------------------------------------------------------------------

std::string contentionProfile::window(JNIEnv* jni, bool isKept) {
  const support::lockGuard guard(samplesMutex_);
  isPushed_ = true;
  return isKept ? windows_.take() : newWindow(jni);
}

std::uint64_t contentionProfile::lostWindows() {
  const support::lockGuard guard(samplesMutex_);
  return windows_.dropped();
}

// Of a session whose counts are about to go.
void contentionProfile::keepWindow(JNIEnv* jni) {
  if (isPushed_) {
    windows_.put(newWindow(jni));
  }
}

std::string contentionProfile::newWindow(JNIEnv* jni) {
  if (session_.started == 0) {
    return {};
  }
  push_.read(recorder_);
  const bool isRunning = session_.ended == 0;
  if (isRunning) {
    sampler_.catchUp(environment_.jvmti(), jni, instruments::steadyNanos());
  }
  return push_.take(session_, recorder_, samples_, sampler_,
                    isRunning ? instruments::steadyNanos() : session_.ended);
}

// --- The profile's own thread -------------------------------------------------------------------

std::optional<std::int64_t> contentionProfile::takeStep(JNIEnv* jni) {
  const support::lockGuard guard(samplesMutex_);
  if (session_.ended != 0) {
    return std::nullopt;
  }
  sampler_.step(environment_.jvmti(), jni, instruments::steadyNanos());
  return sampler_.nextStep(instruments::steadyNanos());
}

}  // namespace agent
