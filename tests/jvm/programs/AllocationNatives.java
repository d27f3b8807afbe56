package com.korvane.twutils.nativeagent;

/** The natives of the allocation profile, for programs outside of their package. */
public final class AllocationNatives {
  private AllocationNatives() {}

  public static String start(long intervalBytes) {
    return AgentAllocations.start(intervalBytes, 50_000);
  }

  public static boolean isRunning() {
    return AgentAllocations.isRunning();
  }

  public static void snapshot(String path, boolean afterCollection) {
    String problem = AgentAllocations.snapshot(path, afterCollection);
    if (problem != null) {
      throw new IllegalStateException(problem);
    }
  }

  public static boolean stop(boolean afterCollection) {
    return AgentAllocations.stop(afterCollection);
  }

  public static boolean reportAtEnd(String path) {
    return AgentAllocations.reportAtEnd(path, true);
  }

  public static void shutdownBegins() {
    AgentAllocations.shutdownBegins(true);
  }

  public static void leaveOut(boolean isLeftOut) {
    AgentAllocations.leaveOut(isLeftOut);
  }

  public static String beforeHooks(Runnable action) {
    return AgentShutdown.beforeHooks(action);
  }
}
