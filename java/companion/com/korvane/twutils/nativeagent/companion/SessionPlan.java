package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.AgentSession;
import com.korvane.twutils.nativeagent.Feature;
import java.io.IOException;
import java.nio.file.Path;
import java.time.Duration;

/**
 * Takes the sessions of one profiler through their time, one after the other.
 *
 * <p>Each step begins with what the session is doing, and so takes up what one that failed has
 * left.
 */
abstract class SessionPlan<S extends AgentSession> implements Activity {
  private static final Duration AGAIN = Duration.ofSeconds(1);

  final Controller controller;

  // Set by the constructors.
  Duration delay; // of the first session
  int sessionsToCome; // negative for no end of them

  /** The one that is under way; null when none is. */
  volatile S session;

  /** Calls {@link #advance}; there from the begin on. */
  Timetable.Step next;

  private final Feature feature;
  private volatile boolean isOver = true;

  SessionPlan(Controller controller, Feature feature) {
    this.controller = controller;
    this.feature = feature;
  }

  @Override
  public void begin() {
    next = controller.step(this::advance);
    isOver = false;
    next.after(delay.isZero() ? AGAIN : delay);
    if (delay.isZero()) {
      advance();
    }
  }

  /** Does what comes next, when its time has come. */
  private void advance() {
    if (isOver) {
      return;
    }
    try {
      takeStep();
    } catch (RuntimeException e) {
      if (session == null && !isLackOfMemory(e)) {
        end();
        throw e;
      }
      next.after(AGAIN);
      Console.print("", e);
    }
  }

  /**
   * Whether an error is behind it: without memory the JVM throws one object again and again, and a
   * try with resources refuses to add it to itself.
   */
  private static boolean isLackOfMemory(RuntimeException e) {
    return e.getCause() instanceof OutOfMemoryError;
  }

  @Override
  public final boolean isOver() {
    return isOver;
  }

  @Override
  public final boolean isRunning() {
    return session != null;
  }

  @Override
  public final String state() {
    S current = session;
    return isOver ? OFF : current == null ? "waiting" : stateOf(current);
  }

  @Override
  public final Path stop() throws IOException {
    try {
      if (session == null) {
        return null;
      }
      Path report = stopSession();
      printAtEnd();
      return report;
    } finally {
      if (session == null) {
        end();
      }
    }
  }

  /** Stops the session that is under way, and goes on to the next if there is one. */
  final void finishSession() {
    try {
      stopSession();
    } catch (IOException e) {
      Console.print("", e);
    }
    if (sessionsToCome > 0) {
      sessionsToCome--;
    }
    if (sessionsToCome == 0) {
      end();
      printAtEnd();
    } else {
      takeStep();
    }
  }

  /** There is a session afterwards only when it goes on or this fails with an error. */
  private Path stopSession() throws IOException {
    S stopping = session;
    prepareStop(stopping);
    Path report;
    try {
      report = stop(stopping);
    } catch (IOException e) {
      closeFailed();
      throw e;
    }
    closeSession();
    controller.reported(feature, stopping);
    return report;
  }

  // --- What the plans differ in ---

  /** Begins a session when none is under way, and does what comes next in it. */
  abstract void takeStep();

  abstract String stateOf(S current);

  /** Just before the session is stopped. */
  abstract void prepareStop(S stopping);

  /** Stops the session, and gives its report. */
  Path stop(S stopping) throws IOException {
    return stopping.stop();
  }

  /** The session has been stopped. */
  void closeSession() {
    session = null;
  }

  /** The session has been stopped, without a complete report. */
  void closeFailed() {
    closeSession();
  }

  /** Called when there are no more sessions. */
  void printAtEnd() {}

  /** Allocates nothing. */
  void end() {
    isOver = true;
    next.remove();
  }
}
