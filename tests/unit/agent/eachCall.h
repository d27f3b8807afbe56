// Every call that code makes of the VM, refused in turn.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "fakevm/fakeVm.h"
#include "fakevm/functions.h"

namespace test {

inline bool neverFails(const std::string& call) {
  static const std::set<std::string> names{
      "Deallocate",          "DeleteLocalRef",        "DeleteGlobalRef",
      "DeleteWeakGlobalRef", "ReleaseStringUTFChars", "ExceptionCheck",
      "ExceptionClear",      "ExceptionOccurred",     "Throw",
      "PopLocalFrame"};
  return names.contains(call);
}

inline bool mayThrow(const std::string& call) {
  return *fake::functionNamed(call) >= fake::kFirstJniId && call != "IsSameObject" &&
         call != "IsInstanceOf" && call != "NewLocalRef" && call != "GetObjectClass" &&
         call != "GetObjectField" && call != "NewGlobalRef" && call != "GetJavaVM" &&
         *fake::functionNamed(call) < fake::kFirstInvocationId;
}

// Has each call of `body` fail at each time, in each way. `after` sees what became of it.
inline void refuseEachCallOf(fake::virtualMachine& vm, const std::function<void()>& body,
                             const std::function<void()>& after) {
  vm.resetCalls();
  body();
  std::map<std::string, std::uint64_t> calls;
  for (const std::string& call : vm.callNames()) {
    if (!neverFails(call)) {
      calls[call] = vm.calls(call);
    }
  }
  after();
  ASSERT_FALSE(calls.empty());
  for (const auto& [call, count] : calls) {
    for (unsigned at = 1; at <= count; ++at) {
      for (const bool throwing : {false, true}) {
        if (throwing && !mayThrow(call)) {
          continue;
        }
        SCOPED_TRACE(call + " refused at time " + std::to_string(at));
        vm.fail(call,
                {.error = JVMTI_ERROR_OUT_OF_MEMORY, .from = at, .times = 1, .throwing = throwing});
        body();
        vm.succeed(call);
        after();
      }
    }
  }
}

}  // namespace test
