#include "agent/attachCopies.h"

#include <dlfcn.h>
#include <jni.h>
#include <link.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

// Other copies ask: 1 once this one was set up, and for good, for natives may be bound to it. It is
// called across versions of the library, and stays as it is.
extern "C" JNIEXPORT int twNativeAgentIsInUse();

namespace agent {

namespace {

constexpr const char* kQuestion = "twNativeAgentIsInUse";
// What copies have that do not know the question: they can only have been loaded with the VM.
constexpr const char* kOldMark =
    "Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_setObjectTag";

std::atomic<bool> isUsed{false};

// The files of all libraries in the process. Nothing is called while the loader's list is locked.
std::vector<std::string> libraries() {
  std::vector<std::string> names;
  const auto add = [](dl_phdr_info* info, std::size_t /*size*/, void* to) {
    try {
      if (info->dlpi_name != nullptr && *info->dlpi_name != '\0') {
        static_cast<std::vector<std::string>*>(to)->emplace_back(info->dlpi_name);
      }
      return 0;
    } catch (...) {
      return 1;
    }
  };
  ::dl_iterate_phdr(add, &names);
  return names;
}

// Whether `symbol` of that library belongs to another one than `own`.
bool isInUse(void* library) {
  using question = int (*)();
  if (void* const asked = ::dlsym(library, kQuestion)) {
    return asked != reinterpret_cast<void*>(&twNativeAgentIsInUse) &&
           reinterpret_cast<question>(asked)() != 0;
  }
  return ::dlsym(library, kOldMark) != nullptr;
}

}  // namespace

void useThisCopy() {
  isUsed.store(true);
}

std::string otherCopyInUse() {
  const std::vector<std::string> names = libraries();
  const auto found = std::find_if(names.begin(), names.end(), [](const std::string& name) {
    void* const library = ::dlopen(name.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (library == nullptr) {
      return false;
    }
    const bool isOther = isInUse(library);
    ::dlclose(library);
    return isOther;
  });
  return found == names.end() ? std::string() : *found;
}

}  // namespace agent

extern "C" int twNativeAgentIsInUse() {
  return agent::isUsed.load() ? 1 : 0;
}
