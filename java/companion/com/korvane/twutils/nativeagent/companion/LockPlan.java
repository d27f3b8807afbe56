package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.LockSession;
import com.korvane.twutils.nativeagent.LockSettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.IOException;
import java.nio.file.Path;
import java.time.Duration;

/**
 * Takes lock sessions through their phases, one after the other. Used in turn only, but for {@link
 * #state}, which any thread may ask for.
 *
 * <p>Each step begins with what the session is doing, and so takes up what one that failed has
 * left.
 */
final class LockPlan {
  private static final Duration AGAIN = Duration.ofSeconds(1);

  private final Controller controller;
  private final Timetable.Step next;
  private final Duration delay;
  private final Duration summary;
  private final Duration detail;
  private final int top;
  private final String name;
  private int sessionsToCome; // negative for no end of them

  private volatile LockSession session;
  private volatile boolean isOver;

  /**
   * @param next calls {@link #advance}
   * @throws IllegalArgumentException for sessions without length
   */
  LockPlan(Controller controller, Timetable.Step next, OptionReader options) {
    this.controller = controller;
    this.next = next;
    delay = options.duration(OptionKey.LOCKS_DELAY, Duration.ZERO);
    summary = options.duration(OptionKey.LOCKS_SUMMARY, Duration.ofSeconds(5));
    detail = options.duration(OptionKey.LOCKS_DETAIL, Duration.ofSeconds(60));
    sessionsToCome = options.repeat(OptionKey.LOCKS_REPEAT);
    options.requireLength(
        summary.plus(detail), sessionsToCome, OptionKey.LOCKS_REPEAT, OptionKey.LOCKS_SUMMARY,
        OptionKey.LOCKS_DETAIL);
    top = options.top(OptionKey.LOCKS_TOP, 20);
    String given = options.text(OptionKey.LOCKS_NAME);
    name = given == null ? "locks" : given;
  }

  void begin() {
    next.after(delay.isZero() ? AGAIN : delay);
    if (delay.isZero()) {
      advance();
    }
  }

  /** Does what comes next, when its time has come. */
  void advance() {
    if (isOver) {
      return;
    }
    try {
      takeStep();
    } catch (RuntimeException e) {
      if (session == null) {
        end();
        throw e;
      }
      next.after(AGAIN);
      Console.say("", e);
    }
  }

  private void takeStep() {
    if (session == null) {
      session =
          NativeAgent.startLocks(
              new LockSettings(controller.nextLockReport())
                  .name(name)
                  .summary(summary)
                  .detail(detail)
                  .topLocks(top));
    }
    switch (session.phase()) { // the program may have stopped it
      case BEGUN:
        session.startSummary();
        next.after(summary);
        break;
      case SUMMARY:
        session.startDetail();
        next.after(detail);
        break;
      default:
        finishSession();
    }
  }

  boolean isOver() {
    return isOver;
  }

  /** Whether a session is. */
  boolean isRunning() {
    return session != null;
  }

  /** What it is doing, in a word. */
  String state() {
    LockSession current = session;
    return isOver ? "off" : current == null ? "waiting" : current.phase().toString();
  }

  /**
   * Ends the plan, and the session that is running, with its report.
   *
   * @return the report; null when no session was running
   */
  Path stop() throws IOException {
    try {
      return session == null ? null : stopSession();
    } finally {
      if (session == null) {
        end();
      }
    }
  }

  private void end() {
    isOver = true;
    next.cancel();
  }

  private void finishSession() {
    try {
      stopSession();
    } catch (IOException e) {
      Console.say("", e);
    }
    if (sessionsToCome > 0) {
      sessionsToCome--;
    }
    if (sessionsToCome == 0) {
      end();
    } else {
      takeStep();
    }
  }

  /** There is a session afterwards only when this fails with an error. */
  private Path stopSession() throws IOException {
    LockSession stopping = session;
    if (stopping.phase() == LockSession.Phase.SUMMARY) {
      Console.say(
          "lock session " + stopping.id() + " ends in its summary phase, so that its report names"
              + " no lock: a shorter locks.summary helps");
    }
    Path report;
    try {
      report = stopping.stop();
    } catch (IOException e) {
      session = null;
      throw e;
    }
    session = null;
    controller.lockReported(report);
    return report;
  }
}
