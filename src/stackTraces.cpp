#include "stackTraces.h"

#include <algorithm>

#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/text.h"

namespace agent {

namespace {

std::uint64_t keyOf(stackFrames frames) {
  constexpr std::uint64_t kPrime = 0x100000001b3U;
  std::uint64_t key = frames.size();
  for (const jvmtiFrameInfo& each : frames) {
    key = (key ^ reinterpret_cast<std::uintptr_t>(each.method)) * kPrime;
    key ^= key >> 32U;
  }
  return key;
}

void holdOnce(std::vector<heldClasses::entryPtr>& classes, heldClasses::entryPtr cls) {
  if (std::find(classes.begin(), classes.end(), cls) == classes.end()) {
    classes.push_back(std::move(cls));
  }
}

// Appends the line of one method; false when the VM does not name it.
bool appendLine(std::string& text, jvmtiEnv* jvmti, JNIEnv* jni, jmethodID method,
                support::localRef<jclass>& declaring) {
  support::jvmtiText name(jvmti);
  name.fill([&](char** out) { return jvmti->GetMethodName(method, out, nullptr, nullptr); });
  jclass cls = nullptr;
  if (!name || jvmti->GetMethodDeclaringClass(method, &cls) != JVMTI_ERROR_NONE) return false;
  declaring = support::localRef<jclass>(jni, cls);
  support::jvmtiText signature(jvmti);
  signature.fill([&](char** out) { return jvmti->GetClassSignature(cls, out, nullptr); });
  if (!signature) return false;
  text += "at ";
  support::appendDottedClass(text, signature.view());
  text += '.';
  text += name.view();
  text += "()\n";
  return true;
}

}  // namespace

stackText textOfFrames(jvmtiEnv* jvmti, JNIEnv* jni, heldClasses& held, stackFrames frames) {
  constexpr std::size_t kUsualLine = 80;
  stackText result;
  result.text.reserve(frames.size() * kUsualLine);
  result.classes.emplace();
  for (const jvmtiFrameInfo& each : frames) {
    support::localRef<jclass> cls;
    if (!appendLine(result.text, jvmti, jni, each.method, cls)) {
      result.classes.reset();
    } else if (result.classes) {
      const jint key = heldClasses::keyOf(jvmti, cls.get());
      heldClasses::entryPtr entry = held.find(jni, key, cls.get());
      if (!entry) entry = held.keep(jni, key, cls.get());
      if (entry->cls.held()) {
        holdOnce(*result.classes, std::move(entry));
      } else {
        result.classes.reset();
      }
    }
  }
  return result;
}

std::optional<std::uint64_t> knownStackTraces::find(JNIEnv* jni, stackFrames frames) const {
  const auto isThis = [&](const trace& known) {
    return std::equal(frames.begin(), frames.end(), known.methods.begin(), known.methods.end(),
                      [](const jvmtiFrameInfo& frame, jmethodID method) {
                        return frame.method == method;
                      }) &&
           std::none_of(known.classes.begin(), known.classes.end(),
                        [&](const auto& each) { return each->cls.unloaded(jni); });
  };
  const trace* const found = traces_.find(keyOf(frames), isThis);
  if (found == nullptr) return std::nullopt;
  return found->hash;
}

void knownStackTraces::remember(stackFrames frames, std::uint64_t hash,
                                std::vector<heldClasses::entryPtr> classes) {
  std::vector<jmethodID> methods;
  methods.reserve(frames.size());
  for (const jvmtiFrameInfo& each : frames) methods.push_back(each.method);
  using node = support::insertOnlyMap<trace>::node;
  auto entry = std::make_unique<node>(keyOf(frames), hash, std::move(methods), std::move(classes));
  const support::lockGuard guard(mutex_);
  traces_.insert(std::move(entry));
}

}  // namespace agent
