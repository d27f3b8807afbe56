package com.korvane.twutils.nativeagent;

/**
 * The allocation profile: samples of the objects that the program allocates, which of them have
 * survived collections, and where they came from. It is independent of the memory sessions.
 * Without the agent, and with one that is older than this class, the natives throw {@link
 * UnsatisfiedLinkError}. Any thread may call; calls come in turn, except for {@link #leaveOut}.
 */
final class AgentAllocations {
  private AgentAllocations() {}

  /**
   * Starts it. All that was gathered before is dropped.
   *
   * @param intervalBytes the bytes allocated for each sample, on average
   * @param liveSamples how many samples are followed at once; with more, the interval gets longer
   * @return null when it has started, else why it has not
   */
  static native String start(long intervalBytes, int liveSamples);

  /** Whether it runs: from the agent's option {@code allocations=1} or {@link #start} on. */
  static native boolean isRunning();

  /**
   * Writes what there is now, while it runs or after it was stopped, in the form that {@code
   * docs/reports.md} describes. The file is written in place.
   *
   * @param afterCollection collect the heap first, which stops the program for as long
   * @return null when the file is complete, else why it is not
   */
  static native String snapshot(String path, boolean afterCollection);

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
   * @param afterCollection collect the heap first, so that only what is reachable counts as alive
   * @return whether it ran
   */
  static native boolean stop(boolean afterCollection);

  /**
   * Keeps what is alive now as what was alive before the program's shutdown hooks: every later
   * report has it, and beside it what the hooks left. Nothing without a session, nor a second time.
   *
   * @param afterCollection collect the heap first
   */
  static native void shutdownBegins(boolean afterCollection);

  /** Whether the allocations of the calling thread are omitted from now on. */
  static native void leaveOut(boolean isLeftOut);
}
