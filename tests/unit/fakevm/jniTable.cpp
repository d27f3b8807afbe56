// The JNI functions.
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstring>

#include "machine.h"
#include "unmodelled.h"

namespace fake {

namespace {

// What every JNI call goes through before `body(machine, threadEnv)` carries it out. `failed` is
// the result of a call that is not carried out.
template <typename Result, typename Body>
Result perform(JNIEnv* jni, functionId id, const rawArguments& arguments, Result failed,
               Body body) {
  const agentCode scope(false);
  threadEnv& env = machine::of(jni);
  machine& vm = env.owner;
  if (vm.currentOrNull() != &env) {
    machine::report(id, "called with the JNIEnv of another thread");
    return failed;
  }
  vm.count(&env, id);
  if (env.restriction != nullptr) {
    machine::report(id, std::string("not allowed in ") + env.restriction);
    return failed;
  }
  if (env.pending.load(std::memory_order_relaxed) != nullptr && !kFunctionTraits[id].whilePending) {
    machine::report(id, "not allowed with a pending exception");
    return failed;
  }
  if (vm.watched(id) && !vm.consult(&env, id, arguments).carriedOut) {
    return failed;
  }
  return body(vm, env);
}

// For functions without a result.
template <typename Body>
void performVoid(JNIEnv* jni, functionId id, const rawArguments& arguments, Body body) {
  perform(jni, id, arguments, false, [&](machine& vm, threadEnv& env) {
    body(vm, env);
    return true;
  });
}

javaClass* needClass(machine& vm, threadEnv& env, functionId id, jclass reference) {
  return vm.need<javaClass>(env, id, reference, objectKind::javaClass);
}

jclass classReference(threadEnv& env, javaClass* type, functionId id) {
  return static_cast<jclass>(machine::local(env, type, id));
}

// --- The environment.

jint JNICALL getVersion(JNIEnv* jni) {
  return perform(jni, FAKE_JNI(GetVersion), {}, jint{0},
                 [](machine&, threadEnv&) { return jint{JNI_VERSION_10}; });
}

jint JNICALL getJavaVm(JNIEnv* jni, JavaVM** result) {
  return perform(jni, FAKE_JNI(GetJavaVM), {}, jint{JNI_ERR}, [&](machine& vm, threadEnv&) {
    *result = &vm.javaVm;
    return jint{JNI_OK};
  });
}

// --- References.

jobject JNICALL newLocalRef(JNIEnv* jni, jobject reference) {
  constexpr functionId id = FAKE_JNI(NewLocalRef);
  return perform(jni, id, {.target = reference}, jobject{}, [&](machine& vm, threadEnv& env) {
    return machine::local(env, vm.use(env, id, reference), id);
  });
}

void JNICALL deleteLocalRef(JNIEnv* jni, jobject reference) {
  constexpr functionId id = FAKE_JNI(DeleteLocalRef);
  performVoid(jni, id, {.target = reference}, [&](machine& vm, threadEnv& env) {
    if (reference != nullptr) {
      vm.removeLocal(env, id, reference);
    }
  });
}

template <functionId id, handleKind kind>
jobject JNICALL newShared(JNIEnv* jni, jobject reference) {
  return perform(jni, id, {.target = reference}, jobject{}, [&](machine& vm, threadEnv& env) {
    object* target = vm.use(env, id, reference);
    return target == nullptr ? nullptr : vm.addShared(kind, target, id);
  });
}

template <functionId id, handleKind kind>
void JNICALL deleteShared(JNIEnv* jni, jobject reference) {
  performVoid(jni, id, {.target = reference}, [&](machine& vm, threadEnv&) {
    if (reference != nullptr) {
      vm.removeShared(kind, id, reference);
    }
  });
}

jboolean JNICALL isSameObject(JNIEnv* jni, jobject one, jobject other) {
  constexpr functionId id = FAKE_JNI(IsSameObject);
  return perform(jni, id, {.target = one}, jboolean{JNI_FALSE}, [&](machine& vm, threadEnv& env) {
    const bool same = vm.use(env, id, one) == vm.use(env, id, other);
    return static_cast<jboolean>(same);
  });
}

jobjectRefType JNICALL getObjectRefType(JNIEnv* jni, jobject reference) {
  constexpr functionId id = FAKE_JNI(GetObjectRefType);
  return perform(jni, id, {.target = reference}, JNIInvalidRefType,
                 [&](machine& vm, threadEnv& env) {
                   if (reference == nullptr || !vm.isGood(env, id, reference)) {
                     return JNIInvalidRefType;
                   }
                   switch (handle::unpack(reference).kind) {
                     case handleKind::global:
                       return JNIGlobalRefType;
                     case handleKind::weak:
                       return JNIWeakGlobalRefType;
                     default:
                       return JNILocalRefType;
                   }
                 });
}

jint JNICALL pushLocalFrame(JNIEnv* jni, jint capacity) {
  return perform(jni, FAKE_JNI(PushLocalFrame), {.number = capacity}, jint{JNI_ENOMEM},
                 [&](machine&, threadEnv& env) {
                   if (capacity < 0) {
                     return jint{JNI_ERR};
                   }
                   env.locals.pushFrame(false);
                   return jint{JNI_OK};
                 });
}

jobject JNICALL popLocalFrame(JNIEnv* jni, jobject result) {
  constexpr functionId id = FAKE_JNI(PopLocalFrame);
  return perform(jni, id, {.target = result}, jobject{}, [&](machine& vm, threadEnv& env) {
    object* kept = vm.use(env, id, result);
    if (env.locals.atBoundary()) {
      machine::report(id, "no frame was pushed");
    } else {
      env.locals.popFrame();
    }
    return machine::local(env, kept, id);
  });
}

jint JNICALL ensureLocalCapacity(JNIEnv* jni, jint capacity) {
  return perform(jni, FAKE_JNI(EnsureLocalCapacity), {.number = capacity}, jint{JNI_ENOMEM},
                 [&](machine&, threadEnv&) { return jint{capacity < 0 ? JNI_ERR : JNI_OK}; });
}

// --- Exceptions.

jint JNICALL throwObject(JNIEnv* jni, jthrowable exception) {
  constexpr functionId id = FAKE_JNI(Throw);
  return perform(jni, id, {.target = exception}, jint{JNI_ERR}, [&](machine& vm, threadEnv& env) {
    object* thrown = vm.needObject(env, id, exception);
    if (thrown == nullptr) {
      return jint{JNI_ERR};
    }
    env.pending = thrown;
    return jint{JNI_OK};
  });
}

jthrowable JNICALL exceptionOccurred(JNIEnv* jni) {
  constexpr functionId id = FAKE_JNI(ExceptionOccurred);
  return perform(jni, id, {}, jthrowable{}, [](machine&, threadEnv& env) {
    return static_cast<jthrowable>(machine::local(env, env.pending, id));
  });
}

jboolean JNICALL exceptionCheck(JNIEnv* jni) {
  return perform(
      jni, FAKE_JNI(ExceptionCheck), {}, jboolean{JNI_FALSE},
      [](machine&, threadEnv& env) { return static_cast<jboolean>(env.pending != nullptr); });
}

// ExceptionDescribe clears the exception as well; what it would print, nobody would read.
template <functionId id>
void JNICALL clearPending(JNIEnv* jni) {
  performVoid(jni, id, {}, [](machine&, threadEnv& env) { env.pending = nullptr; });
}

// What a member is asked of: an object, or for static members a class.
template <bool isStatic>
object* receiver(machine& vm, threadEnv& env, functionId id, jobject reference) {
  return isStatic ? vm.need<object>(env, id, reference, objectKind::javaClass)
                  : vm.needObject(env, id, reference);
}

// --- Classes and members.

jclass JNICALL findClass(JNIEnv* jni, const char* name) {
  constexpr functionId id = FAKE_JNI(FindClass);
  return perform(jni, id, {.name = name}, jclass{}, [&](machine& vm, threadEnv& env) {
    std::string dotted(name);
    if (dotted.find('.') != std::string::npos) {
      machine::report(id, "the name has dots instead of slashes: " + dotted);
    }
    std::replace(dotted.begin(), dotted.end(), '/', '.');
    javaClass* found = vm.findClass(dotted);
    if (found == nullptr) {
      vm.raise(env, vm.makeThrowable("java.lang.NoClassDefFoundError"));
    }
    return classReference(env, found, id);
  });
}

// Of the bytes only the magic number is looked at.
jclass JNICALL defineClass(JNIEnv* jni, const char* name, jobject loader, const jbyte* bytes,
                           jsize size) {
  constexpr functionId id = FAKE_JNI(DefineClass);
  const rawArguments arguments{.target = loader, .name = name, .number = size};
  return perform(jni, id, arguments, jclass{}, [&](machine& vm, threadEnv& env) -> jclass {
    const std::vector<unsigned char> given(bytes, bytes + size);
    const std::array<unsigned char, 4> magic{0xCA, 0xFE, 0xBA, 0xBE};
    if (given.size() < magic.size() || !std::equal(magic.begin(), magic.end(), given.begin())) {
      vm.raise(env, vm.makeThrowable("java.lang.ClassFormatError"));
      return nullptr;
    }
    std::string dotted(name);
    std::replace(dotted.begin(), dotted.end(), '/', '.');
    if (vm.findClass(dotted) != nullptr) {
      vm.raise(env, vm.makeThrowable("java.lang.LinkageError"));
      return nullptr;
    }
    javaClass* made = vm.makeClass(dotted, vm.objectClass);
    made->loader = vm.use(env, id, loader);
    made->originalBytes = given;
    made->bytes = given;
    return classReference(env, made, id);
  });
}

jint JNICALL registerNatives(JNIEnv* jni, jclass type, const JNINativeMethod* methods, jint count) {
  constexpr functionId id = FAKE_JNI(RegisterNatives);
  const rawArguments arguments{.target = type, .number = count};
  return perform(jni, id, arguments, jint{JNI_ERR}, [&](machine& vm, threadEnv& env) -> jint {
    javaClass* found = needClass(vm, env, id, type);
    if (found == nullptr) {
      return JNI_ERR;
    }
    for (jint i = 0; i < count; ++i) {
      found->natives[methods[i].name] = methods[i].fnPtr;
    }
    return JNI_OK;
  });
}

jclass JNICALL getObjectClass(JNIEnv* jni, jobject reference) {
  constexpr functionId id = FAKE_JNI(GetObjectClass);
  return perform(jni, id, {.target = reference}, jclass{}, [&](machine& vm, threadEnv& env) {
    object* found = vm.needObject(env, id, reference);
    return found == nullptr ? nullptr : classReference(env, found->type, id);
  });
}

jclass JNICALL getSuperclass(JNIEnv* jni, jclass type) {
  constexpr functionId id = FAKE_JNI(GetSuperclass);
  return perform(jni, id, {.target = type}, jclass{}, [&](machine& vm, threadEnv& env) {
    javaClass* found = needClass(vm, env, id, type);
    return found == nullptr ? nullptr : classReference(env, found->super, id);
  });
}

jboolean JNICALL isInstanceOf(JNIEnv* jni, jobject reference, jclass type) {
  constexpr functionId id = FAKE_JNI(IsInstanceOf);
  return perform(
      jni, id, {.target = reference}, jboolean{JNI_FALSE}, [&](machine& vm, threadEnv& env) {
        const javaClass* wanted = needClass(vm, env, id, type);
        const object* found = vm.use(env, id, reference);
        const bool is =
            wanted != nullptr && (found == nullptr || machine::isInstance(*found, *wanted));
        return static_cast<jboolean>(is);
      });
}

template <functionId id, bool isStatic>
jmethodID JNICALL getMethodId(JNIEnv* jni, jclass type, const char* name, const char* signature) {
  const rawArguments arguments{.target = type, .name = name, .signature = signature};
  return perform(jni, id, arguments, jmethodID{}, [&](machine& vm, threadEnv& env) -> jmethodID {
    javaClass* searched = needClass(vm, env, id, type);
    if (searched == nullptr) {
      return nullptr;
    }
    const method* found = vm.findMethod(searched, name, signature, isStatic);
    if (found != nullptr) {
      return found->id;
    }
    vm.raise(env, vm.makeThrowable("java.lang.NoSuchMethodError"));
    return nullptr;
  });
}

template <functionId id, bool isStatic>
jfieldID JNICALL getFieldId(JNIEnv* jni, jclass type, const char* name, const char* signature) {
  const rawArguments arguments{.target = type, .name = name, .signature = signature};
  return perform(jni, id, arguments, jfieldID{}, [&](machine& vm, threadEnv& env) -> jfieldID {
    javaClass* searched = needClass(vm, env, id, type);
    if (searched == nullptr) {
      return nullptr;
    }
    const field* found = vm.findField(searched, name, signature, isStatic);
    if (found != nullptr) {
      return found->id;
    }
    vm.raise(env, vm.makeThrowable("java.lang.NoSuchFieldError"));
    return nullptr;
  });
}

// --- Field values.

// Whether a function for values of type T may read `which`; reports it when not.
template <typename T>
bool fits(functionId id, const field& which, bool isStatic) {
  if (which.isStatic() != isStatic) {
    machine::report(id, "the field " + which.name + " is " + (isStatic ? "not " : "") + "static");
    return false;
  }
  if (alternativeOf(which.signature.front()) == value(T{}).index()) {
    return true;
  }
  machine::report(id, "the field " + which.name + " has the type " + which.signature);
  return false;
}

value readField(machine& vm, const object& owner, const field& which) {
  std::lock_guard hold(vm.modelMutex);
  const auto found = owner.fields.find(&which);
  return found == owner.fields.end() ? zeroOf(which.signature.front()) : found->second;
}

value readStatic(machine& vm, const field& which) {
  std::lock_guard hold(vm.modelMutex);
  return which.staticValue;
}

// What the field of a call holds; a zero when the call is wrong.
template <typename T, bool isStatic>
T fieldValue(machine& vm, threadEnv& env, functionId id, jobject owner, jfieldID reference) {
  const object* found = receiver<isStatic>(vm, env, id, owner);
  const field* which = vm.needField(id, reference);
  if (found == nullptr || which == nullptr || !fits<T>(id, *which, isStatic)) {
    return T{};
  }
  if (!isStatic && !machine::isInstance(*found, *which->declaringClass)) {
    machine::report(id, "the object has no field " + which->name);
    return T{};
  }
  return std::get<T>(isStatic ? readStatic(vm, *which) : readField(vm, *found, *which));
}

template <functionId id, typename T>
T JNICALL getField(JNIEnv* jni, jobject owner, jfieldID which) {
  return perform(jni, id, {.target = owner}, T{}, [&](machine& vm, threadEnv& env) {
    return fieldValue<T, false>(vm, env, id, owner, which);
  });
}

template <functionId id, typename T>
T JNICALL getStaticField(JNIEnv* jni, jclass owner, jfieldID which) {
  return perform(jni, id, {.target = owner}, T{}, [&](machine& vm, threadEnv& env) {
    return fieldValue<T, true>(vm, env, id, owner, which);
  });
}

jobject JNICALL getObjectField(JNIEnv* jni, jobject owner, jfieldID which) {
  constexpr functionId id = FAKE_JNI(GetObjectField);
  return perform(jni, id, {.target = owner}, jobject{}, [&](machine& vm, threadEnv& env) {
    return machine::local(env, fieldValue<object*, false>(vm, env, id, owner, which), id);
  });
}

jobject JNICALL getStaticObjectField(JNIEnv* jni, jclass owner, jfieldID which) {
  constexpr functionId id = FAKE_JNI(GetStaticObjectField);
  return perform(jni, id, {.target = owner}, jobject{}, [&](machine& vm, threadEnv& env) {
    return machine::local(env, fieldValue<object*, true>(vm, env, id, owner, which), id);
  });
}

// --- Calling Java.

// The arguments of a call in either of the forms that they are passed in.
class argumentSource {
 public:
  explicit argumentSource(const jvalue* array) : array_(array) {}
  explicit argumentSource(va_list list) { va_copy(list_, list); }
  ~argumentSource() {
    if (array_ == nullptr) {
      va_end(list_);
    }
  }
  argumentSource(const argumentSource&) = delete;
  argumentSource& operator=(const argumentSource&) = delete;

