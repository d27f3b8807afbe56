package com.korvane.twutils.nativeagent;

import java.io.IOException;
import java.nio.file.Path;
import java.time.Duration;

/**
 * A lock session that is under way: begun by {@link NativeAgent#startLocks}, over with {@link
 * #stop}. In its summary phase it gathers the locks; for the detail phase they are ranked, and the
 * top ones are followed.
 *
 * <p>Any thread may call.
 */
public final class LockSession {
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

  private final long id;
  private final LockSettings settings;
  private final ReportFile report;
  private final ReportFile stacks;
  private volatile Phase phase = Phase.BEGUN;

  // How far the end has come, within NativeAgent.locked: one that failed for want of memory is
  // taken up where it is.
  private boolean isQuiet; // the phase records nothing more
  private Boolean isReported;
  private boolean isOver;
  private Path whole; // the report, the stacks perhaps not yet
  private Path written;

  private LockSession(long id, LockSettings settings) {
    this.id = id;
    this.settings = settings;
    report = new ReportFile("lock report", settings.report);
    ReportFile made = null;
    try {
      made = new ReportFile("stack file", settings.stacks);
    } finally {
      if (made == null) {
        report.discard();
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
    boolean isBegun = false;
    try {
      isBegun = session.begin();
    } finally {
      if (!isBegun) {
        session.report.discard();
        session.stacks.discard();
      }
    }
    if (!isBegun) {
      throw NativeAgent.missing(Feature.LOCKS);
    }
    return session;
  }

  private boolean begin() {
    long seconds = settings.summary.plus(settings.detail).getSeconds();
    return TWNativeAgentProfiling.startMutexLockProfilingSession(
            id,
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

  /** The number of the session, which its report bears too. */
  public long id() {
    return id;
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
          TWNativeAgentProfiling.startMutexLockSummarySession(id);
          phase = Phase.SUMMARY;
          return null;
        });
  }

  /**
   * Ranks the locks gathered so far, and follows the top ones.
   *
   * @throws IllegalStateException unless the session is in its summary phase
   */
  public void startDetail() {
    NativeAgent.locked(
        () -> {
          require(Phase.SUMMARY, "the detail phase");
          TWNativeAgentProfiling.startMutexLockDetailSession(id);
          phase = Phase.DETAIL;
          return null;
        });
  }

  /**
   * Takes the session through both phases, each as long as the settings say, and stops it. When the
   * thread is interrupted it is stopped at once, and the thread stays interrupted.
   *
   * @return the report
   * @throws IOException as {@link #stop} does
   */
  public Path run() throws IOException {
    startSummary();
    boolean isWhole = pause(settings.summary);
    if (isWhole) {
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

  /**
   * Stops the session in any phase and writes its report, which is empty without a detail phase.
   * Stopped once more, it does nothing.
   *
   * @return the report
   * @throws IOException when the report or the stack file was not written whole; the session is
   *     over all the same
   * @throws OutOfMemoryError when what there is of the report waits for another call
   */
  public Path stop() throws IOException {
    return NativeAgent.<Path, IOException>locked(
        () -> {
          if (!isOver) {
            finish();
          }
          if (written == null) {
            throw new IOException("the lock report " + settings.report + " was not written");
          }
          return written;
        });
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
      TWNativeAgentProfiling.stopMutexLockSummarySession(id);
    } else if (phase == Phase.DETAIL) {
      TWNativeAgentProfiling.stopMutexLockDetailSession(id);
    }
    isQuiet = true;
  }

  private void finish() throws IOException {
    quiet();
    phase = Phase.STOPPED;
    NativeAgent.ended(this);
    try {
      if (isReported == null) {
        String path = report.partPath();
        isReported =
            TWNativeAgentProfiling.stopMutexLockProfilingSession(id, path) == 1
                ? Boolean.TRUE
                : Boolean.FALSE;
      }
      if (!isReported) {
        throw new IOException(
            "the agent wrote no lock report " + settings.report + ": its log says why");
      }
      if (whole == null) {
        whole = report.publishJson();
      }
      stacks.publishLines();
      written = whole;
      close();
    } catch (IOException | RuntimeException e) {
      close();
      throw e;
    }
  }

  private void close() {
    isOver = true;
    report.close();
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
