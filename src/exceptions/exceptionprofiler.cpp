#include "exceptions/exceptionprofiler.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <new>
#include <stdexcept>
#include <utility>

#include "agent/boundary.h"
#include "agent/profilerRegistry.h"
#include "agent/twAprLib.h"
#include "agent/vmEnd.h"
#include "exceptions/exceptionRecord.h"
#include "exceptions/objectCapture.h"
#include "exceptions/raisedInHandler.h"
#include "exceptions/undeliveredRecords.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/jvmtiRecords.h"
#include "support/jvmtiStatus.h"
#include "support/stackRoom.h"
#include "support/text.h"

namespace agent {

namespace {

constexpr const char* kSetProfileData = "exceptionProfiler::setProfileData";
constexpr const char* kCheck = "exceptionProfiler::check";
constexpr const char* kCallback = "exceptionProfiler::ExceptionCallback";

constexpr const char* kCallbackClass = "com/korvane/twutils/nativeagent/TWNativeAgentProfiling";

constexpr jint kMaxFrames = 100;
constexpr std::int64_t kWindowSeconds = 60;
constexpr std::int32_t kNeverExpanded = 5;  // a level at or below every captureObjDepth
constexpr jlocation kNoLocation = -1;

constexpr jint kStatic = 0x0008;  // ACC_STATIC
constexpr jint kNative = 0x0100;  // ACC_NATIVE

// Whose exceptions are never recorded, by the class that throws them.
constexpr std::array<std::string_view, 5> kIgnoredThrowers = {
    "com.korvane.tw", "com.korvane.koragent", "com.korvane.commons", "sun.", "java.lang.class"};
// Whose frames are written without arguments and locals.
constexpr std::array<std::string_view, 4> kFramesWithoutValues = {
    "com.korvane.tw", "sun.", "com.korvane.commons", "com.sun."};

template <typename Prefixes>
bool startsWithOneOf(std::string_view name, const Prefixes& prefixes) {
  return std::any_of(prefixes.begin(), prefixes.end(), [&](std::string_view prefix) {
    return support::startsWithIgnoringCase(name, prefix);
  });
}

// Set while the handler runs on a thread: what the Java code that it calls throws is not recorded.
thread_local bool handlerRuns = false;

class handlerScope {
 public:
  handlerScope() { handlerRuns = true; }
  ~handlerScope() { handlerRuns = false; }
  handlerScope(const handlerScope&) = delete;
  handlerScope& operator=(const handlerScope&) = delete;
};

// Set while the callback has a record that was cut.
thread_local bool recordIsCut = false;

// Stack that a record is built on, with what the VM guards at its end. Where Java code may still be
// called there is more: the VM keeps 80 KiB free below each of its frames.
constexpr std::size_t kStackNeeded = std::size_t{48} << 10U;

// The VM has no value in that slot now: the variable is not written, all else is.
bool hasNoValue(jvmtiError error) {
  return error == JVMTI_ERROR_INVALID_SLOT || error == JVMTI_ERROR_TYPE_MISMATCH ||
         error == JVMTI_ERROR_OPAQUE_FRAME;
}

bool holds(const jvmtiLocalVariableEntry& variable, jlocation location) {
  return variable.length <= 0 || (location >= variable.start_location &&
                                  location < variable.start_location + variable.length);
}

std::string describe(const ExceptionCaptureSettings& settings) {
  std::string text =
      "********Enabling Exception Capture feature : \n\t\tClass variales capturing status : ";
  text += std::to_string(static_cast<int>(settings.captureClassVariables));
  text += "\n\t\tMethod arguments capturing Status :";
  text += std::to_string(static_cast<int>(settings.captureMethodArguments));
  text += "\n\t\tLocal variable capturing status :";
  text += std::to_string(static_cast<int>(settings.captureLocalVariables));
  text += "\n\t\tThread Local capturing status :";
  text += std::to_string(static_cast<int>(settings.captureThreadLocals));
  text += "\n\t\tException capturing Rate:" + std::to_string(settings.captureRate);
  text += "\n\t\tStackTrace depth:" + std::to_string(settings.stackTraceDepth);
  return text;
}

void say(const char* message) {
  TW_LOG(kLogDebug, kSeverityError, kCallback, "%s", message);
}

}  // namespace

// --- Settings --------------------------------------------------------------------------------

ExceptionCaptureSettings::~ExceptionCaptureSettings() {
  void* jni = nullptr;
  if (callbackClass == nullptr || vm_->GetEnv(&jni, JNI_VERSION_1_8) != JNI_OK) {
    return;
  }
  static_cast<JNIEnv*>(jni)->DeleteGlobalRef(callbackClass);
}

void ExceptionCaptureSettings::findCallback(JNIEnv* jni) {
  const support::pendingExceptionGuard exceptions(jni);
  if (jni->GetJavaVM(&vm_) != JNI_OK) {
    return;
  }
  const support::localRef<jclass> found(jni, jni->FindClass(kCallbackClass));
  if (!found) {
    return;
  }
  getObjectValueMethod = jni->GetStaticMethodID(found.get(), "getobjectValue",
                                                "(Ljava/lang/Object;)Ljava/lang/String;");
  if (getObjectValueMethod == nullptr) {
    jni->ExceptionClear();
  }
  onExceptionOccuredMethod = jni->GetStaticMethodID(found.get(), "onExceptionOccured",
                                                    "(Ljava/lang/String;Ljava/lang/Object;)V");
  if (onExceptionOccuredMethod == nullptr) {
    jni->ExceptionClear();
  }
  callbackClass = static_cast<jclass>(jni->NewGlobalRef(found.get()));
}

std::vector<std::string> parseBlackList(std::string_view text) {
  if (text.empty()) {
    throw std::out_of_range("invalid string position");
  }
  std::string names = support::lowerCase(text);
  names.pop_back();
  if (!names.empty()) {
    names.erase(0, 1);
  }
  std::vector<std::string> list;
  support::forEachPiece(names, ',', [&](std::string_view name) { list.emplace_back(name); });
  return list;
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
  registry->capabilities.can_generate_exception_events = 1;
}

void exceptionProfiler::setProfilerEventMode(bool enable) {
  jvmtiEnv* const jvmti = getRegistry()->environment();
  if (jvmti == nullptr) {
    return;
  }
  if (enable) {
    setState(kExceptionRunning);
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
    {
      const support::lockGuard guard(settingsMutex_);
      settings_.store(taken);
    }
    if (taken->enabled) {
      TW_LOG(kLogTrace, kSeverityTrace, kSetProfileData, "%s", describe(*taken).c_str());
    }
    return 1;
  });
}

