package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.Feature;
import com.korvane.twutils.nativeagent.ProfileSession;
import java.io.IOException;
import java.time.Duration;

/** Runs a profile until it is stopped, and rewrites its report at an interval. */
abstract class ProfilePlan<S extends ProfileSession> extends SessionPlan<S> {
  private final Feature feature;
  private final Duration interval;
  private boolean hasFailed; // to write the report, since it was last written

  ProfilePlan(Controller controller, Feature feature, Duration interval) {
    super(controller, feature);
    this.feature = feature;
    this.interval = interval;
    delay = Duration.ZERO;
    sessionsToCome = 1;
  }

  /** @param number of the session */
  abstract S startSession(int number);

  /** After each step; the session is there. */
  void stepTaken() {}

  @Override
  void takeStep() {
    if (session == null) {
      session = startSession(controller.nextSession(feature));
    } else {
      writeSoFar();
    }
    stepTaken();
    next.after(interval);
  }

  /** What fails comes again after the interval, and is printed once. */
  final void writeSoFar() {
    if (session.isStopped()) {
      return; // its report could not be written then
    }
    try {
      session.snapshot();
      hasFailed = false;
      controller.updated(feature, session);
    } catch (IOException e) {
      if (!hasFailed) {
        hasFailed = true;
        Console.print("", e);
      }
    }
  }

  /** The VM writes the last report, after the shutdown hooks of the program. */
  @Override
  public void endBegins() {
    if (session != null) {
      session.endWithVm();
    }
  }

  @Override
  String stateOf(S current) {
    return current.isStopped() ? "stopped" : "running";
  }

  @Override
  void prepareStop(S stopping) {}

  /** It can be stopped again. */
  @Override
  void closeFailed() {}
}
