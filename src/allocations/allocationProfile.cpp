#include "allocations/allocationProfile.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <vector>

#include "agent/boundary.h"
#include "agent/twAprLib.h"
#include "support/jniRef.h"
#include "support/jvmtiStatus.h"
#include "support/vmTurn.h"

namespace agent {

namespace {

constexpr const char* kThreadName = "Allocation profile";
constexpr const char* kStart = "allocationProfile::start";
constexpr std::int64_t kStep = 100'000'000;       // nanoseconds
constexpr std::int64_t kRemoval = 1'000'000'000;  // between two searches for dead samples
constexpr std::int64_t kShortCollection = 500'000'000;
constexpr std::chrono::seconds kPatience{2};

const std::vector<jvmtiEvent>& events() {
  static const std::vector<jvmtiEvent> all = {JVMTI_EVENT_SAMPLED_OBJECT_ALLOC,
                                              JVMTI_EVENT_GARBAGE_COLLECTION_FINISH,
                                              JVMTI_EVENT_VM_DEATH};
  return all;
}

jvmtiCapabilities wantedCapabilities() {
  jvmtiCapabilities wanted{};
  wanted.can_generate_sampled_object_alloc_events = 1;
  wanted.can_generate_garbage_collection_events = 1;
  wanted.can_get_line_numbers = 1;
  wanted.can_get_source_file_name = 1;
  return wanted;
}

}  // namespace

allocationProfile& allocationProfile::ofProcess() {
  static allocationProfile& profile = *new allocationProfile;
  return profile;
}

allocationProfile::allocationProfile()
    : recorder_([this] { thread_.wake(); }),
      thread_(kThreadName, [this](JNIEnv* jni) { return takeStep(jni); }) {}

// --- Handlers -----------------------------------------------------------------------------------

void JNICALL allocationProfile::VMInit(jvmtiEnv* jvmti, JNIEnv* jni, jthread /*thread*/) {
  contained("allocationProfile::VMInit", "Exception occured in allocationProfile : VMInit", [&] {
    jvmti->SetEventNotificationMode(JVMTI_DISABLE, JVMTI_EVENT_VM_INIT, nullptr);
    allocationProfile& self = ofProcess();
    const std::string problem = self.start(self.environment_.vm(), jni, self.settingsForVm_);
    if (!problem.empty()) {
      TW_LOG(kLogError, kSeverityError, kStart, "The allocation profile does not run: %s",
             problem.c_str());
    }
  });
}

void JNICALL allocationProfile::VMDeath(jvmtiEnv* /*jvmti*/, JNIEnv* jni) {
  contained("allocationProfile::VMDeath", "Exception occured in allocationProfile : VMDeath",
            [&] { ofProcess().endWithVm(jni); });
}

void JNICALL allocationProfile::SampledObjectAlloc(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                                   jobject object, jclass cls, jlong size) {
  contained("allocationProfile::SampledObjectAlloc",
            "Exception occured in allocationProfile : SampledObjectAlloc",
            [&] { ofProcess().recorder_.take(jvmti, jni, thread, object, cls, size); });
}

void JNICALL allocationProfile::GarbageCollectionFinish(jvmtiEnv* /*jvmti*/) {
  ofProcess().rounds_.collectionFinished();
}

// --- Control ------------------------------------------------------------------------------------

std::string allocationProfile::open(JavaVM* vm) {
  constexpr jint kFirstWithSamples = 11;
  jvmtiEventCallbacks callbacks{};
  callbacks.VMInit = VMInit;
  callbacks.VMDeath = VMDeath;
  callbacks.SampledObjectAlloc = SampledObjectAlloc;
  callbacks.GarbageCollectionFinish = GarbageCollectionFinish;
  std::string problem = environment_.open(vm, wantedCapabilities(), callbacks);
  if (!problem.empty()) {
    return problem;
  }
  const jvmtiCapabilities& given = environment_.capabilities();
  if (given.can_generate_sampled_object_alloc_events == 0) {
    return support::featureVersion(environment_.jvmti()) < kFirstWithSamples
               ? "the VM samples allocations from JDK 11 on"
               : "the VM gives the samples of allocations to one agent, and another one has them";
  }
  return given.can_generate_garbage_collection_events == 0
             ? "the VM does not give the event of garbage collections"
             : "";
}

std::string allocationProfile::startWithVm(JavaVM* vm, const allocationSettings& settings) {
  std::string problem = open(vm);
  settingsForVm_ = settings;
  if (problem.empty() && !environment_.enable({JVMTI_EVENT_VM_INIT})) {
    problem = "the VM refuses its event VMInit";
  }
  return problem;
}

bool allocationProfile::isWorthReporting() const {
  constexpr std::uint64_t kFewest = 16;
  return isRunning() && recorder_.counted().samples.load() >= kFewest;
}

bool allocationProfile::handlersHaveLeft() {
  instruments::handlerGate::departure departure;
  return instruments::comesSoon([&] { return departure.isOver(recorder_.gate()); });
}

void allocationProfile::leaveBeforeVmEnds() {
  if (isRunning()) {
    environment_.disable({JVMTI_EVENT_SAMPLED_OBJECT_ALLOC, JVMTI_EVENT_GARBAGE_COLLECTION_FINISH});
    handlersHaveLeft();
  }
}

// The tables of a new session, and its handlers on. What throws leaves none.
void allocationProfile::begin(JNIEnv* jni, const allocationSettings& settings) {
  if (virtualThread_ == nullptr && support::mayHaveVirtualThreads(environment_.jvmti())) {
    support::pendingExceptionGuard exceptions(jni);
    const support::localRef<jclass> cls(jni, jni->FindClass("java/lang/BaseVirtualThread"));
    if (!exceptions.clear() && cls) {
      virtualThread_ = static_cast<jclass>(jni->NewGlobalRef(cls.get()));
    }
  }
  const support::lockGuard guard(samplesMutex_);
  keepWindow(jni);
  dropAll(jni);
  const std::int64_t now = instruments::steadyNanos();
  endSession();
  frozen_.reset();
  left_.reset();
  cost_.clear();
  collectionNanos_ = 0;
  samples_.begin(static_cast<std::size_t>(settings.liveSamples), now);
  rounds_.begin(jni);
  session_ = {settings, now, 0, 0};
  recorder_.begin(virtualThread_, settings.intervalBytes);
}

// All references.
void allocationProfile::dropAll(JNIEnv* jni) {
  recorder_.queue().take(
      [&](const sampleQueue::entry& each) { jni->DeleteWeakGlobalRef(each.sample.object); });
  samples_.drop(jni);
  rounds_.end(jni);
}

std::string allocationProfile::start(JavaVM* vm, JNIEnv* jni, const allocationSettings& settings) {
  const support::lockGuard oneCall(controlMutex_);
  if (isRunning()) {
    return "the allocation profile runs already";
  }
  if (hasLeft_) {
    return "the agent is detached";
  }
  std::string problem = open(vm);
  if (!problem.empty()) {
    return problem;
  }
  if (!handlersHaveLeft() || !thread_.hasEnded()) {
    return "the allocation profile of before has not ended yet";
  }
  begin(jni, settings);
  jvmtiEnv* const jvmti = environment_.jvmti();
  if (jvmti->SetHeapSamplingInterval(static_cast<jint>(settings.intervalBytes)) !=
      JVMTI_ERROR_NONE) {
    problem = "the VM refuses the interval of the samples";
  } else if (!thread_.start(environment_, jni)) {
    problem = "the VM gives it no thread";
  } else if (!environment_.enable(events())) {
    problem = "the VM refuses the events of allocations";
  }
  if (!problem.empty()) {
    recorder_.end();
    thread_.stop();
    handlersHaveLeft();
    const support::lockGuard guard(samplesMutex_);
    dropAll(jni);
    session_ = {};
  }
  return problem;
}

// Has the VM collect; true when that was a round for all that there was.
bool allocationProfile::collect(JNIEnv* jni) {
  std::uint32_t before = 0;
  {
    const support::lockGuard guard(samplesMutex_);
    drain(jni);
    if (!rounds_.renew(jni)) {
      return false;
    }
    samples_.renewed(rounds_);
    before = rounds_.ended();
  }
  const std::int64_t begin = instruments::steadyNanos();
  const jvmtiError error = environment_.jvmti()->ForceGarbageCollection();
  const std::int64_t nanos = instruments::steadyNanos() - begin;
  const support::lockGuard guard(samplesMutex_);
  collectionNanos_ = nanos;
  catchUp(jni);
  return error == JVMTI_ERROR_NONE && rounds_.ended() != before;
}

std::string allocationProfile::snapshot(JNIEnv* jni, const std::string& path,
                                        bool afterCollection) {
  const support::lockGuard oneCall(controlMutex_);
  std::string text;
  bool isAfter = false;
  {
    const support::lockGuard guard(samplesMutex_);
    if (session_.started == 0) {
      return "the allocation profile was never started";
    }
    afterCollection = afterCollection && !frozen_;
  }
  if (afterCollection) {
    isAfter = collect(jni);
  }
  {
    const support::lockGuard guard(samplesMutex_);
    if (!frozen_) {
      catchUp(jni);
      samples_.markPoint(rounds_, instruments::steadyNanos());
    }
    text = reportText(isAfter);
  }
  return instruments::writeReport(path, text);
}

bool allocationProfile::stop(JNIEnv* jni, bool afterCollection) {
  const support::lockGuard oneCall(controlMutex_);
  if (!isRunning()) {
    return false;
  }
  if (lastReport_.takeBack()) {
    end(jni, afterCollection);
  }
  return true;
}

void allocationProfile::end(JNIEnv* jni, bool afterCollection) {
  environment_.disable({JVMTI_EVENT_SAMPLED_OBJECT_ALLOC});
  recorder_.end();
  handlersHaveLeft();  // so that none leaves a reference any more
  const bool isAfter = afterCollection && !isFrozen() && collect(jni);
  environment_.disable(events());
  thread_.stop();
  const support::lockGuard guard(samplesMutex_);
  catchUp(jni);
  if (!frozen_) {
    samples_.markPoint(rounds_, instruments::steadyNanos());
    frozen_ = stateOf(isAfter);
  }
  session_.ended = instruments::steadyNanos();
  dropAll(jni);
}

std::string allocationProfile::leave(JNIEnv* jni) {
  const support::lockGuard oneCall(controlMutex_);
  hasLeft_ = true;
  if (isRunning()) {
    if (!lastReport_.takeBack()) {
      return "the VM is ending";
    }
    end(jni, false);
  }
  if (!handlersHaveLeft() || !thread_.hasEnded()) {
    return "its handlers or its thread have not ended";
  }
  {
    const support::lockGuard guard(samplesMutex_);
    keepWindow(jni);
    endSession();
    frozen_.reset();
    left_.reset();
    samples_.release();
  }
  if (virtualThread_ != nullptr) {
    jni->DeleteGlobalRef(virtualThread_);
    virtualThread_ = nullptr;
  }
  return environment_.close();
}

void allocationProfile::comeBack() {
  const support::lockGuard oneCall(controlMutex_);
  hasLeft_ = false;
}

bool allocationProfile::isFrozen() {
  const support::lockGuard guard(samplesMutex_);
  return frozen_.has_value();
}

bool allocationProfile::reportAtEnd(const std::string& path, bool isEnding) {
  const support::lockGuard oneCall(controlMutex_);
  if (!isRunning()) {
    return false;
  }
  lastReport_.order(path, isEnding);
  return true;
}

void allocationProfile::shutdownBegins(JNIEnv* jni, bool afterCollection,
                                       const std::function<bool()>& haveHooksBegun) {
  const support::lockGuard oneCall(controlMutex_);
  if (!isRunning() || isFrozen()) {
    return;
  }
  const bool isAfter = afterCollection && collect(jni);
  const support::lockGuard guard(samplesMutex_);
  // The collection took longer than the action before the hooks waits: they may have freed things.
  if (haveHooksBegun()) {
    return;
  }
  catchUp(jni);
  samples_.markPoint(rounds_, instruments::steadyNanos());
  frozen_ = stateOf(isAfter);
  session_.shutdown = frozen_->at;
}

// Whether a collection follows the shutdown hooks, which shows what they have left.
bool allocationProfile::prepareLastCollection(JNIEnv* jni) {
  if (!frozen_ || !frozen_->afterCollection || collectionNanos_ >= kShortCollection) {
    return false;
  }
  drain(jni);
  if (!rounds_.renew(jni)) {
    return false;
  }
  samples_.renewed(rounds_);
  return true;
}

bool allocationProfile::isLastCollectionDue(JNIEnv* jni) {
  if (!samplesMutex_.tryLockUntil(support::patienceClock::now() + kPatience)) {
    return false;
  }
  bool isDue = false;
  try {
    isDue = prepareLastCollection(jni);
  } catch (...) {
    samplesMutex_.unlock();
    throw;
  }
  samplesMutex_.unlock();
  return isDue;
}

// The profile's own thread collects, for a collector with threads of its own has ended them when
// the VM ends, and never answers. What takes much longer than before the hooks is left alone.
void allocationProfile::collectAtEnd() {
  constexpr std::chrono::milliseconds kLeast{200};
  const auto patience = kLeast + 3 * std::chrono::nanoseconds(collectionNanos_.load());
  lastCollection_.store(lastCollection::asked);
  thread_.wake();
  instruments::comesSoon([&] { return lastCollection_.load() >= lastCollection::answered; },
                         patience);
  lastCollection asked = lastCollection::asked;
  lastCollection_.compare_exchange_strong(asked, lastCollection::none);
}

// The last words, after all of the program's shutdown hooks. Nothing here waits for long: what has
// not come by then was suspended by a debugger.
void allocationProfile::endWithVm(JNIEnv* jni) {
  constexpr const char* kFunction = "allocationProfile::endWithVm";
  if (!isRunning()) {
    return;
  }
  const std::string path = lastReport_.path();
  if (path.empty()) {
    recorder_.end();
    thread_.stop();
    thread_.hasEnded();  // the VM would wait for a thread that is in native code
    return;
  }
  if (isLastCollectionDue(jni)) {
    collectAtEnd();
  }
  recorder_.end();
  thread_.stop();
  // While it waits for a collection it uses nothing of the profile, nor afterwards.
  const bool isAway = lastCollection_.load() == lastCollection::begun;
  if ((!isAway && !thread_.hasEnded()) ||
      !samplesMutex_.tryLockUntil(support::patienceClock::now() + kPatience)) {
    TW_LOG(kLogError, kSeverityError, kFunction, "%s was not written at the end", path.c_str());
    return;
  }
  std::string text;
  try {
    finish(jni);
    text = reportText(false);
  } catch (...) {
    samplesMutex_.unlock();
    throw;
  }
  samplesMutex_.unlock();
  instruments::lastReport::write(path, text, kFunction);
}

// What the hooks have left, and the end of the session.
void allocationProfile::finish(JNIEnv* jni) {
  catchUp(jni);
  session_.ended = instruments::steadyNanos();
  if (!frozen_) {
    frozen_ = stateOf(false);
  } else if (session_.shutdown != 0 && lastCollection_.load() == lastCollection::done &&
             rounds_.ended() > frozen_->collections) {
    left_ = afterHooks{rounds_.ended() - frozen_->collections,
                       samples_.aliveSince(session_.shutdown, frozen_->collections, rounds_)};
  }
}

aliveState allocationProfile::stateOf(bool afterCollection) {
  const std::int64_t now = instruments::steadyNanos();
  return {now, rounds_.ended(), afterCollection, samples_.states(rounds_, now)};
}

std::string allocationProfile::reportText(bool afterCollection) {
  support::jsonWriter json;
  const std::int64_t now = session_.ended == 0 ? instruments::steadyNanos() : session_.ended;
  writeAllocationReport(json, session_, recorder_, samples_,
                        frozen_ ? *frozen_ : stateOf(afterCollection), left_, cost_.total(), now);
  return json.text() + '\n';
}

// --- Figures ------------------------------------------------------------------------------------

// What it has counted goes on in the figures.
void allocationProfile::endSession() {
  if (session_.started != 0) {
    allocationFigures ended;
    ended.addSession(recorder_, samples_, rounds_, cost_.total());
    earlier_.keep(ended);
  }
  session_ = {};
}

allocationFigures allocationProfile::figures(JNIEnv* jni) {
  const support::lockGuard guard(samplesMutex_);
  allocationFigures all = earlier_;
  if (session_.started == 0) {
    return all;
  }
  all.isRunning = isRunning() && session_.ended == 0;
  if (all.isRunning) {
    drain(jni);
    all.intervalBytes = recorder_.interval();
  }
  all.addSession(recorder_, samples_, rounds_, cost_.total());
  return all;
}

// --- Windows ------------------------------------------------------------------------------------

std::string allocationProfile::window(JNIEnv* jni, bool isKept) {
  const support::lockGuard guard(samplesMutex_);
  isPushed_ = true;
  return isKept ? windows_.take() : newWindow(jni);
}

std::uint64_t allocationProfile::lostWindows() {
  const support::lockGuard guard(samplesMutex_);
  return windows_.dropped();
}

// Of a session whose counts are about to go.
void allocationProfile::keepWindow(JNIEnv* jni) {
  if (isPushed_) {
    windows_.put(newWindow(jni));
  }
}

std::string allocationProfile::newWindow(JNIEnv* jni) {
  if (session_.started == 0) {
    return {};
  }
  const bool isRunning = session_.ended == 0;
  if (isRunning) {
    catchUp(jni);
  }
  const std::int64_t now = isRunning ? instruments::steadyNanos() : session_.ended;
  return push_.take(session_, recorder_, samples_,
                    frozen_ ? frozen_->sites : samples_.states(rounds_, now), now);
}

// --- The profile's own thread -------------------------------------------------------------------

std::optional<std::int64_t> allocationProfile::takeStep(JNIEnv* jni) {
  allocationRecorder::leaveOutThisThread(true);
  lastCollection asked = lastCollection::asked;
  if (lastCollection_.compare_exchange_strong(asked, lastCollection::begun)) {
    const jvmtiError error = environment_.jvmti()->ForceGarbageCollection();
    lastCollection_.store(error == JVMTI_ERROR_NONE ? lastCollection::done
                                                    : lastCollection::answered);
    return std::nullopt;
  }
  const support::lockGuard guard(samplesMutex_);
  if (session_.ended != 0 || !isRunning()) {
    return std::nullopt;
  }
  const std::int64_t now = instruments::steadyNanos();
  drain(jni);
  hasDead_ = rounds_.look(jni) || hasDead_;
  if (hasDead_ && (now - lastRemoval_ >= kRemoval || samples_.isOver())) {
    samples_.removeDead(jni);
    hasDead_ = false;
    lastRemoval_ = now;
  }
  makeRoom(jni);
  if (now >= samples_.nextPoint() && !frozen_) {
    samples_.removeDead(jni);
    samples_.markPoint(rounds_, now);
  }
  cost_.endTick();
  return now + kStep;
}

void allocationProfile::drain(JNIEnv* jni) {
  const auto add = [&](const sampleQueue::entry& each) NO_THREAD_SAFETY_ANALYSIS {
    try {
      samples_.add(environment_.jvmti(), jni, each, rounds_);
    } catch (const std::bad_alloc&) {
      recorder_.countFailure();  // its reference has its owner
    }
  };
  recorder_.queue().take(add);
}

// Where the living have no room, samples become rarer.
void allocationProfile::makeRoom(JNIEnv* jni) {
  while (samples_.isOver()) {
    samples_.thinOut(jni);
    const std::int64_t rarer =
        std::min(recorder_.interval() * 2, allocationSettings::kLongestInterval);
    recorder_.setInterval(rarer);
    environment_.jvmti()->SetHeapSamplingInterval(static_cast<jint>(rarer));
  }
}

void allocationProfile::catchUp(JNIEnv* jni) {
  drain(jni);
  rounds_.look(jni);
  samples_.removeDead(jni);
  makeRoom(jni);
}

}  // namespace agent
