#include "exceptions/constructorTable.h"

#include <algorithm>

#include "support/jniRef.h"
#include "support/jvmtiPtr.h"

namespace agent {

namespace {

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

}  // namespace agent
