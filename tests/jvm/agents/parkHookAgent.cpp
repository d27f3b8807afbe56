// An agent that is nothing but the park hook, for programs to control. It counts what the hook
// calls on the thread that is watched. With the option `every`, each method of javac is given a
// call, too.
#include <jvmti.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "contention/parkHook.h"
#include "support/classFile.h"

namespace {

jvmtiEnv* environment = nullptr;
bool isEvery = false;

std::atomic<jobject> watched{nullptr};
std::atomic<jint> begins{0};
std::atomic<jint> parks{0};
std::atomic<jint> ends{0};
std::atomic<jint> all{0};  // of any thread
std::atomic<int> changedMethods{0};
std::atomic<int> refusedClasses{0};

bool isWatched(JNIEnv* jni, jthread thread) {
  return jni->IsSameObject(thread, watched) != JNI_FALSE;
}

const agent::parkCallbacks kCounting{
    [](JNIEnv* jni) {
      ++all;
      jthread thread = nullptr;
      if (watched != nullptr && environment->GetCurrentThread(&thread) == JVMTI_ERROR_NONE) {
        begins += isWatched(jni, thread) ? 1 : 0;
        jni->DeleteLocalRef(thread);
      }
    },
    [](JNIEnv* jni, jthread thread, jobject blocker) {
      ++all;
      if (isWatched(jni, thread)) {
        ++(blocker == nullptr ? ends : parks);
      }
    }};

const agent::parkCallbacks kNothing{[](JNIEnv*) {}, [](JNIEnv*, jthread, jobject) {}};

// --- Every method of a class.

class reader {
 public:
  explicit reader(const unsigned char* bytes) : at_(bytes) {}
  std::uint32_t number(unsigned size) {
    std::uint32_t value = 0;
    for (; size > 0; --size) {
      value = (value << 8U) | *at_++;
    }
    return value;
  }
  void skip(std::size_t count) { at_ += count; }
  std::string text(std::size_t size) {
    skip(size);
    return {reinterpret_cast<const char*>(at_) - size, size};
  }

 private:
  const unsigned char* at_;
};

struct memberName {
  std::string name;
  std::string descriptor;
};

std::vector<std::string> readTexts(reader& in) {
  std::vector<std::string> texts(in.number(2));
  for (std::size_t i = 1; i < texts.size(); ++i) {
    switch (const std::uint32_t tag = in.number(1); tag) {
      case 1:
        texts[i] = in.text(in.number(2));
        break;
      case 5:
      case 6:
        in.skip(8);
        ++i;
        break;
      default: {
        const bool isShort = tag == 7 || tag == 8 || tag == 16 || tag == 19 || tag == 20;
        in.skip(isShort ? 2 : tag == 15 ? 3 : 4);
      }
    }
  }
  return texts;
}

std::vector<memberName> methodsOf(const unsigned char* bytes) {
  reader in(bytes);
  in.skip(8);
  const std::vector<std::string> texts = readTexts(in);
  in.skip(6);
  in.skip(std::size_t{2} * in.number(2));
  std::vector<memberName> members;
  for (int kind = 0; kind < 2; ++kind) {  // fields, then methods
    members.clear();
    for (std::uint32_t count = in.number(2); count > 0; --count) {
      in.skip(2);
      const std::uint32_t name = in.number(2);
      members.push_back({texts[name], texts[in.number(2)]});
      for (std::uint32_t attributes = in.number(2); attributes > 0; --attributes) {
        in.skip(2);
        in.skip(in.number(4));
      }
    }
  }
  return members;
}

void changeEveryMethod(jvmtiEnv* jvmti, jint size, const unsigned char* bytes, jint* newSize,
                       unsigned char** newBytes) {
  const std::vector<memberName> methods = methodsOf(bytes);
  std::vector<support::callInsertion> insertions;
  for (const memberName& each : methods) {
    insertions.push_back({each.name,
                          each.descriptor,
                          {},
                          "com/korvane/twutils/nativeagent/hook/ParkHook",
                          "acquisitionBegins",
                          "()V"});
  }
  const auto changed = support::insertCalls({bytes, static_cast<std::size_t>(size)}, insertions);
  if (!changed ||
      jvmti->Allocate(static_cast<jlong>(changed->bytes.size()), newBytes) != JVMTI_ERROR_NONE) {
    ++refusedClasses;
    return;
  }
  std::memcpy(*newBytes, changed->bytes.data(), changed->bytes.size());
  *newSize = static_cast<jint>(changed->bytes.size());
  for (const bool is : changed->isInserted) {
    changedMethods += is ? 1 : 0;
  }
}

void JNICALL classFileLoadHook(jvmtiEnv* jvmti, JNIEnv* jni, jclass redefined, jobject loader,
                               const char* name, jobject domain, jint size,
                               const unsigned char* bytes, jint* newSize,
                               unsigned char** newBytes) {
  if (isEvery && name != nullptr && std::string_view(name).starts_with("com/sun/tools/javac/")) {
    changeEveryMethod(jvmti, size, bytes, newSize, newBytes);
    return;
  }
  agent::parkHook::ClassFileLoadHook(jvmti, jni, redefined, loader, name, domain, size, bytes,
                                     newSize, newBytes);
}

void JNICALL vmInit(jvmtiEnv* jvmti, JNIEnv* jni, jthread /*thread*/) {
  agent::parkHook::install(jvmti, jni, kCounting);
}

void JNICALL vmDeath(jvmtiEnv* /*jvmti*/, JNIEnv* /*jni*/) {
  std::printf("fact methods=%d\nfact refused=%d\nfact calls=%d\n", changedMethods.load(),
              refusedClasses.load(), all.load());
  std::fflush(stdout);
}

const char* textOf(agent::parkHookLevel level) {
  switch (level) {
    case agent::parkHookLevel::none:
      return "none ";
    case agent::parkHookLevel::parks:
      return "parks ";
    default:
      return "exact ";
  }
}

}  // namespace

