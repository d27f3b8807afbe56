package com.korvane.twutils.nativeagent;

/**
 * The contention profile: which locks threads are blocked by, who holds them meanwhile and where.
 * It is independent of the lock sessions. Without the agent, and with one that is older than this
 * class, the natives throw {@link UnsatisfiedLinkError}. Any thread may call; calls come in turn.
 */
final class AgentContention {
  private AgentContention() {}

  /**
   * Starts it. All that was gathered before is dropped.
   *
   * @param locks how many locks are listed separately
   * @param samples how often the blocked threads are sampled in a second; 0 for none
   * @param budget percent of one processor that these may take
   * @param stuckMillis after how long a blocked thread counts as stuck
   * @param windowMillis the length of a window of the time line
   * @return null when it has started, else why it has not
   */
  static native String start(
      int locks, int samples, int budget, long stuckMillis, long windowMillis);

  /** Whether it runs: from the agent's option {@code contention=1} or {@link #start} on. */
  static native boolean isRunning();

  /**
   * Writes what there is now, while it runs or after it was stopped, in the form that {@code
   * docs/reports.md} describes. The file is written in place.
   *
   * @return null when the file is complete, else why it is not
   */
  static native String snapshot(String path);

  /**
   * Has the VM write the report when it ends, in whatever way but by a signal that kills it: after
   * all shutdown hooks, to {@code path} with {@code .end}, and then under its name. Until it is
   * stopped.
   *
   * @param isEnding the VM is ending: {@link #stop} does nothing any more
   * @return whether it runs
   */
  static native boolean reportAtEnd(String path, boolean isEnding);

  /**
   * Stops it. What was gathered can be written until the next start.
   *
   * @return whether it ran
   */
  static native boolean stop();
}
