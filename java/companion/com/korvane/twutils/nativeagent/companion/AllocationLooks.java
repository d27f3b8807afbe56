package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.OptionKey;
import java.nio.file.Path;
import java.time.Duration;

/**
 * What is found out beside an allocation profile, now and then: which classes grow, and what holds
 * the objects. Each look stops the program for a garbage collection or two. Used in turn.
 */
final class AllocationLooks {
  /**
   * Programs choose their log manager early in {@code main}, and what looks has the JVM settle on
   * one.
   */
  private static final Duration UNTIL_MAIN_HAS_BEGUN = Duration.ofSeconds(1);

  /** Finding the paths may take one part of so many of the time: 1 %. */
  private static final int PARTS_OF_TIME = 100;

  private final Growth growth; // null for none
  private final RootPaths paths; // the same
  private final Duration pause;
  private final Timetable.Step next;
  private boolean hasBegun;
  private long nextPaths; // System.nanoTime() from which on they may be found again

  /**
   * @param interval between two histograms; zero for none
   * @param arePathsFound whether to find out what holds the objects
   */
  AllocationLooks(
      Controller controller, int session, Duration interval, boolean arePathsFound) {
    RunFolder folder = controller.folder();
    growth = interval.isZero() ? null : new Growth(folder.growth(session), interval);
    paths = arePathsFound ? new RootPaths(folder.paths(session)) : null;
    long usual = OptionKey.ALLOCATIONS_GROWTH.defaultAmount();
    pause = interval.isZero() ? Duration.ofMillis(usual) : interval;
    next = controller.step(this::look);
    if (growth != null || paths != null) {
      next.after(UNTIL_MAIN_HAS_BEGUN);
    }
  }

  private void look() {
    next.after(pause); // in case that this look fails
    if (!hasBegun) {
      hasBegun = true;
      nextPaths = System.nanoTime();
      if (paths != null) {
        paths.start();
      }
      return;
    }
    if (growth != null) {
      growth.takePoint();
    }
    if (paths != null && System.nanoTime() - nextPaths >= 0) {
      findPaths();
    }
    next.after(pause);
  }

  private void findPaths() {
    long before = System.nanoTime();
    paths.write();
    long after = System.nanoTime();
    nextPaths = after + (after - before) * PARTS_OF_TIME;
  }

  /**
   * The last look; nothing in a session that ends before the first one.
   *
   * @param isCollected whether another collection, of the histogram, may be
   */
  void last(boolean isCollected) {
    next.cancel();
    if (hasBegun && isCollected && growth != null) {
      growth.last();
    }
    if (hasBegun && paths != null) {
      paths.write();
    }
  }

  /** There are no more looks. */
  void close() {
    next.remove();
    if (growth != null) {
      growth.close();
    }
    if (paths != null) {
      paths.close();
    }
  }
}