extern "C" JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void* /*reserved*/) {
  constexpr jint kVersion = 0x30010000;  // what our agent asks for
  void* found = nullptr;
  if (vm->GetEnv(&found, kVersion) != JNI_OK) {
    return JNI_ERR;
  }
  environment = static_cast<jvmtiEnv*>(found);
  isEvery = options != nullptr && std::strcmp(options, "every") == 0;
  jvmtiCapabilities wanted{};
  wanted.can_retransform_classes = 1;
  jvmtiEventCallbacks callbacks{};
  callbacks.ClassFileLoadHook = classFileLoadHook;
  callbacks.VMInit = vmInit;
  callbacks.VMDeath = vmDeath;
  if (environment->AddCapabilities(&wanted) != JVMTI_ERROR_NONE ||
      environment->SetEventCallbacks(&callbacks, sizeof callbacks) != JVMTI_ERROR_NONE) {
    return JNI_ERR;
  }
  if (isEvery) {
    environment->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_VM_INIT, nullptr);
    environment->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_VM_DEATH, nullptr);
  }
  return JNI_OK;
}

extern "C" JNIEXPORT jstring JNICALL Java_Hooked_install(JNIEnv* jni, jclass /*cls*/) {
  const agent::parkHookResult result = agent::parkHook::install(environment, jni, kCounting);
  return jni->NewStringUTF((textOf(result.level) + result.missing).c_str());
}

extern "C" JNIEXPORT jstring JNICALL Java_Hooked_remove(JNIEnv* jni, jclass /*cls*/) {
  return jni->NewStringUTF(agent::parkHook::remove(environment, jni).c_str());
}

// Whom the natives call: 0 nobody, 1 what does nothing, 2 what counts.
extern "C" JNIEXPORT void JNICALL Java_Hooked_deliver(JNIEnv* /*jni*/, jclass /*cls*/, jint whom) {
  agent::parkHook::deliverTo(whom == 0 ? nullptr : whom == 1 ? &kNothing : &kCounting);
}

// Counts from now on, of this thread.
extern "C" JNIEXPORT void JNICALL Java_Hooked_watch(JNIEnv* jni, jclass /*cls*/, jthread thread) {
  watched = jni->NewGlobalRef(thread);  // one for each thread that is watched, for good
  begins = parks = ends = all = 0;
}

extern "C" JNIEXPORT jint JNICALL Java_Hooked_begins(JNIEnv* /*jni*/, jclass /*cls*/) {
  return begins;
}
extern "C" JNIEXPORT jint JNICALL Java_Hooked_parks(JNIEnv* /*jni*/, jclass /*cls*/) {
  return parks;
}
extern "C" JNIEXPORT jint JNICALL Java_Hooked_ends(JNIEnv* /*jni*/, jclass /*cls*/) {
  return ends;
}
extern "C" JNIEXPORT jint JNICALL Java_Hooked_all(JNIEnv* /*jni*/, jclass /*cls*/) {
  return all;
}
