package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.OptionKey;
import java.time.Duration;

/**
 * What is measured beside an allocation profile, now and then: which classes grow, and what holds
 * the objects. Each measurement stops the program for a garbage collection or two. Used in turn.
 */
final class AllocationLooks {
  /**
   * Programs choose their log manager early in {@code main}, and what looks has the JVM settle on
   * one.
   */
  private static final Duration UNTIL_MAIN_HAS_BEGUN = Duration.ofSeconds(1);

  private final Growth growth; // null for none
  private final RootPaths paths; // the same
  private final Controller controller;
  private final Duration pause;
  private final Timetable.Step next;
  private boolean hasBegun;
  private boolean hasLooked;

  /**
   * @param interval between two histograms; zero for none
   * @param arePathsFound whether to find out what holds the objects
   */
  AllocationLooks(
      Controller controller, int session, Duration interval, boolean arePathsFound) {
    this.controller = controller;
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
      if (paths != null) {
        paths.start();
      }
      return;
    }
    hasLooked = true;
    if (growth != null) {
      growth.takePoint();
      controller.grows(growth.rates());
    }
    if (paths != null) {
      paths.write();
    }
    next.after(pause);
  }

  /**
   * The last look, after which there are no more. The only histogram of a session would not show
   * what grows: none is taken then.
   *
   * @param isCollected whether another histogram, which is a collection, may be
   */
  void last(boolean isCollected) {
    next.cancel();
    if (hasLooked && isCollected && growth != null) {
      growth.last();
    }
    if (paths != null) {
      paths.last();
    }
    close(); // or the flight recorder would look once more when it ends with the JVM
  }

  /** Nothing more is measured. */
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
