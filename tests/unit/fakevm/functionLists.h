// The names of the slots of the VM's function tables, as the JDK 17 headers have them. A later JDK
// fills some reserved slots; those are known by their number.
#pragma once

// clang-format off
#define FAKE_JVMTI_FUNCTIONS(X) \
  X(SetEventNotificationMode) X(GetAllModules) X(GetAllThreads) X(SuspendThread) X(ResumeThread) \
  X(StopThread) X(InterruptThread) X(GetThreadInfo) X(GetOwnedMonitorInfo) \
  X(GetCurrentContendedMonitor) X(RunAgentThread) X(GetTopThreadGroups) X(GetThreadGroupInfo) \
  X(GetThreadGroupChildren) X(GetFrameCount) X(GetThreadState) X(GetCurrentThread) \
  X(GetFrameLocation) X(NotifyFramePop) X(GetLocalObject) X(GetLocalInt) X(GetLocalLong) \
  X(GetLocalFloat) X(GetLocalDouble) X(SetLocalObject) X(SetLocalInt) X(SetLocalLong) \
  X(SetLocalFloat) X(SetLocalDouble) X(CreateRawMonitor) X(DestroyRawMonitor) X(RawMonitorEnter) \
  X(RawMonitorExit) X(RawMonitorWait) X(RawMonitorNotify) X(RawMonitorNotifyAll) X(SetBreakpoint) \
  X(ClearBreakpoint) X(GetNamedModule) X(SetFieldAccessWatch) X(ClearFieldAccessWatch) \
  X(SetFieldModificationWatch) X(ClearFieldModificationWatch) X(IsModifiableClass) X(Allocate) \
  X(Deallocate) X(GetClassSignature) X(GetClassStatus) X(GetSourceFileName) X(GetClassModifiers) \
  X(GetClassMethods) X(GetClassFields) X(GetImplementedInterfaces) X(IsInterface) X(IsArrayClass) \
  X(GetClassLoader) X(GetObjectHashCode) X(GetObjectMonitorUsage) X(GetFieldName) \
  X(GetFieldDeclaringClass) X(GetFieldModifiers) X(IsFieldSynthetic) X(GetMethodName) \
  X(GetMethodDeclaringClass) X(GetMethodModifiers) X(GetMaxLocals) X(GetArgumentsSize) \
  X(GetLineNumberTable) X(GetMethodLocation) X(GetLocalVariableTable) X(SetNativeMethodPrefix) \
  X(SetNativeMethodPrefixes) X(GetBytecodes) X(IsMethodNative) X(IsMethodSynthetic) \
  X(GetLoadedClasses) X(GetClassLoaderClasses) X(PopFrame) X(ForceEarlyReturnObject) \
  X(ForceEarlyReturnInt) X(ForceEarlyReturnLong) X(ForceEarlyReturnFloat) \
  X(ForceEarlyReturnDouble) X(ForceEarlyReturnVoid) X(RedefineClasses) X(GetVersionNumber) \
  X(GetCapabilities) X(GetSourceDebugExtension) X(IsMethodObsolete) X(SuspendThreadList) \
  X(ResumeThreadList) X(AddModuleReads) X(AddModuleExports) X(AddModuleOpens) X(AddModuleUses) \
  X(AddModuleProvides) X(IsModifiableModule) X(GetAllStackTraces) X(GetThreadListStackTraces) \
  X(GetThreadLocalStorage) X(SetThreadLocalStorage) X(GetStackTrace) X(GetTag) X(SetTag) \
  X(ForceGarbageCollection) X(IterateOverObjectsReachableFromObject) \
  X(IterateOverReachableObjects) X(IterateOverHeap) X(IterateOverInstancesOfClass) \
  X(GetObjectsWithTags) X(FollowReferences) X(IterateThroughHeap) X(SetJNIFunctionTable) \
  X(GetJNIFunctionTable) X(SetEventCallbacks) X(GenerateEvents) X(GetExtensionFunctions) \
  X(GetExtensionEvents) X(SetExtensionEventCallback) X(DisposeEnvironment) X(GetErrorName) \
  X(GetJLocationFormat) X(GetSystemProperties) X(GetSystemProperty) X(SetSystemProperty) \
  X(GetPhase) X(GetCurrentThreadCpuTimerInfo) X(GetCurrentThreadCpuTime) X(GetThreadCpuTimerInfo) \
  X(GetThreadCpuTime) X(GetTimerInfo) X(GetTime) X(GetPotentialCapabilities) X(AddCapabilities) \
  X(RelinquishCapabilities) X(GetAvailableProcessors) X(GetClassVersionNumbers) X(GetConstantPool) \
  X(GetEnvironmentLocalStorage) X(SetEnvironmentLocalStorage) X(AddToBootstrapClassLoaderSearch) \
  X(SetVerboseFlag) X(AddToSystemClassLoaderSearch) X(RetransformClasses) \
  X(GetOwnedMonitorStackDepthInfo) X(GetObjectSize) X(GetLocalInstance) X(SetHeapSamplingInterval)

