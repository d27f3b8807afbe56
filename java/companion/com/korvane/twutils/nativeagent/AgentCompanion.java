package com.korvane.twutils.nativeagent;

/**
 * What the companion asks the agent for besides the profilers. Without the agent, and with one that
 * is older than this class, the natives throw {@link UnsatisfiedLinkError}. Any thread may call.
 */
public final class AgentCompanion {
  private AgentCompanion() {}

  /** Whether only errors are printed: the agent's option {@code quiet=1}. */
  public static native boolean isQuiet();

  /**
   * Has an agent that was started with {@code idle=1} take what its profilers need. Otherwise, and
   * a second time, nothing.
   */
  public static native void wake();

  /** All classes that the JVM has loaded; null when the agent cannot tell. */
  public static native Class<?>[] loadedClasses();
}
