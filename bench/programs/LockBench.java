import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.startMutexLockDetailSession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.startMutexLockProfilingSession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.startMutexLockSummarySession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.stopMutexLockDetailSession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.stopMutexLockProfilingSession;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadInfo;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.Locale;
import java.util.concurrent.atomic.AtomicLong;

/**
 * Measures how many operations on contended monitors a number of threads complete in a second.
 *
 * <p>Usage: {@code LockBench [--name=value]...}; the fields of {@link Settings} say which and with
 * what defaults. Once the load is warm it prints {@code ready}. Each line on standard input is then
 * a number of seconds to measure, and is answered with one line, a JSON object; the end of the
 * input ends the session and the program. Between measurements the load runs on, so a caller may
 * stop the whole process and let others have the processors. Ends with status 1 and a line on
 * standard error when the options or a session are refused.
 */
public final class LockBench {
  private static final int COMPILE_ROUNDS = 20_000;
  private static final long BRIEF_SUMMARY_MILLIS = 1_000;
  private static final long CLOSING_DETAIL_MILLIS = 300;

  public static void main(String[] args) throws IOException, InterruptedException {
    try {
      Settings settings = new Settings(args);
      new LockBench(settings).run();
    } catch (IllegalArgumentException | IllegalStateException e) {
      fail(e.getMessage());
    } catch (UnsatisfiedLinkError e) {
      fail("a session needs the agent: start the JVM with -agentpath:.../libjavanativeagent.so");
    }
  }

  private static void fail(String message) {
    System.err.println("LockBench: " + message);
    System.exit(1);
  }

  /** What to run; each field is set by an option of its name. */
  private static final class Settings {
    /** "locks": threads pick monitors at random. "pingpong": pairs pass a turn by wait and notify. */
    String workload = "locks";

    int threads = 64;

    /** Of the workload "locks" only; a pair of "pingpong" has one of its own. */
    int monitors = 16;

    /** Steps of arithmetic, about a nanosecond each, done inside and outside the monitor. */
    int inside = 100;

    int outside = 100;

    /**
     * How often a thread gives up its processor while it holds the monitor. Without that, two
     * processors hardly ever make a thread block: the VM's spinning waits out a short section.
     */
    int yields = 1;

    /**
     * Whether a thread that has left its monitor lets another thread take that monitor before it
     * goes on, which needs more threads than monitors. Left to themselves, such loads change for
     * seconds at a time between two states that differ several times in speed: in one the threads
     * hand a monitor over, in the other one thread takes it again and again before the thread it
     * woke gets there.
     */
    boolean turns = false;

    /** Frames between the thread's run method and the one that enters the monitor. */
    int depth = 20;

    /** Seconds of contention before the measured ones. */
    double warmup = 1;

    /** "none", "summary" or "detail": the lock profiling session that covers the measurement. */
    String session = "none";

    /** Where a session leaves lock-report.json and lock-stacks.txt. */
    Path folder = Paths.get(".");

    Settings(String[] args) {
      for (String arg : args) {
        int equals = arg.indexOf('=');
        if (!arg.startsWith("--") || equals < 0) {
          throw new IllegalArgumentException("expected --name=value: " + arg);
        }
        set(arg.substring(2, equals), arg.substring(equals + 1));
      }
    }

    private void set(String name, String value) {
      switch (name) {
        case "workload":
          workload = oneOf(name, value, "locks", "pingpong");
          break;
        case "threads":
          threads = Integer.parseInt(value);
          break;
        case "monitors":
          monitors = Integer.parseInt(value);
          break;
        case "inside":
          inside = Integer.parseInt(value);
          break;
        case "outside":
          outside = Integer.parseInt(value);
          break;
        case "yields":
          yields = Integer.parseInt(value);
          break;
        case "turns":
          turns = Boolean.parseBoolean(value);
          break;
        case "depth":
          depth = Integer.parseInt(value);
          break;
        case "warmup":
          warmup = Double.parseDouble(value);
          break;
        case "session":
          session = oneOf(name, value, "none", "summary", "detail");
          break;
        case "folder":
          folder = Paths.get(value);
          break;
        default:
          throw new IllegalArgumentException("unknown option --" + name);
      }
    }

