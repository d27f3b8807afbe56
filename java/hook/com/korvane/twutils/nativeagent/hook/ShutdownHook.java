package com.korvane.twutils.nativeagent.hook;

/**
 * What the JDK's class of shutdown hooks calls before it starts them. The agent defines this class
 * in the bootstrap loader and binds its native method; it is not for programs.
 */
public final class ShutdownHook {
  private ShutdownHook() {}

  /** The VM begins to shut down, on this thread; no hook of the program has started. */
  public static native void begins();
}
