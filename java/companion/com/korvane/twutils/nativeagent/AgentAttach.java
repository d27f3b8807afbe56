package com.korvane.twutils.nativeagent;

/**
 * The agent in a JVM that runs already. Without the agent, and with one that is older than this
 * class, the natives throw {@link UnsatisfiedLinkError}. Any thread may call.
 */
public final class AgentAttach {
  private AgentAttach() {}

  /** Whether the agent was loaded into a running JVM, and not with it. */
  public static native boolean isAttached();

  /**
   * What this JVM does not give an agent that is loaded while it runs.
   *
   * @return one line for each, by name and with what that means; empty when there is nothing
   */
  public static native String missing();

  /**
   * Stops all that the agent runs, disables its events, makes the JDK's classes as before, and
   * gives back what it asked of the JVM. Reports are not written: end sessions first. It waits for
   * a safepoint. The library can be attached again afterwards.
   *
   * @return null when that was done, else what could not be
   */
  public static native String detach();
}