  std::vector<value> read(machine& vm, threadEnv& env, functionId id, const method& code) {
    std::vector<value> arguments;
    for (const char type : argumentTypes(code.signature)) {
      const jvalue next = array_ != nullptr ? *array_++ : nextOfList(type);
      arguments.push_back(toValue(vm, env, id, type, next));
    }
    return arguments;
  }

 private:
  jvalue nextOfList(char type) {
    jvalue next{};
    switch (type) {
      case 'Z':
        next.z = static_cast<jboolean>(va_arg(list_, int));
        break;
      case 'B':
        next.b = static_cast<jbyte>(va_arg(list_, int));
        break;
      case 'C':
        next.c = static_cast<jchar>(va_arg(list_, int));
        break;
      case 'S':
        next.s = static_cast<jshort>(va_arg(list_, int));
        break;
      case 'I':
        next.i = va_arg(list_, jint);
        break;
      case 'J':
        next.j = va_arg(list_, jlong);
        break;
      case 'F':
        next.f = static_cast<jfloat>(va_arg(list_, double));
        break;
      case 'D':
        next.d = va_arg(list_, double);
        break;
      default:
        next.l = va_arg(list_, jobject);
    }
    return next;
  }

  static value toValue(machine& vm, threadEnv& env, functionId id, char type, const jvalue& given) {
    switch (type) {
      case 'Z':
        return given.z;
      case 'B':
        return given.b;
      case 'C':
        return given.c;
      case 'S':
        return given.s;
      case 'I':
        return given.i;
      case 'J':
        return given.j;
      case 'F':
        return given.f;
      case 'D':
        return given.d;
      default:
        return vm.use(env, id, given.l);
    }
  }

