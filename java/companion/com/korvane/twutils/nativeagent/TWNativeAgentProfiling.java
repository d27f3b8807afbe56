package com.korvane.twutils.nativeagent;

/**
 * Drives the native agent from inside the profiled program.
 *
 * <p>The natives bind from the library that the JVM was started with ({@code
 * -agentpath:.../libjavanativeagent.so}); this class loads nothing by itself. Without the agent
 * every native throws {@link UnsatisfiedLinkError}. A native whose profiler was not chosen with
 * {@code features=} does nothing and returns 0.
 *
 * <p>Callers issue control calls one at a time.
 */
public final class TWNativeAgentProfiling {
  private static volatile RecordSink recordSink;

  private TWNativeAgentProfiling() {}

  /**
   * Opens a lock profiling session: sets its limits and forgets what an earlier one gathered.
   *
   * @param sessionId reported as "sessionid" (its low 32 bits)
   * @param sessionName reported as "sessionname"
   * @param durationSeconds length of the session; each whole minute is one slot of the lock graphs
   * @param topLockCount how many locks the detail session records; negative for all
   * @param maxLockCount how many distinct locks are recorded
   * @param maxThreadPerLockCount how many threads are recorded for each lock
   * @param maxThreadCount how many owner threads are recorded
   * @param maxStackTraceCount how many cut stack traces (100 frames) write the stack file at once
   * @param maxStackTraceCountPerThread logged with the session
   * @param stackFilePath the file that stack traces are appended to
   * @return 1 when the session was configured, else 0
   */
  public static native int startMutexLockProfilingSession(
      long sessionId,
      String sessionName,
      long durationSeconds,
      int topLockCount,
      int maxLockCount,
      int maxThreadPerLockCount,
      int maxThreadCount,
      int maxStackTraceCount,
      int maxStackTraceCountPerThread,
      String stackFilePath);

  /** Starts counting contended entries for every lock. */
  public static native int startMutexLockSummarySession(long sessionId);

  /** Ranks the locks seen so far and records threads, owners, waits and stacks from here on. */
  public static native int startMutexLockDetailSession(long sessionId);

  /** Ends the summary phase. */
  public static native int stopMutexLockSummarySession(long sessionId);

  /** Ends the detail phase. */
  public static native int stopMutexLockDetailSession(long sessionId);

  /**
   * Closes the lock profiling session and writes its report.
   *
   * @return 1 when the report was written, else 0
   */
  public static native int stopMutexLockProfilingSession(long sessionId, String reportPath);

  /**
   * Opens a memory session.
   *
   * @param excludeClasses a text; a class whose dotted name occurs in it is not reported
   * @param excludePackages a text; a class whose package occurs in it is not reported
   * @param includeClasses a text; a class whose dotted name occurs in it is reported first
   * @param includePackages a text; a class whose package occurs in it is reported first
   * @return 1 when the session was configured, else 0
   */
  public static native int startMemoryLeaksProfileSession(
      boolean memoryLeakEnable,
      long duration,
      int sessionId,
      String sessionName,
      int topNClassCount,
      String excludeClasses,
      String excludePackages,
      String includeClasses,
      String includePackages);

  /**
   * Closes the memory session, scans the heap for tagged objects and writes the report.
   *
   * @return 1 when the report was written, else 0
   */
  public static native int stopMemoryLeaksProfileSession(long sessionId, String reportPath);

  /** Runs a full garbage collection. */
  public static native void forceGarbageCollection();

  /** Marks an object as one to track, with the current garbage-collection generation. */
  public static native void setObjectTag(Object object);

  /**
   * Marks every instance of exactly these classes that is not marked yet and can be reached, as
   * {@link #setObjectTag} does, in one walk over the live objects, for which the whole program
   * stands still. Before the first garbage collection of a session nothing is marked.
   *
   * @param classes null elements are passed over
   * @return how many were marked
   */
  public static native int tagInstances(Class<?>[] classes);

  /**
   * Does the same, but marks no more instances of a class than there is room for.
   *
   * @param room for each class, how many instances may be marked; afterwards how many more may, or
   *     -1 when an instance was skipped
   */
  static native int tagInstancesWithin(Class<?>[] classes, int[] room);

