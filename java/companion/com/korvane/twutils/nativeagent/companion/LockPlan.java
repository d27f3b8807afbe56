package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.LockSession;
import com.korvane.twutils.nativeagent.LockSettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.IOException;
import java.nio.file.Path;
import java.time.Duration;
import java.util.concurrent.Future;

/**
 * Takes lock sessions through their phases, one after the other. Used in turn only, but for {@link
 * #state}, which any thread may ask for.
 */
final class LockPlan {
  private final Controller controller;
  private final Duration delay;
  private final Duration summary;
  private final Duration detail;
  private final int top;
  private final String name;
  private int sessionsToCome; // negative for no end of them

  private volatile LockSession session;
  private Future<?> next;
  private volatile boolean isOver;

  LockPlan(Controller controller, OptionReader options) {
    this.controller = controller;
    delay = options.duration(OptionKey.LOCKS_DELAY, Duration.ZERO);
    summary = options.duration(OptionKey.LOCKS_SUMMARY, Duration.ofSeconds(5));
    detail = options.duration(OptionKey.LOCKS_DETAIL, Duration.ofSeconds(60));
    sessionsToCome = options.repeat(OptionKey.LOCKS_REPEAT);
    top = options.top(OptionKey.LOCKS_TOP, 20);
    String given = options.text(OptionKey.LOCKS_NAME);
    name = given == null ? "locks" : given;
  }

  void begin() {
    if (delay.isZero()) {
      startSession();
    } else {
      next = controller.after(delay, this::startSession);
    }
  }

  boolean isOver() {
    return isOver;
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
    isOver = true;
    if (next != null) {
      next.cancel(false);
    }
    return session == null ? null : stopSession();
  }

  private void startSession() {
    if (isOver) {
      return;
    }
    isOver = true; // unless it can be started
    session =
        NativeAgent.startLocks(
            new LockSettings(controller.nextLockReport())
                .name(name)
                .summary(summary)
                .detail(detail)
                .topLocks(top));
    session.startSummary();
    isOver = false;
    next = controller.after(summary, this::startDetail);
  }

  private void startDetail() {
    if (isOver) {
      return;
    }
    if (session.phase() == LockSession.Phase.SUMMARY) { // the program may have stopped it
      session.startDetail();
    }
    next = controller.after(detail, this::finishSession);
  }

  private void finishSession() {
    if (isOver) {
      return;
    }
    try {
      stopSession();
    } catch (IOException e) {
      Console.say(Console.messageOf(e));
    }
    if (sessionsToCome > 0) {
      sessionsToCome--;
    }
    if (sessionsToCome == 0) {
      isOver = true;
    } else {
      startSession();
    }
  }

  private Path stopSession() throws IOException {
    LockSession stopping = session;
    session = null;
    if (stopping.phase() == LockSession.Phase.SUMMARY) {
      Console.say(
          "lock session " + stopping.id() + " ends in its summary phase, so that its report names"
              + " no lock: a shorter locks.summary helps");
    }
    Path report = stopping.stop();
    controller.lockReported(report);
    return report;
  }
}
