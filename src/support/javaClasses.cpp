#include "support/javaClasses.h"

#include <algorithm>
#include <mutex>

#include "support/jniRef.h"

namespace support {

javaClass::javaClass(JNIEnv* jni, jclass cls, std::string name) : name_(std::move(name)) {
  if (jni->GetJavaVM(&vm_) != JNI_OK) return;
  reference_ = jni->NewWeakGlobalRef(cls);
  if (reference_ == nullptr) jni->ExceptionClear();
}

// Whoever lets go last may be any thread of the VM, or the one that unloads the agent.
javaClass::~javaClass() {
  if (reference_ == nullptr) return;
  void* jni = nullptr;
  if (vm_->GetEnv(&jni, JNI_VERSION_1_8) != JNI_OK) return;
  static_cast<JNIEnv*>(jni)->DeleteWeakGlobalRef(reference_);
}

classNameResult javaClasses::of(jvmtiEnv* jvmti, JNIEnv* jni, jobject object, jclass cls) {
  jint hash = 0;
  if (jvmti->GetObjectHashCode(cls, &hash) != JVMTI_ERROR_NONE) hash = 0;
  for (entry& each : candidates(hash)) {
    if (each->is(jni, cls)) return {std::move(each), classNameFailure::none};
  }
  std::string name;
  const classNameFailure failure = readName(jni, object, cls, name);
  if (failure != classNameFailure::none) return {nullptr, failure};
  auto made = std::make_shared<const javaClass>(jni, cls, std::move(name));
  keep(jni, hash, made);
  return {std::move(made), classNameFailure::none};
}

std::size_t javaClasses::size() const {
  const std::shared_lock guard(mutex_);
  return byHash_.size();
}

classNameFailure javaClasses::readName(JNIEnv* jni, jobject object, jclass cls, std::string& name) {
  pendingExceptionGuard exceptions(jni);
  jmethodID getClass = getClass_.load(std::memory_order_relaxed);
  if (getClass == nullptr) {
    getClass = jni->GetMethodID(cls, "getClass", "()Ljava/lang/Class;");
    if (getClass == nullptr) return classNameFailure::noGetClass;
    getClass_.store(getClass, std::memory_order_relaxed);
  }
  const localRef<> classObject(jni, jni->CallObjectMethod(object, getClass));
  if (exceptions.clear() || !classObject) return classNameFailure::empty;

  jmethodID getName = getName_.load(std::memory_order_relaxed);
  if (getName == nullptr) {
    const localRef<jclass> classOfClass(jni, jni->GetObjectClass(classObject.get()));
    getName = jni->GetMethodID(classOfClass.get(), "getName", "()Ljava/lang/String;");
    if (getName == nullptr) return classNameFailure::noGetName;
    getName_.store(getName, std::memory_order_relaxed);
  }
  const localRef<jstring> string(
      jni, static_cast<jstring>(jni->CallObjectMethod(classObject.get(), getName)));
  if (exceptions.clear()) return classNameFailure::empty;
  name = textOf(jni, string.get());
  return name.empty() ? classNameFailure::empty : classNameFailure::none;
}

std::vector<javaClasses::entry> javaClasses::candidates(jint hash) const {
  std::vector<entry> sameHash;
  const std::shared_lock guard(mutex_);
  const auto [begin, end] = byHash_.equal_range(hash);
  for (auto each = begin; each != end; ++each) sameHash.push_back(each->second);
  return sameHash;
}

void javaClasses::keep(JNIEnv* jni, jint hash, const entry& made) {
  bool sweep = false;
  {
    const std::unique_lock guard(mutex_);
    byHash_.emplace(hash, made);
    sweep = byHash_.size() >= sizeToSweep_;
  }
  if (sweep) dropUnloaded(jni);
}

// Unloaded classes leave when the number of kept ones has doubled since the last time.
void javaClasses::dropUnloaded(JNIEnv* jni) {
  std::vector<entry> all;
  {
    const std::shared_lock guard(mutex_);
    for (const auto& [hash, each] : byHash_) all.push_back(each);
  }
  std::erase_if(all, [&](const entry& each) { return !each->unloaded(jni); });
  std::sort(all.begin(), all.end());
  {
    const std::unique_lock guard(mutex_);
    std::erase_if(byHash_, [&](const auto& kept) {
      return std::binary_search(all.begin(), all.end(), kept.second);
    });
    constexpr std::size_t kFewest = 64;
    sizeToSweep_ = std::max(kFewest, 2 * byHash_.size());
  }
}  // the weak references of what was dropped are deleted here, unlocked

}  // namespace support
