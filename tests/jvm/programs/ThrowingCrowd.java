import java.util.concurrent.atomic.AtomicLongArray;

/** Daemon threads that throw and catch, on and on, until the VM ends or they are told to stop. */
final class ThrowingCrowd {
  private final AtomicLongArray thrown; // by each thread
  private final Thread[] threads;
  private volatile boolean isOver;

  ThrowingCrowd(int size) {
    threads = new Thread[size];
    thrown = new AtomicLongArray(size);
    for (int i = 0; i < size; i++) {
      threads[i] = new Thread(runner(i), "thrower-" + i);
      threads[i].setDaemon(true);
      threads[i].start();
    }
  }

  /** Until each thread has thrown, and caught, so many exceptions from now on. */
  void awaitEach(int exceptions) {
    for (int i = 0; i < threads.length; i++) {
      int thread = i;
      long goal = thrown.get(i) + exceptions;
      Await.that(threads[i].getName(), () -> thrown.get(thread) >= goal);
    }
  }

  void stop() throws InterruptedException {
    isOver = true;
    for (Thread thread : threads) {
      thread.join();
    }
  }

  private Runnable runner(int thread) {
    return () -> {
      for (int i = 0; !isOver; i++) {
        try {
          fail(i, "number " + i);
        } catch (IllegalStateException e) {
          thrown.incrementAndGet(thread);
        }
      }
    };
  }

  private void fail(int number, String text) {
    Object[] local = {text, number};
    Throwers.use(local);
    throw new IllegalStateException(text);
  }
}
