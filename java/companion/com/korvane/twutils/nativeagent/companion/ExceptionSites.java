package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.ExceptionCounts;
import java.io.IOException;
import java.nio.file.Path;
import java.time.Duration;

/**
 * Writes the file of what was thrown at which site, anew at an interval and at the end. What fails
 * is tried again the next time, and printed once. Used in turn.
 */
final class ExceptionSites {
  private final Controller controller;
  private final Path file;
  private final Duration interval;

  private Timetable.Step next; // from the begin on
  private boolean isThere = true; // the agent counts
  private boolean hasFailed; // to write, since the last time that it was written

  ExceptionSites(Controller controller, Duration interval) {
    this.controller = controller;
    this.interval = interval;
    file = controller.folder().exceptionCounts();
  }

  /** Exceptions are captured from now on. */
  void begin() {
    next = controller.step(this::takeStep);
    takeStep();
  }

  /** The last time. */
  void end() {
    next.remove();
    write();
  }

  private void takeStep() {
    write();
    next.after(interval);
  }

  private void write() {
    if (!isThere) {
      return;
    }
    try {
      ExceptionCounts.writeSites(file);
      hasFailed = false;
    } catch (UnsatisfiedLinkError e) {
      isThere = false;
      Console.print("exceptions are not counted by site: the agent is older than the companion");
    } catch (IOException | IllegalArgumentException e) {
      if (!hasFailed) {
        hasFailed = true;
        Console.print("", e);
      }
    }
  }
}
