package com.korvane.commons.bench;

/** Throws from a package whose exceptions the agent does not record. */
public final class IgnoredThrower {
  private IgnoredThrower() {}

  public static void fail(RuntimeException failure) {
    throw failure;
  }
}
