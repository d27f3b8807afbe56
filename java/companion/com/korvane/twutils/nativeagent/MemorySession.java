package com.korvane.twutils.nativeagent;

import java.io.IOException;
import java.nio.file.Path;
import java.util.function.Consumer;

/**
 * A memory session that is under way: begun by {@link NativeAgent#startMemory}, over with {@link
 * #stop}. Objects that are followed are reported by class and by the number of garbage collections
 * that they have outlived.
 *
 * <p>Any thread may call.
 */
public final class MemorySession {
  /** Tags outlive the session. */
  private static final FollowedCounts FOLLOWED = new FollowedCounts(FollowedCounts.NATIVES);

  private final long id;
  private final MemorySettings settings;
  private final ReportFile report;
  private volatile boolean isStopped;

  // How far the end has come, within NativeAgent.locked: one that failed for want of memory is
  // taken up where it is.
  private Boolean isReported;
  private boolean isOver;
  private Path written;

  private MemorySession(long id, MemorySettings settings) {
    this.id = id;
    this.settings = settings;
    report = new ReportFile("memory report", settings.report);
  }

  /** Within {@link NativeAgent#locked}. */
  static MemorySession start(long id, MemorySettings settings) {
    if (settings == null) {
      throw Check.refused("settings", null, "the settings of a memory session");
    }
    MemorySession session = new MemorySession(id, settings);
    boolean isBegun = false;
    try {
      isBegun = session.begin();
    } finally {
      if (!isBegun) {
        session.report.discard();
      }
    }
    if (!isBegun) {
      throw NativeAgent.missing(Feature.MEMORY);
    }
    return session;
  }

  private boolean begin() {
    return TWNativeAgentProfiling.startMemoryLeaksProfileSession(
            true,
            settings.duration.getSeconds(),
            (int) id,
            settings.name,
            settings.topClasses,
            settings.excludedClasses,
            settings.excludedPackages,
            settings.includedClasses,
            settings.includedPackages)
        == 1;
  }

  /** The number of the session, which its report bears too. */
  public long id() {
    return id;
  }

  public boolean isStopped() {
    return isStopped;
  }

  /**
   * Runs a garbage collection. Objects can be followed after the first one; what was followed
   * before the last one is reported.
   */
  public void collect() {
    NativeAgent.locked(
        () -> {
          if (!isStopped) {
            TWNativeAgentProfiling.forceGarbageCollection();
          }
          return null;
        });
  }

  /** Follows this object. Nothing once the session is stopped. */
  public void track(Object object) {
    if (!isStopped && object != null) {
      TWNativeAgentProfiling.setObjectTag(object);
    }
  }

  /**
   * Follows all instances of exactly these classes that are not followed yet and that can be
   * reached. The program stands still meanwhile, longer the more objects are alive.
   *
   * @return how many were added; 0 once the session is stopped
   */
  public int track(Class<?>[] classes) {
    if (classes == null) {
      throw Check.refused("classes", null, "an array of classes");
    }
    Class<?>[] copy = classes.clone();
    return NativeAgent.locked(
        () -> isStopped || copy.length == 0 ? 0 : TWNativeAgentProfiling.tagInstances(copy));
  }

  /**
   * Does the same, but follows no more than so many instances of each class at once, those that are
   * followed already included. For a class that has come to the limit it counts, at times, how many
   * of them the VM still knows.
   *
   * @param limit from 1 on
   * @param full is told each class that has as many
   * @return how many were added; 0 once the session is stopped
   */
  public int track(Class<?>[] classes, int limit, Consumer<Class<?>> full) {
    if (classes == null) {
      throw Check.refused("classes", null, "an array of classes");
    }
    Check.atLeast("limit", 1, limit);
    Class<?>[] copy = classes.clone();
    return NativeAgent.locked(
        () -> isStopped || copy.length == 0 ? 0 : FOLLOWED.add(copy, limit, full));
  }

  /**
   * Stops the session and writes its report. Stopped once more, it does nothing.
   *
   * @return the report
   * @throws IOException when the report was not written whole; the session is over all the same
   * @throws IllegalStateException when a lock session is in its detail phase; the session goes on
   * @throws OutOfMemoryError when what there is of the report waits for another call
   */
  public Path stop() throws IOException {
    return NativeAgent.<Path, IOException>locked(
        () -> {
          if (!isOver) {
            if (!isStopped) {
              NativeAgent.requireNoDetail("stopping the memory session");
            }
            finish();
          }
          if (written == null) {
            throw new IOException("the memory report " + settings.report + " was not written");
          }
          return written;
        });
  }

  private void finish() throws IOException {
    isStopped = true;
    NativeAgent.ended(this);
    try {
      if (isReported == null) {
        String path = report.partPath();
        isReported =
            TWNativeAgentProfiling.stopMemoryLeaksProfileSession(id, path) == 1
                ? Boolean.TRUE
                : Boolean.FALSE;
      }
      if (!isReported) {
        throw new IOException(
            "the agent wrote no memory report " + settings.report + ": its log says why");
      }
      written = report.publishJson();
      close();
    } catch (IOException | RuntimeException e) {
      close();
      throw e;
    }
  }

  private void close() {
    isOver = true;
    report.close();
  }
}
