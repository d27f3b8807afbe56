package com.korvane.twutils.nativeagent;

import java.time.Duration;
import java.util.EnumSet;
import java.util.Set;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.ReentrantLock;

/**
 * Starts and stops the agent's profilers, with settings that are checked before the agent sees
 * them.
 *
 * <p>Any thread may call; calls that reach the agent wait for each other, and go on when their
 * thread is interrupted. What cannot be done is refused with an {@link IllegalStateException} that
 * names what to change.
 *
 * <p>Switching a profiler on or off ends the detail phase of a lock session that is running, so it
 * is refused until that session is stopped.
 */
public final class NativeAgent {
  // No monitor: the lock profiler would report it.
  private static final ReentrantLock CONTROL = new ReentrantLock();

  // Sessions of each kind have numbers of their own.
  private static long lastLockSession;
  private static long lastMemorySession;
  private static long lastContentionSession;
  private static long lastAllocationSession;
  private static LockSession lockSession;
  private static MemorySession memorySession;
  private static ContentionSession contentionSession;
  private static AllocationSession allocationSession;
  private static boolean areExceptionsCaptured;

  private NativeAgent() {}

  /** Whether the JVM was started with the agent. */
  public static boolean isLoaded() {
    try {
      TWNativeAgentProfiling.getExtendedMatricesFromNative(null);
      return true;
    } catch (UnsatisfiedLinkError e) {
      return false;
    }
  }

  /** Whether the agent was attached to the JVM while it ran. */
  public static boolean isAttached() {
    try {
      return AgentAttach.isAttached();
    } catch (UnsatisfiedLinkError e) {
      return false; // there is none, or an earlier one
    }
  }

  /**
   * Where exceptions are captured, which is settled when the JVM starts: "thrown" where they are
   * thrown, "made" where they are made. Null without the agent, and with an earlier one.
   */
  public static String exceptionMode() {
    try {
      return AgentCounters.exceptionMode();
    } catch (UnsatisfiedLinkError e) {
      return null;
    }
  }

  /**
   * What {@link #startExceptions} could not do, though exceptions are captured; null for nothing.
   */
  public static String exceptionProblem() {
    return AreExceptionsMade.VALUE ? AgentCounters.exceptionProblem() : null;
  }

  /** Asked once: it never changes. */
  static final class AreExceptionsMade {
    static final boolean VALUE = "made".equals(exceptionMode());

    private AreExceptionsMade() {}
  }

  /**
   * The profilers that were chosen when the agent was started, as far as the JVM's arguments show;
   * in a JVM that it was attached to, all. The contention and the allocation profile need no
   * choice. Asking has the JVM settle on its log manager.
   */
  public static Set<Feature> features() {
    if (isAttached()) {
      return Feature.choices();
    }
    return isLoaded() ? VmArguments.ofThisJvm().features() : EnumSet.noneOf(Feature.class);
  }

  /**
   * Begins a lock session. It records nothing before {@link LockSession#startSummary}.
   *
   * @throws IllegalArgumentException when its files cannot be written
   * @throws IllegalStateException when there is no lock profiler, or a lock session is running
   */
  public static LockSession startLocks(LockSettings settings) {
    return locked(
        () -> {
          requireNone(lockSession, "a lock session");
          requireLoaded();
          lockSession = LockSession.start(++lastLockSession, settings);
          return lockSession;
        });
  }

  /**
   * Begins a memory session: from its first garbage collection on objects can be tracked.
   *
   * @throws IllegalArgumentException when its report cannot be written
   * @throws IllegalStateException when there is no memory profiler, a memory session is running, or
   *     a lock session is in its detail phase
   */
  public static MemorySession startMemory(MemorySettings settings) {
    return locked(
        () -> {
          requireNone(memorySession, "a memory session");
          requireNoDetail("starting a memory session");
          requireLoaded();
          memorySession = MemorySession.start(++lastMemorySession, settings);
          return memorySession;
        });
  }

  /**
   * Begins the contention profile, which disturbs no other profiler. One that runs already because
   * the JVM was started with {@code contention=1} becomes the session, with the settings that it
   * was given there.
   *
   * @throws IllegalArgumentException when its report cannot be written
   * @throws IllegalStateException when the agent cannot start it, or a contention session is
   *     running
   */
  public static ContentionSession startContention(ContentionSettings settings) {
    return locked(
        () -> {
          requireNone(contentionSession, "a contention session");
          requireLoaded();
          contentionSession = ContentionSession.start(++lastContentionSession, settings);
          return contentionSession;
        });
  }

  /**
   * Begins the allocation profile, which disturbs no other profiler. One that runs already because
   * the JVM was started with {@code allocations=1} becomes the session, with the settings that it
   * was given there.
   *
   * @throws IllegalArgumentException when its report cannot be written
   * @throws IllegalStateException when the agent cannot start it, as where another agent samples
   *     allocations, or an allocation session is running
   */
  public static AllocationSession startAllocations(AllocationSettings settings) {
    return locked(
        () -> {
          requireNone(allocationSession, "an allocation session");
          requireLoaded();
          allocationSession = AllocationSession.start(++lastAllocationSession, settings);
          return allocationSession;
        });
  }

