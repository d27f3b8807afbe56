#include "locks/stackTraces.h"

#include <algorithm>
#include <utility>

#include "support/fileWriter.h"
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
  if (!name || jvmti->GetMethodDeclaringClass(method, &cls) != JVMTI_ERROR_NONE) {
    return false;
  }
  declaring = support::localRef<jclass>(jni, cls);
  const support::classSignature signature(jvmti, cls);
  if (!signature) {
    return false;
  }
  text += "at ";
  support::appendDottedClass(text, signature.view());
  text += '.';
  text += name.view();
  text += "()\n";
  return true;
}

}  // namespace

void countStackTrace(stackTraceBeans& beans, std::uint64_t hash) {
  const auto [bean, isNew] = beans.try_emplace(hash);
  if (isNew) {
    return;
  }
  ++bean->second.count;
  bean->second.hashcode = hash;
}

void mergeStackTraces(stackTraceBeans& into, const stackTraceBeans& from) {
  for (const auto& [hash, bean] : from) {
    const auto [merged, isNew] = into.try_emplace(hash, bean);
    if (isNew) {
      continue;
    }
    merged->second.count += bean.count;
    merged->second.hashcode = hash;
  }
}

// Deliberate: "()" whatever the arguments, and no line numbers.
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
      heldClasses::entryPtr entry = support::holdClass(jvmti, jni, held, cls.get());
      if (entry->value.staysLoaded) {
        continue;
      }
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
  if (found == nullptr) {
    return std::nullopt;
  }
  return found->hash;
}

void knownStackTraces::remember(stackFrames frames, std::uint64_t hash,
                                std::vector<heldClasses::entryPtr> classes) {
  std::vector<jmethodID> methods;
  methods.reserve(frames.size());
  for (const jvmtiFrameInfo& each : frames) {
    methods.push_back(each.method);
  }
  using node = support::insertOnlyMap<trace>::node;
  auto entry = std::make_unique<node>(keyOf(frames), hash, std::move(methods), std::move(classes));
  const support::lockGuard guard(tracesMutex_);
  traces_.insert(std::move(entry));
}

bool knownStackTraces::add(std::uint64_t hash, std::string_view text) {
  if (knows(hash)) {
    return false;
  }
  // Deliberate: the hash is that of the lines, the text kept has commas instead.
  std::string joined(text);
  std::replace(joined.begin(), joined.end(), '\n', ',');
  if (!joined.empty()) {
    joined.pop_back();
  }

  using node = support::insertOnlyMap<nothing>::node;
  auto entry = std::make_unique<node>(hash);
  const support::lockGuard guard(stackMapMutex_);
  if (knows(hash)) {
    return false;
  }
  stacktracemap_.insert_or_assign(hash, std::move(joined));
  stackHashMap_.insert(std::move(entry));
  return true;
}

std::vector<std::uint64_t> knownStackTraces::hashes() const {
  std::vector<std::uint64_t> hashes;
  hashes.reserve(stackHashMap_.size());
  stackHashMap_.forEach([&](std::uint64_t hash, const nothing&) { hashes.push_back(hash); });
  std::sort(hashes.begin(), hashes.end());
  return hashes;
}

std::map<std::uint64_t, std::string> knownStackTraces::texts() const {
  const support::lockGuard guard(stackMapMutex_);
  return stacktracemap_;
}

std::optional<knownStackTraces::written> knownStackTraces::writeTexts(const std::string& path) {
  const support::lockGuard guard(stackMapMutex_);
  if (stacktracemap_.empty()) {
    return std::nullopt;
  }
  support::fileWriter file(support::fileSystemPath(path), support::fileWriter::mode::append);
  written result{stacktracemap_.size(), {}};
  for (const auto& [hash, text] : stacktracemap_) {
    file.write(std::to_string(hash));
    file.write("=[");
    file.write(text);
    file.write("]\n");
  }
  stacktracemap_.clear();  // Deliberate: also of what could not be written
  result.error = file.close();
  return result;
}

}  // namespace agent
