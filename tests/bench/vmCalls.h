// The VM calls that handlers cannot do without, made alone: what a handler costs beside them is the
// agent's.
#pragma once

#include <benchmark/benchmark.h>
#include <jvmti.h>

#include <array>

inline void identityCalls(jvmtiEnv* jvmti, JNIEnv* jni, jobject lock) {
  jint hash = 0;
  jclass const cls = jni->GetObjectClass(lock);
  jvmti->GetObjectHashCode(lock, &hash);
  benchmark::DoNotOptimize(jni->IsSameObject(cls, cls));
  jni->DeleteLocalRef(cls);
}

[[gnu::noinline]] inline void enterCalls(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                         jobject lock) {
  jlong time = 0;
  jvmti->GetTime(&time);
  jvmti->SetThreadLocalStorage(thread, reinterpret_cast<void*>(time));
  identityCalls(jvmti, jni, lock);
}

[[gnu::noinline]] inline void enteredCalls(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread,
                                           jobject lock) {
  jlong time = 0;
  void* start = nullptr;
  jvmti->GetTime(&time);
  jvmti->GetThreadLocalStorage(thread, &start);
  identityCalls(jvmti, jni, lock);
}

inline void threadNameCalls(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread) {
  jvmtiThreadInfo info{};
  jvmti->GetThreadInfo(thread, &info);
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(info.name));
  if (info.thread_group != nullptr) {
    jni->DeleteLocalRef(info.thread_group);
  }
  if (info.context_class_loader != nullptr) {
    jni->DeleteLocalRef(info.context_class_loader);
  }
}

inline void stackCalls(jvmtiEnv* jvmti, jthread thread) {
  std::array<jvmtiFrameInfo, 100> frames;
  jint count = 0;
  jvmti->GetStackTrace(thread, 0, 100, frames.data(), &count);
  benchmark::DoNotOptimize(frames);
}

inline void usageCalls(jvmtiEnv* jvmti, JNIEnv* jni, jobject lock) {
  jvmtiMonitorUsage usage{};
  jni->PushLocalFrame(16);
  jvmti->GetObjectMonitorUsage(lock, &usage);
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(usage.waiters));
  jvmti->Deallocate(reinterpret_cast<unsigned char*>(usage.notify_waiters));
  jni->PopLocalFrame(nullptr);
}

// In a detail session, of a lock that is selected.
inline void selectedEnterCalls(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
  enterCalls(jvmti, jni, thread, lock);
  threadNameCalls(jvmti, jni, thread);
  usageCalls(jvmti, jni, lock);
  threadNameCalls(jvmti, jni, thread);  // of the owner
  stackCalls(jvmti, thread);
}

inline void selectedEnteredCalls(jvmtiEnv* jvmti, JNIEnv* jni, jthread thread, jobject lock) {
  enteredCalls(jvmti, jni, thread, lock);
  threadNameCalls(jvmti, jni, thread);
}

// Of an exception that is not recorded.
inline void thrownCalls(jvmtiEnv* jvmti, JNIEnv* jni, jmethodID method, jobject exception) {
  jint hash = 0;
  jclass const cls = jni->GetObjectClass(exception);
  jvmti->GetObjectHashCode(cls, &hash);
  benchmark::DoNotOptimize(jni->IsSameObject(cls, cls));
  jclass declaring = nullptr;
  jvmti->GetMethodDeclaringClass(method, &declaring);
  jvmti->GetObjectHashCode(declaring, &hash);
  benchmark::DoNotOptimize(jni->IsSameObject(declaring, declaring));
  jni->DeleteLocalRef(declaring);
  jni->DeleteLocalRef(cls);
}
