// Classes on stacks, each held weakly once, so that what is remembered of their methods is known to
// be true still: method IDs die with their class (JDK-8268364), and may then come to mean others.
// Classes of the VM's own loaders, which are never unloaded, need no check.
#pragma once

#include <jvmti.h>

#include <string_view>

#include "support/classCache.h"
#include "support/jvmtiPtr.h"

namespace support {

struct stackClass {
  bool staysLoaded = false;  // as long as the VM lives
};
using heldClasses = classCache<stackClass>;

// The entry of `cls`, made when there is none.
heldClasses::entryPtr holdClass(jvmtiEnv* jvmti, JNIEnv* jni, heldClasses& held, jclass cls);

// The signature of a class, "Lcom/example/Lock;"; empty when the VM gives none.
class classSignature : public jvmtiText {
 public:
  classSignature(jvmtiEnv* jvmti, jclass cls) : jvmtiText(jvmti) {
    fill([&](char** out) { return jvmti->GetClassSignature(cls, out, nullptr); });
  }
};

}  // namespace support
