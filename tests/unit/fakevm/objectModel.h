// What lives in the fake VM: classes, objects, strings, arrays, threads, methods and fields.
//
// The virtualMachine makes all of these and owns them until it ends, collected ones included, so a
// plain pointer to one never dangles. Public members without a word about threads are set up by the
// test before other threads use the thing; everything that may change under way is atomic or is
// changed through the virtualMachine.
#pragma once

#include <jni.h>
#include <jvmti.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace fake {

class virtualMachine;
struct javaClass;
struct javaThread;
struct object;

// A Java value; std::monostate is void.
using value = std::variant<std::monostate, jboolean, jbyte, jchar, jshort, jint, jlong, jfloat,
                           jdouble, object*>;

// What a Java method is called with. A body that throws sets vm.throwInJava() and returns anything.
struct invocation {
  virtualMachine& vm;
  JNIEnv* env;
  object* self;  // null for a static method
  std::vector<value> arguments;
};

using methodBody = std::function<value(invocation&)>;

// An entry of a method's line table.
struct line {
  jlocation start = 0;
  jint number = 0;
};

// An entry of a method's local variable table.
struct variable {
  std::string name;
  std::string signature;
  jint slot = 0;
  jlocation start = 0;
  jint length = 1000;
  std::optional<std::string> genericSignature{};
};

struct methodOptions {
  bool isStatic = false;
  bool isNative = false;
  methodBody body{};  // without one a method gives 0 or null
};

struct method {
  javaClass* declaringClass = nullptr;
  std::string name;
  std::string signature;  // "(ILjava/lang/String;)V"
  bool isStatic = false;
  bool isNative = false;
  bool nameIsNull = false;  // GetMethodName then gives no name
  methodBody body{};

  jint maxLocals = 0;  // at first just the room that the arguments take
  jint argumentsSize = 0;
  // Without a table the VM answers ABSENT_INFORMATION.
  std::optional<std::vector<line>> lines{};
  std::optional<std::vector<variable>> variables{};

  jmethodID id = nullptr;
};

struct field {
  javaClass* declaringClass = nullptr;
  std::string name;
  std::string signature;
  jint modifiers = 0;
  jfieldID id = nullptr;
  value staticValue{};  // guarded by the virtualMachine

  bool isStatic() const { return (modifiers & 0x0008) != 0; }
};

// One frame of a thread's stack. `locals` holds the slots that have a value at that place; the
// small integral types are kept as jint, as the VM does.
struct frame {
  method* code = nullptr;
  jlocation location = 0;
  std::map<jint, value> locals{};
};

// Who owns a monitor and who is waiting; guarded by the virtualMachine.
struct monitorState {
  javaThread* owner = nullptr;
  jint entryCount = 0;
  jint depth = 0;                            // of the owner's frame that entered it
  std::vector<javaThread*> waiters{};        // wait to enter
  std::vector<javaThread*> notifyWaiters{};  // wait to be notified
};

enum class objectKind { plain, javaClass, javaString, javaThread, objectArray, intArray };

struct object {
  object(objectKind objectsKind, javaClass* objectsType, jint identityHash)
      : kind(objectsKind), type(objectsType), hash(identityHash) {}
  virtual ~object() = default;
  object(const object&) = delete;
  object& operator=(const object&) = delete;

  const objectKind kind;
  javaClass* type;
  std::atomic<jint> hash;
  std::atomic<jlong> tag{0};
  std::atomic<jlong> size{16};
  std::atomic<bool> collected{false};
  std::atomic<bool> reachable{true};  // FollowReferences leaves out what is not

  monitorState monitor{};                  // guarded by the virtualMachine
  std::map<const field*, value> fields{};  // guarded by the virtualMachine
};

// A class and its java.lang.Class object.
struct javaClass : object {
  javaClass(javaClass* classClass, jint identityHash, std::string className,
            std::string classSignature, javaClass* superclass)
      : object(objectKind::javaClass, classClass, identityHash),
        name(std::move(className)),
        signature(std::move(classSignature)),
        super(superclass) {}