// --- The filter ------------------------------------------------------------------------------

bool exceptionProfiler::check(JNIEnv* jni, jvmtiEnv* jvmti, jvmtiError code) {
  if (code == JVMTI_ERROR_NONE) {
    return false;
  }
  const std::string name = support::errorName(jvmti, code);
  jni->ExceptionDescribe();
  jni->ExceptionClear();
  TW_LOG(kLogDebug, kSeverityError, kCheck, "Error name is %s and error code is %d", name.c_str(),
         static_cast<int>(code));
  return true;
}

// What the handler needs to know of a class.
struct exceptionProfiler::classInfo {
  explicit classInfo(std::string_view classSignature) : signature(classSignature) {
    support::appendDottedClass(name, signature);
    lowerCaseName = support::lowerCase(name);
    ignoredAsThrower = startsWithOneOf(name, kIgnoredThrowers);
    framesWithoutValues = startsWithOneOf(name, kFramesWithoutValues);
  }

  std::string signature;
  std::string name;
  std::string lowerCaseName;
  bool ignoredAsThrower = false;
  bool framesWithoutValues = false;
};

// One thrown exception, and what its handler works on.
struct exceptionProfiler::throwEvent {
  jvmtiEnv* jvmti;
  JNIEnv* jni;
  jthread thread;
  jmethodID method;
  jobject exception;
  std::shared_ptr<ExceptionCaptureSettings> settings;
  classPtr info{};                          // of the exception's class, once it is known
  raisedInHandler* raised = nullptr;        // once a record is built
  jvmtiError lastError = JVMTI_ERROR_NONE;  // what the VM refused

