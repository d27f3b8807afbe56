package com.korvane.twutils.nativeagent.companion;

import java.lang.ref.WeakReference;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.atomic.AtomicReference;

/** A thread of the companion's own. It keeps no JVM alive, and its exceptions are not recorded. */
final class AgentThread extends Thread {
  /** Other threads that do the companion's work now; mostly none. Neither locked nor hashed. */
  private static final AtomicReference<Thread[]> kHelpers = new AtomicReference<>(new Thread[0]);

  /** What such work ended with last; management throws it on, as it is and within others. */
  private static volatile WeakReference<Throwable> lastFailure = new WeakReference<>(null);

  private static final List<String> kWrappers =
      Arrays.asList(
          "java.lang.reflect.InvocationTargetException",
          "javax.management.MBeanException",
          "javax.management.RuntimeMBeanException");

  private AgentThread(Runnable body, String name) {
    super(null, body, "javanativeagent " + name);
    setDaemon(true);
  }

  /**
   * A daemon without a context class loader: it would hold the one of a program's thread that
   * happens to make it.
   */
  static AgentThread of(String name, Runnable body) {
    AgentThread thread = new AgentThread(body, name);
    thread.setContextClassLoader(null);
    return thread;
  }

  interface Work<T, E extends Exception> {
    T run() throws E;
  }

  /** Does the work on this thread as if it was the companion's own. */
  static <T, E extends Exception> T help(Work<T, E> work) throws E {
    Thread self = currentThread();
    kHelpers.updateAndGet(
        before -> {
          Thread[] after = Arrays.copyOf(before, before.length + 1);
          after[before.length] = self;
          return after;
        });
    try {
      return work.run();
    } catch (Throwable e) {
      lastFailure = new WeakReference<>(e);
      throw e;
    } finally {
      kHelpers.updateAndGet(before -> withoutOne(before, self));
    }
  }

  private static Thread[] withoutOne(Thread[] threads, Thread leaving) {
    int place = 0;
    while (threads[place] != leaving) {
      place++;
    }
    Thread[] left = new Thread[threads.length - 1];
    System.arraycopy(threads, 0, left, 0, place);
    System.arraycopy(threads, place + 1, left, place, left.length - place);
    return left;
  }

  /** Whether this thread does the companion's work. */
  static boolean isAtWork() {
    Thread self = currentThread();
    if (self instanceof AgentThread) {
      return true;
    }
    for (Thread helper : kHelpers.get()) {
      if (helper == self) {
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
    while (each != failure && each != null && kWrappers.contains(each.getClass().getName())) {
      each = ((Throwable) each).getCause();
    }
    return each == failure;
  }
}
