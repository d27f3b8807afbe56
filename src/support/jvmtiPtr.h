// Owners of memory that JVMTI functions allocate: each frees with Deallocate what the call wrote.
// An owner is filled through out() and counts as empty unless the call answered JVMTI_ERROR_NONE:
// a failed call may leave its outputs unset.
#pragma once

#include <jvmti.h>

#include <string_view>
#include <utility>

namespace support {

template <typename T>
class jvmtiPtr {
 public:
  explicit jvmtiPtr(jvmtiEnv* jvmti) : jvmti_(jvmti) {}
  ~jvmtiPtr() { reset(); }
  jvmtiPtr(const jvmtiPtr&) = delete;
  jvmtiPtr& operator=(const jvmtiPtr&) = delete;

  // Runs `call(T** out)`, a JVMTI call that allocates; keeps what it wrote if it answered NONE.
  template <typename Call>
  jvmtiError fill(Call&& call) {
    reset();
    T* written = nullptr;
    const jvmtiError error = call(&written);
    if (error == JVMTI_ERROR_NONE) {
      value_ = written;
    }
    return error;
  }

  // Takes over memory that a JVMTI call has written into a record.
  void adopt(T* value) {
    reset();
    value_ = value;
  }

  // Leaves the memory to the caller.
  T* release() { return std::exchange(value_, nullptr); }

  T* get() const { return value_; }
  T& operator[](jint index) const { return value_[index]; }
  explicit operator bool() const { return value_ != nullptr; }

 private:
  void reset() {
    if (value_ == nullptr) {
      return;
    }
    jvmti_->Deallocate(reinterpret_cast<unsigned char*>(value_));
    value_ = nullptr;
  }

  jvmtiEnv* jvmti_;
  T* value_ = nullptr;
};

// A text that JVMTI allocated (a name, a signature); empty when there is none.
class jvmtiText : public jvmtiPtr<char> {
 public:
  using jvmtiPtr::jvmtiPtr;
  std::string_view view() const { return get() == nullptr ? std::string_view() : get(); }
};

}  // namespace support
