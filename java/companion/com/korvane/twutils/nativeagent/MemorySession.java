package com.korvane.twutils.nativeagent;

import java.io.IOException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.function.Consumer;

/**
 * A memory session that is under way: begun by {@link NativeAgent#startMemory}, over with {@link
 * #stop}. Tracked objects are reported by class and by the number of garbage collections that they
 * have outlived. What no collection has taken yet is reported, whether it can be reached or not.
 *
 * <p>Any thread may call.
 */
public final class MemorySession extends AgentSession {
  /** Tags outlive the session. */
  private static final TrackedCounts TRACKED = new TrackedCounts(TrackedCounts.NATIVES);

  private final MemorySettings settings;
  private volatile boolean isStopped;

  private MemorySession(long id, MemorySettings settings) {
    super(Feature.MEMORY, id, settings.report);
    this.settings = settings;
  }

  /** Within {@link NativeAgent#locked}. */
  static MemorySession start(long id, MemorySettings settings) {
    if (settings == null) {
      throw Check.refused("settings", null, "the settings of a memory session");
    }
    MemorySession session = new MemorySession(id, settings);
    session.start();
    return session;
  }

  @Override
  boolean begin() {
    return TWNativeAgentProfiling.startMemoryLeaksProfileSession(
            true,
            settings.duration.getSeconds(),
            (int) id(),
            settings.name,
            settings.topClasses,
            settings.excludedClasses,
            settings.excludedPackages,
            settings.includedClasses,
            settings.includedPackages)
        == 1;
  }

  public boolean isStopped() {
    return isStopped;
  }

  /**
   * Runs a garbage collection. Objects can be tracked after the first one; what was tracked
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

  /** Tracks this object. Does nothing once the session is stopped. */
  public void track(Object object) {
    if (!isStopped && object != null) {
      TWNativeAgentProfiling.setObjectTag(object);
    }
  }

  /**
   * Tracks all instances of exactly these classes that are not tracked yet and that can be
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
   * Does the same, but tracks at most {@code limit} instances of each class at once, those that are
   * tracked already included. For a class that has come to the limit it counts, at times, how many
   * of them the VM still knows.
   *
   * @param limit from 1 on
   * @param full is given each class that has as many
   * @return how many were added; 0 once the session is stopped
   */
  public int track(Class<?>[] classes, int limit, Consumer<Class<?>> full) {
    if (classes == null) {
      throw Check.refused("classes", null, "an array of classes");
    }
    Check.atLeast("limit", 1, limit);
    Class<?>[] copy = classes.clone();
    List<Class<?>> reached = new ArrayList<>();
    int added =
        NativeAgent.locked(
            () -> isStopped || copy.length == 0 ? 0 : TRACKED.add(copy, limit, reached::add));
    reached.forEach(full); // it may end the JVM, which waits for control calls
    return added;
  }

  /**
   * Stops the session as {@link #stop} does.
   *
   * @param afterCollection collect the heap first, as {@code stop} does. Without it the report has
   *     objects that cannot be reached any more but that no collection has taken yet, and does not
   *     have those that were tracked since the last collection.
   */
  public Path stop(boolean afterCollection) throws IOException {
    return stopAfter(afterCollection);
  }

  @Override
  void end(boolean afterCollection) {
    if (!isStopped) {
      NativeAgent.requireNoDetail("stopping the memory session");
      if (afterCollection) {
        TWNativeAgentProfiling.forceGarbageCollection();
      }
    }
    isStopped = true;
    NativeAgent.ended(this);
  }

  @Override
  boolean writeReport(String part) {
    return TWNativeAgentProfiling.stopMemoryLeaksProfileSession(id(), part) == 1;
  }

  @Override
  ReportOutcome outcomeOf(String part) {
    return ReportOutcome.last(AgentReports.MEMORY, part);
  }
}
