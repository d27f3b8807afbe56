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
#include "exceptions/captureSettings.h"
#include "exceptions/currentProfiler.h"
#include "exceptions/exceptionCounts.h"
#include "exceptions/jvmtiCheck.h"
#include "exceptions/raisedInHandler.h"
#include "exceptions/rateSpread.h"
#include "exceptions/recordedObjects.h"
#include "exceptions/throwEvent.h"
#include "support/annotations.h"
#include "support/rateLimit.h"
#include "support/sharedSlot.h"
#include "support/vmTurn.h"

namespace agent {

// How many records of one exception class went through in the current window.
struct ExceptionRateEntry {
  std::int32_t count = 1;
  std::int64_t windowStart = 0;  // seconds since the epoch
};

namespace record {
class builder;
}

// A record as it is handed over.
struct finishedRecord {
  std::string text{};
  std::vector<jint> places{};  // empty where they are not wanted
  std::uint32_t facts = 0;     // the same
  bool isCut = false;
};

class exceptionProfiler : public profiler {
 public:
  exceptionProfiler();

  void publish(const std::shared_ptr<profiler>& self) override;
  void withdraw() override;
  void setEventCallbacks() override;
  void addCapabilities() override;
  // Takes ExceptionCaptureSettings; the rate counts go on.
  std::int32_t setProfileData(std::unique_ptr<sessionSettings> settings) override;
  void setProfilerEventMode(bool enable) override;

  // The Exception event, as JVMTI calls it.
  static void JNICALL ExceptionCallback(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                        jmethodID method, jlocation location, jobject exception,
                                        jmethodID catchMethod, jlocation catchLocation);

  // The same for an exception that is being made; see madeCallback.
  static void exceptionMade(JNIEnv* jni, jobject exception) noexcept;

  // Where exceptions are captured where they are made: switches that on or off; in place of the
  // event. False, with the reason in the log and in madeProblem(), when it cannot be done. One
  // call at a time, on a Java thread.
  bool switchMade(JNIEnv* jni, bool enable);
  // Why the last call of switchMade failed, or what it could not do; empty for nothing. Any thread.
  static std::string madeProblem();

  // See checkJvmti.
  static bool check(JNIEnv* jni, jvmtiEnv* jvmti, jvmtiError code) {
    return checkJvmti(jni, jvmti, code);
  }

  // The bytes of a record, at most, from 4 KiB to 64 MiB; set by Agent_OnLoad only.
  static constexpr std::int32_t kLeastRecordBytes = 4096;
  static constexpr std::int32_t kMostRecordBytes = 64 << 20;
  std::int32_t recordBytes = 1 << 20;

  // Whether the calling thread is in this event's handler.
  static bool isInHandler();

  // Within the callback: whether the record that it was given was cut.
  static bool isRecordCut();

  // Whether an object that is thrown again gets no further record, and whether the rate is spread
  // over the minute; both off at first.
  void recordEachOnce(bool isOn) { recorded_.enable(isOn); }
  void spreadRate(bool isOn) { spread_.enable(isOn); }

  // Counts an exception of the class against the rate; whether it may be recorded. `now` is in
  // seconds since the epoch.
  bool takeRate(const std::string& className, std::int32_t rate, std::time_t now)
      EXCLUDES(rateMutex_);

 private:
  static void exceptionOccurred(throwEvent event);
  void exceptionThrown(throwEvent& event);
  // Whether the event passes the filters; when not, why not.
  std::optional<exceptionCount> refusal(throwEvent& event);
  bool goesWithoutSite(const throwEvent& event);
  std::optional<exceptionCount> refusalOfThrower(throwEvent& event);
  std::optional<exceptionCount> refusalOfClass(const throwEvent& event);
  void recordAndDeliver(throwEvent& event);
  void deliver(throwEvent& event, record::builder& built);
  std::uint32_t factsOf(const throwEvent& event, bool isCut) const;
  raisedInHandler::kind handOver(throwEvent& event, const finishedRecord& record);
  static void call(const throwEvent& event, jstring text, jintArray places, std::uint32_t facts);
  void loseByRaised(throwEvent& event, raisedInHandler::kind raised, bool wasCalled);
  static bool isVirtual(const throwEvent& event);
  static void keepForLater(const throwEvent& event, finishedRecord record);
  // Counts the exception as lost, and logs it once a minute for its class and the reason.
  void lose(throwEvent& event, exceptionCount reason, const char* why) noexcept;

  support::mutex settingsMutex_;  // around publishing settings
  support::sharedSlot<ExceptionCaptureSettings> settings_;
  support::mutex rateMutex_;
  std::map<std::string, ExceptionRateEntry> rates_ GUARDED_BY(rateMutex_);
  rateSpread spread_;
  knownClasses classes_;
  recordedObjects recorded_;
  support::rateLimit makerLookups_;
  support::vmTurns localTurns_;  // for GetLocal calls
  lossLines lossLines_;
};

}  // namespace agent
