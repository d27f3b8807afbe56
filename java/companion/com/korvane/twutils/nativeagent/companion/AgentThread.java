package com.korvane.twutils.nativeagent.companion;

/** A thread of the companion's own. It keeps no JVM alive, and its exceptions are not recorded. */
final class AgentThread extends Thread {
  private AgentThread(Runnable body, String name) {
    super(null, body, "javanativeagent " + name);
    setDaemon(true);
  }

  /**
   * A daemon without a context class loader: it would hold the one of a program's thread that
   * happens to make it.
   */
  static AgentThread of(String name, Runnable body) {
    AgentThread thread = new AgentThread(body, name);
    thread.setContextClassLoader(null);
    return thread;
  }
}
