// How reports and the log call a lock.
#pragma once

#include <jni.h>

#include <string>
#include <string_view>

#include "contention/lockTable.h"

namespace agent {

// The class that a program uses, of what is inside it: "ReentrantLock" for its synchronizer.
std::string_view publicClass(std::string_view name, lockKind kind);

// An identity hash code in hexadecimal.
std::string identityText(jint hash);

}  // namespace agent
