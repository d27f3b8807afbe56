package com.korvane.twutils.nativeagent;

import java.io.IOException;
import java.nio.file.Path;

/**
 * An allocation profile that is under way: begun by {@link NativeAgent#startAllocations}, over with
 * {@link #stop}.
 *
 * <p>An object counts as alive until a garbage collection has found otherwise.
 */
public final class AllocationSession extends ProfileSession {
  private final AllocationSettings settings;
  private boolean isCollected; // just before the next report; within NativeAgent.locked

  private AllocationSession(long id, AllocationSettings settings) {
    super(Feature.ALLOCATIONS, id, settings.report);
    this.settings = settings;
  }

  /** Within {@link NativeAgent#locked}. */
  static AllocationSession start(long id, AllocationSettings settings) {
    if (settings == null) {
      throw Check.refused("settings", null, "the settings of an allocation session");
    }
    AllocationSession session = new AllocationSession(id, settings);
    session.start();
    return session;
  }

  /**
   * The same as {@link #snapshot()}.
   *
   * @param afterCollection collect the heap first; the program stands still meanwhile
   */
  public Path snapshot(boolean afterCollection) throws IOException {
    return NativeAgent.<Path, IOException>locked(
        () -> {
          isCollected = afterCollection;
          try {
            return writeUnlessStopped();
          } finally {
            isCollected = false;
          }
        });
  }

  /**
   * Stops the session as {@link #stop} does.
   *
   * @param afterCollection collect the heap first, as {@code stop} does; without it objects that no
   *     collection has looked at count as young, not as alive
   */
  public Path stop(boolean afterCollection) throws IOException {
    return stopAfter(afterCollection);
  }

  /**
   * The program's shutdown hooks are about to begin: what is alive now stays in all later reports,
   * beside what the hooks leave of it.
   *
   * @param afterCollection collect the heap first; the program stands still meanwhile
   */
  public void shutdownBegins(boolean afterCollection) {
    NativeAgent.locked(
        () -> {
          if (!isStopped()) {
            AgentAllocations.shutdownBegins(afterCollection);
          }
          return null;
        });
  }

  @Override
  String startProfile() {
    return AgentAllocations.isRunning()
        ? null
        : AgentAllocations.start(settings.interval, settings.samples);
  }

  @Override
  void reportAtEnd(String report, boolean isEnding) {
    AgentAllocations.reportAtEnd(report, isEnding);
  }

  @Override
  String writeProfile(String part) {
    return AgentAllocations.snapshot(part, isCollected);
  }

  @Override
  void stopProfile(boolean afterCollection) {
    AgentAllocations.stop(afterCollection);
  }
}