#define FAKE_JNI_FUNCTIONS(X) \
  X(GetVersion) X(DefineClass) X(FindClass) X(FromReflectedMethod) X(FromReflectedField) \
  X(ToReflectedMethod) X(GetSuperclass) X(IsAssignableFrom) X(ToReflectedField) X(Throw) \
  X(ThrowNew) X(ExceptionOccurred) X(ExceptionDescribe) X(ExceptionClear) X(FatalError) \
  X(PushLocalFrame) X(PopLocalFrame) X(NewGlobalRef) X(DeleteGlobalRef) X(DeleteLocalRef) \
  X(IsSameObject) X(NewLocalRef) X(EnsureLocalCapacity) X(AllocObject) X(NewObject) X(NewObjectV) \
  X(NewObjectA) X(GetObjectClass) X(IsInstanceOf) X(GetMethodID) X(CallObjectMethod) \
  X(CallObjectMethodV) X(CallObjectMethodA) X(CallBooleanMethod) X(CallBooleanMethodV) \
  X(CallBooleanMethodA) X(CallByteMethod) X(CallByteMethodV) X(CallByteMethodA) X(CallCharMethod) \
  X(CallCharMethodV) X(CallCharMethodA) X(CallShortMethod) X(CallShortMethodV) X(CallShortMethodA) \
  X(CallIntMethod) X(CallIntMethodV) X(CallIntMethodA) X(CallLongMethod) X(CallLongMethodV) \
  X(CallLongMethodA) X(CallFloatMethod) X(CallFloatMethodV) X(CallFloatMethodA) \
  X(CallDoubleMethod) X(CallDoubleMethodV) X(CallDoubleMethodA) X(CallVoidMethod) \
  X(CallVoidMethodV) X(CallVoidMethodA) X(CallNonvirtualObjectMethod) \
  X(CallNonvirtualObjectMethodV) X(CallNonvirtualObjectMethodA) X(CallNonvirtualBooleanMethod) \
  X(CallNonvirtualBooleanMethodV) X(CallNonvirtualBooleanMethodA) X(CallNonvirtualByteMethod) \
  X(CallNonvirtualByteMethodV) X(CallNonvirtualByteMethodA) X(CallNonvirtualCharMethod) \
  X(CallNonvirtualCharMethodV) X(CallNonvirtualCharMethodA) X(CallNonvirtualShortMethod) \
  X(CallNonvirtualShortMethodV) X(CallNonvirtualShortMethodA) X(CallNonvirtualIntMethod) \
  X(CallNonvirtualIntMethodV) X(CallNonvirtualIntMethodA) X(CallNonvirtualLongMethod) \
  X(CallNonvirtualLongMethodV) X(CallNonvirtualLongMethodA) X(CallNonvirtualFloatMethod) \
  X(CallNonvirtualFloatMethodV) X(CallNonvirtualFloatMethodA) X(CallNonvirtualDoubleMethod) \
  X(CallNonvirtualDoubleMethodV) X(CallNonvirtualDoubleMethodA) X(CallNonvirtualVoidMethod) \
  X(CallNonvirtualVoidMethodV) X(CallNonvirtualVoidMethodA) X(GetFieldID) X(GetObjectField) \
  X(GetBooleanField) X(GetByteField) X(GetCharField) X(GetShortField) X(GetIntField) \
  X(GetLongField) X(GetFloatField) X(GetDoubleField) X(SetObjectField) X(SetBooleanField) \
  X(SetByteField) X(SetCharField) X(SetShortField) X(SetIntField) X(SetLongField) X(SetFloatField) \
  X(SetDoubleField) X(GetStaticMethodID) X(CallStaticObjectMethod) X(CallStaticObjectMethodV) \
  X(CallStaticObjectMethodA) X(CallStaticBooleanMethod) X(CallStaticBooleanMethodV) \
  X(CallStaticBooleanMethodA) X(CallStaticByteMethod) X(CallStaticByteMethodV) \
  X(CallStaticByteMethodA) X(CallStaticCharMethod) X(CallStaticCharMethodV) \
  X(CallStaticCharMethodA) X(CallStaticShortMethod) X(CallStaticShortMethodV) \
  X(CallStaticShortMethodA) X(CallStaticIntMethod) X(CallStaticIntMethodV) X(CallStaticIntMethodA) \
  X(CallStaticLongMethod) X(CallStaticLongMethodV) X(CallStaticLongMethodA) \
  X(CallStaticFloatMethod) X(CallStaticFloatMethodV) X(CallStaticFloatMethodA) \
  X(CallStaticDoubleMethod) X(CallStaticDoubleMethodV) X(CallStaticDoubleMethodA) \
  X(CallStaticVoidMethod) X(CallStaticVoidMethodV) X(CallStaticVoidMethodA) X(GetStaticFieldID) \
  X(GetStaticObjectField) X(GetStaticBooleanField) X(GetStaticByteField) X(GetStaticCharField) \
  X(GetStaticShortField) X(GetStaticIntField) X(GetStaticLongField) X(GetStaticFloatField) \
  X(GetStaticDoubleField) X(SetStaticObjectField) X(SetStaticBooleanField) X(SetStaticByteField) \
  X(SetStaticCharField) X(SetStaticShortField) X(SetStaticIntField) X(SetStaticLongField) \
  X(SetStaticFloatField) X(SetStaticDoubleField) X(NewString) X(GetStringLength) X(GetStringChars) \
  X(ReleaseStringChars) X(NewStringUTF) X(GetStringUTFLength) X(GetStringUTFChars) \
  X(ReleaseStringUTFChars) X(GetArrayLength) X(NewObjectArray) X(GetObjectArrayElement) \
  X(SetObjectArrayElement) X(NewBooleanArray) X(NewByteArray) X(NewCharArray) X(NewShortArray) \
  X(NewIntArray) X(NewLongArray) X(NewFloatArray) X(NewDoubleArray) X(GetBooleanArrayElements) \
  X(GetByteArrayElements) X(GetCharArrayElements) X(GetShortArrayElements) X(GetIntArrayElements) \
  X(GetLongArrayElements) X(GetFloatArrayElements) X(GetDoubleArrayElements) \
  X(ReleaseBooleanArrayElements) X(ReleaseByteArrayElements) X(ReleaseCharArrayElements) \
  X(ReleaseShortArrayElements) X(ReleaseIntArrayElements) X(ReleaseLongArrayElements) \
  X(ReleaseFloatArrayElements) X(ReleaseDoubleArrayElements) X(GetBooleanArrayRegion) \
  X(GetByteArrayRegion) X(GetCharArrayRegion) X(GetShortArrayRegion) X(GetIntArrayRegion) \
  X(GetLongArrayRegion) X(GetFloatArrayRegion) X(GetDoubleArrayRegion) X(SetBooleanArrayRegion) \
  X(SetByteArrayRegion) X(SetCharArrayRegion) X(SetShortArrayRegion) X(SetIntArrayRegion) \
  X(SetLongArrayRegion) X(SetFloatArrayRegion) X(SetDoubleArrayRegion) X(RegisterNatives) \
  X(UnregisterNatives) X(MonitorEnter) X(MonitorExit) X(GetJavaVM) X(GetStringRegion) \
  X(GetStringUTFRegion) X(GetPrimitiveArrayCritical) X(ReleasePrimitiveArrayCritical) \
  X(GetStringCritical) X(ReleaseStringCritical) X(NewWeakGlobalRef) X(DeleteWeakGlobalRef) \
  X(ExceptionCheck) X(NewDirectByteBuffer) X(GetDirectBufferAddress) X(GetDirectBufferCapacity) \
  X(GetObjectRefType) X(GetModule)

#define FAKE_INVOCATION_FUNCTIONS(X) \
  X(DestroyJavaVM) X(AttachCurrentThread) X(DetachCurrentThread) X(GetEnv) \
  X(AttachCurrentThreadAsDaemon)
// clang-format on
