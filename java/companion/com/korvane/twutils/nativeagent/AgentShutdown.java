package com.korvane.twutils.nativeagent;

/**
 * The moment before the program's shutdown hooks, which Java itself does not offer: its own hooks
 * run at the same time as those of the program. Without the agent, and with one that is older than
 * this class, the native throws {@link UnsatisfiedLinkError}.
 */
final class AgentShutdown {
  private AgentShutdown() {}

  /**
   * Runs an action when the VM begins to shut down: once, before any shutdown hook starts, on the
   * thread that shuts it down. That may be any thread of the program. It holds the lock that every
   * other caller of {@link System#exit} waits for. What the action throws is dropped. It does not
   * run when the VM is halted or killed.
   *
   * @param action what to run; it replaces an earlier one
   * @return null when it will run, else why it cannot
   */
  static native String beforeHooks(Runnable action);
}
