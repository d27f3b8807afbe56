#include "support/heldClasses.h"

#include "support/jniRef.h"

namespace support {

namespace {

// A hidden class can be unloaded before its loader. Its signature has a '.' (GetClassSignature);
// before JDK 15 the last part of its name was a number.
bool mayBeHidden(std::string_view signature) {
  const std::size_t last = signature.rfind('/') + 1;  // 0 when there is none
  return signature.find('.') != std::string_view::npos ||
         (last < signature.size() && signature[last] >= '0' && signature[last] <= '9');
}

bool isBuiltInLoader(std::string_view signature) {
  return signature == "Ljdk/internal/loader/ClassLoaders$AppClassLoader;" ||
         signature == "Ljdk/internal/loader/ClassLoaders$PlatformClassLoader;";
}

// Whether a class is there as long as the VM, as its loader is one of the VM's own. False in doubt.
bool staysLoaded(jvmtiEnv* jvmti, JNIEnv* jni, jclass cls) {
  const classSignature signature(jvmti, cls);
  if (!signature || mayBeHidden(signature.view())) {
    return false;
  }
  jobject reference = nullptr;
  if (jvmti->GetClassLoader(cls, &reference) != JVMTI_ERROR_NONE) {
    return false;
  }
  const localRef<> loader(jni, reference);
  if (!loader) {
    return true;  // the bootstrap loader
  }
  const localRef<jclass> loaderClass(jni, jni->GetObjectClass(loader.get()));
  if (!loaderClass) {
    return false;
  }
  const classSignature loaderSignature(jvmti, loaderClass.get());
  return loaderSignature && isBuiltInLoader(loaderSignature.view());
}

}  // namespace

heldClasses::entryPtr holdClass(jvmtiEnv* jvmti, JNIEnv* jni, heldClasses& held, jclass cls) {
  const jint key = heldClasses::keyOf(jvmti, cls);
  if (heldClasses::entryPtr kept = held.find(jni, key, cls)) {
    return kept;
  }
  return held.keep(jni, key, cls, stackClass{staysLoaded(jvmti, jni, cls)});
}

}  // namespace support