  bool failed(jvmtiError error) {
    if (error == JVMTI_ERROR_NONE) {
      return false;
    }
    lastError = error;
    return check(jni, jvmti, error);
  }
};

// A record under way.
struct exceptionProfiler::recording {
  throwEvent& event;
  record::builder& out;
  objectCapture capture;
};

exceptionProfiler::classPtr exceptionProfiler::infoOf(jvmtiEnv* jvmti, JNIEnv* jni, jclass cls,
                                                      jvmtiError& error) {
  error = JVMTI_ERROR_NONE;
  const jint key = classes_.keyOf(jvmti, cls);
  if (classPtr kept = classes_.find(jni, key, cls)) {
    return kept;
  }
  support::jvmtiText signature(jvmti);
  error = signature.fill([&](char** out) { return jvmti->GetClassSignature(cls, out, nullptr); });
  if (!signature) {
    return nullptr;
  }
  return classes_.keep(jni, key, cls, signature.view());
}

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
  if (now - known.windowStart <= kWindowSeconds) {
    return false;
  }
  known = {1, now};
  return true;
}

void JNICALL exceptionProfiler::ExceptionCallback(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                                  jmethodID method, jlocation /*location*/,
                                                  jobject exception, jmethodID /*catchMethod*/,
                                                  jlocation /*catchLocation*/) {
  if (handlerRuns) {
    return;
  }
  const handlerScope scope;
  try {
    exceptionOccurred(jvmti, jni, thread, method, exception);
  } catch (...) {
    say("Exception occured in exceptionprofiler : ExceptionCallback");
  }
}

void exceptionProfiler::exceptionOccurred(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                          jmethodID method, jobject exception) {
  const std::shared_ptr<exceptionProfiler> self = getExceptionProfiler();
  if (!self) {
    return say("Unable to get Exception profiler");
  }
  std::shared_ptr<ExceptionCaptureSettings> settings = self->settings_.load();
  if (!settings || !settings->enabled) {
    return say("Exception is not enabled");
  }
  if (exception == nullptr) {
    return say("exception object is NULL");
  }
  if (self->state() == kExceptionStopped) {
    return say("Exception profiler stage is stopped");
  }
  throwEvent event{jvmti, jni, thread, method, exception, std::move(settings)};
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
      return lose(event, *refused, nullptr);
    }
    exceptionCounts::ofProcess().add(*refused);
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
  event.info = infoOf(event.jvmti, event.jni, exceptionClass.get(), error);
  if (event.failed(error) || !event.info) {
    return exceptionCount::vm;
  }

  if (event.method != nullptr) {
    jclass declaring = nullptr;
    if (event.failed(event.jvmti->GetMethodDeclaringClass(event.method, &declaring))) {
      return exceptionCount::vm;
    }
    const support::localRef<jclass> throwerClass(event.jni, declaring);
    const classPtr thrower = infoOf(event.jvmti, event.jni, declaring, error);
    if (event.failed(error)) {
      return exceptionCount::vm;
    }
    if (thrower && thrower->value.ignoredAsThrower) {
      TW_LOG(kLogDebug, kSeverityError, kCallback, "Default exception class %s  %s",
             thrower->value.name.c_str(), event.info->value.signature.c_str());
      return exceptionCount::filtered;
    }
  }

  const std::string& className = event.info->value.lowerCaseName;
  if (className.empty()) {
    say("exception class is empty");
    return exceptionCount::vm;
  }
  if (!takeRate(className, event.settings->captureRate, std::time(nullptr))) {
    say("exception ratecount exceed");
    return exceptionCount::overRate;
  }
  const std::vector<std::string>& blackList = event.settings->blackList;
  if (std::find(blackList.begin(), blackList.end(), className) != blackList.end()) {
    TW_LOG(kLogDebug, kSeverityError, kCallback, "exception class %s found in black list",
           className.c_str());
    return exceptionCount::blackListed;
  }
  return std::nullopt;
}

void exceptionProfiler::lose(const throwEvent& event, exceptionCount reason,
                             const char* why) noexcept {
  if (event.lastError == JVMTI_ERROR_OUT_OF_MEMORY) {
    reason = exceptionCount::noMemory;
  }
  exceptionCounts::ofProcess().add(reason);
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
  TW_LOG(kLogWarn, kSeverityWarn, kCallback, "The record of a thrown %s is lost: %s", name,
         why == nullptr ? refusal.data() : why);
}

