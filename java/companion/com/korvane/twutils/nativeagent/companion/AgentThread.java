package com.korvane.twutils.nativeagent.companion;

import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.OwnThread;
import java.lang.ref.WeakReference;
import java.lang.reflect.InvocationTargetException;
import java.util.Arrays;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicReference;
import java.util.concurrent.locks.LockSupport;

/**
 * A thread of the companion's own. It keeps no JVM alive, and neither its exceptions nor its
 * allocations are recorded.
 */
final class AgentThread extends Thread implements OwnThread {
  /** Other threads that do the companion's work now; mostly none. Neither locked nor hashed. */
  private static final AtomicReference<Helper[]> HELPERS = new AtomicReference<>(new Helper[0]);

  /** What such work ended with last; management throws it on, as it is and within others. */
  private static volatile WeakReference<Throwable> lastFailure = new WeakReference<>(null);

  /** Exactly these classes hand a failure on. */
  private static volatile Class<?>[] wrappers = {InvocationTargetException.class};

  private static final int MOST_WRAPPERS = 10; // around each other

  /** Between a round that has failed and the next one. */
  private static final long REST_NANOS = TimeUnit.MILLISECONDS.toNanos(100);

  private static final long POLL_NANOS = TimeUnit.MICROSECONDS.toNanos(50);

  private final boolean runsInAnyCase;

  private AgentThread(Runnable body, String name, boolean runsInAnyCase) {
    super(null, body, "javanativeagent " + name);
    this.runsInAnyCase = runsInAnyCase;
    setDaemon(true);
    // It would hold the loader of a program's thread that happens to make it.
    setContextClassLoader(null);
  }

  /** A daemon without a context class loader. */
  static AgentThread of(String name, Runnable body) {
    return new AgentThread(body, name, false);
  }

  /** The same; where no thread can be had, {@link #start} does its work. */
  static AgentThread inAnyCase(String name, Runnable body) {
    return new AgentThread(body, name, true);
  }

  /** A piece of work that comes again and again. */
  interface Round {
    /** @return whether another one comes */
    boolean run();
  }

  /**
   * The same, for work in rounds. Whatever a round throws, the thread goes on with the next one, in
   * a moment: it ends with the last round only.
   */
  static AgentThread repeating(String name, Round round) {
    return of(name, new Rounds(round));
  }

  private static final class Rounds implements Runnable {
    private final Round round;
    private boolean hasFailed;

    Rounds(Round round) {
      this.round = round;
    }

    @Override
    public void run() {
      boolean goesOn = true;
      while (goesOn) {
        try {
          if (hasFailed) {
            hasFailed = false;
            LockSupport.parkNanos(REST_NANOS);
          }
          goesOn = round.run();
        } catch (Throwable e) {
          hasFailed = true; // and nothing else: there may be no memory left
        }
      }
    }
  }

  /**
   * Finds out whether so many threads could be had, with those of the companion. They are gone
   * afterwards.
   *
   * @throws OutOfMemoryError when they could not
   */
  static void requireSpare(int count) {
    CountDownLatch end = new CountDownLatch(1);
    Thread[] spare = new Thread[count];
    boolean areEnough = false;
    try {
      for (int i = 0; i < count; i++) {
        spare[i] = of("spare", () -> awaitUninterruptibly(end));
        spare[i].start();
      }
      areEnough = true;
    } finally {
      end.countDown();
      for (Thread each : spare) {
        awaitEnd(each);
      }
      if (!areEnough) {
        LockSupport.parkNanos(REST_NANOS); // the system frees them a moment later
      }
    }
  }

  /** A moment, for a thread that waits for what has no lock. */
  static void pause() {
    LockSupport.parkNanos(REST_NANOS);
  }

  private static void awaitEnd(Thread thread) {
    while (thread != null && thread.isAlive()) {
      LockSupport.parkNanos(POLL_NANOS);
    }
  }

  private static void awaitUninterruptibly(CountDownLatch latch) {
    while (latch.getCount() > 0) {
      try {
        latch.await();
      } catch (InterruptedException e) {
        // Nobody has business with this thread.
      }
    }
  }

  @Override
  public void start() {
    try {
      super.start();
    } catch (OutOfMemoryError e) {
      if (!runsInAnyCase) {
        throw e;
      }
      run();
    }
  }

  @Override
  public void run() {
    if (currentThread() == this) {
      NativeAgent.leaveOutAllocations(true);
    }
    super.run();
  }

  interface Work<T, E extends Exception> {
    T run() throws E;
  }

  /** Does the work on this thread as if it was the companion's own. */
  static <T, E extends Exception> T help(Work<T, E> work) throws E {
    Helper helper = new Helper(currentThread());
    HELPERS.updateAndGet(before -> withOne(before, helper));
    try {
      return work.run();
    } catch (Throwable e) {
      lastFailure = new WeakReference<>(e);
      throw e;
    } finally {
      helper.thread = null; // allocates nothing: there may be no memory
    }
  }

  /** A thread that helps, until it has. */
  private static final class Helper {
    volatile Thread thread;

    Helper(Thread thread) {
      this.thread = thread;
    }
  }

  /** Those that are at it still, and one more. */
  private static Helper[] withOne(Helper[] helpers, Helper coming) {
    Helper[] after = new Helper[helpers.length + 1];
    int count = 0;
    for (Helper each : helpers) {
      if (each.thread != null) {
        after[count++] = each;
      }
    }
    after[count++] = coming;
    return Arrays.copyOf(after, count);
  }

  /** Names classes of exceptions in which management hands on what failed; each counts once. */
  static void addWrappers(Class<?>... classes) {
    Class<?>[] before = wrappers;
    Class<?>[] all = Arrays.copyOf(before, before.length + classes.length);
    int count = before.length;
    for (Class<?> each : classes) {
      if (!Arrays.asList(before).contains(each)) {
        all[count++] = each;
      }
    }
    wrappers = Arrays.copyOf(all, count);
  }

  // --- Asked by threads that throw: no class is loaded, nothing allocated, no code of others run.

  /** Whether this thread does the companion's work. */
  static boolean isAtWork() {
    Thread self = currentThread();
    if (self instanceof AgentThread) {
      return true;
    }
    for (Helper helper : HELPERS.get()) {
      if (helper.thread == self) {
        return true;
      }
    }
    return false;
  }

  /** Whether an exception, or what it hands on, comes from work that another thread has done. */
  static boolean isFailureOfHelp(Object exception) {
    Throwable failure = lastFailure.get();
    if (failure == null) {
      return false;
    }
    Object each = exception;
    for (int i = 0; i < MOST_WRAPPERS && each != failure && isWrapper(each); i++) {
      each = ((Throwable) each).getCause();
    }
    return each == failure;
  }

  private static boolean isWrapper(Object exception) {
    if (exception != null) {
      for (Class<?> wrapper : wrappers) {
        if (exception.getClass() == wrapper) {
          return true;
        }
      }
    }
    return false;
  }
}
