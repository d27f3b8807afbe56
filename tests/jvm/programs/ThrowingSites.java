import java.util.Map;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.LongAdder;
import java.util.function.Consumer;

/**
 * Many threads throw exceptions of five classes at two sites each; facts are how many were thrown
 * where, by class, method and line. On platform threads each thread ends with one that nobody
 * catches.
 */
public final class ThrowingSites {
  private static final int THREADS = 8;
  private static final int ROUNDS = 200;
  private static final Map<String, LongAdder> CAUGHT = new ConcurrentHashMap<>();
  private static final Map<String, LongAdder> UNCAUGHT = new ConcurrentHashMap<>();

  private ThrowingSites() {}

  static class First extends RuntimeException {
    private static final long serialVersionUID = 1;
  }

  static final class Second extends First {
    private static final long serialVersionUID = 1;
  }

  static final class Third extends Error {
    private static final long serialVersionUID = 1;
  }

  static final class Fourth extends RuntimeException {
    private static final long serialVersionUID = 1;
  }

  static final class Fifth extends RuntimeException {
    private static final long serialVersionUID = 1;
  }

  public static void main(String[] args) throws InterruptedException {
    Thread.setDefaultUncaughtExceptionHandler((thread, e) -> count(UNCAUGHT, e));
    run(body -> new Thread(body).start(), true);
  }

  static void run(Consumer<Runnable> threads, boolean endUncaught) throws InterruptedException {
    CountDownLatch done = new CountDownLatch(THREADS);
    for (int i = 0; i < THREADS; i++) {
      threads.accept(
          () -> {
            throwAll();
            done.countDown();
            if (endUncaught) {
              throw new First();
            }
          });
    }
    done.await();
    while (endUncaught && sum(UNCAUGHT) < THREADS) {
      Thread.sleep(5);
    }
    CAUGHT.forEach((site, count) -> Facts.put("caught " + site, count));
    UNCAUGHT.forEach((site, count) -> Facts.put("uncaught " + site, count));
  }

  private static long sum(Map<String, LongAdder> counts) {
    return counts.values().stream().mapToLong(LongAdder::sum).sum();
  }

  private static void throwAll() {
    for (int round = 0; round < ROUNDS; round++) {
      for (int which = 0; which < 5; which++) {
        try {
          here(which);
        } catch (Throwable e) {
          count(CAUGHT, e);
        }
        try {
          there(which);
        } catch (Throwable e) {
          count(CAUGHT, e);
        }
      }
    }
  }

  private static void count(Map<String, LongAdder> counts, Throwable e) {
    StackTraceElement top = e.getStackTrace()[0];
    String site =
        e.getClass().getName() + ' ' + top.getClassName() + '.' + top.getMethodName() + ' '
            + top.getLineNumber();
    counts.computeIfAbsent(site, each -> new LongAdder()).increment();
  }

  private static void here(int which) {
    switch (which) {
      case 0:
        throw new First();
      case 1:
        throw new Second();
      case 2:
        throw new Third();
      case 3:
        throw new Fourth();
      default:
        throw new Fifth();
    }
  }

  private static void there(int which) {
    if (which == 0) {
      throw new First();
    }
    if (which == 1) {
      throw new Second();
    }
    if (which == 2) {
      throw new Third();
    }
    if (which == 3) {
      throw new Fourth();
    }
    throw new Fifth();
  }
}