// --- The record ------------------------------------------------------------------------------

void exceptionProfiler::recordAndDeliver(throwEvent& event) {
  if (support::stackLeft() < kStackNeeded) {
    return lose(event, exceptionCount::noStack, "there is no stack to build it on");
  }
  // From here on Java is called, and after its end no more.
  raisedInHandler raised(event.jvmti, event.jni, event.thread);
  event.raised = &raised;
  record::builder built(static_cast<std::size_t>(recordBytes));
  if (!record(event, built)) {
    return lose(event, exceptionCount::vm, nullptr);
  }
  if (built.isCut()) {
    exceptionCounts::ofProcess().add(exceptionCount::cut);
    TW_LOG(kLogError, kSeverityError, kCallback,
           "The record of a thrown %s is cut and ends after %zu bytes (recordBytes=%d)",
           event.info->value.name.c_str(), built.size(), static_cast<int>(recordBytes));
  }
  if (vmIsEnding()) {
    return lose(event, exceptionCount::vm, "the VM is ending");
  }
  deliver(event, built);
}

// Walks the stack; false when the VM refuses something that a record cannot do without.
bool exceptionProfiler::record(throwEvent& event, record::builder& out) {
  std::array<jvmtiFrameInfo, kMaxFrames> frames;
  jint count = 0;
  const support::localFrame references(event.jni, objectCapture::kReferences);
  recording now{
      event, out,
      objectCapture(event.jvmti, event.jni, event.thread, captureObjDepth, out, *event.raised)};
  const jint depth = std::min(event.settings->stackTraceDepth, kMaxFrames);
  if (event.failed(event.jvmti->GetStackTrace(event.thread, 0, depth, frames.data(), &count))) {
    return false;
  }
  for (jint i = 0; i < count && !out.isCut(); ++i) {
    if (appendFrame(now, frames[static_cast<std::size_t>(i)], i) == outcome::failed) {
      return false;
    }
  }
  return true;
}

// What a variable table is walked with: which slots belong to a frame's arguments and locals.
struct exceptionProfiler::frameVariables {
  explicit frameVariables(jvmtiEnv* jvmti) : table(jvmti) {}

  support::localVariables table;
  jint argumentSlots = 0;
  jint first = 0;
  jint last = 0;
};

exceptionProfiler::outcome exceptionProfiler::appendFrame(recording& now,
                                                          const jvmtiFrameInfo& frame, jint index) {
  throwEvent& event = now.event;
  jclass declaringRef = nullptr;
  jvmtiError error = event.jvmti->GetMethodDeclaringClass(frame.method, &declaringRef);
  if (event.failed(error)) {
    say("unable to get desclaring class ");
    return outcome::failed;
  }
  const support::localRef<jclass> declaring(event.jni, declaringRef);
  const classPtr info = infoOf(event.jvmti, event.jni, declaringRef, error);
  if (event.failed(error)) {
    return outcome::failed;
  }
  if (!info || info->value.name.empty()) {
    return outcome::leftOut;
  }

  std::string header;
  const outcome named = appendHeader(event, frame, declaringRef, info->value, header);
  if (named != outcome::written) {
    return named;
  }
  if (!now.out.openFrame(header)) {
    return outcome::leftOut;
  }

  const ExceptionCaptureSettings& settings = *event.settings;
  if (index == 0 && settings.captureClassVariables &&
      appendThis(now, frame.method) == outcome::failed) {
    return outcome::failed;
  }
  now.out.endSection(record::kEndClassVariables);
  frameVariables variables(event.jvmti);
  outcome read = outcome::leftOut;
  if (!info->value.framesWithoutValues && !now.out.isCut() &&
      (settings.captureMethodArguments || settings.captureLocalVariables)) {
    read = readVariables(event, frame, variables);
  }
  for (const bool arguments : {true, false}) {
    const bool wanted =
        arguments ? settings.captureMethodArguments : settings.captureLocalVariables;
    if (read == outcome::written && wanted) {
      read = appendVariables(now, frame, index, variables, arguments);
    }
    if (read == outcome::failed) {
      return read;
    }
    now.out.endSection(arguments ? record::kEndArguments : record::kEndLocals);
  }
  if (index == 0 && settings.captureThreadLocals && !now.out.isCut()) {
    now.capture.getThreadLocalVars(startingDepth(kCaptureThreadLocals, index));
  }
  now.out.endSection(record::kEndFrame);
  return outcome::written;
}

