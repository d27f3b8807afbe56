package com.korvane.twutils.nativeagent;

/** Natives that programs outside of their package attach and detach the agent with. */
public final class AttachNatives {
  private AttachNatives() {}

  public static String startContention() {
    return AgentContention.start(1000, 10, 5, 10_000, 10_000);
  }

  public static void contention(String path) {
    String problem = AgentContention.snapshot(path);
    if (problem != null) {
      throw new IllegalStateException(problem);
    }
  }

  public static String beforeHooks(Runnable action) {
    return AgentShutdown.beforeHooks(action);
  }
}
