// A Java VM for unit tests: full JVMTI, JNI and invocation tables over a small object model.
//
//   fake::virtualMachine vm;
//   auto* lock = vm.makeObject("com.example.Lock");
//   auto* worker = vm.makeThread("worker-1");
//   vm.setTime(5'000);
//   vm.fail("GetThreadInfo", {.error = JVMTI_ERROR_THREAD_NOT_ALIVE, .times = 1});
//   vm.contendedEnter(worker, lock);          // runs the installed callback as the VM would
//   EXPECT_EQ(vm.calls("GetObjectHashCode"), 1U);
//
// What it checks by itself, reporting a failed expectation that names the function: a reference
// that is stale, of another thread, of another kind or was never made; a JNIEnv of another thread;
// a JNI call with a pending exception; memory freed twice or never allocated; a slot that is not
// modelled; method and field IDs that went with their class; null where the VM would crash. After
// an event or a native method: local references, UTF characters or VM memory still held, an
// exception left pending, an unbalanced local frame, a C++ exception that came out.
//
// Any thread may use a virtualMachine. A thread has to be attached to make JNI calls and most JVMTI
// calls: the one that made the machine is, others become so with attachedThread, env(), or
// AttachCurrentThread. A reference that ref() gives is the test's own and is freed with its frame.
#pragma once

#include <jni.h>
#include <jvmti.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "objectModel.h"

namespace fake {

class machine;

// A call as predicates and hooks see it; what a function does not take is null, empty or 0.
struct call {
  std::string_view function;
  object* target = nullptr;      // the first reference: the object, class or thread
  method* code = nullptr;        // of calls that take a method ID
  std::string_view name{};       // the name asked for, or that of the method ID
  std::string_view signature{};  // likewise
  jlong number = 0;              // a size, an event, a slot, a tag
};

// How calls of a function are to fail. A failed JVMTI call leaves its outputs as they are; a failed
// JNI call gives null, 0 or a negative status and does nothing.
struct failure {
  static constexpr unsigned kAlways = std::numeric_limits<unsigned>::max();

  jvmtiError error = JVMTI_ERROR_INTERNAL;
  std::string name{};           // only calls for this member name ("getClass"); empty: all
  unsigned from = 1;            // the first call to fail, counting those that match from 1
  unsigned times = kAlways;     // how many fail
  bool throwing = false;        // JNI: leaves an exception pending
  object* exception = nullptr;  // which one; without it some java.lang.RuntimeException
  std::function<bool(const call&)> when{};  // only calls for which this holds
};

// Whether an event that is not enabled is delivered all the same (the VM may have decided to post
// it before it was switched off).
enum class delivery { ifEnabled, always };

struct eventMode {
  jvmtiEventMode mode;
  jvmtiEvent event;
  bool operator==(const eventMode&) const = default;
};

class virtualMachine {
 public:
  // Attaches the calling thread as "main"; the phase is live.
  virtualMachine();
  ~virtualMachine();
  virtualMachine(const virtualMachine&) = delete;
  virtualMachine& operator=(const virtualMachine&) = delete;

  // --- What the agent gets hold of. GetEnv gives the main JVMTI environment for this version, and
  // one of its own each time for others. What the machine is asked of events and capabilities is
  // about the main one.
  static constexpr jint kMainInterfaceVersion = 0x30010000;
  JavaVM* javaVm();
  jvmtiEnv* jvmti();
  JNIEnv* env();  // of the calling thread, which is attached when it is not yet

  // --- Attaching. A null thread makes a Java thread. Detaching reports what the thread still
  // holds.
  JNIEnv* attach(javaThread* as = nullptr);
  void detach();
  javaThread* currentThread();  // of the calling thread; during an event: the event's thread

  // --- Making things.
  javaClass* makeClass(std::string_view name, javaClass* super = nullptr);  // names need not differ
  javaClass* classNamed(std::string_view name);  // the oldest one still loaded, made when absent
  object* makeObject(javaClass* type);
  object* makeObject(std::string_view className) { return makeObject(classNamed(className)); }
  javaString* makeString(std::string_view modifiedUtf8);
  objectArray* makeArray(std::string_view className, std::vector<object*> elements);
  intArray* makeIntArray(std::vector<jint> elements);
  javaThread* makeThread(std::optional<std::string_view> name);  // without one: null in the VM
  javaThread* makeVirtualThread(std::string_view name);
  method* makeMethod(javaClass* type, std::string_view name, std::string_view signature,
                     methodOptions options = {});
  method* makeMethod(std::string_view className, std::string_view name,
                     std::string_view signature = "()V", methodOptions options = {});
  field* makeField(javaClass* type, std::string_view name, std::string_view signature,
                   jint modifiers = 0);

  // --- Changing them, also while other threads run.
  void rename(javaThread* thread, std::optional<std::string_view> name);
  void setField(object* owner, field* which, value to);
  void setStatic(field* which, value to);
  // `depth`: the index of the owner's frame that entered the monitor.
  void setOwner(object* monitor, javaThread* owner, jint entryCount = 1, jint depth = 0);
  void setWaiters(object* monitor, std::vector<javaThread*> waiters);
  void setNotifyWaiters(object* monitor, std::vector<javaThread*> waiters);

  // Collects an object: weak references to it clear. Reports it when a local or global reference
  // holds the object. References from fields are not followed.
  void collect(object* unreachable);
  // A collection of all objects whose `reachable` is false and which no local or global reference
  // holds, with its events.
  void collectGarbage();
  // Unloads a class: collects its instances and itself; its method and field IDs die.
  void unload(javaClass* unreachable);

