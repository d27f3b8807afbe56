// Owners of JNI references, frames, characters and pending exceptions.
#pragma once

#include <jni.h>

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace support {

// A local reference, deleted with its owner.
template <typename T = jobject>
class localRef {
 public:
  localRef() = default;
  localRef(JNIEnv* jni, T ref) : jni_(jni), ref_(ref) {}
  ~localRef() { reset(); }
  localRef(localRef&& other) noexcept
      : jni_(other.jni_), ref_(std::exchange(other.ref_, nullptr)) {}
  localRef& operator=(localRef&& other) noexcept {
    std::swap(jni_, other.jni_);
    std::swap(ref_, other.ref_);
    return *this;
  }

  T get() const { return ref_; }
  explicit operator bool() const { return ref_ != nullptr; }

 private:
  void reset() {
    if (ref_ != nullptr) {
      jni_->DeleteLocalRef(ref_);
    }
    ref_ = nullptr;
  }

  JNIEnv* jni_ = nullptr;
  T ref_ = nullptr;
};

// A local frame: every local reference made while it stands is freed with it. `capacity` is how
// many references the caller expects. A VM that cannot provide them makes no frame, and the
// references go to the frame around it. A caller that sees pushed() false deletes them one by one.
class localFrame {
 public:
  localFrame(JNIEnv* jni, jint capacity) : jni_(jni), pushed_(jni->PushLocalFrame(capacity) == 0) {
    if (!pushed_) {
      jni->ExceptionClear();
    }
  }
  ~localFrame() {
    if (pushed_) {
      jni_->PopLocalFrame(nullptr);
    }
  }
  bool pushed() const { return pushed_; }
  localFrame(const localFrame&) = delete;
  localFrame& operator=(const localFrame&) = delete;

 private:
  JNIEnv* jni_;
  bool pushed_;
};

// Puts a pending Java exception aside while the agent makes calls that are not allowed with one,
// clears whatever those calls left pending, and raises the exception again at the end.
class pendingExceptionGuard {
 public:
  explicit pendingExceptionGuard(JNIEnv* jni) : jni_(jni), saved_(jni, jni->ExceptionOccurred()) {
    if (saved_) {
      jni_->ExceptionClear();
    }
  }
  ~pendingExceptionGuard() {
    clear();
    if (saved_) {
      jni_->Throw(saved_.get());
    }
  }
  pendingExceptionGuard(const pendingExceptionGuard&) = delete;
  pendingExceptionGuard& operator=(const pendingExceptionGuard&) = delete;

  // Clears an exception that a call of the agent has raised; true when there was one.
  bool clear() {
    if (jni_->ExceptionCheck() == JNI_FALSE) {
      return false;
    }
    jni_->ExceptionClear();
    return true;
  }

 private:
  JNIEnv* jni_;
  localRef<jthrowable> saved_;
};

// The modified UTF-8 text of a Java string; none for null and when the VM has no memory for it (the
// OutOfMemoryError is then cleared).
inline std::optional<std::string> tryTextOf(JNIEnv* jni, jstring string) {
  if (string == nullptr) {
    return std::nullopt;
  }
  const char* const chars = jni->GetStringUTFChars(string, nullptr);
  if (chars == nullptr) {
    jni->ExceptionClear();
    return std::nullopt;
  }
  try {
    std::string text(chars);
    jni->ReleaseStringUTFChars(string, chars);
    return text;
  } catch (...) {
    jni->ReleaseStringUTFChars(string, chars);
    throw;
  }
}

// The same, with an empty text for none.
inline std::string textOf(JNIEnv* jni, jstring string) {
  return tryTextOf(jni, string).value_or(std::string());
}

// The first `count` numbers of a Java array; zeros when it does not have as many.
inline std::vector<jint> numbersOf(JNIEnv* jni, jintArray array, std::size_t count) {
  std::vector<jint> numbers(count);
  jni->GetIntArrayRegion(array, 0, static_cast<jsize>(count), numbers.data());
  if (jni->ExceptionCheck() != JNI_FALSE) {
    jni->ExceptionClear();
  }
  return numbers;
}

// A Java array with these numbers; none when the VM refuses, and then its exception is pending.
inline localRef<jintArray> newNumbers(JNIEnv* jni, const std::vector<jint>& numbers) {
  const auto count = static_cast<jsize>(numbers.size());
  localRef<jintArray> array(jni, jni->NewIntArray(count));
  if (array) {
    jni->SetIntArrayRegion(array.get(), 0, count, numbers.data());
  }
  return array;
}

// Writes numbers into a Java array; nothing when it does not have room for as many.
inline void setNumbers(JNIEnv* jni, jintArray array, const std::vector<jint>& numbers) {
  jni->SetIntArrayRegion(array, 0, static_cast<jsize>(numbers.size()), numbers.data());
  if (jni->ExceptionCheck() != JNI_FALSE) {
    jni->ExceptionClear();
  }
}

}  // namespace support