  /**
   * Counts the marked instances of exactly these classes in one walk over the heap. Those that
   * nobody can reach but that are not collected yet are among them.
   *
   * @param counts takes the count of each class
   * @return 1 when they were counted, else 0
   */
  static native int countTaggedInstances(Class<?>[] classes, int[] counts);

  /**
   * The class, {@code type} or one above it, whose {@code getMessage()} answers for exceptions of
   * {@code type}. Loads and initializes no class.
   *
   * @return null for a class that is not initialized, and when it is not known
   */
  static native Class<?> messageOriginOf(Class<?> type);

  /** Placeholder entry point; always 0. */
  public static native int getExtendedMatricesFromNative(String text);

  /**
   * Switches exception capture on or off.
   *
   * <p>What is captured goes to the sink of {@link #setExceptionSink}.
   *
   * @param captureRate records for each exception class within 60 seconds; 0 or less for no limit
   * @param stackTraceDepth frames to walk, 100 at most
   * @param blackList exception class names that are never recorded, separated by commas and
   *     enclosed in one character on each side, as in {@code "[a.b.C,d.E]"}
   * @return 1 when the settings were taken, else 0
   */
  public static native int enableCaptureVariableinException(
      boolean enable,
      boolean classVariables,
      boolean methodArguments,
      boolean localVariables,
      boolean threadLocals,
      int captureRate,
      int stackTraceDepth,
      String blackList);

  /**
   * Hands captured exceptions to {@code sink} from now on; null for nobody, as at the start. A
   * {@link RecordSink} is given what the agent knows besides the text, too. No other sink is called
   * on a thread of the agent's own.
   */
  public static void setExceptionSink(ExceptionSink sink) {
    if (NativeAgent.AreExceptionsMade.VALUE && sink != null) {
      sink.takesUnfinished(); // what is loaded for it is not to be on a thread that throws
    }
    boolean takesRecords = sink == null || sink instanceof RecordSink;
    recordSink = takesRecords ? (RecordSink) sink : new TextSink(sink);
  }

  /**
   * Called by the agent with each captured exception, on the thread that threw it. The agent drops
   * what the sink throws.
   */
  public static void onExceptionOccured(String record, Object exception) {
    RecordSink sink = recordSink;
    if (sink != null) {
      AgentCounters.sinkBegins(false);
      AgentCounters.sinkBegins(true);
      sink.onException(record, handedOver(sink, exception));
    }
  }

  /** Called in place of {@link #onExceptionOccured} by an agent that knows this method. */
  public static void onExceptionRecord(String record, Object exception, int[] places, int facts) {
    RecordSink sink = recordSink;
    if (sink != null) {
      AgentCounters.sinkBegins(false);
      AgentCounters.sinkBegins(true);
      sink.onRecord(record, handedOver(sink, exception), places, facts);
    }
  }

  /** Code of the program is to see no exception whose constructors still run. */
  private static Object handedOver(ExceptionSink sink, Object exception) {
    return NativeAgent.AreExceptionsMade.VALUE && !sink.takesUnfinished() ? null : exception;
  }

  /** Called by the agent for the text of an object. */
  public static String getobjectValue(Object object) {
    return String.valueOf(object);
  }

  /** Of a sink that takes texts alone. */
  private static final class TextSink implements RecordSink {
    private final ExceptionSink sink;

    TextSink(ExceptionSink sink) {
      this.sink = sink;
      isOwnThread(); // what is loaded for it is not to be on a thread that throws
    }

    @Override
    public void onException(String record, Object exception) {
      // It may call System.exit, which would wait for the thread that ends the sessions.
      if (!isOwnThread()) {
        sink.onException(record, exception);
      }
    }

    @Override
    public void onRecord(String record, Object exception, int[] places, int facts) {
      onException(record, exception);
    }

    private static boolean isOwnThread() {
      return Thread.currentThread() instanceof OwnThread;
    }

    @Override
    public boolean takesUnfinished() {
      return sink.takesUnfinished();
    }
  }
}
