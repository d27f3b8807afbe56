// The JVMTI functions.
#include <algorithm>
#include <cstring>

#include "machine.h"
#include "unmodelled.h"

namespace fake {

namespace {

// What every JVMTI call goes through before `body(machine, threadEnv*)` carries it out. The
// environment is null only for functions that any thread may call.
template <typename Body>
jvmtiError perform(jvmtiEnv* jvmti, functionId id, const rawArguments& arguments, Body body) {
  const agentCode scope(false);
  machine& vm = machine::of(jvmti);
  threadEnv* env = vm.currentOrNull();
  vm.count(env, id);
  const functionTraits& traits = kFunctionTraits[id];
  if (machine::environmentOf(jvmti).disposed.load(std::memory_order_relaxed)) {
    machine::report(id, "the environment was disposed of");
    return JVMTI_ERROR_INVALID_ENVIRONMENT;
  }
  if (env != nullptr && env->restriction != nullptr && !traits.inRestricted) {
    machine::report(id, std::string("not allowed in ") + env->restriction);
    return JVMTI_ERROR_INTERNAL;
  }
  if (vm.watched(id)) {
    if (const verdict given = vm.consult(env, id, arguments); !given.carriedOut) {
      return given.error;
    }
  }
  if (env == nullptr && !traits.anyThread) {
    return JVMTI_ERROR_UNATTACHED_THREAD;
  }
  if ((traits.phases & vm.phaseBits()) == 0) {
    return JVMTI_ERROR_WRONG_PHASE;
  }
  return body(vm, env);
}

// VM memory for the result of a call; null for no bytes, as the VM gives it.
template <typename T = unsigned char>
T* allocate(machine& vm, threadEnv* env, functionId id, std::size_t count) {
  if (count == 0) {
    return nullptr;
  }
  if (env != nullptr) {
    ++env->memoryHeld;
  }
  return reinterpret_cast<T*>(vm.memory.allocate(count * sizeof(T), nameOf(id)));
}

char* copyText(machine& vm, threadEnv* env, functionId id, const std::string& text) {
  char* copy = allocate<char>(vm, env, id, text.size() + 1);
  std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

// An array of local references to `objects`.
template <typename T>
jobject* copyReferences(machine& vm, threadEnv& env, functionId id,
                        const std::vector<T*>& objects) {
  auto* references = allocate<jobject>(vm, &env, id, objects.size());
  std::transform(objects.begin(), objects.end(), references,
                 [&](T* one) { return machine::local(env, one, id); });
  return references;
}

// The class that a call names; null when it names none.
javaClass* givenClass(machine& vm, threadEnv& env, functionId id, jobject reference) {
  object* found = vm.use(env, id, reference);
  return found != nullptr && found->kind == objectKind::javaClass ? static_cast<javaClass*>(found)
                                                                  : nullptr;
}

// Likewise for a thread; a null reference stands for the current one.
javaThread* givenThread(machine& vm, threadEnv& env, functionId id, jobject reference) {
  if (reference == nullptr) {
    return env.current;
  }
  object* found = vm.use(env, id, reference);
  return found != nullptr && found->kind == objectKind::javaThread ? static_cast<javaThread*>(found)
                                                                   : nullptr;
}

// --- Memory.

jvmtiError JNICALL allocateMemory(jvmtiEnv* jvmti, jlong size, unsigned char** result) {
  constexpr functionId id = FAKE_JVMTI(Allocate);
  return perform(jvmti, id, {.number = size}, [&](machine& vm, threadEnv* env) {
    if (result == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    if (size < 0) {
      return JVMTI_ERROR_ILLEGAL_ARGUMENT;
    }
    *result = allocate(vm, env, id, static_cast<std::size_t>(size));
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL deallocate(jvmtiEnv* jvmti, unsigned char* block) {
  constexpr functionId id = FAKE_JVMTI(Deallocate);
  return perform(jvmti, id, {}, [&](machine& vm, threadEnv* env) {
    if (block == nullptr) {
      return JVMTI_ERROR_NONE;
    }
    if (vm.memory.free(block) == blockTracker::result::notOurs) {
      machine::report(id, "not VM memory that is held now: freed before, or never allocated here");
    } else if (env != nullptr) {
      --env->memoryHeld;
    }
    return JVMTI_ERROR_NONE;
  });
}

// --- The environment.

jvmtiError JNICALL getTime(jvmtiEnv* jvmti, jlong* nanos) {
  return perform(jvmti, FAKE_JVMTI(GetTime), {}, [&](machine& vm, threadEnv*) {
    if (nanos == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const jlong step = vm.timeStep.load(std::memory_order_relaxed);
    *nanos = step == 0 ? vm.now.load(std::memory_order_relaxed)
                       : vm.now.fetch_add(step, std::memory_order_relaxed);
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getPhase(jvmtiEnv* jvmti, jvmtiPhase* phase) {
  return perform(jvmti, FAKE_JVMTI(GetPhase), {}, [&](machine& vm, threadEnv*) {
    if (phase == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    *phase = vm.phase;
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getVersionNumber(jvmtiEnv* jvmti, jint* version) {
  return perform(jvmti, FAKE_JVMTI(GetVersionNumber), {}, [&](machine& vm, threadEnv*) {
    if (version == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    *version = vm.featureVersion << JVMTI_VERSION_SHIFT_MAJOR;
    return JVMTI_ERROR_NONE;
  });
}

const char* errorText(jvmtiError error) {
  switch (error) {
#define FAKE_ERROR(name) \
  case name:             \
    return #name;
    FAKE_ERROR(JVMTI_ERROR_NONE)
    FAKE_ERROR(JVMTI_ERROR_INVALID_THREAD)
    FAKE_ERROR(JVMTI_ERROR_INVALID_THREAD_GROUP)
    FAKE_ERROR(JVMTI_ERROR_INVALID_PRIORITY)
    FAKE_ERROR(JVMTI_ERROR_THREAD_NOT_SUSPENDED)
    FAKE_ERROR(JVMTI_ERROR_THREAD_SUSPENDED)
    FAKE_ERROR(JVMTI_ERROR_THREAD_NOT_ALIVE)
    FAKE_ERROR(JVMTI_ERROR_INVALID_OBJECT)
    FAKE_ERROR(JVMTI_ERROR_INVALID_CLASS)
    FAKE_ERROR(JVMTI_ERROR_CLASS_NOT_PREPARED)
    FAKE_ERROR(JVMTI_ERROR_INVALID_METHODID)
    FAKE_ERROR(JVMTI_ERROR_INVALID_LOCATION)
    FAKE_ERROR(JVMTI_ERROR_INVALID_FIELDID)
    FAKE_ERROR(JVMTI_ERROR_INVALID_MODULE)
    FAKE_ERROR(JVMTI_ERROR_NO_MORE_FRAMES)
    FAKE_ERROR(JVMTI_ERROR_OPAQUE_FRAME)
    FAKE_ERROR(JVMTI_ERROR_TYPE_MISMATCH)
    FAKE_ERROR(JVMTI_ERROR_INVALID_SLOT)
    FAKE_ERROR(JVMTI_ERROR_DUPLICATE)
    FAKE_ERROR(JVMTI_ERROR_NOT_FOUND)
    FAKE_ERROR(JVMTI_ERROR_INVALID_MONITOR)
    FAKE_ERROR(JVMTI_ERROR_NOT_MONITOR_OWNER)
    FAKE_ERROR(JVMTI_ERROR_INTERRUPT)
    FAKE_ERROR(JVMTI_ERROR_INVALID_CLASS_FORMAT)
    FAKE_ERROR(JVMTI_ERROR_CIRCULAR_CLASS_DEFINITION)
    FAKE_ERROR(JVMTI_ERROR_FAILS_VERIFICATION)
    FAKE_ERROR(JVMTI_ERROR_UNSUPPORTED_REDEFINITION_METHOD_ADDED)
    FAKE_ERROR(JVMTI_ERROR_UNSUPPORTED_REDEFINITION_SCHEMA_CHANGED)
    FAKE_ERROR(JVMTI_ERROR_INVALID_TYPESTATE)
    FAKE_ERROR(JVMTI_ERROR_UNSUPPORTED_REDEFINITION_HIERARCHY_CHANGED)
    FAKE_ERROR(JVMTI_ERROR_UNSUPPORTED_REDEFINITION_METHOD_DELETED)
    FAKE_ERROR(JVMTI_ERROR_UNSUPPORTED_VERSION)
    FAKE_ERROR(JVMTI_ERROR_NAMES_DONT_MATCH)
    FAKE_ERROR(JVMTI_ERROR_UNSUPPORTED_REDEFINITION_CLASS_MODIFIERS_CHANGED)
    FAKE_ERROR(JVMTI_ERROR_UNSUPPORTED_REDEFINITION_METHOD_MODIFIERS_CHANGED)
    FAKE_ERROR(JVMTI_ERROR_UNSUPPORTED_REDEFINITION_CLASS_ATTRIBUTE_CHANGED)
    FAKE_ERROR(JVMTI_ERROR_UNMODIFIABLE_CLASS)
    FAKE_ERROR(JVMTI_ERROR_UNMODIFIABLE_MODULE)
    FAKE_ERROR(JVMTI_ERROR_NOT_AVAILABLE)
    FAKE_ERROR(JVMTI_ERROR_MUST_POSSESS_CAPABILITY)
    FAKE_ERROR(JVMTI_ERROR_NULL_POINTER)
    FAKE_ERROR(JVMTI_ERROR_ABSENT_INFORMATION)
    FAKE_ERROR(JVMTI_ERROR_INVALID_EVENT_TYPE)
    FAKE_ERROR(JVMTI_ERROR_ILLEGAL_ARGUMENT)
    FAKE_ERROR(JVMTI_ERROR_NATIVE_METHOD)
    FAKE_ERROR(JVMTI_ERROR_CLASS_LOADER_UNSUPPORTED)
    FAKE_ERROR(JVMTI_ERROR_OUT_OF_MEMORY)
    FAKE_ERROR(JVMTI_ERROR_ACCESS_DENIED)
    FAKE_ERROR(JVMTI_ERROR_WRONG_PHASE)
    FAKE_ERROR(JVMTI_ERROR_INTERNAL)
    FAKE_ERROR(JVMTI_ERROR_UNATTACHED_THREAD)
    FAKE_ERROR(JVMTI_ERROR_INVALID_ENVIRONMENT)
#undef FAKE_ERROR
    default:
      return nullptr;
  }
}

jvmtiError JNICALL getErrorName(jvmtiEnv* jvmti, jvmtiError error, char** name) {
  constexpr functionId id = FAKE_JVMTI(GetErrorName);
  return perform(jvmti, id, {.number = error}, [&](machine& vm, threadEnv* env) {
    if (name == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const char* text = errorText(error);
    if (text == nullptr) {
      return JVMTI_ERROR_ILLEGAL_ARGUMENT;
    }
    *name = copyText(vm, env, id, text);
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getPotentialCapabilities(jvmtiEnv* jvmti, jvmtiCapabilities* capabilities) {
  return perform(jvmti, FAKE_JVMTI(GetPotentialCapabilities), {}, [&](machine& vm, threadEnv*) {
    if (capabilities == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    std::lock_guard hold(vm.modelMutex);
    *capabilities = vm.potential;
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL addCapabilities(jvmtiEnv* jvmti, const jvmtiCapabilities* capabilities) {
  return perform(jvmti, FAKE_JVMTI(AddCapabilities), {}, [&](machine& vm, threadEnv*) {
    if (capabilities == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    std::array<unsigned char, sizeof *capabilities> asked{};
    std::array<unsigned char, sizeof *capabilities> allowed{};
    std::array<unsigned char, sizeof *capabilities> sum{};
    std::lock_guard hold(vm.modelMutex);
    std::memcpy(asked.data(), capabilities, asked.size());
    std::memcpy(allowed.data(), &vm.potential, allowed.size());
    jvmtiCapabilities& added = machine::environmentOf(jvmti).added;
    std::memcpy(sum.data(), &added, sum.size());
    for (std::size_t at = 0; at < asked.size(); ++at) {
      if ((asked[at] & ~allowed[at]) != 0) {
        return JVMTI_ERROR_NOT_AVAILABLE;
      }
      sum[at] = static_cast<unsigned char>(sum[at] | asked[at]);
    }
    std::memcpy(&added, sum.data(), sum.size());
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL relinquishCapabilities(jvmtiEnv* jvmti, const jvmtiCapabilities* capabilities) {
  return perform(jvmti, FAKE_JVMTI(RelinquishCapabilities), {}, [&](machine& vm, threadEnv*) {
    if (capabilities == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    std::array<unsigned char, sizeof *capabilities> given{};
    std::array<unsigned char, sizeof *capabilities> left{};
    std::lock_guard hold(vm.modelMutex);
    jvmtiCapabilities& added = machine::environmentOf(jvmti).added;
    std::memcpy(given.data(), capabilities, given.size());
    std::memcpy(left.data(), &added, left.size());
    for (std::size_t at = 0; at < left.size(); ++at) {
      left[at] = static_cast<unsigned char>(left[at] & ~given[at]);
    }
    std::memcpy(&added, left.data(), left.size());
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getCapabilities(jvmtiEnv* jvmti, jvmtiCapabilities* capabilities) {
  return perform(jvmti, FAKE_JVMTI(GetCapabilities), {}, [&](machine& vm, threadEnv*) {
    if (capabilities == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    std::lock_guard hold(vm.modelMutex);
    *capabilities = machine::environmentOf(jvmti).added;
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL setEventCallbacks(jvmtiEnv* jvmti, const jvmtiEventCallbacks* callbacks,
                                     jint size) {
  constexpr functionId id = FAKE_JVMTI(SetEventCallbacks);
  return perform(jvmti, id, {.number = size}, [&](machine&, threadEnv*) {
    if (callbacks != nullptr && size != static_cast<jint>(sizeof *callbacks)) {
      machine::report(id, "the size of the table is wrong: " + std::to_string(size));
      return JVMTI_ERROR_ILLEGAL_ARGUMENT;
    }
    std::array<void*, machine::kEvents> entries{};
    if (callbacks != nullptr) {
      std::memcpy(entries.data(), callbacks, sizeof *callbacks);
    }
    std::copy(entries.begin(), entries.end(), machine::environmentOf(jvmti).callbacks.begin());
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL setEventNotificationMode(jvmtiEnv* jvmti, jvmtiEventMode mode, jvmtiEvent event,
                                            jthread thread, ...) {
  constexpr functionId id = FAKE_JVMTI(SetEventNotificationMode);
  return perform(jvmti, id, {.target = thread, .number = event}, [&](machine& vm, threadEnv*) {
    if (mode != JVMTI_ENABLE && mode != JVMTI_DISABLE) {
      return JVMTI_ERROR_ILLEGAL_ARGUMENT;
    }
    if (!machine::isEvent(event)) {
      return JVMTI_ERROR_INVALID_EVENT_TYPE;
    }
    if (thread != nullptr) {
      machine::report(id, "events of single threads are not modelled");
      return JVMTI_ERROR_NOT_AVAILABLE;
    }
    std::lock_guard hold(vm.modelMutex);
    machine::environmentOf(jvmti).enabled(event) = mode == JVMTI_ENABLE;
    if (jvmti == &vm.jvmti) {
      vm.modes.push_back({mode, event});
    }
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL disposeEnvironment(jvmtiEnv* jvmti) {
  return perform(jvmti, FAKE_JVMTI(DisposeEnvironment), {}, [&](machine&, threadEnv*) {
    machine::environment& environment = machine::environmentOf(jvmti);
    for (auto& enabled : environment.enabledEvents) {
      enabled = false;
    }
    environment.added = {};
    environment.disposed = true;
    return JVMTI_ERROR_NONE;
  });
}

// --- Threads.

jvmtiError JNICALL setThreadLocalStorage(jvmtiEnv* jvmti, jthread thread, const void* data) {
  constexpr functionId id = FAKE_JVMTI(SetThreadLocalStorage);
  return perform(jvmti, id, {.target = thread}, [&](machine& vm, threadEnv* env) {
    javaThread* owner = givenThread(vm, *env, id, thread);
    if (owner == nullptr) {
      return JVMTI_ERROR_INVALID_THREAD;
    }
    if (jvmti == &vm.jvmti) {
      owner->storage.store(const_cast<void*>(data), std::memory_order_release);
    } else {
      std::lock_guard hold(vm.modelMutex);
      owner->otherStorage[jvmti] = const_cast<void*>(data);
    }
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL stopThread(jvmtiEnv* jvmti, jthread thread, jobject exception) {
  constexpr functionId id = FAKE_JVMTI(StopThread);
  return perform(jvmti, id, {.target = thread}, [&](machine& vm, threadEnv* env) {
    {
      const std::lock_guard hold(vm.modelMutex);
      if (machine::environmentOf(jvmti).added.can_signal_thread == 0) {
        return JVMTI_ERROR_MUST_POSSESS_CAPABILITY;
      }
    }
    javaThread* receiver = givenThread(vm, *env, id, thread);
    if (receiver == nullptr) {
      return JVMTI_ERROR_INVALID_THREAD;
    }
    object* sent = vm.needObject(*env, id, exception);
    if (sent == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    receiver->sent = sent;
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getThreadLocalStorage(jvmtiEnv* jvmti, jthread thread, void** data) {
  constexpr functionId id = FAKE_JVMTI(GetThreadLocalStorage);
  return perform(jvmti, id, {.target = thread}, [&](machine& vm, threadEnv* env) {
    if (data == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    javaThread* owner = givenThread(vm, *env, id, thread);
    if (owner == nullptr) {
      return JVMTI_ERROR_INVALID_THREAD;
    }
    if (jvmti == &vm.jvmti) {
      *data = owner->storage.load(std::memory_order_acquire);
    } else {
      std::lock_guard hold(vm.modelMutex);
      *data = owner->otherStorage[jvmti];
    }
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getThreadInfo(jvmtiEnv* jvmti, jthread thread, jvmtiThreadInfo* info) {
  constexpr functionId id = FAKE_JVMTI(GetThreadInfo);
  return perform(jvmti, id, {.target = thread}, [&](machine& vm, threadEnv* env) {
    if (info == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const javaThread* asked = givenThread(vm, *env, id, thread);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_THREAD;
    }
    const std::string* name = asked->name.load(std::memory_order_acquire);
    info->name = name == nullptr ? nullptr : copyText(vm, env, id, *name);
    info->priority = asked->priority;
    info->is_daemon = asked->isDaemon ? JNI_TRUE : JNI_FALSE;
    info->thread_group = machine::local(*env, asked->group, id);
    info->context_class_loader = machine::local(*env, asked->loader, id);
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getStackTrace(jvmtiEnv* jvmti, jthread thread, jint start, jint room,
                                 jvmtiFrameInfo* result, jint* count) {
  constexpr functionId id = FAKE_JVMTI(GetStackTrace);
  return perform(jvmti, id, {.target = thread}, [&](machine& vm, threadEnv* env) {
    if (result == nullptr || count == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const javaThread* asked = givenThread(vm, *env, id, thread);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_THREAD;
    }
    return asked->readFrames([&](const std::vector<frame>& frames) {
      const auto depth = static_cast<jint>(frames.size());
      const jint first = start < 0 ? depth + start : start;  // below 0: counted from the bottom
      if (room < 0 || first < 0 || (start > 0 && start >= depth)) {
        return JVMTI_ERROR_ILLEGAL_ARGUMENT;
      }
      *count = std::min(room, depth - first);
      for (jint at = 0; at < *count; ++at) {
        const frame& one = frames[static_cast<std::size_t>(first + at)];
        result[at] = {one.code->id, one.location};
      }
      return JVMTI_ERROR_NONE;
    });
  });
}

jvmtiError JNICALL getFrameCount(jvmtiEnv* jvmti, jthread thread, jint* count) {
  constexpr functionId id = FAKE_JVMTI(GetFrameCount);
  return perform(jvmti, id, {.target = thread}, [&](machine& vm, threadEnv* env) {
    if (count == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const javaThread* asked = givenThread(vm, *env, id, thread);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_THREAD;
    }
    return asked->readFrames([&](const std::vector<frame>& frames) {
      *count = static_cast<jint>(frames.size());
      return JVMTI_ERROR_NONE;
    });
  });
}

// Finds the value of a local variable, then hands it to `take`, which answers whether it fits.
template <typename Take>
jvmtiError readLocal(jvmtiEnv* jvmti, functionId id, jthread thread, jint depth, jint slot,
                     const void* result, Take take) {
  return perform(jvmti, id, {.target = thread, .number = slot}, [&](machine& vm, threadEnv* env) {
    if (result == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const javaThread* asked = givenThread(vm, *env, id, thread);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_THREAD;
    }
    if (depth < 0) {
      return JVMTI_ERROR_ILLEGAL_ARGUMENT;
    }
    return asked->readFrames([&](const std::vector<frame>& frames) {
      if (static_cast<std::size_t>(depth) >= frames.size()) {
        return JVMTI_ERROR_NO_MORE_FRAMES;
      }
      const frame& one = frames[static_cast<std::size_t>(depth)];
      if (one.code->isNative) {
        return JVMTI_ERROR_OPAQUE_FRAME;
      }
      const auto found = one.locals.find(slot);
      if (slot < 0 || slot >= one.code->maxLocals || found == one.locals.end()) {
        return JVMTI_ERROR_INVALID_SLOT;
      }
      return take(*env, found->second) ? JVMTI_ERROR_NONE : JVMTI_ERROR_TYPE_MISMATCH;
    });
  });
}

template <functionId id, typename T>
jvmtiError JNICALL getLocal(jvmtiEnv* jvmti, jthread thread, jint depth, jint slot, T* result) {
  return readLocal(jvmti, id, thread, depth, slot, result, [&](threadEnv&, const value& found) {
    const T* fitting = std::get_if<T>(&found);
    if (fitting != nullptr) {
      *result = *fitting;
    }
    return fitting != nullptr;
  });
}

jvmtiError JNICALL getLocalObject(jvmtiEnv* jvmti, jthread thread, jint depth, jint slot,
                                  jobject* result) {
  constexpr functionId id = FAKE_JVMTI(GetLocalObject);
  return readLocal(jvmti, id, thread, depth, slot, result, [&](threadEnv& env, const value& found) {
    object* const* fitting = std::get_if<object*>(&found);
    if (fitting != nullptr) {
      *result = machine::local(env, *fitting, id);
    }
    return fitting != nullptr;
  });
}

std::vector<object*> liveObjects(machine& vm) {
  std::vector<object*> live;
  std::lock_guard hold(vm.modelMutex);
  for (const auto& one : vm.heap) {
    if (!one->collected) {
      live.push_back(one.get());
    }
  }
  return live;
}

// Platform threads that are alive.
jvmtiError JNICALL getAllThreads(jvmtiEnv* jvmti, jint* count, jthread** threads) {
  constexpr functionId id = FAKE_JVMTI(GetAllThreads);
  return perform(jvmti, id, {}, [&](machine& vm, threadEnv* env) {
    if (count == nullptr || threads == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    std::vector<object*> found = liveObjects(vm);
    std::erase_if(found, [](const object* one) {
      const auto* const thread = dynamic_cast<const javaThread*>(one);
      return thread == nullptr || thread->isVirtual || !thread->isAlive;
    });
    *count = static_cast<jint>(found.size());
    *threads = copyReferences(vm, *env, id, found);
    return JVMTI_ERROR_NONE;
  });
}

// The system's group, and one that is beside it.
jvmtiError JNICALL getTopThreadGroups(jvmtiEnv* jvmti, jint* count, jthreadGroup** groups) {
  constexpr functionId id = FAKE_JVMTI(GetTopThreadGroups);
  return perform(jvmti, id, {}, [&](machine& vm, threadEnv* env) {
    if (count == nullptr || groups == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const std::vector<object*> all{vm.mainGroup, vm.makeObject(vm.mainGroup->type)};
    *count = static_cast<jint>(all.size());
    *groups = copyReferences(vm, *env, id, all);
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getCurrentThread(jvmtiEnv* jvmti, jthread* result) {
  constexpr functionId id = FAKE_JVMTI(GetCurrentThread);
  return perform(jvmti, id, {}, [&](machine&, threadEnv* env) {
    if (result == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    *result = machine::local(*env, env->current, id);
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getThreadState(jvmtiEnv* jvmti, jthread thread, jint* state) {
  constexpr functionId id = FAKE_JVMTI(GetThreadState);
  return perform(jvmti, id, {.target = thread}, [&](machine& vm, threadEnv* env) {
    if (state == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const javaThread* asked = givenThread(vm, *env, id, thread);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_THREAD;
    }
    *state = asked->isAlive ? JVMTI_THREAD_STATE_ALIVE : JVMTI_THREAD_STATE_TERMINATED;
    *state |= asked->isInterrupted ? JVMTI_THREAD_STATE_INTERRUPTED : 0;
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getOwnedMonitorStackDepthInfo(jvmtiEnv* jvmti, jthread thread, jint* count,
                                                 jvmtiMonitorStackDepthInfo** result) {
  constexpr functionId id = FAKE_JVMTI(GetOwnedMonitorStackDepthInfo);
  return perform(jvmti, id, {.target = thread}, [&](machine& vm, threadEnv* env) {
    if (count == nullptr || result == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const javaThread* asked = givenThread(vm, *env, id, thread);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_THREAD;
    }
    std::vector<std::pair<object*, jint>> owned;
    for (object* const one : liveObjects(vm)) {
      std::lock_guard hold(vm.modelMutex);
      if (one->monitor.owner == asked) {
        owned.emplace_back(one, one->monitor.depth);
      }
    }
    *count = static_cast<jint>(owned.size());
    *result = allocate<jvmtiMonitorStackDepthInfo>(vm, env, id, owned.size());
    std::transform(owned.begin(), owned.end(), *result, [&](const auto& one) {
      return jvmtiMonitorStackDepthInfo{machine::local(*env, one.first, id), one.second};
    });
    return JVMTI_ERROR_NONE;
  });
}

// The body waits for virtualMachine::runAgentThreads().
jvmtiError JNICALL runAgentThread(jvmtiEnv* jvmti, jthread thread, jvmtiStartFunction body,
                                  const void* argument, jint priority) {
  constexpr functionId id = FAKE_JVMTI(RunAgentThread);
  const rawArguments arguments{.target = thread, .number = priority};
  return perform(jvmti, id, arguments, [&](machine& vm, threadEnv* env) {
    if (body == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    javaThread* given = thread == nullptr ? nullptr : givenThread(vm, *env, id, thread);
    if (given == nullptr) {
      return JVMTI_ERROR_INVALID_THREAD;
    }
    given->isDaemon = true;
    std::lock_guard hold(vm.modelMutex);
    vm.agentThreads.push_back({&machine::environmentOf(jvmti), given, body, argument});
    return JVMTI_ERROR_NONE;
  });
}

// --- Methods.

jvmtiError JNICALL getMethodName(jvmtiEnv* jvmti, jmethodID code, char** name, char** signature,
                                 char** generic) {
  constexpr functionId id = FAKE_JVMTI(GetMethodName);
  return perform(jvmti, id, {.code = code}, [&](machine& vm, threadEnv* env) {
    const method* asked = vm.needMethod(id, code);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_METHODID;
    }
    if (name != nullptr) {
      *name = asked->nameIsNull ? nullptr : copyText(vm, env, id, asked->name);
    }
    if (signature != nullptr) {
      *signature = copyText(vm, env, id, asked->signature);
    }
    if (generic != nullptr) {
      *generic = nullptr;
    }
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getMethodDeclaringClass(jvmtiEnv* jvmti, jmethodID code, jclass* result) {
  constexpr functionId id = FAKE_JVMTI(GetMethodDeclaringClass);
  return perform(jvmti, id, {.code = code}, [&](machine& vm, threadEnv* env) {
    if (result == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const method* asked = vm.needMethod(id, code);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_METHODID;
    }
    *result = static_cast<jclass>(machine::local(*env, asked->declaringClass, id));
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getMethodModifiers(jvmtiEnv* jvmti, jmethodID code, jint* result) {
  constexpr functionId id = FAKE_JVMTI(GetMethodModifiers);
  return perform(jvmti, id, {.code = code}, [&](machine& vm, threadEnv*) {
    if (result == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const method* asked = vm.needMethod(id, code);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_METHODID;
    }
    constexpr jint isPublic = 0x0001;
    constexpr jint isStatic = 0x0008;
    constexpr jint isNative = 0x0100;
    *result = isPublic | (asked->isStatic ? isStatic : 0) | (asked->isNative ? isNative : 0);
    return JVMTI_ERROR_NONE;
  });
}

// For what native methods do not have: `read` gives the answer for the others.
template <typename Read>
jvmtiError aboutCode(jvmtiEnv* jvmti, functionId id, jmethodID code, bool hasRoom, Read read) {
  return perform(jvmti, id, {.code = code}, [&](machine& vm, threadEnv* env) {
    if (!hasRoom) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const method* asked = vm.needMethod(id, code);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_METHODID;
    }
    return asked->isNative ? JVMTI_ERROR_NATIVE_METHOD : read(vm, *env, *asked);
  });
}

jvmtiError JNICALL getMaxLocals(jvmtiEnv* jvmti, jmethodID code, jint* result) {
  return aboutCode(jvmti, FAKE_JVMTI(GetMaxLocals), code, result != nullptr,
                   [&](machine&, threadEnv&, const method& asked) {
                     *result = asked.maxLocals;
                     return JVMTI_ERROR_NONE;
                   });
}

jvmtiError JNICALL getArgumentsSize(jvmtiEnv* jvmti, jmethodID code, jint* result) {
  return aboutCode(jvmti, FAKE_JVMTI(GetArgumentsSize), code, result != nullptr,
                   [&](machine&, threadEnv&, const method& asked) {
                     *result = asked.argumentsSize;
                     return JVMTI_ERROR_NONE;
                   });
}

jvmtiError JNICALL getLineNumberTable(jvmtiEnv* jvmti, jmethodID code, jint* count,
                                      jvmtiLineNumberEntry** result) {
  constexpr functionId id = FAKE_JVMTI(GetLineNumberTable);
  return aboutCode(jvmti, id, code, count != nullptr && result != nullptr,
                   [&](machine& vm, threadEnv& env, const method& asked) {
                     if (!asked.lines) {
                       return JVMTI_ERROR_ABSENT_INFORMATION;
                     }
                     *count = static_cast<jint>(asked.lines->size());
                     *result = allocate<jvmtiLineNumberEntry>(vm, &env, id, asked.lines->size());
                     std::transform(asked.lines->begin(), asked.lines->end(), *result,
                                    [](const line& one) {
                                      return jvmtiLineNumberEntry{one.start, one.number};
                                    });
                     return JVMTI_ERROR_NONE;
                   });
}

jvmtiLocalVariableEntry copyVariable(machine& vm, threadEnv& env, functionId id,
                                     const variable& one) {
  jvmtiLocalVariableEntry entry{};
  entry.start_location = one.start;
  entry.length = one.length;
  entry.name = copyText(vm, &env, id, one.name);
  entry.signature = copyText(vm, &env, id, one.signature);
  if (one.genericSignature) {
    entry.generic_signature = copyText(vm, &env, id, *one.genericSignature);
  }
  entry.slot = one.slot;
  return entry;
}

jvmtiError JNICALL getLocalVariableTable(jvmtiEnv* jvmti, jmethodID code, jint* count,
                                         jvmtiLocalVariableEntry** result) {
  constexpr functionId id = FAKE_JVMTI(GetLocalVariableTable);
  return aboutCode(jvmti, id, code, count != nullptr && result != nullptr,
                   [&](machine& vm, threadEnv& env, const method& asked) {
                     if (!asked.variables) {
                       return JVMTI_ERROR_ABSENT_INFORMATION;
                     }
                     const auto& variables = *asked.variables;
                     *count = static_cast<jint>(variables.size());
                     *result = allocate<jvmtiLocalVariableEntry>(vm, &env, id, variables.size());
                     std::transform(
                         variables.begin(), variables.end(), *result,
                         [&](const variable& one) { return copyVariable(vm, env, id, one); });
                     return JVMTI_ERROR_NONE;
                   });
}

// --- Classes and fields.

jvmtiError JNICALL getClassSignature(jvmtiEnv* jvmti, jclass type, char** signature,
                                     char** generic) {
  constexpr functionId id = FAKE_JVMTI(GetClassSignature);
  return perform(jvmti, id, {.target = type}, [&](machine& vm, threadEnv* env) {
    const javaClass* asked = givenClass(vm, *env, id, type);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_CLASS;
    }
    if (signature != nullptr) {
      *signature = asked->signature ? copyText(vm, env, id, *asked->signature) : nullptr;
    }
    if (generic != nullptr) {
      *generic = nullptr;
    }
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getClassLoader(jvmtiEnv* jvmti, jclass type, jobject* loader) {
  constexpr functionId id = FAKE_JVMTI(GetClassLoader);
  return perform(jvmti, id, {.target = type}, [&](machine& vm, threadEnv* env) {
    const javaClass* asked = givenClass(vm, *env, id, type);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_CLASS;
    }
    *loader = machine::local(*env, asked->loader, id);
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getClassStatus(jvmtiEnv* jvmti, jclass type, jint* status) {
  constexpr functionId id = FAKE_JVMTI(GetClassStatus);
  return perform(jvmti, id, {.target = type}, [&](machine& vm, threadEnv* env) {
    if (status == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const javaClass* asked = givenClass(vm, *env, id, type);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_CLASS;
    }
    if (asked->name.starts_with('[')) {
      *status = JVMTI_CLASS_STATUS_ARRAY;
    } else {
      *status = JVMTI_CLASS_STATUS_VERIFIED | JVMTI_CLASS_STATUS_PREPARED |
                (asked->initialized ? JVMTI_CLASS_STATUS_INITIALIZED : 0);
    }
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getSourceFileName(jvmtiEnv* jvmti, jclass type, char** name) {
  constexpr functionId id = FAKE_JVMTI(GetSourceFileName);
  return perform(jvmti, id, {.target = type}, [&](machine& vm, threadEnv* env) {
    if (name == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const javaClass* asked = givenClass(vm, *env, id, type);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_CLASS;
    }
    if (!asked->sourceFile) {
      return JVMTI_ERROR_ABSENT_INFORMATION;
    }
    *name = copyText(vm, env, id, *asked->sourceFile);
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getClassFields(jvmtiEnv* jvmti, jclass type, jint* count, jfieldID** result) {
  constexpr functionId id = FAKE_JVMTI(GetClassFields);
  return perform(jvmti, id, {.target = type}, [&](machine& vm, threadEnv* env) {
    if (count == nullptr || result == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const javaClass* asked = givenClass(vm, *env, id, type);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_CLASS;
    }
    std::lock_guard hold(vm.modelMutex);
    *count = static_cast<jint>(asked->fieldsDeclared.size());
    *result = allocate<jfieldID>(vm, env, id, asked->fieldsDeclared.size());
    std::transform(asked->fieldsDeclared.begin(), asked->fieldsDeclared.end(), *result,
                   [](const auto& one) { return one->id; });
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getClassMethods(jvmtiEnv* jvmti, jclass type, jint* count, jmethodID** result) {
  constexpr functionId id = FAKE_JVMTI(GetClassMethods);
  return perform(jvmti, id, {.target = type}, [&](machine& vm, threadEnv* env) {
    if (count == nullptr || result == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    const javaClass* asked = givenClass(vm, *env, id, type);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_CLASS;
    }
    std::lock_guard hold(vm.modelMutex);
    *count = static_cast<jint>(asked->methods.size());
    *result = allocate<jmethodID>(vm, env, id, asked->methods.size());
    std::transform(asked->methods.begin(), asked->methods.end(), *result,
                   [](const auto& one) { return one->id; });
    return JVMTI_ERROR_NONE;
  });
}

// Checks the class and field of a call, then has `read` fill in its outputs.
template <typename Read>
jvmtiError aboutField(jvmtiEnv* jvmti, functionId id, jclass type, jfieldID which, Read read) {
  return perform(jvmti, id, {.target = type}, [&](machine& vm, threadEnv* env) {
    if (givenClass(vm, *env, id, type) == nullptr) {
      return JVMTI_ERROR_INVALID_CLASS;
    }
    const field* asked = vm.needField(id, which);
    if (asked == nullptr) {
      return JVMTI_ERROR_INVALID_FIELDID;
    }
    return read(vm, env, *asked);
  });
}

jvmtiError JNICALL getFieldName(jvmtiEnv* jvmti, jclass type, jfieldID which, char** name,
                                char** signature, char** generic) {
  constexpr functionId id = FAKE_JVMTI(GetFieldName);
  return aboutField(jvmti, id, type, which, [&](machine& vm, threadEnv* env, const field& asked) {
    if (name != nullptr) {
      *name = copyText(vm, env, id, asked.name);
    }
    if (signature != nullptr) {
      *signature = copyText(vm, env, id, asked.signature);
    }
    if (generic != nullptr) {
      *generic = nullptr;
    }
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getFieldModifiers(jvmtiEnv* jvmti, jclass type, jfieldID which, jint* result) {
  return aboutField(jvmti, FAKE_JVMTI(GetFieldModifiers), type, which,
                    [&](machine&, threadEnv*, const field& asked) {
                      if (result == nullptr) {
                        return JVMTI_ERROR_NULL_POINTER;
                      }
                      *result = asked.modifiers;
                      return JVMTI_ERROR_NONE;
                    });
}

// Classes are changed one after the other; the VM would change none when it refuses one of them.
jvmtiError JNICALL retransformClasses(jvmtiEnv* jvmti, jint count, const jclass* classes) {
  constexpr functionId id = FAKE_JVMTI(RetransformClasses);
  // What a rule for single classes asks of is the first.
  const jclass first = count > 0 && classes != nullptr ? classes[0] : nullptr;
  return perform(jvmti, id, {.target = first, .number = count}, [&](machine& vm, threadEnv* env) {
    {
      const std::lock_guard hold(vm.modelMutex);
      if (machine::environmentOf(jvmti).added.can_retransform_classes == 0) {
        return JVMTI_ERROR_MUST_POSSESS_CAPABILITY;
      }
    }
    if (count < 0) {
      return JVMTI_ERROR_ILLEGAL_ARGUMENT;
    }
    if (classes == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    std::vector<javaClass*> asked;
    for (jint i = 0; i < count; ++i) {
      asked.push_back(givenClass(vm, *env, id, classes[i]));
      if (asked.back() == nullptr) {
        return JVMTI_ERROR_INVALID_CLASS;
      }
      if (asked.back()->originalBytes.empty()) {
        return JVMTI_ERROR_UNMODIFIABLE_CLASS;
      }
    }
    for (javaClass* const each : asked) {
      std::string name = each->name;
      std::replace(name.begin(), name.end(), '.', '/');
      each->bytes = vm.face.classFileLoad(name.c_str(), each->originalBytes, each->loader, each);
    }
    return JVMTI_ERROR_NONE;
  });
}

// --- Objects and the heap.

// Checks the object of a call, then has `act` do the rest.
template <typename Act>
jvmtiError aboutObject(jvmtiEnv* jvmti, functionId id, jobject reference, bool hasRoom, Act act) {
  return perform(jvmti, id, {.target = reference}, [&](machine& vm, threadEnv* env) {
    if (!hasRoom) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    object* asked = vm.use(*env, id, reference);
    return asked == nullptr ? JVMTI_ERROR_INVALID_OBJECT : act(vm, *env, *asked);
  });
}

jvmtiError JNICALL getObjectHashCode(jvmtiEnv* jvmti, jobject reference, jint* result) {
  return aboutObject(jvmti, FAKE_JVMTI(GetObjectHashCode), reference, result != nullptr,
                     [&](machine&, threadEnv&, object& asked) {
                       *result = asked.hash.load(std::memory_order_relaxed);
                       return JVMTI_ERROR_NONE;
                     });
}

jvmtiError JNICALL getObjectSize(jvmtiEnv* jvmti, jobject reference, jlong* result) {
  return aboutObject(jvmti, FAKE_JVMTI(GetObjectSize), reference, result != nullptr,
                     [&](machine&, threadEnv&, object& asked) {
                       *result = asked.size;
                       return JVMTI_ERROR_NONE;
                     });
}

jvmtiError JNICALL getObjectMonitorUsage(jvmtiEnv* jvmti, jobject reference,
                                         jvmtiMonitorUsage* usage) {
  constexpr functionId id = FAKE_JVMTI(GetObjectMonitorUsage);
  return aboutObject(jvmti, id, reference, usage != nullptr,
                     [&](machine& vm, threadEnv& env, object& asked) {
                       std::unique_lock hold(vm.modelMutex);
                       const monitorState state = asked.monitor;
                       hold.unlock();
                       const bool named = state.owner != nullptr && !state.owner->isVirtual;
                       usage->owner = named ? machine::local(env, state.owner, id) : nullptr;
                       usage->entry_count = named ? state.entryCount : 0;
                       usage->waiter_count = static_cast<jint>(state.waiters.size());
                       usage->waiters = copyReferences(vm, env, id, state.waiters);
                       usage->notify_waiter_count = static_cast<jint>(state.notifyWaiters.size());
                       usage->notify_waiters = copyReferences(vm, env, id, state.notifyWaiters);
                       return JVMTI_ERROR_NONE;
                     });
}

jvmtiError JNICALL getTag(jvmtiEnv* jvmti, jobject reference, jlong* tag) {
  return aboutObject(jvmti, FAKE_JVMTI(GetTag), reference, tag != nullptr,
                     [&](machine&, threadEnv&, object& asked) {
                       *tag = asked.tag;
                       return JVMTI_ERROR_NONE;
                     });
}

jvmtiError JNICALL setTag(jvmtiEnv* jvmti, jobject reference, jlong tag) {
  return aboutObject(jvmti, FAKE_JVMTI(SetTag), reference, true,
                     [&](machine&, threadEnv&, object& asked) {
                       asked.tag = tag;
                       return JVMTI_ERROR_NONE;
                     });
}

jvmtiError JNICALL getLoadedClasses(jvmtiEnv* jvmti, jint* count, jclass** classes) {
  constexpr functionId id = FAKE_JVMTI(GetLoadedClasses);
  return perform(jvmti, id, {}, [&](machine& vm, threadEnv* env) {
    if (count == nullptr || classes == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    std::vector<object*> found = liveObjects(vm);
    std::erase_if(found, [](const object* one) { return one->kind != objectKind::javaClass; });
    *count = static_cast<jint>(found.size());
    *classes = reinterpret_cast<jclass*>(copyReferences(vm, *env, id, found));
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL getObjectsWithTags(jvmtiEnv* jvmti, jint tagCount, const jlong* tags,
                                      jint* count, jobject** objects, jlong** tagsOfObjects) {
  constexpr functionId id = FAKE_JVMTI(GetObjectsWithTags);
  return perform(jvmti, id, {.number = tagCount}, [&](machine& vm, threadEnv* env) {
    if (tags == nullptr || count == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    if (tagCount <= 0 || std::count(tags, tags + tagCount, 0) > 0) {
      return JVMTI_ERROR_ILLEGAL_ARGUMENT;
    }
    std::vector<object*> found = liveObjects(vm);
    std::erase_if(found, [&](const object* one) {
      return std::count(tags, tags + tagCount, one->tag.load()) == 0;
    });
    *count = static_cast<jint>(found.size());
    if (objects != nullptr) {
      *objects = copyReferences(vm, *env, id, found);
    }
    if (tagsOfObjects != nullptr) {
      *tagsOfObjects = allocate<jlong>(vm, env, id, found.size());
      std::transform(found.begin(), found.end(), *tagsOfObjects,
                     [](const object* one) { return one->tag.load(); });
    }
    return JVMTI_ERROR_NONE;
  });
}

bool filteredOut(const object& one, jint filter) {
  const bool tagged = one.tag != 0;
  const bool classTagged = one.type->tag != 0;
  return (tagged && (filter & JVMTI_HEAP_FILTER_TAGGED) != 0) ||
         (!tagged && (filter & JVMTI_HEAP_FILTER_UNTAGGED) != 0) ||
         (classTagged && (filter & JVMTI_HEAP_FILTER_CLASS_TAGGED) != 0) ||
         (!classTagged && (filter & JVMTI_HEAP_FILTER_CLASS_UNTAGGED) != 0);
}

jint lengthOf(const object& one) {
  return one.kind == objectKind::objectArray
             ? static_cast<jint>(static_cast<const objectArray&>(one).elements.size())
             : -1;
}

jvmtiError JNICALL iterateThroughHeap(jvmtiEnv* jvmti, jint filter, jclass type,
                                      const jvmtiHeapCallbacks* callbacks, const void* data) {
  constexpr functionId id = FAKE_JVMTI(IterateThroughHeap);
  return perform(jvmti, id, {.target = type, .number = filter}, [&](machine& vm, threadEnv* env) {
    if (callbacks == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    if (callbacks->primitive_field_callback != nullptr ||
        callbacks->array_primitive_value_callback != nullptr ||
        callbacks->string_primitive_value_callback != nullptr) {
      machine::report(id, "only heap_iteration_callback is modelled");
    }
    const javaClass* only = type == nullptr ? nullptr : givenClass(vm, *env, id, type);
    if (type != nullptr && only == nullptr) {
      return JVMTI_ERROR_INVALID_CLASS;
    }
    if (callbacks->heap_iteration_callback == nullptr) {
      return JVMTI_ERROR_NONE;
    }
    const restricted within(*env, "a heap callback");
    for (object* one : liveObjects(vm)) {
      if ((only != nullptr && one->type != only) || filteredOut(*one, filter)) {
        continue;
      }
      jlong tag = one->tag;
      const jint told = callbacks->heap_iteration_callback(one->type->tag, one->size, &tag,
                                                           lengthOf(*one), const_cast<void*>(data));
      one->tag = tag;
      if ((told & JVMTI_VISIT_ABORT) != 0) {
        break;
      }
    }
    return JVMTI_ERROR_NONE;
  });
}

// Reports each reachable object twice, as if there were two references to it, from nowhere.
jvmtiError JNICALL followReferences(jvmtiEnv* jvmti, jint filter, jclass type, jobject initial,
                                    const jvmtiHeapCallbacks* callbacks, const void* data) {
  constexpr functionId id = FAKE_JVMTI(FollowReferences);
  return perform(jvmti, id, {.number = filter}, [&](machine& vm, threadEnv* env) {
    if (callbacks == nullptr) {
      return JVMTI_ERROR_NULL_POINTER;
    }
    if (type != nullptr || initial != nullptr || callbacks->heap_reference_callback == nullptr) {
      machine::report(id, "only heap_reference_callback from the roots is modelled");
      return JVMTI_ERROR_INTERNAL;
    }
    const restricted within(*env, "a heap callback");
    for (object* one : liveObjects(vm)) {
      for (int reference = 0; reference < 2; ++reference) {
        if (!one->reachable || filteredOut(*one, filter)) {
          continue;
        }
        jlong tag = one->tag;
        const jint told = callbacks->heap_reference_callback(
            JVMTI_HEAP_REFERENCE_OTHER, nullptr, one->type->tag, 0, one->size, &tag, nullptr,
            lengthOf(*one), const_cast<void*>(data));
        one->tag = tag;
        if ((told & JVMTI_VISIT_ABORT) != 0) {
          return JVMTI_ERROR_NONE;
        }
      }
    }
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL forceGarbageCollection(jvmtiEnv* jvmti) {
  return perform(jvmti, FAKE_JVMTI(ForceGarbageCollection), {}, [](machine& vm, threadEnv*) {
    vm.collectGarbage();
    return JVMTI_ERROR_NONE;
  });
}

jvmtiError JNICALL setHeapSamplingInterval(jvmtiEnv* jvmti, jint interval) {
  constexpr functionId id = FAKE_JVMTI(SetHeapSamplingInterval);
  return perform(jvmti, id, {.number = interval}, [&](machine& vm, threadEnv*) {
    {
      std::lock_guard hold(vm.modelMutex);
      if (machine::environmentOf(jvmti).added.can_generate_sampled_object_alloc_events == 0) {
        return JVMTI_ERROR_MUST_POSSESS_CAPABILITY;
      }
    }
    if (interval < 0) {
      return JVMTI_ERROR_ILLEGAL_ARGUMENT;
    }
    vm.samplingInterval = interval;
    return JVMTI_ERROR_NONE;
  });
}

jvmtiInterface_1 makeTable() {
  auto table = tableOfUnmodelled<0, jvmtiInterface_1>();
  table.Allocate = allocateMemory;
  table.Deallocate = deallocate;
  table.GetTime = getTime;
  table.GetPhase = getPhase;
  table.GetErrorName = getErrorName;
  table.GetPotentialCapabilities = getPotentialCapabilities;
  table.AddCapabilities = addCapabilities;
  table.RelinquishCapabilities = relinquishCapabilities;
  table.GetCapabilities = getCapabilities;
  table.SetEventCallbacks = setEventCallbacks;
  table.SetEventNotificationMode = setEventNotificationMode;
  table.DisposeEnvironment = disposeEnvironment;
  table.StopThread = stopThread;
  table.SetThreadLocalStorage = setThreadLocalStorage;
  table.GetThreadLocalStorage = getThreadLocalStorage;
  table.GetThreadInfo = getThreadInfo;
  table.GetAllThreads = getAllThreads;
  table.GetTopThreadGroups = getTopThreadGroups;
  table.GetCurrentThread = getCurrentThread;
  table.GetThreadState = getThreadState;
  table.GetOwnedMonitorStackDepthInfo = getOwnedMonitorStackDepthInfo;
  table.RunAgentThread = runAgentThread;
  table.GetStackTrace = getStackTrace;
  table.GetFrameCount = getFrameCount;
  table.GetVersionNumber = getVersionNumber;
  table.GetLocalInt = getLocal<FAKE_JVMTI(GetLocalInt), jint>;
  table.GetLocalLong = getLocal<FAKE_JVMTI(GetLocalLong), jlong>;
  table.GetLocalFloat = getLocal<FAKE_JVMTI(GetLocalFloat), jfloat>;
  table.GetLocalDouble = getLocal<FAKE_JVMTI(GetLocalDouble), jdouble>;
  table.GetLocalObject = getLocalObject;
  table.GetMethodName = getMethodName;
  table.GetMethodDeclaringClass = getMethodDeclaringClass;
  table.GetMethodModifiers = getMethodModifiers;
  table.GetMaxLocals = getMaxLocals;
  table.GetArgumentsSize = getArgumentsSize;
  table.GetLineNumberTable = getLineNumberTable;
  table.GetLocalVariableTable = getLocalVariableTable;
  table.GetClassSignature = getClassSignature;
  table.GetClassLoader = getClassLoader;
  table.GetClassStatus = getClassStatus;
  table.GetSourceFileName = getSourceFileName;
  table.GetClassFields = getClassFields;
  table.GetClassMethods = getClassMethods;
  table.GetFieldName = getFieldName;
  table.GetFieldModifiers = getFieldModifiers;
  table.RetransformClasses = retransformClasses;
  table.GetObjectHashCode = getObjectHashCode;
  table.GetObjectSize = getObjectSize;
  table.GetObjectMonitorUsage = getObjectMonitorUsage;
  table.GetTag = getTag;
  table.SetTag = setTag;
  table.GetLoadedClasses = getLoadedClasses;
  table.GetObjectsWithTags = getObjectsWithTags;
  table.IterateThroughHeap = iterateThroughHeap;
  table.FollowReferences = followReferences;
  table.ForceGarbageCollection = forceGarbageCollection;
  table.SetHeapSamplingInterval = setHeapSamplingInterval;
  return table;
}

}  // namespace

const jvmtiInterface_1& jvmtiTable() {
  static const jvmtiInterface_1 table = makeTable();
  return table;
}

}  // namespace fake