  const jvalue* array_ = nullptr;
  va_list list_{};
};

// The method that a call really runs, or null when the call is wrong. `self` is null for a static
// call.
method* target(machine& vm, functionId id, jmethodID code, object* self) {
  method* called = vm.needMethod(id, code);
  if (called == nullptr) {
    return nullptr;
  }
  if (called->isStatic != (self == nullptr)) {
    machine::report(id, "the method " + called->name + " is static, or it is not");
    return nullptr;
  }
  if (self == nullptr || self->type == called->declaringClass) {
    return called;
  }
  if (!machine::isInstance(*self, *called->declaringClass)) {
    machine::report(id, "the object has no method " + called->name);
    return nullptr;
  }
  return vm.findMethod(self->type, called->name, called->signature, false);
}

template <typename Result>
struct called;

// How each kind of result is made from what the Java method gave.
template <>
struct called<jobject> {
  static bool fits(char type) { return type == 'L' || type == '['; }
  static jobject from(threadEnv& env, functionId id, const value& given) {
    return machine::local(env, std::get<object*>(given), id);
  }
};

template <>
struct called<jint> {
  static bool fits(char type) { return type == 'I'; }
  // What threw gives no value.
  static jint from(threadEnv&, functionId, const value& given) {
    const jint* const result = std::get_if<jint>(&given);
    return result == nullptr ? 0 : *result;
  }
};

template <>
struct called<bool> {  // a void method; the result says nothing
  static bool fits(char type) { return type == 'V'; }
  static bool from(threadEnv&, functionId, const value&) { return true; }
};

template <functionId id, bool isStatic, typename Result>
Result callMethod(JNIEnv* jni, jobject reference, jmethodID code, argumentSource&& source) {
  const rawArguments raw{.target = reference, .code = code};
  return perform(jni, id, raw, Result{}, [&](machine& vm, threadEnv& env) {
    object* on = receiver<isStatic>(vm, env, id, reference);
    if (on == nullptr) {
      return Result{};
    }
    method* runs = target(vm, id, code, isStatic ? nullptr : on);
    if (runs == nullptr) {
      return Result{};
    }
    if (!called<Result>::fits(returnType(runs->signature))) {
      machine::report(id, "the method " + runs->name + " gives another type: " + runs->signature);
      return Result{};
    }
    std::vector<value> arguments = source.read(vm, env, id, *runs);
    const value given = vm.invoke(env, *runs, isStatic ? nullptr : on, std::move(arguments));
    return called<Result>::from(env, id, given);
  });
}

// The three forms of a Call function.
template <functionId id, bool isStatic, typename Result, typename Receiver, typename Declared>
struct callForms {
  static Declared JNICALL plain(JNIEnv* jni, Receiver receiver, jmethodID code, ...) {
    va_list list;
    va_start(list, code);
    const Result result =
        callMethod<id, isStatic, Result>(jni, receiver, code, argumentSource(list));
    va_end(list);
    return static_cast<Declared>(result);
  }
  static Declared JNICALL list(JNIEnv* jni, Receiver receiver, jmethodID code, va_list arguments) {
    return static_cast<Declared>(
        callMethod<id, isStatic, Result>(jni, receiver, code, argumentSource(arguments)));
  }
  static Declared JNICALL array(JNIEnv* jni, Receiver receiver, jmethodID code,
                                const jvalue* arguments) {
    constexpr jvalue kNone{};
    return static_cast<Declared>(callMethod<id, isStatic, Result>(
        jni, receiver, code, argumentSource(arguments == nullptr ? &kNone : arguments)));
  }
};

// The C++ form of the plain function comes here, too.
jobject JNICALL callNonvirtualObjectMethodV(JNIEnv* jni, jobject reference, jclass type,
                                            jmethodID code, va_list list) {
  constexpr functionId id = FAKE_JNI(CallNonvirtualObjectMethod);
  const rawArguments raw{.target = reference, .code = code};
  return perform(jni, id, raw, jobject{}, [&](machine& vm, threadEnv& env) -> jobject {
    object* on = vm.needObject(env, id, reference);
    javaClass* declaring = needClass(vm, env, id, type);
    method* runs = vm.needMethod(id, code);
    if (on == nullptr || declaring == nullptr || runs == nullptr) {
      return nullptr;
    }
    if (!machine::isInstance(*on, *declaring)) {
      machine::report(id, "the object is none of the class " + declaring->name);
      return nullptr;
    }
    std::vector<value> arguments = argumentSource(list).read(vm, env, id, *runs);
    return called<jobject>::from(env, id, vm.invoke(env, *runs, on, std::move(arguments)));
  });
}

// The C++ form of NewObject comes here, too. Threads are those of makeThread.
jobject JNICALL newObjectV(JNIEnv* jni, jclass type, jmethodID code, va_list list) {
  constexpr functionId id = FAKE_JNI(NewObject);
  const rawArguments raw{.target = type, .code = code};
  return perform(jni, id, raw, jobject{}, [&](machine& vm, threadEnv& env) -> jobject {
    javaClass* asked = needClass(vm, env, id, type);
    method* runs = vm.needMethod(id, code);
    if (asked == nullptr || runs == nullptr || runs->name != "<init>") {
      machine::report(id, "no class or no constructor");
      return nullptr;
    }
    object* made = asked == vm.threadClass ? vm.makeThread(std::nullopt) : vm.makeObject(asked);
    vm.invoke(env, *runs, made, argumentSource(list).read(vm, env, id, *runs));
    return env.pending == nullptr ? machine::local(env, made, id) : nullptr;
  });
}

// --- Strings and arrays.

jstring JNICALL newStringUtf(JNIEnv* jni, const char* text) {
  constexpr functionId id = FAKE_JNI(NewStringUTF);
  return perform(jni, id, {.name = text}, jstring{}, [&](machine& vm, threadEnv& env) -> jstring {
    if (text == nullptr) {
      return nullptr;
    }
    if (!isModifiedUtf8(text)) {
      machine::report(id, "the text is not modified UTF-8");
    }
    return static_cast<jstring>(machine::local(env, vm.makeString(text), id));
  });
}

javaString* needString(machine& vm, threadEnv& env, functionId id, jstring reference) {
  return vm.need<javaString>(env, id, reference, objectKind::javaString);
}

const char* JNICALL getStringUtfChars(JNIEnv* jni, jstring reference, jboolean* isCopy) {
  constexpr functionId id = FAKE_JNI(GetStringUTFChars);
  return perform(jni, id, {.target = reference}, static_cast<const char*>(nullptr),
                 [&](machine& vm, threadEnv& env) -> const char* {
                   const javaString* found = needString(vm, env, id, reference);
                   if (found == nullptr) {
                     return nullptr;
                   }
                   if (isCopy != nullptr) {
                     *isCopy = JNI_TRUE;
                   }
                   unsigned char* copy =
                       vm.characters.allocate(found->text.size() + 1, nameOf(id), found);
                   std::memcpy(copy, found->text.c_str(), found->text.size() + 1);
                   ++env.charactersHeld;
                   return reinterpret_cast<const char*>(copy);
                 });
}

void JNICALL releaseStringUtfChars(JNIEnv* jni, jstring reference, const char* text) {
  constexpr functionId id = FAKE_JNI(ReleaseStringUTFChars);
  performVoid(jni, id, {.target = reference}, [&](machine& vm, threadEnv& env) {
    const javaString* found = needString(vm, env, id, reference);
    switch (vm.characters.free(text, found)) {
      case blockTracker::result::notOurs:
        machine::report(id, "not characters that are held now");
        return;
      case blockTracker::result::wrongAbout:
        machine::report(id, "the characters are of another string");
        break;
      case blockTracker::result::freed:
        break;
    }
    --env.charactersHeld;
  });
}

jsize JNICALL getStringUtfLength(JNIEnv* jni, jstring reference) {
  constexpr functionId id = FAKE_JNI(GetStringUTFLength);
  return perform(jni, id, {.target = reference}, jsize{0}, [&](machine& vm, threadEnv& env) {
    const javaString* found = needString(vm, env, id, reference);
    return found == nullptr ? 0 : static_cast<jsize>(found->text.size());
  });
}

jsize JNICALL getStringLength(JNIEnv* jni, jstring reference) {
  constexpr functionId id = FAKE_JNI(GetStringLength);
  return perform(jni, id, {.target = reference}, jsize{0}, [&](machine& vm, threadEnv& env) {
    const javaString* found = needString(vm, env, id, reference);
    return found == nullptr ? 0 : utf16Length(found->text);
  });
}

void JNICALL getStringUtfRegion(JNIEnv* jni, jstring reference, jsize start, jsize length,
                                char* buffer) {
  constexpr functionId id = FAKE_JNI(GetStringUTFRegion);
  performVoid(jni, id, {.target = reference, .number = length}, [&](machine& vm, threadEnv& env) {
    const javaString* found = needString(vm, env, id, reference);
    if (found == nullptr) {
      return;
    }
    if (start < 0 || length < 0 || start > utf16Length(found->text) - length) {
      vm.raise(env, vm.makeThrowable("java.lang.StringIndexOutOfBoundsException"));
      return;
    }
    const std::string_view part = utf16Part(found->text, start, length);
    std::memcpy(buffer, part.data(), part.size());
    buffer[part.size()] = '\0';
  });
}

jsize JNICALL getArrayLength(JNIEnv* jni, jarray reference) {
  constexpr functionId id = FAKE_JNI(GetArrayLength);
  return perform(jni, id, {.target = reference}, jsize{0}, [&](machine& vm, threadEnv& env) {
    const auto* found = vm.need<objectArray>(env, id, reference, objectKind::objectArray);
    return found == nullptr ? 0 : static_cast<jsize>(found->elements.size());
  });
}

jobject JNICALL getObjectArrayElement(JNIEnv* jni, jobjectArray reference, jsize index) {
  constexpr functionId id = FAKE_JNI(GetObjectArrayElement);
  const rawArguments arguments{.target = reference, .number = index};
  return perform(jni, id, arguments, jobject{}, [&](machine& vm, threadEnv& env) -> jobject {
    const auto* found = vm.need<objectArray>(env, id, reference, objectKind::objectArray);
    if (found == nullptr) {
      return nullptr;
    }
    if (index >= 0 && static_cast<std::size_t>(index) < found->elements.size()) {
      return machine::local(env, found->elements[static_cast<std::size_t>(index)], id);
    }
    vm.raise(env, vm.makeThrowable("java.lang.ArrayIndexOutOfBoundsException"));
    return nullptr;
  });
}

void JNICALL setObjectArrayElement(JNIEnv* jni, jobjectArray reference, jsize index,
                                   jobject element) {
  constexpr functionId id = FAKE_JNI(SetObjectArrayElement);
  performVoid(jni, id, {.target = reference, .number = index}, [&](machine& vm, threadEnv& env) {
    auto* found = vm.need<objectArray>(env, id, reference, objectKind::objectArray);
    if (found == nullptr) {
      return;
    }
    if (index < 0 || static_cast<std::size_t>(index) >= found->elements.size()) {
      vm.raise(env, vm.makeThrowable("java.lang.ArrayIndexOutOfBoundsException"));
      return;
    }
    found->elements[static_cast<std::size_t>(index)] = vm.use(env, id, element);
  });
}

// Its elements are not modelled. Nothing but references leads to it.
jbyteArray JNICALL newByteArray(JNIEnv* jni, jsize length) {
  constexpr functionId id = FAKE_JNI(NewByteArray);
  return perform(jni, id, {.number = length}, jbyteArray{}, [&](machine& vm, threadEnv& env) {
    object* const made = vm.makeObject(vm.knownClass("[B"));
    made->reachable = false;
    return static_cast<jbyteArray>(machine::local(env, made, id));
  });
}

jintArray JNICALL newIntArray(JNIEnv* jni, jsize length) {
  constexpr functionId id = FAKE_JNI(NewIntArray);
  return perform(jni, id, {.number = length}, jintArray{}, [&](machine& vm, threadEnv& env) {
    auto* const made = vm.keep<intArray>(vm.knownClass("[I"), vm.nextHash(),
                                         std::vector<jint>(static_cast<std::size_t>(length)));
    return static_cast<jintArray>(machine::local(env, made, id));
  });
}

// Copies numbers between a Java array and a buffer; an exception when the array has no such range.
template <functionId id, typename Buffer, typename Copy>
void intArrayRegion(JNIEnv* jni, jintArray reference, jsize start, jsize length, Buffer buffer,
                    Copy copy) {
  performVoid(jni, id, {.target = reference, .number = length}, [&](machine& vm, threadEnv& env) {
    auto* found = vm.need<intArray>(env, id, reference, objectKind::intArray);
    if (found == nullptr) {
      return;
    }
    if (start < 0 || length < 0 || start > std::ssize(found->elements) - length) {
      vm.raise(env, vm.makeThrowable("java.lang.ArrayIndexOutOfBoundsException"));
      return;
    }
    copy(found->elements.data() + start, buffer, static_cast<std::size_t>(length));
  });
}

void JNICALL getIntArrayRegion(JNIEnv* jni, jintArray reference, jsize start, jsize length,
                               jint* buffer) {
  intArrayRegion<FAKE_JNI(GetIntArrayRegion)>(
      jni, reference, start, length, buffer,
      [](const jint* elements, jint* to, std::size_t count) { std::copy_n(elements, count, to); });
}

void JNICALL setIntArrayRegion(JNIEnv* jni, jintArray reference, jsize start, jsize length,
                               const jint* buffer) {
  intArrayRegion<FAKE_JNI(SetIntArrayRegion)>(
      jni, reference, start, length, buffer,
      [](jint* elements, const jint* from, std::size_t count) {
        std::copy_n(from, count, elements);
      });
}

void addReferences(JNINativeInterface_& table) {
  table.NewLocalRef = newLocalRef;
  table.DeleteLocalRef = deleteLocalRef;
  table.NewGlobalRef = newShared<FAKE_JNI(NewGlobalRef), handleKind::global>;
  table.DeleteGlobalRef = deleteShared<FAKE_JNI(DeleteGlobalRef), handleKind::global>;
  table.NewWeakGlobalRef = newShared<FAKE_JNI(NewWeakGlobalRef), handleKind::weak>;
  table.DeleteWeakGlobalRef = deleteShared<FAKE_JNI(DeleteWeakGlobalRef), handleKind::weak>;
  table.IsSameObject = isSameObject;
  table.GetObjectRefType = getObjectRefType;
  table.PushLocalFrame = pushLocalFrame;
  table.PopLocalFrame = popLocalFrame;
  table.EnsureLocalCapacity = ensureLocalCapacity;
}

void addExceptions(JNINativeInterface_& table) {
  table.Throw = throwObject;
  table.ExceptionOccurred = exceptionOccurred;
  table.ExceptionCheck = exceptionCheck;
  table.ExceptionClear = clearPending<FAKE_JNI(ExceptionClear)>;
  table.ExceptionDescribe = clearPending<FAKE_JNI(ExceptionDescribe)>;
}

void addFields(JNINativeInterface_& table) {
  table.GetFieldID = getFieldId<FAKE_JNI(GetFieldID), false>;
  table.GetStaticFieldID = getFieldId<FAKE_JNI(GetStaticFieldID), true>;
  table.GetObjectField = getObjectField;
  table.GetStaticObjectField = getStaticObjectField;
#define FAKE_FIELDS(Type, type)                                        \
  table.Get##Type##Field = getField<FAKE_JNI(Get##Type##Field), type>; \
  table.GetStatic##Type##Field = getStaticField<FAKE_JNI(GetStatic##Type##Field), type>;
  FAKE_FIELDS(Boolean, jboolean)
  FAKE_FIELDS(Byte, jbyte)
  FAKE_FIELDS(Char, jchar)
  FAKE_FIELDS(Short, jshort)
  FAKE_FIELDS(Int, jint)
  FAKE_FIELDS(Long, jlong)
  FAKE_FIELDS(Float, jfloat)
  FAKE_FIELDS(Double, jdouble)
#undef FAKE_FIELDS
}

void addCalls(JNINativeInterface_& table) {
  table.GetMethodID = getMethodId<FAKE_JNI(GetMethodID), false>;
  table.GetStaticMethodID = getMethodId<FAKE_JNI(GetStaticMethodID), true>;
#define FAKE_CALLS(name, isStatic, Result, Receiver, Declared)                     \
  {                                                                                \
    using forms = callForms<FAKE_JNI(name), isStatic, Result, Receiver, Declared>; \
    table.name = forms::plain;                                                     \
    table.name##V = forms::list;                                                   \
    table.name##A = forms::array;                                                  \
  }
  FAKE_CALLS(CallObjectMethod, false, jobject, jobject, jobject)
  FAKE_CALLS(CallIntMethod, false, jint, jobject, jint)
  FAKE_CALLS(CallVoidMethod, false, bool, jobject, void)
  FAKE_CALLS(CallStaticObjectMethod, true, jobject, jclass, jobject)
  FAKE_CALLS(CallStaticIntMethod, true, jint, jclass, jint)
  FAKE_CALLS(CallStaticVoidMethod, true, bool, jclass, void)
#undef FAKE_CALLS
  table.CallNonvirtualObjectMethodV = callNonvirtualObjectMethodV;
  table.NewObjectV = newObjectV;
}

JNINativeInterface_ makeTable() {
  auto table = tableOfUnmodelled<kFirstJniId, JNINativeInterface_>();
  table.GetVersion = getVersion;
  table.GetJavaVM = getJavaVm;
  table.FindClass = findClass;
  table.DefineClass = defineClass;
  table.RegisterNatives = registerNatives;
  table.GetObjectClass = getObjectClass;
  table.GetSuperclass = getSuperclass;
  table.IsInstanceOf = isInstanceOf;
  addReferences(table);
  addExceptions(table);
  addFields(table);
  addCalls(table);
  table.NewStringUTF = newStringUtf;
  table.GetStringUTFChars = getStringUtfChars;
  table.ReleaseStringUTFChars = releaseStringUtfChars;
  table.GetStringUTFLength = getStringUtfLength;
  table.GetStringLength = getStringLength;
  table.GetStringUTFRegion = getStringUtfRegion;
  table.GetArrayLength = getArrayLength;
  table.GetObjectArrayElement = getObjectArrayElement;
  table.SetObjectArrayElement = setObjectArrayElement;
  table.NewByteArray = newByteArray;
  table.NewIntArray = newIntArray;
  table.GetIntArrayRegion = getIntArrayRegion;
  table.SetIntArrayRegion = setIntArrayRegion;
  return table;
}

}  // namespace

const JNINativeInterface_& jniTable() {
  static const JNINativeInterface_ table = makeTable();
  return table;
}

}  // namespace fake
