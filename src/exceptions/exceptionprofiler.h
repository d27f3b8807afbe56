// The exception capture profiler: an exception that passes the filters is turned into one text
// record of its stack, with the values found there, and handed to Java.
//
// The handler runs on the throwing thread, on many threads at once; the rest are control calls. The
// settings are replaced as a whole; handlers hold a share of those they began with.
#pragma once

#include <jvmti.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/profiler.h"
#include "exceptions/exceptionCounts.h"
#include "exceptions/raisedInHandler.h"
#include "support/annotations.h"
#include "support/classCache.h"
#include "support/sharedSlot.h"
#include "support/vmTurn.h"

namespace agent {

// What to capture, and whom to hand it to. Holds a global reference on the class of the callback.
struct ExceptionCaptureSettings : sessionSettings {
  ~ExceptionCaptureSettings() override;

  // Looks the callback up; what cannot be found stays null. Leaves no Java exception behind.
  void findCallback(JNIEnv* jni);

  bool enabled = false;
  bool captureClassVariables = false;  // fields of `this`
  bool captureMethodArguments = false;
  bool captureLocalVariables = false;
  bool captureThreadLocals = false;
  std::int32_t captureRate = 0;      // records for each exception class in 60 seconds; below 1: any
  std::int32_t stackTraceDepth = 0;  // frames to walk
  std::vector<std::string> blackList;  // lower-case names of exception classes

  jclass callbackClass = nullptr;
  jmethodID getObjectValueMethod = nullptr;
  jmethodID onExceptionOccuredMethod = nullptr;

 private:
  JavaVM* vm_ = nullptr;
};

// The entries of a black list as Java gives it: separated by commas and enclosed in one character
// on each side; in lower case. Throws std::out_of_range "invalid string position" for an empty
// text.
std::vector<std::string> parseBlackList(std::string_view text);

// How many records of one exception class went through in the current window.
struct ExceptionRateEntry {
  std::int32_t count = 1;
  std::int64_t windowStart = 0;  // seconds since the epoch
};

// The line of a location: from its second entry on, the table's entry before the first one that
// starts beyond the location. -1 for location -1, without a table, and in the table's last range;
// a table of one entry gives its line.
jint lineOf(jlocation location, const jvmtiLineNumberEntry* table, jint count);

namespace record {
class builder;
}

class exceptionProfiler : public profiler {
 public:
  exceptionProfiler() : profiler(kExceptionStopped) {}

  void setEventCallbacks() override;
  void addCapabilities() override;
  // Takes ExceptionCaptureSettings; the rate counts go on.
  std::int32_t setProfileData(std::unique_ptr<sessionSettings> settings) override;
  void setProfilerEventMode(bool enable) override;

  // The Exception event, as JVMTI calls it.
  static void JNICALL ExceptionCallback(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                        jmethodID method, jlocation location, jobject exception,
                                        jmethodID catchMethod, jlocation catchLocation);

  // Whether `code` is an error. It is then logged, and a pending Java exception is described and
  // cleared.
  static bool check(JNIEnv* jni, jvmtiEnv* jvmti, jvmtiError code);

  // The bytes of a record, at most, from 4 KiB to 64 MiB; set by Agent_OnLoad only.
  static constexpr std::int32_t kLeastRecordBytes = 4096;
  static constexpr std::int32_t kMostRecordBytes = 64 << 20;
  std::int32_t recordBytes = 1 << 20;

  // Whether the calling thread is in this event's handler.
  static bool isInHandler();

  // Within the callback: whether the record that it was given was cut.
  static bool isRecordCut();

  // Counts an exception of the class against the rate; whether it may be recorded. `now` is in
  // seconds since the epoch.
  bool takeRate(const std::string& className, std::int32_t rate, std::time_t now)
      EXCLUDES(rateMutex_);

 private:
  struct throwEvent;
  struct classInfo;
  struct recording;
  struct frameVariables;
  using classPtr = std::shared_ptr<const support::classCache<classInfo>::entry>;
  enum class outcome { written, leftOut, failed };

  static void exceptionOccurred(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jmethodID method,
                                jobject exception);
  void exceptionThrown(throwEvent& event);
  // Whether the event passes the filters; when not, why not.
  std::optional<exceptionCount> refusal(throwEvent& event);
  void recordAndDeliver(throwEvent& event);
  bool record(throwEvent& event, record::builder& out);
  outcome appendFrame(recording& now, const jvmtiFrameInfo& frame, jint index);
  outcome appendHeader(throwEvent& event, const jvmtiFrameInfo& frame, jclass declaring,
                       const classInfo& info, std::string& text);
  outcome appendThis(recording& now, jmethodID method);
  outcome readVariables(throwEvent& event, const jvmtiFrameInfo& frame, frameVariables& variables);
  // The arguments of a frame, or its locals.
  outcome appendVariables(recording& now, const jvmtiFrameInfo& frame, jint index,
                          const frameVariables& variables, bool arguments);
  outcome appendVariable(recording& now, const jvmtiLocalVariableEntry& variable, jint index);
  outcome appendObjectVariable(recording& now, const jvmtiLocalVariableEntry& variable,
                               jobject value, jint index);
  void deliver(throwEvent& event, record::builder& built);
  void loseByRaised(const throwEvent& event, raisedInHandler::kind raised, bool wasCalled);
  static bool isVirtual(const throwEvent& event);
  static void keepForLater(const throwEvent& event, std::string text, bool isCut);
  // Counts the exception as lost, and says so once a minute for its class and the reason.
  void lose(const throwEvent& event, exceptionCount reason, const char* why) noexcept;

  // What is known of the class; none when the VM does not give its signature.
  classPtr infoOf(jvmtiEnv* jvmti, JNIEnv* jni, jclass cls, jvmtiError& error);
  // The level that objects of a frame are expanded from.
  std::int32_t startingDepth(std::int32_t mode, jint frameIndex) const;
  // Makes one GetLocal call, in turn with other threads.
  template <typename Call>
  jvmtiError readSlot(Call&& call);

  support::mutex settingsMutex_;  // around publishing settings
  support::sharedSlot<ExceptionCaptureSettings> settings_;
  support::mutex rateMutex_;
  std::map<std::string, ExceptionRateEntry> rates_ GUARDED_BY(rateMutex_);
  support::classCache<classInfo> classes_;
  support::vmTurns localTurns_;  // for GetLocal calls
  lossLines lossLines_;
};

}  // namespace agent
