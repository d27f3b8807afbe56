// The inside of the fake VM, shared by its source files; tests see virtualMachine only.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "agentCode.h"
#include "blockTracker.h"
#include "functions.h"
#include "handles.h"
#include "virtualMachine.h"

namespace fake {

class machine;

// A thread's attachment, which is its JNIEnv. What is not atomic belongs to that thread alone.
struct threadEnv : JNIEnv_ {
  threadEnv(machine& owningMachine, std::uint32_t number, javaThread* thread);

  machine& owner;
  const std::uint32_t index;
  javaThread* current;  // the Java thread that runs now
  localReferences locals;
  std::atomic<object*> pending{nullptr};
  const char* restriction = nullptr;  // the callback that forbids most calls, while one runs
  long memoryHeld = 0;                // blocks got less blocks freed by this thread
  long charactersHeld = 0;
  std::array<std::atomic<std::uint64_t>, kFunctions> counts{};
};

// The environment that this thread used last, and the serial number of its machine: no two machines
// of a process share one.
struct lastUsedEnv {
  std::uint64_t serial = 0;
  threadEnv* env = nullptr;
};
inline constinit thread_local lastUsedEnv lastUsed{};

// While it stands, its thread is in a callback that may make hardly any call.
class restricted {
 public:
  restricted(threadEnv& env, const char* callback)
      : env_(env), outer_(std::exchange(env.restriction, callback)) {}
  ~restricted() { env_.restriction = outer_; }
  restricted(const restricted&) = delete;
  restricted& operator=(const restricted&) = delete;

 private:
  threadEnv& env_;
  const char* const outer_;
};

// The arguments of a call, as they came; looked at only when someone asks.
struct rawArguments {
  jobject target = nullptr;
  jmethodID code = nullptr;
  const char* name = nullptr;
  const char* signature = nullptr;
  jlong number = 0;
};

// What becomes of a call.
struct verdict {
  bool carriedOut = true;
  jvmtiError error = JVMTI_ERROR_NONE;
};

class machine {
 public:
  explicit machine(virtualMachine& owningFace);
  ~machine();
  machine(const machine&) = delete;
  machine& operator=(const machine&) = delete;

  static constexpr std::size_t kEvents = sizeof(jvmtiEventCallbacks) / sizeof(void*);

  // The environments that the agent holds lead back here.
  struct environment : _jvmtiEnv {
    machine* owner;
    std::atomic<bool> disposed{false};
    jvmtiCapabilities added{};  // guarded by modelMutex
    std::array<std::atomic<void*>, kEvents> callbacks{};
    std::array<std::atomic<bool>, kEvents> enabledEvents{};

    void* callbackOf(jvmtiEvent event) const { return callbacks[indexOf(event)].load(); }
    std::atomic<bool>& enabled(jvmtiEvent event) { return enabledEvents[indexOf(event)]; }
  };
  struct invocationInterface : JavaVM_ {
    machine* owner;
  };
  static environment& environmentOf(jvmtiEnv* jvmti) { return *static_cast<environment*>(jvmti); }
  static machine& of(jvmtiEnv* jvmti) { return *environmentOf(jvmti).owner; }
  static machine& of(JavaVM* vm) { return *static_cast<invocationInterface*>(vm)->owner; }
  static threadEnv& of(JNIEnv* jni) { return *static_cast<threadEnv*>(jni); }

  virtualMachine& face;
  const std::uint64_t serial;
  environment jvmti{};
  invocationInterface javaVm{};
  // Another environment, which the machine owns.
  environment& addEnvironment();
  std::vector<environment*> allEnvironments();  // `jvmti` first
  std::atomic<bool> hasOtherEnvironments{false};

  // --- Threads.
  threadEnv* currentOrNull() const {
    return lastUsed.serial == serial ? lastUsed.env : findCurrent();
  }
  threadEnv& current(const char* what);  // attaches the thread when it is not yet
  threadEnv& attach(javaThread* as);
  void detach();
  std::vector<threadEnv*> allEnvs() const;

  // --- Failures of the test.
  static void report(std::string_view where, std::string_view what);
  static void report(functionId id, std::string_view what) { report(nameOf(id), what); }