// class.method(source:line) and the end of the header.
exceptionProfiler::outcome exceptionProfiler::appendHeader(throwEvent& event,
                                                           const jvmtiFrameInfo& frame,
                                                           jclass declaring, const classInfo& info,
                                                           std::string& text) {
  jvmtiEnv* const jvmti = event.jvmti;
  support::jvmtiText method(jvmti);
  const jvmtiError error = method.fill(
      [&](char** out) { return jvmti->GetMethodName(frame.method, out, nullptr, nullptr); });
  if (event.failed(error)) {
    return outcome::failed;
  }
  if (method.view().empty()) {
    return outcome::leftOut;
  }
  text = info.name;
  text += '.';
  text += method.view();
  TW_LOG(kLogDebug, kSeverityError, kCallback, "FQM :- %s()", text.c_str());

  support::jvmtiText source(jvmti);
  source.fill([&](char** out) { return jvmti->GetSourceFileName(declaring, out); });
  jint lines = 0;
  support::jvmtiPtr<jvmtiLineNumberEntry> table(jvmti);
  if (frame.location != kNoLocation) {
    table.fill([&](jvmtiLineNumberEntry** out) {
      return jvmti->GetLineNumberTable(frame.method, &lines, out);
    });
  }
  text += '(';
  text += source ? source.view() : "NA";
  text += ':';
  text += std::to_string(table ? lineOf(frame.location, table.get(), lines) : -1);
  text += ')';
  text += record::kEndHeader;
  return outcome::written;
}

jint lineOf(jlocation location, const jvmtiLineNumberEntry* table, jint count) {
  if (location == kNoLocation || count <= 0) {
    return -1;
  }
  if (count == 1) {
    return table[0].line_number;
  }
  for (jint k = 1; k < count; ++k) {
    if (table[k].start_location > location && table[k - 1].start_location <= location) {
      return table[k - 1].line_number;
    }
  }
  return -1;
}

// The fields of the top frame's `this`; nothing for static and native methods.
exceptionProfiler::outcome exceptionProfiler::appendThis(recording& now, jmethodID method) {
  throwEvent& event = now.event;
  jint modifiers = 0;
  if (event.failed(event.jvmti->GetMethodModifiers(method, &modifiers))) {
    return outcome::failed;
  }
  if ((modifiers & (kStatic | kNative)) != 0) {
    return outcome::leftOut;
  }
  jobject self = nullptr;
  const jvmtiError error =
      readSlot([&] { return event.jvmti->GetLocalObject(event.thread, 0, 0, &self); });
  if (hasNoValue(error)) {
    return outcome::leftOut;
  }
  if (event.failed(error)) {
    return outcome::failed;
  }
  const support::localRef<> reference(event.jni, self);
  if (!reference) {
    return outcome::leftOut;
  }
  const std::size_t start = now.out.size();
  now.capture.appendFieldsOf(self, startingDepth(kCaptureThis, 0));
  now.out.dropLastSeparator(start);
  return outcome::written;
}

