#include "agent/attach.h"

#include <atomic>
#include <ctime>
#include <memory>
#include <optional>
#include <utility>

#include "agent/attachAnswer.h"
#include "agent/attachCommand.h"
#include "agent/attachCopies.h"
#include "agent/boundary.h"
#include "agent/idle.h"
#include "agent/oldLogs.h"
#include "agent/runningSetUp.h"
#include "agent/setUp.h"
#include "agent/shutdownHook.h"
#include "agent/twAprLib.h"
#include "agent/vmEnd.h"
#include "allocations/allocationProfile.h"
#include "contention/contentionProfile.h"
#include "exceptions/exceptionprofiler.h"
#include "exceptions/madeHook.h"
#include "support/annotations.h"
#include "support/text.h"

namespace agent {

namespace {

constexpr const char* kOnAttach = "Agent_OnAttach";
constexpr const char* kDetach = "detach";

struct attachState {
  std::atomic<bool> isAttached{false};
  support::mutex textMutex;
  std::string missing GUARDED_BY(textMutex);
};

attachState& process() {
  static attachState& state = *new attachState;
  return state;
}

void setMissing(std::string text) {
  const support::lockGuard guard(process().textMutex);
  process().missing = std::move(text);
}

attachAnswer fail(const std::string& reason) {
  twAprLib::print(stderr, "javanativeagent: not attached: %s\n", reason.c_str());
  TW_LOG(kLogError, kSeverityError, kOnAttach, "Not attached: %s", reason.c_str());
  return attachAnswer::failed;
}

bool hasCommand(std::string_view options) {
  bool found = false;
  support::forEachPiece(options, ',',
                        [&](std::string_view item) { found = found || commandIn(item); });
  return found;
}

// The log of an agent that is being attached: closed again unless it comes to be.
class ownLog {
 public:
  ownLog() = default;
  ~ownLog() {
    if (!isKept_) {
      twAprLib::closeLog();
    }
  }
  ownLog(const ownLog&) = delete;
  ownLog& operator=(const ownLog&) = delete;

  // Nothing is left in the program's working folder: without an absolute path nothing is logged.
  static void open(const startUpSettings& settings);
  void keep() { isKept_ = true; }

 private:
  bool isKept_ = false;
};

void ownLog::open(const startUpSettings& settings) {
  if (settings.home.empty() || settings.home.front() != '/') {
    return;
  }
  if (const twAprContext* const context = aprContext(stderr, false)) {
    cleanUpOldLogs(settings.home + "\\logs", twAprLib::timeStamp(std::time(nullptr)).data());
    twAprLib::openLog(*context, settings.home);
    twAprLib::setLevel(settings.logLevel);
  }
}

// One line for each part that is not as before.
class leftOver {
 public:
  void add(const char* what, const std::string& problem) {
    if (!problem.empty()) {
      lines_ += std::string(lines_.empty() ? "" : "\n") + what + ": " + problem;
    }
  }
  const std::string& lines() const { return lines_; }

 private:
  std::string lines_;
};

void leaveProfiles(JNIEnv* jni, leftOver& left) {
  left.add("contention profile", contentionProfile::ofProcess().leave(jni));
  left.add("allocation profile", allocationProfile::ofProcess().leave(jni));
}

// What is attached: all that it took is given back unless it was completed.
class attachment {
 public:
  attachment(JavaVM* vm, JNIEnv* jni) : vm_(vm), jni_(jni), setUp_(vm) {}
  ~attachment() {
    if (!isComplete_ && !vmIsEnding()) {
      leftOver left;
      contained(kOnAttach, "Exception occured in jagent : Agent_OnAttach",
                [&] { leaveProfiles(jni_, left); });
    }
  }
  attachment(const attachment&) = delete;
  attachment& operator=(const attachment&) = delete;

  attachAnswer run(std::string_view options);

 private:
  void startProfiles();

