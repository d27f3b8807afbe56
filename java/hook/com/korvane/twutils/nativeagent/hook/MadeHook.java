package com.korvane.twutils.nativeagent.hook;

/**
 * What the constructors of Throwable call while exceptions are captured where they are made. The
 * agent defines this class in the bootstrap loader and binds its native method; it is not for
 * programs.
 */
public final class MadeHook {
  private MadeHook() {}

  /** An exception is being made: its constructors run, and it has no field set yet. */
  public static native void made(Throwable exception);
}
