#include "instruments/stackTable.h"

#include <algorithm>
#include <utility>

#include "support/jniRef.h"
#include "support/jvmtiPtr.h"
#include "support/text.h"

namespace instruments {

namespace {

// The source line of a place in a method; none when it has no line.
template <typename Lines>
std::optional<jint> lineAt(const Lines& lines, jlocation place) {
  std::optional<jint> found;
  jlocation nearest = -1;
  for (const auto& each : lines) {
    if (each.start <= place && each.start > nearest) {
      nearest = each.start;
      found = each.number;
    }
  }
  return found;
}

}  // namespace

std::uint32_t stackTable::idOf(jvmtiEnv* jvmti, JNIEnv* jni, std::span<const jvmtiFrameInfo> frames,
                               bool isCut) {
  stack trace{{}, isCut};
  trace.frames.reserve(frames.size());
  for (const jvmtiFrameInfo& each : frames) {
    const std::optional<std::uint32_t> id = frameOf(jvmti, jni, each);
    if (!id) {
      ++dropped_;
      return 0;
    }
    trace.frames.push_back(*id);
  }
  const auto kept = stacks_.find(trace);
  if (kept != stacks_.end()) {
    return kept->second;
  }
  if (stacks_.size() == mostStacks_) {
    ++dropped_;
    return 0;
  }
  const auto id = static_cast<std::uint32_t>(stacks_.size() + 1);
  order_.push_back(&stacks_.emplace(std::move(trace), id).first->first);
  return id;
}

void stackTable::clear() {
  methods_.clear();
  frames_.clear();
  texts_.clear();
  stacks_.clear();
  order_.clear();
  dropped_ = 0;
}

std::optional<std::uint32_t> stackTable::frameOf(jvmtiEnv* jvmti, JNIEnv* jni,
                                                 const jvmtiFrameInfo& frame) {
  knownMethod& method = methodOf(jvmti, jni, frame.method);
  const auto known = method.frames.find(frame.location);
  if (known != method.frames.end()) {
    return known->second;
  }
  std::string text = method.name;
  if (method.isNative) {
    text += "Native Method";
  } else if (method.file.empty()) {
    text += "Unknown Source";
  } else {
    text += method.file;
    if (const std::optional<jint> number = lineAt(method.lines, frame.location)) {
      text += ':' + std::to_string(*number);
    }
  }
  const std::optional<std::uint32_t> id = idOfText(text + ')');
  if (id) {
    method.frames[frame.location] = *id;
  }
  return id;
}

stackTable::knownMethod& stackTable::methodOf(jvmtiEnv* jvmti, JNIEnv* jni, jmethodID method) {
  const auto found = methods_.find(method);
  if (found != methods_.end()) {
    const support::heldClasses::entryPtr& cls = found->second.cls;
    if (cls && (cls->value.staysLoaded || !cls->cls.unloaded(jni))) {
      return found->second;
    }
  }
  if (methods_.size() >= mostFrames_) {
    methods_.clear();
  }
  return methods_[method] = readMethod(jvmti, jni, method);
}

stackTable::knownMethod stackTable::readMethod(jvmtiEnv* jvmti, JNIEnv* jni, jmethodID method) {
  knownMethod read;
  read.name = "?(";
  support::jvmtiText name(jvmti);
  name.fill([&](char** out) { return jvmti->GetMethodName(method, out, nullptr, nullptr); });
  jclass reference = nullptr;
  if (!name || jvmti->GetMethodDeclaringClass(method, &reference) != JVMTI_ERROR_NONE) {
    return read;
  }
  const support::localRef<jclass> cls(jni, reference);
  const support::classSignature signature(jvmti, cls.get());
  if (!signature) {
    return read;
  }
  read.cls = support::holdClass(jvmti, jni, classes_, cls.get());
  read.name = support::withoutAddress(support::classNameOf(signature.view()));
  read.name += '.';
  read.name += name.view();
  read.name += '(';
  support::jvmtiText file(jvmti);
  if (file.fill([&](char** out) { return jvmti->GetSourceFileName(cls.get(), out); }) ==
      JVMTI_ERROR_NONE) {
    read.file = file.view();
  }
  jint count = 0;
  support::jvmtiPtr<jvmtiLineNumberEntry> lines(jvmti);
  const jvmtiError error = lines.fill(
      [&](jvmtiLineNumberEntry** out) { return jvmti->GetLineNumberTable(method, &count, out); });
  read.isNative = error == JVMTI_ERROR_NATIVE_METHOD;
  if (error == JVMTI_ERROR_NONE) {
    for (jint i = 0; i < count; ++i) {
      read.lines.push_back({lines[i].start_location, lines[i].line_number});
    }
  }
  return read;
}

std::optional<std::uint32_t> stackTable::idOfText(std::string text) {
  const auto found = frames_.find(text);
  if (found != frames_.end()) {
    return found->second;
  }
  if (texts_.size() == mostFrames_) {
    return std::nullopt;
  }
  const auto id = static_cast<std::uint32_t>(texts_.size());
  texts_.push_back(text);
  frames_.emplace(std::move(text), id);
  return id;
}

}  // namespace instruments