  JavaVM* const vm_;
  JNIEnv* const jni_;
  bool isComplete_ = false;
  ownLog log_;  // open until the set-up is given back
  runningSetUp setUp_;
};

// What VMInit starts when the agent is loaded with the VM.
void attachment::startProfiles() {
  const startUpSettings& settings = setUp_.settings();
  contentionProfile& contention = contentionProfile::ofProcess();
  allocationProfile& allocations = allocationProfile::ofProcess();
  contention.comeBack();
  allocations.comeBack();
  const std::string noContention =
      settings.contention ? contention.start(vm_, jni_, settings.contentionProfile) : "";
  const std::string noAllocations =
      settings.allocations ? allocations.start(vm_, jni_, settings.allocationProfile) : "";
  logSetUp(kOnAttach, settings, noContention, noAllocations);
  if (!noContention.empty()) {
    twAprLib::print(stderr, "javanativeagent: the contention profile does not run: %s\n",
                    noContention.c_str());
  }
  if (!noAllocations.empty()) {
    twAprLib::print(stderr, "javanativeagent: the allocation profile does not run: %s\n",
                    noAllocations.c_str());
  }
}

attachAnswer attachment::run(std::string_view options) {
  std::string problem = setUp_.readOptions(options);
  ownLog::open(setUp_.settings());
  if (problem.empty()) {
    problem = setUp_.addCapabilities();
  }
  if (!problem.empty()) {
    return fail(problem);
  }
  redaction::configure(setUp_.settings().redaction);
  twAprLib::setQuiet(true);  // the program's output stays as it is, except for errors
  TW_LOG(kLogTrace, kSeverityTrace, kOnAttach, "Attached to a JVM that was running");
  setUp_.logMissing(kOnAttach, "an attached agent");
  startProfiles();
  setMissing(setUp_.missing());
  problem = setUp_.complete();
  if (!problem.empty()) {
    setMissing({});
    return fail(problem);
  }
  useThisCopy();
  isComplete_ = true;
  log_.keep();
  process().isAttached.store(true);
  return attachAnswer::done;
}

attachAnswer attach(JavaVM* vm, std::string_view options) {
  const std::string other = otherCopyInUse();
  if (!other.empty()) {
    return fail("this JVM uses another copy of the library, " + other);
  }
  void* environment = nullptr;
  if (vm->GetEnv(&environment, JNI_VERSION_1_6) != JNI_OK) {
    return fail("its thread is not one of Java's");
  }
  auto* const jni = static_cast<JNIEnv*>(environment);
  if (const std::optional<std::string> command = commandIn(options)) {
    return runCommand(jni, *command);
  }
  if (hasCommand(options)) {
    return fail("the option 'command' stands alone");
  }
  const support::lockGuard oneCall(setUpMutex());
  if (isSetUp()) {
    return attachAnswer::alreadyLoaded;
  }
  if (vmIsEnding()) {
    return fail("the JVM is ending");
  }
  return attachment(vm, jni).run(options);
}

// --- Leaving ------------------------------------------------------------------------------------

std::string leave(JavaVM* vm, JNIEnv* jni) {
  leftOver left;
  forgetIdle();
  leaveProfiles(jni, left);
  const std::string sessions = leaveSessions(vm);
  left.add("exceptions", madeHook::ofProcess().remove(jni));
  left.add("shutdown", shutdownHook::ofProcess().remove(jni));
  left.add("sessions", sessions);
  return left.lines();
}

}  // namespace

bool isAttached() {
  return process().isAttached.load();
}

std::string missingWhenAttached() {
  const support::lockGuard guard(process().textMutex);
  return process().missing;
}

std::string detach(JNIEnv* jni) {
  if (exceptionProfiler::isInHandler()) {
    return "a sink of exceptions cannot detach the agent that calls it";
  }
  const support::lockGuard oneCall(setUpMutex());
  if (!isSetUp()) {
    return "the agent is not set up in this JVM";
  }
  JavaVM* vm = nullptr;
  if (vmIsEnding() || jni->GetJavaVM(&vm) != JNI_OK) {
    return "the JVM is ending";
  }
  std::string left = leave(vm, jni);
  process().isAttached.store(false);
  setMissing({});
  if (left.empty()) {
    TW_LOG(kLogTrace, kSeverityTrace, kDetach, "Detached from the JVM");
  } else {
    TW_LOG(kLogWarn, kSeverityWarn, kDetach, "Detached from the JVM, except for: %s", left.c_str());
  }
  twAprLib::closeLog();
  return left;
}

}  // namespace agent

using namespace agent;

JNIEXPORT jint JNICALL Agent_OnAttach(JavaVM* vm, char* options, void* /*reserved*/) {
  return static_cast<jint>(
      contained(kOnAttach, "Exception occured in jagent : Agent_OnAttach", attachAnswer::failed,
                [&] { return attach(vm, options == nullptr ? "" : options); }));
}
