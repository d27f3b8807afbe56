#include "exceptions/madeExceptions.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "exceptions/throwEvent.h"
#include "support/jniRef.h"
#include "support/jvmtiPtr.h"

namespace agent {

namespace {

// The hook's own frame, and that of the constructor of Throwable which calls it.
constexpr jint kHookFrames = 2;

constexpr jint kFramesAtOnce = 16;

// The constructors among the methods of one class. False when the VM refuses.
bool appendConstructors(jvmtiEnv* jvmti, jclass cls, std::vector<jmethodID>& constructors) {
  jint count = 0;
  support::jvmtiPtr<jmethodID> methods(jvmti);
  if (methods.fill([&](jmethodID** out) { return jvmti->GetClassMethods(cls, &count, out); }) !=
      JVMTI_ERROR_NONE) {
    return false;
  }
  for (jint i = 0; i < count; ++i) {
    support::jvmtiText name(jvmti);
    if (name.fill([&](char** out) {
          return jvmti->GetMethodName(methods[i], out, nullptr, nullptr);
        }) != JVMTI_ERROR_NONE) {
      return false;
    }
    if (name.view() == "<init>") {
      constructors.push_back(methods[i]);
    }
  }
  return true;
}

}  // namespace

std::unique_ptr<const constructorTable> constructorTable::of(jvmtiEnv* jvmti, JNIEnv* jni,
                                                             jclass cls) {
  std::vector<std::vector<jmethodID>> classes;  // from the class upwards, to Object
  support::localRef<jclass> above;
  for (jclass each = cls; each != nullptr; each = above.get()) {
    if (!appendConstructors(jvmti, each, classes.emplace_back())) {
      return nullptr;
    }
    above = support::localRef<jclass>(jni, jni->GetSuperclass(each));
  }
  auto table = std::make_unique<constructorTable>();
  table->depth_ = static_cast<jint>(classes.size()) - 1;
  for (std::size_t i = 0; i < classes.size(); ++i) {
    for (jmethodID const method : classes[i]) {
      table->constructors_.push_back({method, table->depth_ - static_cast<jint>(i)});
    }
  }
  return table;
}

std::optional<jint> constructorTable::depthOf(jmethodID method) const {
  const auto found = std::find_if(constructors_.begin(), constructors_.end(),
                                  [&](const constructor& each) { return each.method == method; });
  return found == constructors_.end() ? std::nullopt : std::optional<jint>(found->classesAbove);
}

bool findMaker(throwEvent& event, jclass cls) {
  const constructorTable* const table = event.info->value.constructors(event.jvmti, event.jni, cls);
  if (table == nullptr) {
    return false;
  }
  std::array<jvmtiFrameInfo, kFramesAtOnce> frames;
  jint first = kHookFrames;
  // One constructor of each class, most times, and then the frame that is looked for.
  jint wanted = std::clamp(table->depth(), 1, kFramesAtOnce);
  jint last = 0;  // how far below Object the constructor above was
  for (;;) {
    jint count = 0;
    if (event.failed(event.jvmti->GetStackTrace(nullptr, first, wanted, frames.data(), &count))) {
      return false;
    }
    for (jint i = 0; i < count; ++i) {
      const jvmtiFrameInfo& frame = frames[static_cast<std::size_t>(i)];
      const std::optional<jint> depth = table->depthOf(frame.method);
      // Constructors run from the class to Throwable: what is above again is another object's.
      if (!depth || *depth < last) {
        event.firstFrame = first + i;
        event.method = frame.method;
        event.location = frame.location;
        return true;
      }
      last = *depth;
    }
    if (count < wanted) {
      return false;
    }
    first += count;
    wanted = kFramesAtOnce;
  }
}

}  // namespace agent
