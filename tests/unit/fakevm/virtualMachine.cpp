#include "virtualMachine.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <stdexcept>

#include "machine.h"

namespace fake {

namespace {

functionId known(std::string_view name) {
  const auto id = functionNamed(name);
  if (!id) {
    throw std::invalid_argument("no VM function is called " + std::string(name));
  }
  return *id;
}

std::string makersOf(const handleTable<object>& table) {
  std::map<std::string, int> counts;
  table.forEachLive([&](const auto& slot) {
    if (const char* origin = slot.origin.load()) {
      ++counts[origin];
    }
  });
  std::string text;
  for (const auto& [name, count] : counts) {
    text += (text.empty() ? "" : ", ") + std::to_string(count) + " of " + name;
  }
  return text;
}

}  // namespace

virtualMachine::virtualMachine() : machine_(std::make_unique<machine>(*this)) {}
virtualMachine::~virtualMachine() = default;

JavaVM* virtualMachine::javaVm() {
  return &machine_->javaVm;
}
jvmtiEnv* virtualMachine::jvmti() {
  return &machine_->jvmti;
}
JNIEnv* virtualMachine::env() {
  return &machine_->current("the test");
}

JNIEnv* virtualMachine::attach(javaThread* as) {
  return &machine_->attach(as);
}
void virtualMachine::detach() {
  machine_->detach();
}
javaThread* virtualMachine::currentThread() {
  return machine_->current("the test").current;
}

// --- Making things.

javaClass* virtualMachine::makeClass(std::string_view name, javaClass* super) {
  return machine_->makeClass(name, super);
}

javaClass* virtualMachine::classNamed(std::string_view name) {
  return machine_->knownClass(name);
}

object* virtualMachine::makeObject(javaClass* type) {
  return machine_->makeObject(type);
}

javaString* virtualMachine::makeString(std::string_view modifiedUtf8) {
  return machine_->makeString(modifiedUtf8);
}

objectArray* virtualMachine::makeArray(std::string_view className, std::vector<object*> elements) {
  return machine_->keep<objectArray>(classNamed(className), machine_->nextHash(),
                                     std::move(elements));
}

intArray* virtualMachine::makeIntArray(std::vector<jint> elements) {
  return machine_->keep<intArray>(classNamed("[I"), machine_->nextHash(), std::move(elements));
}

javaThread* virtualMachine::makeThread(std::optional<std::string_view> name) {
  return machine_->makeThread(name);
}

javaThread* virtualMachine::makeVirtualThread(std::string_view name) {
  javaThread* made = machine_->makeThread(name);
  made->isVirtual = true;
  made->isDaemon = true;
  return made;
}

method* virtualMachine::makeMethod(javaClass* type, std::string_view name,
                                   std::string_view signature, methodOptions options) {
  return machine_->makeMethod(type, name, signature, std::move(options));
}

method* virtualMachine::makeMethod(std::string_view className, std::string_view name,
                                   std::string_view signature, methodOptions options) {
  return machine_->makeMethod(classNamed(className), name, signature, std::move(options));
}

field* virtualMachine::makeField(javaClass* type, std::string_view name, std::string_view signature,
                                 jint modifiers) {
  return machine_->makeField(type, name, signature, modifiers);
}

// --- Changing things.

void virtualMachine::rename(javaThread* thread, std::optional<std::string_view> name) {
  thread->name.store(name ? machine_->keepName(*name) : nullptr, std::memory_order_release);
}

void virtualMachine::setField(object* owner, field* which, value to) {
  if (to.index() != alternativeOf(which->signature.front())) {
    throw std::invalid_argument("the field " + which->name + " has the type " + which->signature);
  }
  std::lock_guard hold(machine_->modelMutex);
  owner->fields[which] = to;
}

void virtualMachine::setStatic(field* which, value to) {
  if (to.index() != alternativeOf(which->signature.front())) {
    throw std::invalid_argument("the field " + which->name + " has the type " + which->signature);
  }
  std::lock_guard hold(machine_->modelMutex);
  which->staticValue = to;
}

void virtualMachine::setOwner(object* monitor, javaThread* owner, jint entryCount, jint depth) {
  std::lock_guard hold(machine_->modelMutex);
  monitor->monitor.depth = depth;
  monitor->monitor.owner = owner;
  monitor->monitor.entryCount = owner == nullptr ? 0 : entryCount;
}

void virtualMachine::setWaiters(object* monitor, std::vector<javaThread*> waiters) {
  std::lock_guard hold(machine_->modelMutex);
  monitor->monitor.waiters = std::move(waiters);
}

void virtualMachine::setNotifyWaiters(object* monitor, std::vector<javaThread*> waiters) {
  std::lock_guard hold(machine_->modelMutex);
  monitor->monitor.notifyWaiters = std::move(waiters);
}

void virtualMachine::collect(object* unreachable) {
  machine_->collect(unreachable);
}
void virtualMachine::collectGarbage() {
  machine_->collectGarbage();
}
void virtualMachine::unload(javaClass* unreachable) {
  machine_->unload(unreachable);
}

jobject virtualMachine::ref(object* target) {
  if (target == nullptr) {
    return nullptr;
  }
  return machine_->current("the test").locals.add(target, nullptr);
}

object* virtualMachine::target(jobject reference) {
  return machine_->use(machine_->current("the test"), FAKE_JNI(NewLocalRef), reference);
}

// --- Time and state.

void virtualMachine::setTime(jlong now) {
  machine_->now = now;
}
void virtualMachine::advance(jlong by) {
  machine_->now += by;
}
void virtualMachine::setTimeStep(jlong step) {
  machine_->timeStep = step;
}
jlong virtualMachine::time() const {
  return machine_->now;
}

void virtualMachine::setPhase(jvmtiPhase phase) {
  machine_->phase = phase;
}

void virtualMachine::setPotentialCapabilities(const jvmtiCapabilities& capabilities) {
  std::lock_guard hold(machine_->modelMutex);
  machine_->potential = capabilities;
}

void virtualMachine::refuseLateCapabilities() {
  std::lock_guard hold(machine_->modelMutex);
  jvmtiCapabilities& late = machine_->potential;
  late.can_generate_exception_events = 0;
  late.can_access_local_variables = 0;
  late.can_get_owned_monitor_info = 0;
  late.can_get_owned_monitor_stack_depth_info = 0;
  late.can_get_current_contended_monitor = 0;
  late.can_generate_breakpoint_events = 0;
  late.can_generate_single_step_events = 0;
  late.can_generate_method_entry_events = 0;
  late.can_generate_method_exit_events = 0;
  late.can_generate_field_access_events = 0;
  late.can_generate_field_modification_events = 0;
  late.can_generate_frame_pop_events = 0;
  late.can_pop_frame = 0;
  late.can_force_early_return = 0;
  late.can_get_source_debug_extension = 0;
  late.can_maintain_original_method_order = 0;
  late.can_generate_early_vmstart = 0;
  late.can_generate_early_class_hook_events = 0;
}

jvmtiCapabilities virtualMachine::capabilities() const {
  std::lock_guard hold(machine_->modelMutex);
  return machine_->jvmti.added;
}

jvmtiEventCallbacks virtualMachine::callbacks() const {
  std::array<void*, machine::kEvents> entries{};
  std::copy(machine_->jvmti.callbacks.begin(), machine_->jvmti.callbacks.end(), entries.begin());
  jvmtiEventCallbacks installed{};
  std::memcpy(&installed, entries.data(), sizeof installed);
  return installed;
}

bool virtualMachine::isEnabled(jvmtiEvent event) const {
  return machine_->jvmti.enabled(event);
}

std::vector<eventMode> virtualMachine::eventModes() const {
  std::lock_guard hold(machine_->modelMutex);
  return machine_->modes;
}

bool virtualMachine::disposed() const {
  return machine_->jvmti.disposed;
}

void virtualMachine::setFeatureVersion(jint version) {
  machine_->featureVersion = version;
}

jint virtualMachine::samplingInterval() const {
  return machine_->samplingInterval;
}

void virtualMachine::setEventsPerCollection(unsigned count) {
  machine_->eventsPerCollection = count;
}

// --- Exceptions.

void virtualMachine::throwInJava(object* exception) {
  machine_->raise(machine_->current("the test"), exception);
}

object* virtualMachine::pendingException() {
  return machine_->current("the test").pending;
}
void virtualMachine::clearException() {
  machine_->current("the test").pending = nullptr;
}

// --- Events.

bool virtualMachine::vmInit(javaThread* thread, delivery how) {
  return machine_->deliverToAll<jvmtiEventVMInit>(
      JVMTI_EVENT_VM_INIT, "VMInit", thread, how,
      [&](auto callback, jvmtiEnv* in, threadEnv& env) { callback(in, &env, ref(thread)); });
}

bool virtualMachine::vmDeath(delivery how) {
  return machine_->deliverToAll<jvmtiEventVMDeath>(
      JVMTI_EVENT_VM_DEATH, "VMDeath", nullptr, how,
      [&](auto callback, jvmtiEnv* in, threadEnv& env) { callback(in, &env); });
}

bool virtualMachine::threadEnd(javaThread* thread) {
  return machine_->deliverToAll<jvmtiEventThreadEnd>(
      JVMTI_EVENT_THREAD_END, "ThreadEnd", thread, delivery::ifEnabled,
      [&](auto callback, jvmtiEnv* in, threadEnv& env) { callback(in, &env, ref(thread)); });
}

bool virtualMachine::contendedEnter(javaThread* thread, object* monitor, delivery how) {
  return machine_->deliverToAll<jvmtiEventMonitorContendedEnter>(
      JVMTI_EVENT_MONITOR_CONTENDED_ENTER, "MonitorContendedEnter", thread, how,
      [&](auto callback, jvmtiEnv* in, threadEnv& env) {
        callback(in, &env, ref(thread), ref(monitor));
      });
}

bool virtualMachine::contendedEntered(javaThread* thread, object* monitor, delivery how) {
  return machine_->deliverToAll<jvmtiEventMonitorContendedEntered>(
      JVMTI_EVENT_MONITOR_CONTENDED_ENTERED, "MonitorContendedEntered", thread, how,
      [&](auto callback, jvmtiEnv* in, threadEnv& env) {
        callback(in, &env, ref(thread), ref(monitor));
      });
}

bool virtualMachine::monitorWait(javaThread* thread, object* monitor, jlong timeout, delivery how) {
  return machine_->deliverToAll<jvmtiEventMonitorWait>(
      JVMTI_EVENT_MONITOR_WAIT, "MonitorWait", thread, how,
      [&](auto callback, jvmtiEnv* in, threadEnv& env) {
        callback(in, &env, ref(thread), ref(monitor), timeout);
      });
}

bool virtualMachine::monitorWaited(javaThread* thread, object* monitor, bool timedOut,
                                   delivery how) {
  return machine_->deliverToAll<jvmtiEventMonitorWaited>(
      JVMTI_EVENT_MONITOR_WAITED, "MonitorWaited", thread, how,
      [&](auto callback, jvmtiEnv* in, threadEnv& env) {
        callback(in, &env, ref(thread), ref(monitor), timedOut ? JNI_TRUE : JNI_FALSE);
      });
}

bool virtualMachine::garbageCollectionStart(delivery how) {
  return machine_->deliverToAll<jvmtiEventGarbageCollectionStart>(
      JVMTI_EVENT_GARBAGE_COLLECTION_START, "GarbageCollectionStart", nullptr, how,
      [&](auto callback, jvmtiEnv* in, threadEnv& env) {
        const restricted within(env, "GarbageCollectionStart");
        callback(in);
      });
}

bool virtualMachine::garbageCollectionFinish(delivery how) {
  return machine_->deliverToAll<jvmtiEventGarbageCollectionFinish>(
      JVMTI_EVENT_GARBAGE_COLLECTION_FINISH, "GarbageCollectionFinish", nullptr, how,
      [&](auto callback, jvmtiEnv* in, threadEnv& env) {
        const restricted within(env, "GarbageCollectionFinish");
        callback(in);
      });
}

bool virtualMachine::sampledAllocation(javaThread* thread, object* allocated, jlong size,
                                       delivery how) {
  return machine_->deliverToAll<jvmtiEventSampledObjectAlloc>(
      JVMTI_EVENT_SAMPLED_OBJECT_ALLOC, "SampledObjectAlloc", thread, how,
      [&](auto callback, jvmtiEnv* in, threadEnv& env) {
        callback(in, &env, ref(thread), ref(allocated), ref(allocated->type), size);
      });
}

bool virtualMachine::exception(javaThread* thread, method* code, jlocation location, object* thrown,
                               method* catchCode, jlocation catchLocation, delivery how) {
  const auto idOf = [](const method* one) { return one == nullptr ? nullptr : one->id; };
  return machine_->deliver<jvmtiEventException>(
      JVMTI_EVENT_EXCEPTION, "Exception", thread, how, [&](auto callback, threadEnv& env) {
        callback(jvmti(), &env, ref(thread), idOf(code), location, ref(thrown), idOf(catchCode),
                 catchLocation);
      });
}

std::vector<unsigned char> virtualMachine::classFileLoad(const char* name,
                                                         std::vector<unsigned char> bytes,
                                                         object* loader, javaClass* redefined) {
  for (machine::environment* const each : machine_->allEnvironments()) {
    machine_->deliver<jvmtiEventClassFileLoadHook>(
        *each, JVMTI_EVENT_CLASS_FILE_LOAD_HOOK, "ClassFileLoadHook", nullptr, delivery::ifEnabled,
        [&](auto callback, threadEnv& env) {
          jint newSize = 0;
          unsigned char* newBytes = nullptr;
          callback(each, &env, ref(redefined), ref(loader), name, nullptr,
                   static_cast<jint>(bytes.size()), bytes.data(), &newSize, &newBytes);
          if (newBytes != nullptr) {
            bytes.assign(newBytes, newBytes + newSize);
            machine_->giveBack(env, newBytes, FAKE_JVMTI(RetransformClasses));
          }
        });
  }
  return bytes;
}

void virtualMachine::runAgentThreads() {
  std::vector<machine::agentThread> waiting;
  {
    std::lock_guard hold(machine_->modelMutex);
    waiting.swap(machine_->agentThreads);
  }
  threadEnv& env = machine_->current("an agent thread");
  for (const machine::agentThread& each : waiting) {
    machine_->enter(env, "agent thread", each.thread, [&] {
      machine::agentEntry(each.body)(each.in, &env, const_cast<void*>(each.argument));
    });
  }
}

void virtualMachine::runNative(const std::function<void(JNIEnv*)>& body) {
  threadEnv& env = machine_->current("the test");
  machine_->enter(env, "native method", nullptr, [&] { body(&env); });
}

// --- Calls.

std::uint64_t virtualMachine::calls(std::string_view function) const {
  return machine_->totalCount(known(function));
}

std::set<std::string> virtualMachine::callNames() const {
  std::set<std::string> names;
  for (std::size_t id = 0; id < kFunctions; ++id) {
    const auto function = static_cast<functionId>(id);
    if (machine_->totalCount(function) > 0) {
      names.insert(nameOf(function));
    }
  }
  return names;
}

void virtualMachine::resetCalls() {
  machine_->resetCounts();
}
void virtualMachine::setRecording(bool on) {
  machine_->recording = on;
}
void virtualMachine::setLogging(bool on) {
  machine_->setLogging(on);
}
std::vector<std::string> virtualMachine::callLog() const {
  return machine_->log();
}

void virtualMachine::fail(std::string_view function, failure how) {
  machine_->addFailure(known(function), std::move(how));
}

void virtualMachine::succeed(std::string_view function) {
  machine_->removeFailures(known(function));
}

void virtualMachine::on(std::string_view function, std::function<void(const call&)> hook) {
  machine_->setHook(known(function), std::move(hook));
}

void virtualMachine::on(std::string_view function, std::function<void()> hook) {
  on(function, [hook = std::move(hook)](const call&) { hook(); });
}

void virtualMachine::off(std::string_view function) {
  machine_->setHook(known(function), nullptr);
}

// --- What is held.

std::size_t virtualMachine::memoryHeld() const {
  return machine_->memory.held();
}
std::size_t virtualMachine::charactersHeld() const {
  return machine_->characters.held();
}

std::size_t virtualMachine::localReferences() const {
  std::size_t count = 0;
  for (const threadEnv* env : machine_->allEnvs()) {
    env->locals.table().forEachLive(
        [&](const auto& slot) { count += slot.origin.load() != nullptr ? 1U : 0U; });
  }
  return count;
}

std::size_t virtualMachine::globalReferences() const {
  return machine_->globals.live();
}
std::size_t virtualMachine::weakReferences() const {
  return machine_->weaks.live();
}

std::size_t virtualMachine::globalReferencesTo(const object* target) const {
  return machine_->globalsTo(target);
}

std::size_t virtualMachine::peakLocalReferences() const {
  std::size_t peak = 0;
  for (const threadEnv* env : machine_->allEnvs()) {
    peak = std::max(peak, env->locals.peak());
  }
  return peak;
}

void virtualMachine::checkNothingHeld() const {
  const auto report = [](const char* what, const std::string& held) {
    if (!held.empty()) {
      machine::report("still held at the end", what + (": " + held));
    }
  };
  report("VM memory", machine_->memory.heldByOrigin());
  report("UTF characters", machine_->characters.heldByOrigin());
  report("global references", makersOf(machine_->globals));
  report("weak global references", makersOf(machine_->weaks));
  for (const threadEnv* env : machine_->allEnvs()) {
    report("local references", makersOf(env->locals.table()));
    if (const object* pending = env->pending) {
      report("a pending exception", pending->type->name);
    }
  }
}

}  // namespace fake