  // --- References of the calling thread, for arguments; null for null. They need no deleting.
  jobject ref(object* target);
  jstring ref(javaString* target) { return static_cast<jstring>(ref(base(target))); }
  jclass ref(javaClass* target) { return static_cast<jclass>(ref(base(target))); }
  jobject ref(javaThread* target) { return ref(base(target)); }
  jobject ref(objectArray* target) { return ref(base(target)); }
  jintArray ref(intArray* target) { return static_cast<jintArray>(ref(base(target))); }
  jobject ref(std::nullptr_t) { return nullptr; }
  // What a reference of any kind refers to; null for null and cleared ones.
  object* target(jobject reference);

  // --- Time in ns, and how much each GetTime adds after it answered.
  void setTime(jlong now);
  void advance(jlong by);
  void setTimeStep(jlong step);
  jlong time() const;

  // --- The VM's state.
  void setPhase(jvmtiPhase phase);
  void setPotentialCapabilities(const jvmtiCapabilities& capabilities);  // all, at first
  // Gives no more capabilities than HotSpot in the live phase.
  void refuseLateCapabilities();
  jvmtiCapabilities capabilities() const;  // added so far
  jvmtiEventCallbacks callbacks() const;   // as installed last
  bool isEnabled(jvmtiEvent event) const;
  std::vector<eventMode> eventModes() const;  // every successful SetEventNotificationMode, in order
  bool disposed() const;
  void setFeatureVersion(jint version);         // of the JDK; 26 at first
  void setEventsPerCollection(unsigned count);  // 1 at first
  jint samplingInterval() const;                // as set last; 512 kB at first

  // --- Exceptions in the calling thread.
  void throwInJava(object* exception);  // null: some java.lang.RuntimeException
  object* pendingException();
  void clearException();

  // --- Events, run on the calling thread in a fresh local frame with fresh references; null stays
  // null. Those of threads, monitors and the start of the VM go to all environments. They give
  // whether a callback was run.
  bool vmInit(javaThread* thread, delivery how = delivery::ifEnabled);
  bool vmDeath(delivery how = delivery::ifEnabled);
  bool threadEnd(javaThread* thread);
  bool contendedEnter(javaThread* thread, object* monitor, delivery how = delivery::ifEnabled);
  bool contendedEntered(javaThread* thread, object* monitor, delivery how = delivery::ifEnabled);
  bool monitorWait(javaThread* thread, object* monitor, jlong timeout,
                   delivery how = delivery::ifEnabled);
  bool monitorWaited(javaThread* thread, object* monitor, bool timedOut,
                     delivery how = delivery::ifEnabled);
  bool garbageCollectionStart(delivery how = delivery::ifEnabled);
  bool garbageCollectionFinish(delivery how = delivery::ifEnabled);
  bool sampledAllocation(javaThread* thread, object* allocated, jlong size,
                         delivery how = delivery::ifEnabled);
  bool exception(javaThread* thread, method* code, jlocation location, object* thrown,
                 method* catchCode = nullptr, jlocation catchLocation = 0,
                 delivery how = delivery::ifEnabled);

  // Runs what RunAgentThread was given since the last time, on the calling thread.
  void runAgentThreads();

  // Posts ClassFileLoadHook for these bytes in all environments, one after the other, and gives
  // what they make of them. `redefined` is the class when it is loaded already. The name is as the
  // VM has it, with slashes; it may be null.
  std::vector<unsigned char> classFileLoad(const char* name, std::vector<unsigned char> bytes,
                                           object* loader = nullptr,
                                           javaClass* redefined = nullptr);

  // Runs `body(JNIEnv*)` as a native method of the calling thread and gives what it gives.
  template <typename Body>
  auto native(Body&& body) {
    using given = std::invoke_result_t<Body, JNIEnv*>;
    if constexpr (std::is_void_v<given>) {
      runNative([&](JNIEnv* jni) { body(jni); });
    } else {
      given result{};
      runNative([&](JNIEnv* jni) { result = body(jni); });
      return result;
    }
  }

  // --- Calls. Names are those of the tables; a name that is in none throws
  // std::invalid_argument. The plain name of a Call function stands for its V and A forms too.
  std::uint64_t calls(std::string_view function) const;  // since resetCalls, failed ones included
  std::set<std::string> callNames() const;
  void resetCalls();
  void setRecording(bool on);  // counting; on at first. Benchmarks switch it off
  void setLogging(bool on);    // keeping the order of calls; off at first, empties the log
  std::vector<std::string> callLog() const;

  void fail(std::string_view function, failure how = {});
  void succeed(std::string_view function);  // forgets how it was to fail
  // Runs `hook` on the calling thread before each call is carried out, and before failures are
  // looked up. It may block and may use the machine.
  void on(std::string_view function, std::function<void(const call&)> hook);
  void on(std::string_view function, std::function<void()> hook);
  void off(std::string_view function);

  // --- What is held now, and the most local references a thread held since resetCalls.
  std::size_t memoryHeld() const;
  std::size_t charactersHeld() const;
  std::size_t localReferences() const;  // without the test's own
  std::size_t globalReferences() const;
  std::size_t weakReferences() const;
  std::size_t globalReferencesTo(const object* target) const;
  std::size_t peakLocalReferences() const;

  // Reports everything still held, and exceptions still pending. Other threads are done by then.
  void checkNothingHeld() const;

 private:
  static object* base(object* derived) { return derived; }
  void runNative(const std::function<void(JNIEnv*)>& body);

  std::unique_ptr<machine> machine_;
};

}  // namespace fake
