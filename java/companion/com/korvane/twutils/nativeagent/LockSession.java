package com.korvane.twutils.nativeagent;

import java.io.IOException;
import java.nio.file.Path;
import java.time.Duration;

/**
 * A lock session that is under way: begun by {@link NativeAgent#startLocks}, over with {@link
 * #stop}. In its summary phase it gathers the locks; for the detail phase they are ranked, and the
 * top ones are recorded in detail. It may be stopped in any phase: without a detail phase its
 * report is empty.
 *
 * <p>Any thread may call.
 */
public final class LockSession extends AgentSession {
  /** What a session is doing. */
  public enum Phase {
    /** Nothing yet. */
    BEGUN,
    SUMMARY,
    DETAIL,
    STOPPED;

    /** In lower case. */
    @Override
    public String toString() {
      return name().toLowerCase(java.util.Locale.ROOT);
    }
  }

  private final LockSettings settings;
  private final ReportFile stacks;
  private volatile Phase phase = Phase.BEGUN;
  private boolean isQuiet; // the phase records nothing more; within NativeAgent.locked

  private LockSession(long id, LockSettings settings) {
    super(Feature.LOCKS, id, settings.report);
    this.settings = settings;
    ReportFile made = null;
    try {
      made = new ReportFile("stack file", settings.stacks);
    } finally {
      if (made == null) {
        super.discardFiles();
      }
    }
    stacks = made;
  }

  /** Within {@link NativeAgent#locked}. */
  static LockSession start(long id, LockSettings settings) {
    if (settings == null) {
      throw Check.refused("settings", null, "the settings of a lock session");
    }
    LockSession session = new LockSession(id, settings);
    session.start();
    return session;
  }

  @Override
  boolean begin() {
    long seconds = settings.summary.plus(settings.detail).getSeconds();
    return TWNativeAgentProfiling.startMutexLockProfilingSession(
            id(),
            settings.name,
            seconds,
            settings.topLocks,
            settings.maxLocks,
            settings.maxThreadsPerLock,
            settings.maxThreads,
            settings.maxStackTraces,
            settings.maxStackTracesPerThread,
            stacks.partPath())
        == 1;
  }

  public Phase phase() {
    return phase;
  }

  /**
   * Begins to gather contended locks.
   *
   * @throws IllegalStateException unless the session has just begun
   */
  public void startSummary() {
    NativeAgent.locked(
        () -> {
          require(Phase.BEGUN, "the summary phase");
          TWNativeAgentProfiling.startMutexLockSummarySession(id());
          phase = Phase.SUMMARY;
          return null;
        });
  }

  /**
   * Ranks the locks gathered so far, and records the top ones in detail.
   *
   * @throws IllegalStateException unless the session is in its summary phase
   */
  public void startDetail() {
    NativeAgent.locked(
        () -> {
          require(Phase.SUMMARY, "the detail phase");
          TWNativeAgentProfiling.startMutexLockDetailSession(id());
          phase = Phase.DETAIL;
          return null;
        });
  }

  /**
   * Takes the session through both phases, each as long as the settings define, and stops it. When
   * the thread is interrupted it is stopped at once, and the thread stays interrupted.
   *
   * @return the report
   * @throws IOException as {@link #stop} does
   */
  public Path run() throws IOException {
    startSummary();
    boolean isUninterrupted = pause(settings.summary);
    if (isUninterrupted) {
      startDetail();
      pause(settings.detail);
    }
    return stop();
  }

  private static boolean pause(Duration length) {
    try {
      Thread.sleep(length.toMillis());
      return true;
    } catch (InterruptedException e) {
      Thread.currentThread().interrupt();
      return false;
    }
  }

  /** Whether other control calls would end the phase. Within {@link NativeAgent#locked}. */
  boolean isInDetail() {
    return phase == Phase.DETAIL && !isQuiet;
  }

  /** Ends the phase; {@link #stop} is to follow. Within {@link NativeAgent#locked}. */
  void quiet() {
    if (isQuiet) {
      return;
    }
    if (phase == Phase.SUMMARY) {
      TWNativeAgentProfiling.stopMutexLockSummarySession(id());
    } else if (phase == Phase.DETAIL) {
      TWNativeAgentProfiling.stopMutexLockDetailSession(id());
    }
    isQuiet = true;
  }

  @Override
  void end(boolean afterCollection) {
    quiet();
    phase = Phase.STOPPED;
    NativeAgent.ended(this);
  }

  @Override
  boolean writeReport(String part) {
    return TWNativeAgentProfiling.stopMutexLockProfilingSession(id(), part) == 1;
  }

  @Override
  ReportOutcome outcomeOf(String part) {
    return ReportOutcome.last(AgentReports.LOCKS, part);
  }

  @Override
  void publishRest() throws IOException {
    stacks.publishLines();
  }

  @Override
  void discardFiles() {
    super.discardFiles();
    stacks.discard();
  }

  @Override
  void closeFiles() {
    super.closeFiles();
    stacks.close();
  }

  private void require(Phase expected, String next) {
    if (isQuiet && phase != Phase.STOPPED) {
      throw new IllegalStateException(next + " cannot begin: the JVM is about to end");
    }
    if (phase != expected) {
      throw new IllegalStateException(
          next + " cannot begin: the lock session is " + phase + ", expected " + expected);
    }
  }
}