  /**
   * Captures exceptions from now on, and hands them to {@code sink} in place of an earlier one.
   *
   * @throws IllegalStateException when there is no exception profiler, or a lock session is in its
   *     detail phase
   */
  public static void startExceptions(ExceptionSettings settings, ExceptionSink sink) {
    if (settings == null || sink == null) {
      throw new IllegalArgumentException("settings or sink is null: expected both");
    }
    locked(
        () -> {
          requireNoDetail("starting exception capture");
          requireLoaded();
          TWNativeAgentProfiling.setExceptionSink(sink);
          if (!capture(true, settings)) {
            TWNativeAgentProfiling.setExceptionSink(null);
            throw notCaptured();
          }
          areExceptionsCaptured = true;
          return null;
        });
  }

  /**
   * Captures no more exceptions; nothing when none were.
   *
   * @throws IllegalStateException when a lock session is in its detail phase
   */
  public static void stopExceptions() {
    locked(
        () -> {
          if (areExceptionsCaptured) {
            requireNoDetail("stopping exception capture");
            capture(false, new ExceptionSettings());
            TWNativeAgentProfiling.setExceptionSink(null);
            areExceptionsCaptured = false;
          }
          return null;
        });
  }

  /** The lock session that is running; null when there is none. */
  public static LockSession runningLocks() {
    return locked(() -> lockSession);
  }

  /** Whether a lock session is in its detail phase, which the other profilers must not disturb. */
  public static boolean isDetailRunning() {
    return locked(() -> lockSession != null && lockSession.isInDetail());
  }

  /**
   * Records nothing more: ends the phase of any running lock session, and captures no more
   * exceptions. Sessions are still to be stopped. Where another control call does not come to its
   * end in time, exceptions are captured no more all the same. For the end of the JVM.
   *
   * @param patience how long to wait for another control call
   * @return false when a call was under way for longer
   */
  public static boolean stopRecording(Duration patience) {
    boolean isMine = lockWithin(patience.toNanos());
    try {
      if (isMine && lockSession != null) {
        lockSession.quiet();
      }
      if (areExceptionsCaptured) {
        capture(false, new ExceptionSettings());
      }
    } finally {
      if (isMine) {
        CONTROL.unlock();
      }
    }
    return isMine;
  }

  /**
   * Has an action run when the JVM begins to end, before any shutdown hook of the program. It runs
   * on the thread that ends the JVM, which holds the lock that every caller of {@link System#exit}
   * waits for: it has to come to its end, whatever other threads do. It replaces an earlier one.
   *
   * @return null, or why it will not be run
   */
  public static String beforeShutdownHooks(Runnable action) {
    try {
      return AgentShutdown.beforeHooks(action);
    } catch (UnsatisfiedLinkError e) {
      return "the agent is older than the companion, or there is none";
    }
  }

  /** Whether allocations of the calling thread are no samples of the allocation profile. */
  public static void leaveOutAllocations(boolean areLeftOut) {
    try {
      AgentAllocations.leaveOut(areLeftOut);
    } catch (UnsatisfiedLinkError e) {
      // An agent without the profile, or none.
    }
  }

  private static boolean lockWithin(long nanos) {
    long end = System.nanoTime() + nanos;
    boolean isInterrupted = false;
    boolean isMine = CONTROL.tryLock();
    while (!isMine && System.nanoTime() < end) {
      try {
        isMine = CONTROL.tryLock(end - System.nanoTime(), TimeUnit.NANOSECONDS);
      } catch (InterruptedException e) {
        isInterrupted = true;
      }
    }
    if (isInterrupted) {
      Thread.currentThread().interrupt();
    }
    return isMine;
  }

  // --- For the sessions ---

  interface Action<T, E extends Exception> {
    T run() throws E;
  }

  /** Runs the action while no other control call is made. */
  static <T, E extends Exception> T locked(Action<T, E> action) throws E {
    CONTROL.lock();
    try {
      return action.run();
    } finally {
      CONTROL.unlock();
    }
  }

  /** Within {@link #locked}. */
  static void ended(LockSession session) {
    if (lockSession == session) {
      lockSession = null;
    }
  }

  /** Within {@link #locked}. */
  static void ended(MemorySession session) {
    if (memorySession == session) {
      memorySession = null;
    }
  }

  /** Within {@link #locked}. */
  static void ended(ProfileSession session) {
    if (contentionSession == session) {
      contentionSession = null;
    }
    if (allocationSession == session) {
      allocationSession = null;
    }
  }

  /** Within {@link #locked}. */
  static void requireNoDetail(String action) {
    if (lockSession != null && lockSession.isInDetail()) {
      throw new IllegalStateException(
          action + " would end the detail phase of the running lock session: stop that first");
    }
  }

  static IllegalStateException missing(Feature feature) {
    return new IllegalStateException(
        "there is no " + feature + " profiler: the JVM was started without features="
            + feature.word());
  }

  private static IllegalStateException notCaptured() {
    String problem = exceptionProblem();
    return problem == null
        ? missing(Feature.EXCEPTIONS)
        : new IllegalStateException(
            "exceptions cannot be captured where they are made: " + problem
                + "; start the JVM with exceptionCapture=thrown");
  }

  private static void requireLoaded() {
    if (!isLoaded()) {
      throw new IllegalStateException(
          "there is no agent: the JVM was started without"
              + " -agentpath:/path/to/libjavanativeagent.so");
    }
  }

  private static void requireNone(Object session, String what) {
    if (session != null) {
      throw new IllegalStateException(what + " is already running: stop it first");
    }
  }

  private static boolean capture(boolean enable, ExceptionSettings settings) {
    return TWNativeAgentProfiling.enableCaptureVariableinException(
            enable,
            settings.fields,
            settings.arguments,
            settings.locals,
            settings.threadLocals,
            settings.rate,
            settings.depth,
            settings.blackList())
        == 1;
  }
}
