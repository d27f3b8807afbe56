#include "machine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <stdexcept>

namespace fake {

namespace {

std::uint64_t nextSerial() {
  static std::atomic<std::uint64_t> serial{0};
  return ++serial;
}

// Names a thread of the system for good: unlike std::thread::id it is never given twice.
std::uint64_t threadToken() {
  static std::atomic<std::uint64_t> tokens{0};
  thread_local const std::uint64_t token = ++tokens;
  return token;
}

std::uint32_t firstGeneration(std::uint64_t serial, std::uint32_t owner) {
  return static_cast<std::uint32_t>(serial * 7919U + owner * 104729U);
}

std::string hex(std::uint64_t number) {
  std::array<char, 24> text{};
  std::snprintf(text.data(), text.size(), "0x%llx", static_cast<unsigned long long>(number));
  return text.data();
}

template <typename T>
std::string hexOf(T reference) {
  return hex(reinterpret_cast<std::uint64_t>(reference));
}

const char* originText(const char* origin) {
  return origin == nullptr ? "the test" : origin;
}

std::string countsOf(const std::vector<const char*>& names) {
  std::map<std::string, int> counts;
  for (const char* name : names) {
    ++counts[name];
  }
  std::string text;
  for (const auto& [name, count] : counts) {
    text += (text.empty() ? "" : ", ") + std::to_string(count) + " of " + name;
  }
  return text;
}

}  // namespace

threadEnv::threadEnv(machine& owningMachine, std::uint32_t number, javaThread* thread)
    : JNIEnv_{&jniTable()},
      owner(owningMachine),
      index(number),
      current(thread),
      locals(number, firstGeneration(owningMachine.serial, number)) {}

machine::machine(virtualMachine& owningFace)
    : face(owningFace),
      serial(nextSerial()),
      globals(firstGeneration(serial, 1)),
      weaks(firstGeneration(serial, 2)),
      methods_(firstGeneration(serial, 3)),
      fields_(firstGeneration(serial, 4)) {
  jvmti.functions = &jvmtiTable();
  jvmti.owner = this;
  javaVm.functions = &invocationTable();
  javaVm.owner = this;
  std::fill_n(reinterpret_cast<unsigned char*>(&potential), sizeof potential, 0xFF);
  bootstrap();
  attach(makeThread("main"));
}

machine::~machine() = default;

// --- Threads.

threadEnv* machine::findCurrent() const {
  std::lock_guard hold(threadsMutex_);
  const auto found = attached_.find(threadToken());
  if (found == attached_.end()) {
    return nullptr;
  }
  lastUsed = {serial, found->second};
  return found->second;
}

threadEnv& machine::current(const char* what) {
  threadEnv* env = currentOrNull();
  return env != nullptr ? *env : attach(makeThread(std::string("attached by ") + what));
}

machine::environment& machine::addEnvironment() {
  auto made = std::make_unique<environment>();
  made->functions = jvmti.functions;
  made->owner = this;
  std::lock_guard hold(modelMutex);
  hasOtherEnvironments = true;
  return *environments.emplace_back(std::move(made));
}

std::vector<machine::environment*> machine::allEnvironments() {
  std::vector<environment*> all{&jvmti};
  std::lock_guard hold(modelMutex);
  for (const auto& each : environments) {
    all.push_back(each.get());
  }
  return all;
}

threadEnv& machine::attach(javaThread* as) {
  if (threadEnv* env = currentOrNull()) {
    return *env;
  }
  if (as == nullptr) {
    as = makeThread("attached thread");
  }
  std::lock_guard hold(threadsMutex_);
  const auto index = static_cast<std::uint32_t>(envs_.size());
  if (index >= handle::kMaxOwners) {
    throw std::length_error("too many attached threads");
  }
  envs_.push_back(std::make_unique<threadEnv>(*this, index, as));
  attached_[threadToken()] = envs_.back().get();
  lastUsed = {serial, envs_.back().get()};
  return *envs_.back();
}

void machine::detach() {
  threadEnv* env = currentOrNull();
  if (env == nullptr) {
    return;
  }
  while (!env->locals.atBoundary()) {
    report("DetachCurrentThread", "PushLocalFrame without PopLocalFrame");
    env->locals.popFrame();
  }
  if (const auto makers = env->locals.makersInTopFrame(); !makers.empty()) {
    report("DetachCurrentThread", "local references not deleted: " + countsOf(makers));
  }
  if (env->pending.exchange(nullptr) != nullptr) {
    report("DetachCurrentThread", "a Java exception is pending");
  }
  env->locals.popFrame();
  env->locals.pushFrame(true);
  std::lock_guard hold(threadsMutex_);
  attached_.erase(threadToken());
  lastUsed = {};
}

std::vector<threadEnv*> machine::allEnvs() const {
  std::lock_guard hold(threadsMutex_);
  std::vector<threadEnv*> envs;
  for (const auto& env : envs_) {
    envs.push_back(env.get());
  }
  return envs;
}

void machine::report(std::string_view where, std::string_view what) {
  ADD_FAILURE() << "fake VM: " << where << ": " << what;
}

// --- Calls.

std::uint64_t machine::totalCount(functionId id) const {
  std::uint64_t sum = unattachedCounts_[id].load(std::memory_order_relaxed);
  for (const threadEnv* env : allEnvs()) {
    sum += env->counts[id].load(std::memory_order_relaxed);
  }
  return sum - countsAtReset_[id];
}

void machine::resetCounts() {
  for (std::size_t id = 0; id < kFunctions; ++id) {
    countsAtReset_[id] += totalCount(static_cast<functionId>(id));
  }
  for (threadEnv* env : allEnvs()) {
    env->locals.resetPeak();
  }
}

void machine::setLogging(bool on) {
  std::lock_guard hold(watchMutex_);
  logging_ = on;
  if (on) {
    log_.clear();
  }
  for (std::size_t id = 0; id < kFunctions; ++id) {
    refreshWatched(static_cast<functionId>(id));
  }
}

std::vector<std::string> machine::log() const {
  std::lock_guard hold(watchMutex_);
  return log_;
}

void machine::addFailure(functionId id, failure how) {
  auto made = std::make_shared<rule>();
  made->how = std::move(how);
  std::lock_guard hold(watchMutex_);
  watches_[id].rules.push_back(std::move(made));
  refreshWatched(id);
}

void machine::removeFailures(functionId id) {
  std::lock_guard hold(watchMutex_);
  watches_[id].rules.clear();
  refreshWatched(id);
}

void machine::setHook(functionId id, std::function<void(const call&)> hook) {
  std::lock_guard hold(watchMutex_);
  watches_[id].hook =
      hook ? std::make_shared<const std::function<void(const call&)>>(std::move(hook)) : nullptr;
  refreshWatched(id);
}

void machine::refreshWatched(functionId id) {
  const auto found = watches_.find(id);
  const bool wanted =
      found != watches_.end() && (found->second.hook != nullptr || !found->second.rules.empty());
  watched_[id].store(wanted || logging_, std::memory_order_release);
}

call machine::describe(threadEnv* env, functionId id, const rawArguments& arguments) const {
  call described{nameOf(id)};
  if (env != nullptr && arguments.target != nullptr) {
    described.target = resolve(*env, arguments.target).target;
  }
  if (auto* slot = methods_.find(handle::unpack(arguments.code)); slot != nullptr) {
    described.code = slot->target.load();
    described.name = described.code->name;
    described.signature = described.code->signature;
  }
  if (arguments.name != nullptr) {
    described.name = arguments.name;
  }
  if (arguments.signature != nullptr) {
    described.signature = arguments.signature;
  }
  described.number = arguments.number;
  return described;
}

verdict machine::consult(threadEnv* env, functionId id, const rawArguments& arguments) {
  const call described = describe(env, id, arguments);
  std::shared_ptr<const std::function<void(const call&)>> hook;
  {
    std::lock_guard hold(watchMutex_);
    if (logging_) {
      log_.emplace_back(nameOf(id));
    }
    if (const auto found = watches_.find(id); found != watches_.end()) {
      hook = found->second.hook;
    }
  }
  if (hook != nullptr) {
    (*hook)(described);
  }

  std::vector<std::shared_ptr<rule>> rules;
  {
    std::lock_guard hold(watchMutex_);
    if (const auto found = watches_.find(id); found != watches_.end()) {
      rules = found->second.rules;
    }
  }
  for (const auto& one : rules) {
    const failure& how = one->how;
    if (!how.name.empty() && how.name != described.name) {
      continue;
    }
    if (how.when && !how.when(described)) {
      continue;
    }
    const unsigned number = ++one->matched;
    if (number < how.from || number - how.from >= how.times) {
      continue;
    }
    if (how.throwing && env != nullptr) {
      raise(*env, how.exception);
    }
    return {false, how.error};
  }
  return {};
}

// --- References.

machine::resolved machine::resolve(threadEnv& env, jobject reference) const {
  const auto wrong = [&](const char* why) {
    return resolved{nullptr, "reference " + hexOf(reference) + " " + why};
  };
  const handle wanted = handle::unpack(reference);
  const handleTable<object>* table = nullptr;
  switch (wanted.kind) {
    case handleKind::local:
      if (wanted.owner != env.index) {
        return wrong("is a local reference of another thread");
      }
      table = &env.locals.table();
      break;
    case handleKind::global:
      table = &globals;
      break;
    case handleKind::weak:
      table = &weaks;
      break;
    case handleKind::method:
      return wrong("is a method ID");
    case handleKind::field:
      return wrong("is a field ID");
    default:
      return wrong("was never made by this VM");
  }
  if (const auto* slot = table->find(wanted); slot != nullptr) {
    return {slot->target.load(), {}};
  }
  return wrong("is stale");
}

object* machine::use(threadEnv& env, functionId id, jobject reference) {
  if (reference == nullptr) {
    return nullptr;
  }
  if (object* found = liveLocal(env, reference)) {
    return found;
  }
  resolved found = resolve(env, reference);
  if (!found.wrong.empty()) {
    report(id, found.wrong);
  }
  return found.target;
}

object* machine::needObject(threadEnv& env, functionId id, jobject reference) {
  if (object* found = liveLocal(env, reference)) {
    return found;
  }
  if (reference == nullptr) {
    report(id, "a null reference where the VM needs an object");
    return nullptr;
  }
  resolved found = resolve(env, reference);
  if (!found.wrong.empty()) {
    report(id, found.wrong);
  } else if (found.target == nullptr) {
    report(id, "a cleared weak reference where the VM needs an object");
  }
  return found.target;
}

bool machine::isGood(threadEnv& env, functionId id, jobject reference) const {
  const resolved found = resolve(env, reference);
  if (!found.wrong.empty()) {
    report(id, found.wrong);
  }
  return found.wrong.empty();
}

method* machine::needMethod(functionId id, jmethodID reference) {
  if (auto* slot = methods_.find(handle::unpack(reference));
      slot != nullptr && handle::unpack(reference).kind == handleKind::method) {
    return slot->target.load();
  }
  report(id, "method ID " + hexOf(reference) + " is none, or went with its class");
  return nullptr;
}

field* machine::needField(functionId id, jfieldID reference) {
  if (auto* slot = fields_.find(handle::unpack(reference));
      slot != nullptr && handle::unpack(reference).kind == handleKind::field) {
    return slot->target.load();
  }
  report(id, "field ID " + hexOf(reference) + " is none, or went with its class");
  return nullptr;
}

void machine::removeLocal(threadEnv& env, functionId id, jobject reference) {
  const handle wanted = handle::unpack(reference);
  if (wanted.kind != handleKind::local) {
    report(id, "reference " + hexOf(reference) + " is not a local reference");
  } else if (wanted.owner != env.index) {
    report(id, "reference " + hexOf(reference) + " is a local reference of another thread");
  } else if (env.locals.table().find(wanted) == nullptr) {
    report(id, "reference " + hexOf(reference) + " is stale");
  } else {
    env.locals.remove(wanted.slot);
  }
}

jobject machine::addShared(handleKind kind, object* target, functionId id) {
  auto& table = kind == handleKind::global ? globals : weaks;
  std::lock_guard hold(sharedMutex);
  const std::uint32_t slot = table.take(target, nameOf(id));
  return handle{kind, 0, table.at(slot).generation.load(), slot}.pack<jobject>();
}

void machine::removeShared(handleKind kind, functionId id, jobject reference) {
  const handle wanted = handle::unpack(reference);
  auto& table = kind == handleKind::global ? globals : weaks;
  if (wanted.kind != kind) {
    report(id, "reference " + hexOf(reference) + " is not a " +
                   (kind == handleKind::global ? "global" : "weak global") + " reference");
    return;
  }
  std::lock_guard hold(sharedMutex);
  if (table.find(wanted) == nullptr) {
    report(id, "reference " + hexOf(reference) + " is stale");
  } else {
    table.release(wanted.slot);
  }
}

std::size_t machine::globalsTo(const object* target) const {
  std::size_t count = 0;
  std::lock_guard hold(sharedMutex);
  globals.forEachLive([&](const auto& slot) { count += slot.target.load() == target ? 1U : 0U; });
  return count;
}

// --- Objects.

void machine::bootstrap() {
  objectClass =
      keep<javaClass>(nullptr, nextHash(), "java.lang.Object", "Ljava/lang/Object;", nullptr);
  classClass =
      keep<javaClass>(nullptr, nextHash(), "java.lang.Class", "Ljava/lang/Class;", objectClass);
  objectClass->type = classClass;
  classClass->type = classClass;
  loadedClasses = {objectClass, classClass};
  stringClass = makeClass("java.lang.String", nullptr);
  threadClass = makeClass("java.lang.Thread", nullptr);
  javaClass* throwable = makeClass("java.lang.Throwable", nullptr);
  javaClass* exception = makeClass("java.lang.Exception", throwable);
  makeClass("java.lang.RuntimeException", exception);
  makeClass("java.lang.Error", throwable);
  mainGroup = makeObject(makeClass("java.lang.ThreadGroup", nullptr));
  appLoader = makeObject(makeClass("java.lang.ClassLoader", nullptr));
  addBuiltIns();
}

void machine::addBuiltIns() {
  const auto add = [this](javaClass* type, const char* name, const char* signature,
                          methodBody body) {
    methodOptions options;
    options.body = std::move(body);
    makeMethod(type, name, signature, std::move(options));
  };
  add(objectClass, "getClass", "()Ljava/lang/Class;",
      [](invocation& call) -> value { return call.self->type; });
  add(objectClass, "hashCode", "()I",
      [](invocation& call) -> value { return call.self->hash.load(); });
  add(objectClass, "toString", "()Ljava/lang/String;", [this](invocation& call) -> value {
    const auto hash = static_cast<std::uint32_t>(call.self->hash.load());
    return makeString(call.self->type->name + "@" + hex(hash).substr(2));
  });
  add(threadClass, "<init>", "(Ljava/lang/ThreadGroup;Ljava/lang/String;)V",
      [this](invocation& call) -> value {
        auto* made = static_cast<javaThread*>(call.self);
        made->group = std::get<object*>(call.arguments[0]);
        made->name = keepName(static_cast<javaString*>(std::get<object*>(call.arguments[1]))->text);
        return {};
      });
  add(stringClass, "toString", "()Ljava/lang/String;",
      [](invocation& call) -> value { return call.self; });
  add(classClass, "getName", "()Ljava/lang/String;", [this](invocation& call) -> value {
    auto* named = static_cast<javaClass*>(call.self);
    object* name = named->nameString;
    if (name != nullptr) {
      return name;
    }
    object* made = makeString(named->name);
    return named->nameString.compare_exchange_strong(name, made) ? made : name;
  });
}

javaClass* machine::makeClass(std::string_view name, javaClass* super) {
  auto* made = keep<javaClass>(classClass, nextHash(), std::string(name), signatureOf(name),
                               super == nullptr ? objectClass : super);
  if (!name.starts_with("java.")) {
    made->loader = appLoader;
  }
  std::lock_guard hold(modelMutex);
  loadedClasses.push_back(made);
  return made;
}

javaClass* machine::findClass(std::string_view name) {
  std::lock_guard hold(modelMutex);
  for (javaClass* loaded : loadedClasses) {
    if (loaded->name == name) {
      return loaded;
    }
  }
  return nullptr;
}

javaClass* machine::knownClass(std::string_view name) {
  javaClass* found = findClass(name);
  return found != nullptr ? found : makeClass(name, nullptr);
}

object* machine::makeObject(javaClass* type) {
  return keep<object>(objectKind::plain, type, nextHash());
}

javaString* machine::makeString(std::string_view text) {
  return keep<javaString>(stringClass, nextHash(), std::string(text));
}

javaThread* machine::makeThread(std::optional<std::string_view> name) {
  auto* made = keep<javaThread>(threadClass, nextHash());
  if (name.has_value()) {
    made->name = keepName(*name);
  }
  made->group = mainGroup;
  made->loader = appLoader;
  return made;
}

const std::string* machine::keepName(std::string_view name) {
  std::lock_guard hold(namesMutex_);
  return names_.emplace_back(std::make_unique<const std::string>(name)).get();
}

method* machine::makeMethod(javaClass* type, std::string_view name, std::string_view signature,
                            methodOptions options) {
  auto made = std::make_unique<method>();
  made->declaringClass = type;
  made->name = name;
  made->signature = signature;
  made->isStatic = options.isStatic;
  made->isNative = options.isNative;
  made->body = std::move(options.body);
  made->argumentsSize = argumentSlots(signature, options.isStatic);
  made->maxLocals = made->argumentsSize;
  std::lock_guard hold(modelMutex);
  const std::uint32_t slot = methods_.take(made.get(), nullptr);
  made->id =
      handle{handleKind::method, 0, methods_.at(slot).generation.load(), slot}.pack<jmethodID>();
  return type->methods.emplace_back(std::move(made)).get();
}

field* machine::makeField(javaClass* type, std::string_view name, std::string_view signature,
                          jint modifiers) {
  auto made = std::make_unique<field>();
  made->declaringClass = type;
  made->name = name;
  made->signature = signature;
  made->modifiers = modifiers;
  made->staticValue = zeroOf(signature.empty() ? 'V' : signature.front());
  std::lock_guard hold(modelMutex);
  const std::uint32_t slot = fields_.take(made.get(), nullptr);
  made->id =
      handle{handleKind::field, 0, fields_.at(slot).generation.load(), slot}.pack<jfieldID>();
  return type->fieldsDeclared.emplace_back(std::move(made)).get();
}

method* machine::findMethod(javaClass* type, std::string_view name, std::string_view signature,
                            bool isStatic) {
  std::lock_guard hold(modelMutex);
  for (; type != nullptr; type = type->super) {
    for (const auto& one : type->methods) {
      if (one->name == name && one->signature == signature && one->isStatic == isStatic) {
        return one.get();
      }
    }
  }
  return nullptr;
}

field* machine::findField(javaClass* type, std::string_view name, std::string_view signature,
                          bool isStatic) {
  std::lock_guard hold(modelMutex);
  for (; type != nullptr; type = type->super) {
    for (const auto& one : type->fieldsDeclared) {
      if (one->name == name && one->signature == signature && one->isStatic() == isStatic) {
        return one.get();
      }
    }
  }
  return nullptr;
}

bool machine::isInstance(const object& what, const javaClass& type) {
  const javaClass* climbing = what.type;
  while (climbing != nullptr && climbing != &type) {
    climbing = climbing->super;
  }
  return climbing != nullptr;
}

void machine::checkCollectable(const object* unreachable) const {
  std::vector<const char*> holders;
  const auto look = [&](const auto& slot) {
    if (slot.target.load() == unreachable) {
      holders.push_back(originText(slot.origin.load()));
    }
  };
  for (const threadEnv* env : allEnvs()) {
    env->locals.table().forEachLive(look);
  }
  {
    std::lock_guard hold(sharedMutex);
    globals.forEachLive(look);
  }
  if (!holders.empty()) {
    report("collect", "references hold the object: " + countsOf(holders));
  }
}

void machine::collect(object* unreachable) {
  checkCollectable(unreachable);
  unreachable->collected = true;
  std::lock_guard hold(sharedMutex);
  weaks.forEachLive([&](auto& slot) {
    if (slot.target.load() == unreachable) {
      slot.target = nullptr;
    }
  });
}

void machine::collectGarbage() {
  std::set<const object*> held;
  const auto hold = [&](const auto& slot) { held.insert(slot.target.load()); };
  for (const threadEnv* env : allEnvs()) {
    env->locals.table().forEachLive(hold);
  }
  std::set<const object*> gone;
  {
    std::scoped_lock both(modelMutex, sharedMutex);
    globals.forEachLive(hold);
    for (const auto& one : heap) {
      if (!one->reachable && !one->collected && !held.contains(one.get())) {
        one->collected = true;
        gone.insert(one.get());
      }
    }
    weaks.forEachLive([&](auto& slot) {
      if (gone.contains(slot.target.load())) {
        slot.target = nullptr;
      }
    });
  }
  for (unsigned number = 0; number < eventsPerCollection; ++number) {
    face.garbageCollectionStart();
    face.garbageCollectionFinish();
  }
}

void machine::unload(javaClass* unreachable) {
  std::vector<object*> instances;
  {
    std::lock_guard hold(modelMutex);
    for (const auto& one : heap) {
      if (one->type == unreachable && !one->collected) {
        instances.push_back(one.get());
      }
    }
  }
  for (object* instance : instances) {
    collect(instance);
  }
  if (object* name = unreachable->nameString) {
    collect(name);
  }
  collect(unreachable);
  std::lock_guard hold(modelMutex);
  std::erase(loadedClasses, unreachable);
  for (const auto& one : unreachable->methods) {
    methods_.release(handle::unpack(one->id).slot);
  }
  for (const auto& one : unreachable->fieldsDeclared) {
    fields_.release(handle::unpack(one->id).slot);
  }
}

// --- Java code.

value machine::invoke(threadEnv& env, method& code, object* self, std::vector<value> arguments) {
  const value nothing = zeroOf(returnType(code.signature));
  if (!code.body) {
    return nothing;
  }
  env.locals.pushFrame(true);
  invocation call{face, &env, self, std::move(arguments)};
  value given = code.body(call);
  while (!env.locals.atBoundary()) {
    env.locals.popFrame();
  }
  env.locals.popFrame();
  if (env.pending != nullptr) {
    return nothing;
  }
  if (given.index() != nothing.index()) {
    report(code.name, "the method's body gives a value of another type than " + code.signature);
    return nothing;
  }
  return given;
}

object* machine::makeThrowable(std::string_view className) {
  javaClass* type = findClass(className);
  return makeObject(type != nullptr ? type : makeClass(className, findClass("java.lang.Error")));
}

void machine::raise(threadEnv& env, object* exception) {
  env.pending = exception != nullptr ? exception : makeThrowable("java.lang.RuntimeException");
}

// --- Entering native code.

machine::entry machine::begin(threadEnv& env, javaThread* as) {
  javaThread* const outer = std::exchange(env.current, as == nullptr ? env.current : as);
  env.locals.pushFrame(true);
  return {outer, env.pending, env.memoryHeld, env.charactersHeld, env.locals.depth()};
}

void machine::finish(threadEnv& env, const char* what, const entry& before) const {
  if (env.locals.depth() > before.depth) {
    report(what, "PushLocalFrame without PopLocalFrame");
  }
  while (env.locals.depth() > before.depth) {
    env.locals.popFrame();
  }
  if (const auto makers = env.locals.makersInTopFrame(); !makers.empty()) {
    report(what, "local references not deleted: " + countsOf(makers));
  }
  env.locals.popFrame();
  if (object* left = env.pending.exchange(before.pending); left != before.pending) {
    report(what, left == nullptr ? std::string("the Java exception that was pending is gone")
                                 : "a Java exception is left pending: " + left->type->name);
  }
  if (const long more = env.memoryHeld - before.memoryHeld; more != 0) {
    report(what, "VM memory not given back: " + std::to_string(more) +
                     " blocks (held: " + memory.heldByOrigin() + ")");
    env.memoryHeld = before.memoryHeld;
  }
  if (const long more = env.charactersHeld - before.charactersHeld; more != 0) {
    report(what, "UTF characters not released: " + std::to_string(more));
    env.charactersHeld = before.charactersHeld;
  }
  env.current = before.current;
}

std::uint8_t machine::phaseBits() const {
  switch (phase.load(std::memory_order_relaxed)) {
    case JVMTI_PHASE_ONLOAD:
      return phaseBit::kOnLoad;
    case JVMTI_PHASE_PRIMORDIAL:
      return phaseBit::kPrimordial;
    case JVMTI_PHASE_START:
      return phaseBit::kStart;
    case JVMTI_PHASE_LIVE:
      return phaseBit::kLive;
    default:
      return phaseBit::kDead;
  }
}

}  // namespace fake
