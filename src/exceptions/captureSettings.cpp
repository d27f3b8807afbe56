#include "exceptions/captureSettings.h"

#include <stdexcept>

#include "support/jniRef.h"
#include "support/text.h"

namespace agent {

namespace {

constexpr const char* kCallbackClass = "com/korvane/twutils/nativeagent/TWNativeAgentProfiling";

}  // namespace

ExceptionCaptureSettings::~ExceptionCaptureSettings() {
  void* jni = nullptr;
  if (callbackClass == nullptr || vm_->GetEnv(&jni, JNI_VERSION_1_8) != JNI_OK) {
    return;
  }
  static_cast<JNIEnv*>(jni)->DeleteGlobalRef(callbackClass);
}

void ExceptionCaptureSettings::findCallback(JNIEnv* jni) {
  const support::pendingExceptionGuard exceptions(jni);
  if (jni->GetJavaVM(&vm_) != JNI_OK) {
    return;
  }
  const support::localRef<jclass> found(jni, jni->FindClass(kCallbackClass));
  if (!found) {
    return;
  }
  // Deliberate: looked up, and never called.
  getObjectValueMethod = jni->GetStaticMethodID(found.get(), "getobjectValue",
                                                "(Ljava/lang/Object;)Ljava/lang/String;");
  if (getObjectValueMethod == nullptr) {
    jni->ExceptionClear();
  }
  onExceptionOccuredMethod = jni->GetStaticMethodID(found.get(), "onExceptionOccured",
                                                    "(Ljava/lang/String;Ljava/lang/Object;)V");
  if (onExceptionOccuredMethod == nullptr) {
    jni->ExceptionClear();
  }
  onExceptionRecordMethod = jni->GetStaticMethodID(found.get(), "onExceptionRecord",
                                                   "(Ljava/lang/String;Ljava/lang/Object;[II)V");
  if (onExceptionRecordMethod == nullptr) {
    jni->ExceptionClear();
  }
  callbackClass = static_cast<jclass>(jni->NewGlobalRef(found.get()));
}

// Deliberate: odd words and blanks, as elsewhere in this profiler's texts.
std::string ExceptionCaptureSettings::describe() const {
  std::string text =
      "********Enabling Exception Capture feature : \n\t\tClass variales capturing status : ";
  text += std::to_string(static_cast<int>(captureClassVariables));
  text += "\n\t\tMethod arguments capturing Status :";
  text += std::to_string(static_cast<int>(captureMethodArguments));
  text += "\n\t\tLocal variable capturing status :";
  text += std::to_string(static_cast<int>(captureLocalVariables));
  text += "\n\t\tThread Local capturing status :";
  text += std::to_string(static_cast<int>(captureThreadLocals));
  text += "\n\t\tException capturing Rate:" + std::to_string(captureRate);
  text += "\n\t\tStackTrace depth:" + std::to_string(stackTraceDepth);
  return text;
}

std::vector<std::string> parseBlackList(std::string_view text) {
  if (text.empty()) {
    throw std::out_of_range("invalid string position");
  }
  std::string names = support::lowerCase(text);
  // Deliberate: one character goes on each side, whatever it is.
  names.pop_back();
  if (!names.empty()) {
    names.erase(0, 1);
  }
  std::vector<std::string> list;
  support::forEachPiece(names, ',', [&](std::string_view name) { list.emplace_back(name); });
  return list;
}

}  // namespace agent
