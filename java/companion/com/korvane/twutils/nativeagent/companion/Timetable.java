package com.korvane.twutils.nativeagent.companion;

import java.time.Duration;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;

/**
 * Whose turn it is to control the agent: steps at their times, on one thread, and what is asked for
 * from outside. One comes after the other.
 *
 * <p>A step that fails with an error, perhaps for lack of memory, comes again a second later, as
 * often as it takes. So it has to go on from where it failed.
 */
final class Timetable {
  private static final long AGAIN_NANOS = TimeUnit.SECONDS.toNanos(1);
  private static final long LONGEST_PARK_NANOS = TimeUnit.SECONDS.toNanos(10);

  // No monitors anywhere: the lock profiler would report them.
  private final ReentrantLock turn = new ReentrantLock();
  private final AgentThread clock = AgentThread.repeating("control", this::round);

  private Step last; // in turn; each knows the one that was made before it
  private volatile Runnable urgent; // what the clock is to do first
  private volatile boolean isOver;
  private Error failure; // of a step, to be printed; the clock's own
  private boolean hasFailed;

  /** Something that is done at its time, once or many times. */
  final class Step {
    private final Runnable action;
    private long at; // System.nanoTime()
    private boolean isDue;
    private Step before;

    private Step(Runnable action) {
      this.action = action;
    }

    /** In turn: has it done when that time has passed, and not at another time set before. */
    void after(Duration delay) {
      after(delay.toNanos());
    }

    private void after(long nanos) {
      at = System.nanoTime() + nanos;
      isDue = true;
      LockSupport.unpark(clock);
    }

    /** In turn: it has no time any more. */
    void cancel() {
      isDue = false;
    }

    /** In turn: it never comes again. Allocates nothing. */
    void remove() {
      cancel();
      if (last == this) {
        last = before;
      }
      for (Step each = last; each != null; each = each.before) {
        if (each.before == this) {
          each.before = before;
        }
      }
    }
  }

  /**
   * A step, which has no time yet. What the action throws is printed on standard error.
   */
  Step step(Runnable action) {
    Step step = new Step(action);
    inTurn(
        () -> {
          step.before = last;
          last = step;
        });
    return step;
  }

  /** Steps are done from now on; there may be no thread to be had for it. */
  void start() {
    clock.start();
  }

  /** Nothing is done at its time any more, from that action on. */
  void end(Runnable last) {
    inTurn(
        () -> {
          isOver = true;
          last.run();
        });
    LockSupport.unpark(clock);
  }

  /** Whether nothing is done at its time any more. */
  boolean isOver() {
    return isOver;
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

  /** The same, unless the time passes before. Returns whether it was run. */
  boolean inTurn(Duration patience, Runnable action) {
    long end = System.nanoTime() + patience.toNanos();
    boolean isInterrupted = false;
    boolean isTurn = turn.tryLock();
    while (!isTurn && System.nanoTime() < end) {
      try {
        isTurn = turn.tryLock(end - System.nanoTime(), TimeUnit.NANOSECONDS);
      } catch (InterruptedException e) {
        isInterrupted = true;
      }
    }
    try {
      if (isTurn) {
        action.run();
      }
    } finally {
      if (isTurn) {
        turn.unlock();
      }
      if (isInterrupted) {
        Thread.currentThread().interrupt();
      }
    }
    return isTurn;
  }

  /**
   * Has the clock do this next, and waits until it has, but no longer than that. Takes no lock, so
   * that a thread may ask which holds any of them.
   *
   * @return whether it is done; if not, it will be
   */
  boolean byClock(Duration patience, Runnable action) {
    CountDownLatch done = new CountDownLatch(1);
    urgent =
        () -> {
          try {
            action.run();
          } finally {
            done.countDown();
          }
        };
    LockSupport.unpark(clock);
    return isDone(done, System.nanoTime() + patience.toNanos());
  }

  private static boolean isDone(CountDownLatch latch, long end) {
    boolean isInterrupted = false;
    boolean isDone = latch.getCount() == 0;
    while (!isDone && System.nanoTime() - end < 0) {
      try {
        isDone = latch.await(end - System.nanoTime(), TimeUnit.NANOSECONDS);
      } catch (InterruptedException e) {
        isInterrupted = true;
      }
    }
    if (isInterrupted) {
      Thread.currentThread().interrupt();
    }
    return isDone;
  }

  private boolean round() {
    printFailure();
    long next;
    turn.lock();
    try {
      if (isOver) {
        return false;
      }
      next = runSteps();
    } finally {
      turn.unlock();
    }
    LockSupport.parkNanos(this, next - System.nanoTime());
    return true;
  }

  /** Returns when the next one is due, or the next check. */
  private long runSteps() {
    Runnable first = urgent;
    if (first != null) {
      urgent = null;
      first.run();
    }
    long next = System.nanoTime() + LONGEST_PARK_NANOS;
    for (Step step = last; step != null; step = step.before) {
      if (step.isDue && step.at - System.nanoTime() <= 0) {
        run(step);
      }
      if (step.isDue && step.at - next < 0) {
        next = step.at;
      }
    }
    return next;
  }

  private void run(Step step) {
    step.isDue = false;
    try {
      step.action.run();
    } catch (RuntimeException e) {
      Console.print("", e);
    } catch (Error e) {
      failure = e; // nothing is allocated here
      if (!step.isDue) {
        step.after(AGAIN_NANOS);
      }
    }
  }

  /** The first one, whatever follows. */
  private void printFailure() {
    if (failure != null && !hasFailed) {
      hasFailed = true;
      Console.print(
          "the companion will retry what failed until it succeeds: ", failure);
    }
    failure = null;
  }
}