exceptionProfiler::outcome exceptionProfiler::readVariables(throwEvent& event,
                                                            const jvmtiFrameInfo& frame,
                                                            frameVariables& variables) {
  jvmtiEnv* const jvmti = event.jvmti;
  const ExceptionCaptureSettings& settings = *event.settings;
  jint argumentSlots = 0;
  jint slots = 0;
  if (jvmti->GetArgumentsSize(frame.method, &argumentSlots) != JVMTI_ERROR_NONE) {
    argumentSlots = 0;
  }
  if (argumentSlots == 0 && !settings.captureLocalVariables) {
    return outcome::leftOut;
  }
  const jvmtiError error = variables.table.read(frame.method);
  if (error == JVMTI_ERROR_ABSENT_INFORMATION || error == JVMTI_ERROR_NATIVE_METHOD) {
    return outcome::leftOut;
  }
  if (event.failed(error)) {
    return outcome::failed;
  }
  if (settings.captureLocalVariables &&
      jvmti->GetMaxLocals(frame.method, &slots) != JVMTI_ERROR_NONE) {
    slots = 0;
  }
  variables.argumentSlots = argumentSlots;
  // Both ends are inclusive, so that the last slot is one that no variable has.
  if (settings.captureLocalVariables) {
    variables.first = settings.captureMethodArguments ? 0 : argumentSlots;
    variables.last = slots;
  } else {
    variables.last = argumentSlots - 1;
  }
  return outcome::written;
}

// The table is walked once for the arguments and once for the locals, which may stand in any order
// in it: a record has the ones before the others.
exceptionProfiler::outcome exceptionProfiler::appendVariables(recording& now,
                                                              const jvmtiFrameInfo& frame,
                                                              jint index,
                                                              const frameVariables& variables,
                                                              bool arguments) {
  for (const jvmtiLocalVariableEntry& variable : variables.table) {
    if (now.out.isCut()) {
      break;
    }
    if (variable.slot < variables.first || variable.slot > variables.last ||
        (variable.slot < variables.argumentSlots) != arguments ||
        !holds(variable, frame.location) || variable.name == nullptr ||
        variable.signature == nullptr || std::string_view(variable.name) == "this") {
      continue;
    }
    if (appendVariable(now, variable, index) == outcome::failed) {
      return outcome::failed;
    }
  }
  return outcome::written;
}

template <typename Call>
jvmtiError exceptionProfiler::readSlot(Call&& call) {
  const support::vmTurn turn(localTurns_);
  if (vmIsEnding()) {
    return JVMTI_ERROR_WRONG_PHASE;
  }
  return std::forward<Call>(call)();
}

exceptionProfiler::outcome exceptionProfiler::appendVariable(
    recording& now, const jvmtiLocalVariableEntry& variable, jint index) {
  using record::typeCode;
  throwEvent& event = now.event;
  jvmtiEnv* const jvmti = event.jvmti;
  const jthread thread = event.thread;
  const jint slot = variable.slot;
  const typeCode code = record::codeOf(variable.signature);

  // Reads the slot as `Value` and, if there is a value, writes it.
  const auto readAndWrite = [&](auto value, auto read, auto write) {
    const jvmtiError error = readSlot([&] { return (jvmti->*read)(thread, index, slot, &value); });
    if (hasNoValue(error)) {
      return outcome::leftOut;
    }
    if (event.failed(error)) {
      return outcome::failed;
    }
    write(value);
    return outcome::written;
  };
  switch (code) {
    case typeCode::boolean:
    case typeCode::character:
    case typeCode::byte:
    case typeCode::shortInt:
    case typeCode::integer:
      return readAndWrite(jint{0}, &jvmtiEnv::GetLocalInt,
                          [&](jint value) { now.out.appendNumber(variable.name, code, value); });
    case typeCode::longInt:
      return readAndWrite(jlong{0}, &jvmtiEnv::GetLocalLong,
                          [&](jlong value) { now.out.appendNumber(variable.name, code, value); });
    case typeCode::singleFloat:
      return readAndWrite(jfloat{0}, &jvmtiEnv::GetLocalFloat, [&](jfloat value) {
        now.out.appendFloat(variable.name, code, static_cast<double>(value));
      });
    case typeCode::doubleFloat:
      return readAndWrite(jdouble{0}, &jvmtiEnv::GetLocalDouble,
                          [&](jdouble value) { now.out.appendFloat(variable.name, code, value); });
    case typeCode::string:
    case typeCode::stringBuilder:
    case typeCode::object:
      break;
  }
  outcome result = outcome::written;
  const outcome read =
      readAndWrite(jobject{nullptr}, &jvmtiEnv::GetLocalObject, [&](jobject value) {
        const support::localRef<> reference(event.jni, value);
        result = appendObjectVariable(now, variable, value, index);
      });
  return read == outcome::written ? result : read;
}

