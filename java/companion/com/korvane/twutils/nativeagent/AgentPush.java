package com.korvane.twutils.nativeagent;

/**
 * What the profiles have counted since they were asked before, as profiles in the pprof form, not
 * compressed. Without the agent, and with one that is older than this class, the natives throw
 * {@link UnsatisfiedLinkError}. Any thread may call; calls come in turn.
 */
public final class AgentPush {
  public static final int CONTENTION = 0;
  public static final int ALLOCATIONS = 1;
  public static final int EXCEPTIONS = 2;

  private AgentPush() {}

  /**
   * A window, 4 MiB at most. A session that was followed by another one has a window of its own;
   * from the first call on, the last ones of 8 sessions are kept.
   *
   * @param isKept whether to give the oldest of those; else what was counted since the last call
   * @return null when there is none
   * @throws OutOfMemoryError when there is no memory for it; it is lost then
   */
  public static native byte[] window(int kind, boolean isKept);

  /** How many windows of sessions were not kept. */
  public static native long lost();
}
