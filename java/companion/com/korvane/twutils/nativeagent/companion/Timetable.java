package com.korvane.twutils.nativeagent.companion;

import java.time.Duration;
import java.util.concurrent.Future;
import java.util.concurrent.ScheduledThreadPoolExecutor;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.ReentrantLock;

/**
 * Whose turn it is to control the agent: steps at their times, on one thread, and what is asked for
 * from outside. One comes after the other.
 */
final class Timetable {
  // No monitors anywhere: the lock profiler would report them.
  private final ReentrantLock turn = new ReentrantLock();
  private final ScheduledThreadPoolExecutor clock =
      new ScheduledThreadPoolExecutor(1, body -> AgentThread.of("control", body));

  Timetable() {
    clock.setRemoveOnCancelPolicy(true);
  }

  /** Runs the step when that time has passed. What it throws is said on standard error. */
  Future<?> after(Duration delay, Runnable step) {
    Runnable task = () -> inTurn(() -> contained(step));
    return clock.schedule(task, delay.toMillis(), TimeUnit.MILLISECONDS);
  }

  /** Runs the action on this thread, as soon as no other is under way. */
  void inTurn(Runnable action) {
    turn.lock();
    try {
      action.run();
    } finally {
      turn.unlock();
    }
  }

  private static void contained(Runnable step) {
    try {
      step.run();
    } catch (RuntimeException | LinkageError | OutOfMemoryError e) {
      Console.say(Console.messageOf(e));
    }
  }
}
