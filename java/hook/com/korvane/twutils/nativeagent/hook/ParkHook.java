package com.korvane.twutils.nativeagent.hook;

/**
 * What classes of java.util.concurrent.locks call while the contention profile runs. The agent
 * defines this class in the bootstrap loader and binds its native methods; it is not for programs.
 */
public final class ParkHook {
  private ParkHook() {}

  /** A contended acquisition of a lock, or of another synchronizer, begins on this thread. */
  public static native void acquisitionBegins();

  /** The current thread is about to park because of the blocker, or with null is past that. */
  public static native void blockerSet(Thread thread, Object blocker);

  /** The same, from where no thread is at hand. */
  public static void currentBlockerSet(Object blocker) {
    blockerSet(Thread.currentThread(), blocker);
  }
}
