package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AgentExceptions;
import com.korvane.twutils.nativeagent.ExceptionCounts;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.IOException;
import java.nio.file.Path;
import java.time.Duration;

/**
 * Has the agent choose its records from all that is thrown at each site, and rewrites the file of
 * these at an interval and at the end. What fails is tried again the next time, and printed
 * once. Used in turn.
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

  /** Exceptions are about to be captured. */
  void prepare() {
    try {
      choose(true);
    } catch (UnsatisfiedLinkError e) {
      isThere = false;
      if (!NativeAgent.isLoaded()) {
        return; // which is reported elsewhere
      }
      Console.note("exceptions are not counted by site: the agent is older than the companion");
    }
  }

  private static void choose(boolean isOn) {
    AgentExceptions.oneRecordEach(isOn);
    AgentExceptions.spreadRate(isOn);
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
    if (isThere) {
      choose(false);
    }
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
    } catch (IOException | IllegalArgumentException e) {
      if (!hasFailed) {
        hasFailed = true;
        Console.print("", e);
      }
    }
  }
}