  // --- Calls.
  void count(threadEnv* env, functionId id) {
    if (!recording.load(std::memory_order_relaxed)) {
      return;
    }
    if (env == nullptr) {
      unattachedCounts_[id].fetch_add(1, std::memory_order_relaxed);
    } else {
      auto& counter = env->counts[id];
      counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }
  bool watched(functionId id) const { return watched_[id].load(std::memory_order_acquire); }
  // Logs the call, runs its hook and looks for a failure that is asked for.
  verdict consult(threadEnv* env, functionId id, const rawArguments& arguments);
  std::uint64_t totalCount(functionId id) const;
  void resetCounts();
  void setLogging(bool on);
  std::vector<std::string> log() const;
  void addFailure(functionId id, failure how);
  void removeFailures(functionId id);
  void setHook(functionId id, std::function<void(const call&)> hook);

  std::atomic<bool> recording{true};

  // --- References. A bad one is reported under `id` and counts as null.
  object* use(threadEnv& env, functionId id, jobject reference);
  // Like use(), and reports null or something that is not of this kind.
  template <typename T>
  T* need(threadEnv& env, functionId id, jobject reference, objectKind kind) {
    object* found = needObject(env, id, reference);
    if (found == nullptr) {
      return nullptr;
    }
    if (found->kind == kind) {
      return static_cast<T*>(found);
    }
    report(id,
           "the object is not of the kind that is asked for (it is a " + found->type->name + ")");
    return nullptr;
  }
  object* needObject(threadEnv& env, functionId id, jobject reference);
  method* needMethod(functionId id, jmethodID reference);
  field* needField(functionId id, jfieldID reference);
  static jobject local(threadEnv& env, object* target, functionId id) {
    return target == nullptr ? nullptr : env.locals.add(target, nameOf(id));
  }
  void removeLocal(threadEnv& env, functionId id, jobject reference);
  jobject addShared(handleKind kind, object* target, functionId id);
  void removeShared(handleKind kind, functionId id, jobject reference);
  // Whether a reference that is not null is one; reports it when it is none.
  bool isGood(threadEnv& env, functionId id, jobject reference) const;

  // --- Objects.
  template <typename T, typename... Arguments>
  T* keep(Arguments&&... arguments) {
    auto made = std::make_unique<T>(std::forward<Arguments>(arguments)...);
    T* kept = made.get();
    std::lock_guard hold(modelMutex);
    heap.push_back(std::move(made));
    return kept;
  }
  jint nextHash() { return hashes_.fetch_add(0x9E3779, std::memory_order_relaxed) & 0x7FFFFFFF; }
  javaClass* makeClass(std::string_view name, javaClass* super);
  javaClass* findClass(std::string_view name);   // null when none is loaded
  javaClass* knownClass(std::string_view name);  // made when absent
  object* makeObject(javaClass* type);
  javaString* makeString(std::string_view text);
  javaThread* makeThread(std::optional<std::string_view> name);
  const std::string* keepName(std::string_view name);
  method* makeMethod(javaClass* type, std::string_view name, std::string_view signature,
                     methodOptions options);
  field* makeField(javaClass* type, std::string_view name, std::string_view signature,
                   jint modifiers);
  // Members are looked up in superclasses too.
  method* findMethod(javaClass* type, std::string_view name, std::string_view signature,
                     bool isStatic);
  field* findField(javaClass* type, std::string_view name, std::string_view signature,
                   bool isStatic);
  void collect(object* unreachable);
  void collectGarbage();
  void unload(javaClass* unreachable);
  static bool isInstance(const object& what, const javaClass& type);
  std::size_t globalsTo(const object* target) const;

  // --- Java code.
  // Runs a method in a frame of its own; a void value when it threw.
  value invoke(threadEnv& env, method& code, object* self, std::vector<value> arguments);
  object* makeThrowable(std::string_view className);
  void raise(threadEnv& env, object* exception);

  // --- Entering native code.
  // Runs `body` in a fresh local frame, then reports what it left behind, under `what`.
  template <typename Body>
  void enter(threadEnv& env, const char* what, javaThread* as, const Body& body) {
    const entry before = begin(env, as);
    try {
      body();
    } catch (const std::exception& thrown) {
      report(what, std::string("a C++ exception came out: ") + thrown.what());
    } catch (...) {
      report(what, "a C++ exception came out");
    }
    finish(env, what, before);
  }
  // The callback as the entry of the agent's code.
  template <typename... Parameters>
  static auto agentEntry(void(JNICALL* callback)(Parameters...)) {
    return [callback](Parameters... arguments) {
      const agentCode scope(true);
      callback(arguments...);
    };
  }
  // Runs the callback of `event` in the agent's main environment, or in `in`, if it is to be
  // delivered.
  template <typename Callback, typename Action>
  bool deliver(jvmtiEvent event, const char* name, javaThread* as, delivery how, Action action) {
    return deliver<Callback>(jvmti, event, name, as, how, action);
  }
  template <typename Callback, typename Action>
  bool deliver(environment& in, jvmtiEvent event, const char* name, javaThread* as, delivery how,
               Action action) {
    auto callback = reinterpret_cast<Callback>(in.callbackOf(event));
    if (callback == nullptr) {
      return false;
    }
    if (how == delivery::ifEnabled && !in.enabled(event).load()) {
      return false;
    }
    threadEnv& env = current(name);
    enter(env, name, as, [&] { action(agentEntry(callback), env); });
    return true;
  }
  // The same in all environments, one after the other; `action` has the environment, too.
  template <typename Callback, typename Action>
  bool deliverToAll(jvmtiEvent event, const char* name, javaThread* as, delivery how,
                    Action action) {
    const auto deliverTo = [&](environment& in) {
      return deliver<Callback>(in, event, name, as, how, [&](auto callback, threadEnv& env) {
        action(callback, static_cast<jvmtiEnv*>(&in), env);
      });
    };
    bool isDelivered = deliverTo(jvmti);
    if (hasOtherEnvironments.load(std::memory_order_acquire)) {
      for (environment* const each : allEnvironments()) {
        isDelivered |= each != &jvmti && deliverTo(*each);
      }
    }
    return isDelivered;
  }

  static bool isEvent(jint event) {
    return event >= JVMTI_MIN_EVENT_TYPE_VAL &&
           event < JVMTI_MIN_EVENT_TYPE_VAL + static_cast<jint>(kEvents);
  }

  // --- State that the tables work on.
  std::atomic<jvmtiPhase> phase{JVMTI_PHASE_LIVE};
  std::uint8_t phaseBits() const;
  std::atomic<jlong> now{1'000'000'000};
  std::atomic<jlong> timeStep{0};
  std::atomic<unsigned> eventsPerCollection{1};
  std::atomic<jint> samplingInterval{512 * 1024};
  std::atomic<jint> featureVersion{26};

  // Frees VM memory of that thread; reports under `id` what is none.
  void giveBack(threadEnv& env, unsigned char* block, functionId id) {
    if (memory.free(block) == blockTracker::result::notOurs) {
      report(id, "not VM memory that is held now: freed before, or never allocated here");
    } else {
      --env.memoryHeld;
    }
  }

  blockTracker memory;
  blockTracker characters;

  // Guards what follows, and what objectModel.h says the virtualMachine guards.
  mutable std::mutex modelMutex;
  std::vector<std::unique_ptr<object>> heap;
  std::vector<javaClass*> loadedClasses;
  jvmtiCapabilities potential{};
  std::vector<eventMode> modes;                            // of the main environment
  std::vector<std::unique_ptr<environment>> environments;  // besides that

  // Of RunAgentThread, not run yet.
  struct agentThread {
    environment* in;
    javaThread* thread;
    jvmtiStartFunction body;
    const void* argument;
  };
  std::vector<agentThread> agentThreads;

  javaClass* objectClass = nullptr;
  javaClass* classClass = nullptr;
  javaClass* stringClass = nullptr;
  javaClass* threadClass = nullptr;
  object* mainGroup = nullptr;
  object* appLoader = nullptr;

  // Global and weak references. The mutex is for taking and releasing slots.
  mutable std::mutex sharedMutex;
  handleTable<object> globals;
  handleTable<object> weaks;

 private:
  struct rule {
    failure how;
    std::atomic<unsigned> matched{0};
  };
  // How things stood when native code was entered.
  struct entry {
    javaThread* current;
    object* pending;
    long memoryHeld;
    long charactersHeld;
    std::size_t depth;
  };
  struct watch {
    std::vector<std::shared_ptr<rule>> rules;
    std::shared_ptr<const std::function<void(const call&)>> hook;
  };
  struct resolved {
    object* target = nullptr;
    std::string wrong{};  // why the reference is none; empty for a good one
  };
  static std::size_t indexOf(jint event) {
    return static_cast<std::size_t>(event - JVMTI_MIN_EVENT_TYPE_VAL);
  }
  threadEnv* findCurrent() const;
  static entry begin(threadEnv& env, javaThread* as);
  void finish(threadEnv& env, const char* what, const entry& before) const;
  void bootstrap();
  void addBuiltIns();
  resolved resolve(threadEnv& env, jobject reference) const;
  // The short way for what most references are: null unless it is a good local reference.
  static object* liveLocal(const threadEnv& env, jobject reference) {
    const handle wanted = handle::unpack(reference);
    if (wanted.kind != handleKind::local || wanted.owner != env.index) {
      return nullptr;
    }
    const auto* slot = env.locals.table().find(wanted);
    return slot == nullptr ? nullptr : slot->target.load(std::memory_order_relaxed);
  }
  call describe(threadEnv* env, functionId id, const rawArguments& arguments) const;
  void refreshWatched(functionId id);
  void checkCollectable(const object* unreachable) const;

  std::atomic<jint> hashes_{0x1A2B3C};
  handleTable<method> methods_;
  handleTable<field> fields_;
  std::mutex namesMutex_;
  std::vector<std::unique_ptr<const std::string>> names_;

  mutable std::mutex threadsMutex_;
  std::vector<std::unique_ptr<threadEnv>> envs_;
  std::unordered_map<std::uint64_t, threadEnv*> attached_;

  mutable std::mutex watchMutex_;
  std::map<functionId, watch> watches_;
  bool logging_ = false;
  std::vector<std::string> log_;
  std::array<std::atomic<bool>, kFunctions> watched_{};
  std::array<std::atomic<std::uint64_t>, kFunctions> unattachedCounts_{};
  std::array<std::uint64_t, kFunctions> countsAtReset_{};
};

// The tables, filled once for all machines.
const jvmtiInterface_1& jvmtiTable();
const JNINativeInterface_& jniTable();
const JNIInvokeInterface_& invocationTable();

}  // namespace fake
