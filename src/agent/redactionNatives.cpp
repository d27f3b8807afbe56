// Native methods of AgentRedaction: how the redaction is configured, and used by Java.
#include <com_korvane_twutils_nativeagent_AgentRedaction.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/nativeMethod.h"
#include "exceptions/redaction.h"
#include "support/jniRef.h"
#include "support/text.h"

using namespace agent;

namespace {

constexpr const char* kNotScanned = "<redacted:notScanned>";

// Its lines.
std::vector<std::string> listOf(JNIEnv* jni, jstring text) {
  std::vector<std::string> list;
  support::forEachPiece(support::textOf(jni, text), '\n',
                        [&](std::string_view entry) { list.emplace_back(entry); });
  return list;
}

// As much of a text as is searched. False when it cannot be read.
bool read(JNIEnv* jni, jstring text, std::string& out, bool& isWhole) {
  constexpr std::size_t kBytesOfUnit = 3;
  const auto units = static_cast<std::size_t>(jni->GetStringLength(text));
  const std::size_t taken = std::min(units, redacted::kScannedBytes + 1);
  isWhole = taken == units;
  out.resize(taken * kBytesOfUnit + 1);
  jni->GetStringUTFRegion(text, 0, static_cast<jsize>(taken), out.data());
  if (jni->ExceptionCheck() != JNI_FALSE) {
    return false;
  }
  out.resize(std::char_traits<char>::length(out.data()));
  return true;
}

// `original` when nothing in it is hidden. Null, with a Java exception pending, when there is no
// memory for it.
jstring redactedText(JNIEnv* jni, const redaction& rules, jstring original) {
  std::string text;
  std::string changed;
  bool isWhole = false;
  if (!rules.looksAtValues()) {
    return original;
  }
  if (!read(jni, original, text, isWhole)) {
    return nullptr;
  }
  const std::string_view shown = rules.text(text, isWhole, changed);
  return shown.data() == text.data() ? original : jni->NewStringUTF(changed.c_str());
}

}  // namespace

#define TW_REDACTION(method) Java_com_korvane_twutils_nativeagent_AgentRedaction_##method
#define TW_REDACTION_NAME(method) "Java_com_korvane_twutils_nativeagent_AgentRedaction_" #method

JNIEXPORT jstring JNICALL TW_REDACTION(configure)(JNIEnv* jni, jclass /*cls*/, jstring mode,
                                                  jstring names, jstring types, jstring values,
                                                  jstring shown) {
  return nativeText(TW_REDACTION_NAME(configure), jni, [&] {
    const std::string word = support::textOf(jni, mode);
    const std::optional<redactionMode> wanted = redactionModeOf(word);
    if (!wanted) {
      return "redact '" + word + "': expected off, names, standard or strict";
    }
    return redaction::configure({.mode = *wanted,
                                 .names = listOf(jni, names),
                                 .types = listOf(jni, types),
                                 .values = listOf(jni, values),
                                 .shown = listOf(jni, shown)});
  });
}

JNIEXPORT jstring JNICALL TW_REDACTION(mode)(JNIEnv* jni, jclass /*cls*/) {
  const std::shared_ptr<const redaction> rules = redaction::ofProcess();
  const redactionMode mode = rules ? rules->mode() : redactionMode::off;
  return jni->NewStringUTF(std::string(nameOf(mode)).c_str());
}

JNIEXPORT jstring JNICALL TW_REDACTION(text)(JNIEnv* jni, jclass /*cls*/, jstring text) {
  jstring result = nullptr;
  const jint done = native(TW_REDACTION_NAME(text), [&] {
    const std::shared_ptr<const redaction> rules = redaction::ofProcess();
    result = rules && text != nullptr ? redactedText(jni, *rules, text) : text;
    return 1;
  });
  return done == 1 ? result : jni->NewStringUTF(kNotScanned);
}

JNIEXPORT jstring JNICALL TW_REDACTION(named)(JNIEnv* jni, jclass /*cls*/, jstring name,
                                              jstring text) {
  jstring result = nullptr;
  const jint done = native(TW_REDACTION_NAME(named), [&] {
    const std::shared_ptr<const redaction> rules = redaction::ofProcess();
    if (!rules || text == nullptr) {
      result = text;
      return 1;
    }
    const std::string variable = support::textOf(jni, name);
    const auto why = rules->ofVariable(variable, "Ljava/lang/String;");
    result =
        why ? jni->NewStringUTF(redacted::markOf(*why).c_str()) : redactedText(jni, *rules, text);
    return 1;
  });
  return done == 1 ? result : jni->NewStringUTF(kNotScanned);
}
