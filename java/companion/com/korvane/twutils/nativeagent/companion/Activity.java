package com.korvane.twutils.nativeagent.companion;

import java.io.IOException;
import java.nio.file.Path;

/**
 * What runs for one profiler, from its begin to its end. Used in turn, except for {@link #state}
 * and {@link #isOver}, which any thread may ask for.
 */
interface Activity {
  /** The {@link #state} of one that is over. */
  String OFF = "off";

  /** Once. When it throws an exception, it is over. */
  void begin();

  /**
   * The JVM begins to end, and the program's shutdown hooks are about to begin, where that moment
   * can be had; else they run. {@link #endBegins} is to follow.
   *
   * @throws IOException when a report is not complete
   */
  default void shutdownBegins() throws IOException {}

  /** The program's shutdown hooks run; {@link #stop} is to follow. */
  default void endBegins() {}

  /**
   * Ends it.
   *
   * @return the file that it has written last; null when there is none
   * @throws IOException when the file is not complete; it is over all the same
   * @throws IllegalStateException when that would disturb others; it goes on
   */
  Path stop() throws IOException;

  /** What it is doing, in a word. */
  String state();

  /** Before it begins, too. */
  boolean isOver();

  /** Whether a session is under way, whose files are being written. */
  boolean isRunning();
}