exceptionProfiler::outcome exceptionProfiler::appendObjectVariable(
    recording& now, const jvmtiLocalVariableEntry& variable, jobject value, jint index) {
  using record::typeCode;
  throwEvent& event = now.event;
  const typeCode code = record::codeOf(variable.signature);
  if (value == nullptr) {
    now.out.appendNullObject(variable.name);
    return outcome::written;
  }
  if (code == typeCode::object) {
    const std::size_t opened = now.out.openObject(variable.name);
    if (opened == record::builder::kNotOpen) {
      return outcome::leftOut;
    }
    now.capture.appendFieldsOf(value, startingDepth(kCaptureVariables, index));
    now.out.closeObject(opened);
    return outcome::written;
  }
  // The VM takes a variable table at its word, whatever the slot holds: a table that lies, as
  // rewritten classes have them, would hand any object to the functions for strings.
  jvmtiError error = JVMTI_ERROR_NONE;
  const support::localRef<jclass> cls(event.jni, event.jni->GetObjectClass(value));
  const classPtr info = infoOf(event.jvmti, event.jni, cls.get(), error);
  if (event.failed(error)) {
    return outcome::failed;
  }
  if (!info || info->value.signature != variable.signature) {
    return outcome::leftOut;
  }
  if (code == typeCode::string) {
    now.capture.appendShortText(variable.name, static_cast<jstring>(value));
  } else {
    now.capture.appendShortTextOfBuilder(variable.name, value);
  }
  return outcome::written;
}

std::int32_t exceptionProfiler::startingDepth(std::int32_t mode, jint frameIndex) const {
  const bool expanded = (captureObjType & mode) != 0 && frameIndex < captureSTDepth;
  return expanded ? 0 : kNeverExpanded;
}

bool exceptionProfiler::isInHandler() {
  return handlerRuns;
}

bool exceptionProfiler::isRecordCut() {
  return recordIsCut;
}

void exceptionProfiler::deliver(throwEvent& event, record::builder& built) {
  built.dropLastSeparator(0);
  const bool isCut = built.isCut();
  std::string text = built.take();
  if (text.empty()) {
    return lose(event, exceptionCount::vm,
                isCut ? "its first frame is larger than recordBytes" : "it has no frame");
  }
  JNIEnv* const jni = event.jni;
  const ExceptionCaptureSettings& settings = *event.settings;
  if (settings.callbackClass == nullptr || settings.onExceptionOccuredMethod == nullptr) {
    say("exception id  not found");
    return lose(event, exceptionCount::callback, "there is no callback");
  }
  {
    const support::localRef<jstring> string(jni, jni->NewStringUTF(text.c_str()));
    if (string) {
      TW_LOG(kLogDebug, kSeverityDebug, kCallback, "Going to Dump 38 Record for -> %s\n\n\n",
             text.c_str());
      recordIsCut = isCut;
      raisedInHandler::beginCallback();
      jni->CallStaticVoidMethod(settings.callbackClass, settings.onExceptionOccuredMethod,
                                string.get(), event.exception);
      recordIsCut = false;
    }
    const raisedInHandler::kind raised =
        string ? event.raised->clearAfterCallback() : event.raised->clear();
    if (string && raised == raisedInHandler::kind::none) {
      return exceptionCounts::ofProcess().add(exceptionCount::delivered);
    }
    loseByRaised(event, raised, static_cast<bool>(string));
    if (raised != raisedInHandler::kind::noStack) {
      return;
    }
  }
  keepForLater(event, std::move(text), isCut);
}

// Of a record that could not be handed over for what is no longer pending now.
void exceptionProfiler::loseByRaised(const throwEvent& event, raisedInHandler::kind raised,
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
void exceptionProfiler::keepForLater(const throwEvent& event, std::string text, bool isCut) {
  using std::chrono::milliseconds;
  try {
    support::threadName thread(event.jvmti, event.jni);
    thread.read(event.thread);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    undeliveredRecords::ofProcess().keep({std::chrono::duration_cast<milliseconds>(now).count(),
                                          std::string(thread.view()), event.info->value.name,
                                          std::move(text), isCut, isVirtual(event)});
  } catch (...) {
    return;
  }
}

}  // namespace agent