    private static String oneOf(String name, String value, String... known) {
      for (String each : known) {
        if (each.equals(value)) {
          return value;
        }
      }
      throw new IllegalArgumentException(
          "--" + name + " is one of " + String.join(", ", known) + ": " + value);
    }
  }

  /** One thread of the load: repeats its operation and counts until it is told to stop. */
  private abstract static class Worker extends Thread {
    private final AtomicLong operations = new AtomicLong();
    private volatile boolean stopped;

    Worker(String name) {
      super(name);
    }

    abstract void operation() throws InterruptedException;

    /** Makes an operation that is waiting for another thread return. */
    void wake() {}

    void endLoad() {
      stopped = true;
    }

    boolean isStopped() {
      return stopped;
    }

    @Override
    public void run() {
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

  /** A shared monitor, and how often it has been entered. */
  private static final class Monitor {
    volatile int entries;
  }

  /** Enters one of the shared monitors, works in it, leaves it and works outside. */
  private static final class LockWorker extends Worker {
    private final Monitor[] monitors;
    private final Settings settings;
    private long random;
    private long sink = 1;

    LockWorker(int number, Monitor[] monitors, Settings settings) {
      super("lock-worker-" + number);
      this.monitors = monitors;
      this.settings = settings;
      random = 0x9E3779B97F4A7C15L * (number + 1);
    }

    @Override
    void operation() {
      random ^= random << 13;
      random ^= random >>> 7;
      random ^= random << 17;
      Monitor monitor = monitors[(int) Long.remainderUnsigned(random, monitors.length)];
      int entry = enter(monitor, settings.depth);
      sink = work(sink, settings.outside);
      while (settings.turns && monitor.entries == entry && !isStopped()) {
        Thread.yield();
      }
    }

    /** Returns which entry of the monitor this was. */
    private int enter(Monitor monitor, int depth) {
      if (depth > 0) {
        return enter(monitor, depth - 1);
      }
      synchronized (monitor) {
        sink = work(sink, settings.inside);
        for (int i = 0; i < settings.yields; i++) {
          Thread.yield();
        }
        return ++monitor.entries;
      }
    }
  }

  /** The turn that two threads pass to each other. */
  private static final class Turn {
    int holder;
  }

  /** Waits for its turn, works and hands the turn to its partner. */
  private static final class PingPongWorker extends Worker {
    private final Turn turn;
    private final int side;
    private final Settings settings;
    private long sink = 1;

    PingPongWorker(int number, Turn turn, Settings settings) {
      super("ping-pong-" + number);
      this.turn = turn;
      this.side = number % 2;
      this.settings = settings;
    }

    @Override
    void operation() throws InterruptedException {
      takeTurn(settings.depth);
      sink = work(sink, settings.outside);
    }

    private void takeTurn(int depth) throws InterruptedException {
      if (depth > 0) {
        takeTurn(depth - 1);
        return;
      }
      synchronized (turn) {
        while (turn.holder != side && !isStopped()) {
          turn.wait();
        }
        sink = work(sink, settings.inside);
        turn.holder = 1 - side;
        turn.notify();
      }
    }

    @Override
    void wake() {
      synchronized (turn) {
        turn.notifyAll();
      }
    }
  }

  private static long work(long value, int steps) {
    for (int i = 0; i < steps; i++) {
      value ^= value << 13;
      value ^= value >>> 7;
      value ^= value << 17;
    }
    return value;
  }

  private final Settings settings;
  private final Worker[] workers;

  private LockBench(Settings settings) {
    this.settings = settings;
    workers = settings.workload.equals("locks") ? lockWorkers() : pingPongWorkers();
  }

  private Worker[] lockWorkers() {
    if (settings.turns && settings.threads <= settings.monitors) {
      throw new IllegalArgumentException("turns need more threads than monitors");
    }
    Monitor[] monitors = new Monitor[settings.monitors];
    for (int i = 0; i < monitors.length; i++) {
      monitors[i] = new Monitor();
    }
    Worker[] made = new Worker[settings.threads];
    for (int i = 0; i < made.length; i++) {
      made[i] = new LockWorker(i, monitors, settings);
    }
    return made;
  }

  private Worker[] pingPongWorkers() {
    if (settings.threads % 2 != 0) {
      throw new IllegalArgumentException("pingpong takes an even number of threads");
    }
    Worker[] made = new Worker[settings.threads];
    for (int i = 0; i < made.length; i += 2) {
      Turn turn = new Turn();
      made[i] = new PingPongWorker(i, turn, settings);
      made[i + 1] = new PingPongWorker(i + 1, turn, settings);
    }
    return made;
  }

  private void run() throws IOException, InterruptedException {
    compileOperation();
    openSession();
    for (Worker worker : workers) {
      worker.start();
    }
    enterMeasuredPhase();
    Thread.sleep(millis(settings.warmup));
    System.out.println("ready");
    BufferedReader orders = new BufferedReader(new InputStreamReader(System.in));
    for (String seconds = orders.readLine(); seconds != null; seconds = orders.readLine()) {
      System.out.println(measure(Double.parseDouble(seconds)));
    }
    closeSession();
    stopWorkers();
  }

  /**
   * Has the operation compiled before anything contends for a monitor: under a slow agent the
   * contended operations of a whole run would be too few for that.
   */
  private void compileOperation() {
    LockWorker alone = new LockWorker(-1, new Monitor[] {new Monitor()}, settings);
    alone.endLoad(); // It has nobody to take turns with.
    for (int i = 0; i < COMPILE_ROUNDS; i++) {
      alone.operation();
    }
  }

  private String measure(double time) throws InterruptedException {
    Counters before = new Counters();
    Thread.sleep(millis(time));
    Counters after = new Counters();
    double seconds = (after.nanos - before.nanos) / 1e9;
    long operations = after.operations - before.operations;
    return String.format(
        Locale.ROOT,
        "{\"operationsPerSecond\": %.1f, \"operations\": %d, \"seconds\": %.3f,"
            + " \"blocked\": %d, \"waited\": %d}",
        operations / seconds,
        operations,
        seconds,
        after.blocked - before.blocked,
        after.waited - before.waited);
  }

  /** What the workers have done so far, and how often the VM saw them blocked and waiting. */
  private final class Counters {
    final long operations;
    final long nanos;
    final long blocked;
    final long waited;

    Counters() {
      long sum = 0;
      for (Worker worker : workers) {
        sum += worker.operations.get();
      }
      operations = sum;
      nanos = System.nanoTime();
      long blockedSum = 0;
      long waitedSum = 0;
      for (Worker worker : workers) {
        ThreadInfo info = ManagementFactory.getThreadMXBean().getThreadInfo(worker.getId());
        blockedSum += info.getBlockedCount();
        waitedSum += info.getWaitedCount();
      }
      blocked = blockedSum;
      waited = waitedSum;
    }
  }

  private void openSession() {
    if (settings.session.equals("none")) {
      return;
    }
    int all = Integer.MAX_VALUE;
    String stacks = settings.folder.resolve("lock-stacks.txt").toString();
    requireDone(
        "startMutexLockProfilingSession",
        startMutexLockProfilingSession(
            1, "bench", sessionSeconds(), all, all, all, all, all, all, stacks));
    startMutexLockSummarySession(1);
  }

  private long sessionSeconds() {
    return 600;
  }

  private void enterMeasuredPhase() throws InterruptedException {
    if (settings.session.equals("detail")) {
      Thread.sleep(BRIEF_SUMMARY_MILLIS);
      startMutexLockDetailSession(1);
    }
  }

  /**
   * Ends the session while the load still runs. A summary session is ended as it is in real use,
   * with a detail phase: only that makes the report show what the summary has found.
   */
  private void closeSession() throws InterruptedException {
    if (settings.session.equals("none")) {
      return;
    }
    if (settings.session.equals("summary")) {
      startMutexLockDetailSession(1);
      Thread.sleep(CLOSING_DETAIL_MILLIS);
    }
    stopMutexLockDetailSession(1);
    String report = settings.folder.resolve("lock-report.json").toString();
    requireDone("stopMutexLockProfilingSession", stopMutexLockProfilingSession(1, report));
  }

  private static void requireDone(String call, int result) {
    if (result != 1) {
      throw new IllegalStateException(call + " gave " + result);
    }
  }

  private void stopWorkers() throws InterruptedException {
    for (Worker worker : workers) {
      worker.endLoad();
    }
    for (Worker worker : workers) {
      worker.wake();
    }
    for (Worker worker : workers) {
      worker.join();
    }
  }

  private static long millis(double seconds) {
    return Math.round(seconds * 1000);
  }
}