  const std::string name;                // "com.example.Lock"
  std::optional<std::string> signature;  // "Lcom/example/Lock;"; without one the VM gives null
  javaClass* const super;
  object* loader = nullptr;                 // null for the bootstrap loader
  std::optional<std::string> sourceFile{};  // without one: ABSENT_INFORMATION
  std::atomic<bool> initialized{true};      // as GetClassStatus tells it
  // What the class was loaded from, and what it is now; a class without bytes is not modifiable.
  std::vector<unsigned char> originalBytes{};
  std::vector<unsigned char> bytes{};
  std::map<std::string, void*, std::less<>> natives{};  // those of RegisterNatives, by their names

  // Grown by the virtualMachine, which guards both.
  std::vector<std::unique_ptr<method>> methods{};
  std::vector<std::unique_ptr<field>> fieldsDeclared{};
  std::atomic<object*> nameString{nullptr};  // what getName() gives, made once
};

struct javaString : object {
  javaString(javaClass* stringClass, jint identityHash, std::string modifiedUtf8)
      : object(objectKind::javaString, stringClass, identityHash), text(std::move(modifiedUtf8)) {}

  const std::string text;  // modified UTF-8
};

struct objectArray : object {
  objectArray(javaClass* arrayClass, jint identityHash, std::vector<object*> arrayElements)
      : object(objectKind::objectArray, arrayClass, identityHash),
        elements(std::move(arrayElements)) {}

  std::vector<object*> elements;
};

struct intArray : object {
  intArray(javaClass* arrayClass, jint identityHash, std::vector<jint> arrayElements)
      : object(objectKind::intArray, arrayClass, identityHash),
        elements(std::move(arrayElements)) {}

  std::vector<jint> elements;
};

struct javaThread : object {
  javaThread(javaClass* threadClass, jint identityHash)
      : object(objectKind::javaThread, threadClass, identityHash) {}

  std::atomic<const std::string*> name{nullptr};  // null: the VM gives a null name
  std::atomic<void*> storage{nullptr};            // JVMTI thread-local storage, main environment
  std::map<const void*, void*> otherStorage{};    // by environment; guarded by the virtualMachine
  std::atomic<object*> sent{nullptr};             // by StopThread, last
  std::atomic<bool> isAlive{true};
  bool isVirtual = false;  // GetObjectMonitorUsage does not name a virtual thread as owner
  bool isDaemon = false;
  bool isInterrupted = false;
  jint priority = 5;
  object* group = nullptr;
  object* loader = nullptr;

  // The stack, top frame first. `read` is given the frames, which stay as they are meanwhile.
  template <typename Read>
  auto readFrames(Read read) const {
    std::lock_guard hold(framesMutex_);
    return read(frames_);
  }
  void setFrames(std::vector<frame> frames) {
    std::lock_guard hold(framesMutex_);
    frames_ = std::move(frames);
  }

 private:
  mutable std::mutex framesMutex_;
  std::vector<frame> frames_;
};

// The zero of a type, by the first character of its signature.
value zeroOf(char type);
// The alternative of `value` that a type with this first character is held in.
std::size_t alternativeOf(char type);
// First characters of the argument types of a method signature; "(I[JLx;)V" gives "I[L".
std::string argumentTypes(std::string_view signature);
// First character of the return type.
char returnType(std::string_view signature);
// The local variable slots that the arguments take.
jint argumentSlots(std::string_view signature, bool isStatic);
// "com.example.Lock" to "Lcom/example/Lock;", "[I" to "[I".
std::string signatureOf(std::string_view className);

// Whether `text` is well-formed modified UTF-8 (no byte 0, no four-byte form, no cut sequence).
bool isModifiedUtf8(std::string_view text);
// The number of UTF-16 units of well-formed modified UTF-8.
jsize utf16Length(std::string_view text);
// Its `length` units from unit `start` on, as modified UTF-8.
std::string_view utf16Part(std::string_view text, jsize start, jsize length);

}  // namespace fake
