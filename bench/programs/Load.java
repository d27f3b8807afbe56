import com.sun.management.OperatingSystemMXBean;
import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.lang.management.ManagementFactory;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.Locale;
import java.util.Map;
import java.util.concurrent.atomic.AtomicLong;

/**
 * Threads that repeat an operation until they are told to stop, and the measuring of how often they
 * did.
 *
 * <p>{@link #serve} prints {@code ready}. Each line on standard input is then a number of seconds
 * to measure, and is answered with one line, a JSON object: the operations, {@code from} and {@code
 * to} by the clock of {@code System.nanoTime}, and the growth of the further counters. Between
 * measurements the load runs on, so a caller may stop the whole process and let others have the
 * processors.
 */
abstract class Load {
  /** One thread of the load. */
  abstract static class Worker implements Runnable {
    private final AtomicLong operations = new AtomicLong();
    private final String name;
    private volatile boolean stopped;
    private Thread thread;

    Worker(String name) {
      this.name = name;
    }

    abstract void operation() throws InterruptedException;

    /** Makes an operation that is waiting for another thread return. */
    void wake() {}

    final void endLoad() {
      stopped = true;
    }

    final boolean isStopped() {
      return stopped;
    }

    final Thread thread() {
      return thread;
    }

    @Override
    public final void run() {
      long done = 0;
      try {
        while (!stopped) {
          operation();
          operations.lazySet(++done);
        }
      } catch (InterruptedException e) {
        throw new AssertionError("nobody interrupts a worker", e);
      }
    }
  }

  private static final int MOST_WARMUPS = 4;

  private static final OperatingSystemMXBean SYSTEM =
      ManagementFactory.getPlatformMXBean(OperatingSystemMXBean.class);

  /** What the load has done up to a moment. */
  private final class Reading {
    final Map<String, long[]> counters = new LinkedHashMap<>(furtherCounters());
    final long operations =
        Arrays.stream(workers).mapToLong(worker -> worker.operations.get()).sum();
    final long nanos = System.nanoTime();

    /** The JSON object for the time since an earlier reading. */
    String since(Reading earlier) {
      double seconds = (nanos - earlier.nanos) / 1e9;
      long done = operations - earlier.operations;
      StringBuilder json = new StringBuilder();
      json.append(
          String.format(
              Locale.ROOT,
              "{\"operationsPerSecond\": %.1f, \"operations\": %d, \"from\": %d, \"to\": %d",
              done / seconds,
              done,
              earlier.nanos,
              nanos));
      counters.forEach(
          (name, values) ->
              json.append(
                  String.format(", \"%s\": %s", name, grown(earlier.counters.get(name), values))));
      return json.append("}").toString();
    }
  }

  private final Worker[] workers;

  Load(Worker... workers) {
    this.workers = workers;
  }

  /**
   * The counters of the program beside the operations, none of which ever shrinks. One of several
   * values is reported as a list.
   */
  abstract Map<String, long[]> furtherCounters();

  /** Starts the threads; virtual ones need a JDK that has them. */
  final void start(boolean isVirtual) {
    for (Worker worker : workers) {
      worker.thread = isVirtual ? virtualThread(worker) : new Thread(worker);
      worker.thread.setName(worker.name);
      worker.thread.start();
    }
  }

  /**
   * Lets the load run before it is measured: for the given time and, where others have the
   * processors, until it has had that much of them, but no longer than {@link #MOST_WARMUPS} times
   * the given time.
   */
  static void warmUp(double seconds) throws InterruptedException {
    long nanos = Math.round(seconds * 1e9);
    long begun = System.nanoTime();
    long processorBefore = SYSTEM.getProcessCpuTime();
    Thread.sleep(millis(seconds));
    while (SYSTEM.getProcessCpuTime() - processorBefore < nanos
        && System.nanoTime() - begun < MOST_WARMUPS * nanos) {
      Thread.sleep(10);
    }
  }

  final void serve() throws IOException, InterruptedException {
    System.out.println("ready");
    BufferedReader orders = new BufferedReader(new InputStreamReader(System.in));
    for (String seconds = orders.readLine(); seconds != null; seconds = orders.readLine()) {
      Reading before = new Reading();
      Thread.sleep(millis(Double.parseDouble(seconds)));
      System.out.println(new Reading().since(before));
    }
  }

  final void stop() throws InterruptedException {
    for (Worker worker : workers) {
      worker.endLoad();
    }
    for (Worker worker : workers) {
      worker.wake();
    }
    for (Worker worker : workers) {
      worker.thread.join();
    }
  }

  static long millis(double seconds) {
    return Math.round(seconds * 1000);
  }

  static void fail(Object program, String message) {
    System.err.println(program + ": " + message);
    System.exit(1);
  }

  // By name, for this is compiled for JDKs without virtual threads too.
  static Thread virtualThread(Runnable task) {
    try {
      Object builder = Thread.class.getMethod("ofVirtual").invoke(null);
      return (Thread)
          Class.forName("java.lang.Thread$Builder")
              .getMethod("unstarted", Runnable.class)
              .invoke(builder, task);
    } catch (ReflectiveOperationException e) {
      throw new IllegalStateException("this JDK has no virtual threads", e);
    }
  }

  private static String grown(long[] before, long[] after) {
    long[] growth = new long[after.length];
    for (int i = 0; i < growth.length; i++) {
      growth[i] = after[i] - before[i];
    }
    return growth.length == 1 ? Long.toString(growth[0]) : Arrays.toString(growth);
  }
}
