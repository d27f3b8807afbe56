import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.startMutexLockDetailSession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.startMutexLockProfilingSession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.startMutexLockSummarySession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.stopMutexLockDetailSession;
import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.stopMutexLockProfilingSession;

import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadInfo;
import java.lang.management.ThreadMXBean;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.concurrent.locks.LockSupport;

/**
 * A number of threads that contend for monitors; measured as {@link Load} describes. {@link
 * Settings} says with what options, all of the form {@code --name=value}.
 *
 * <p>The end of the input ends the session and the program. Ends with status 1 and a line on
 * standard error when the options or a session are refused.
 */
public final class LockBench extends Load {
  private static final int COMPILE_ROUNDS = 20_000;
  private static final long SESSION_SECONDS = 600;
  private static final long OPENING_DETAIL_MILLIS = 100;
  private static final long CLOSING_DETAIL_MILLIS = 300;

  public static void main(String[] args) throws IOException, InterruptedException {
    try {
      Settings settings = new Settings(new Options(args));
      new LockBench(settings, workers(settings)).run();
    } catch (IllegalArgumentException | IllegalStateException e) {
      fail("LockBench", e.getMessage());
    } catch (UnsatisfiedLinkError e) {
      fail(
          "LockBench",
          "a session needs the agent: start the JVM with -agentpath:.../libjavanativeagent.so");
    }
  }

  /** What to run; each field is set by an option of its name. */
  private static final class Settings {
    /** "locks": threads pick monitors at random. "pingpong": pairs pass a turn by wait/notify. */
    final String workload;

    final int threads;

    /** Of the workload "locks" only; a pair of "pingpong" has one of its own. */
    final int monitors;

    /** Steps of arithmetic, about a nanosecond each, done inside and outside the monitor. */
    final int inside;

    final int outside;

    /**
     * How often a thread gives up its processor while it holds the monitor. Without that, two
     * processors hardly ever make a thread block: the VM's spinning waits out a short section.
     */
    final int yields;

    /**
     * Whether a thread that has left its monitor lets another thread take that monitor before it
     * goes on, which needs more threads than monitors. Left to themselves, such loads change for
     * seconds at a time between two states that differ several times in speed: in one the threads
     * hand a monitor over, in the other one thread takes it again and again before the thread it
     * woke gets there.
     */
    final boolean turns;

    /** Frames between the thread's run method and the one that enters the monitor. */
    final int depth;

    /** Whether the threads are virtual ones. */
    final boolean virtual;

    /** Seconds of contention before the measured ones. */
    final double warmup;

    /** The lock profiling session that covers the measurement. */
    final String session;

    /** Whether the JVM's own contention monitoring is on. */
    final boolean monitoring;

    /** Where a session leaves lock-report.json and lock-stacks.txt. */
    final Path folder;

    Settings(Options options) {
      workload = options.oneOf("workload", "locks", "pingpong");
      threads = options.integer("threads", 64);
      monitors = options.integer("monitors", 16);
      inside = options.integer("inside", 100);
      outside = options.integer("outside", 100);
      yields = options.integer("yields", 1);
      turns = options.flag("turns");
      depth = options.integer("depth", 20);
      virtual = options.flag("virtual");
      warmup = options.decimal("warmup", 1);
      session = options.oneOf("session", "none", "summary", "detail");
      monitoring = options.flag("monitoring");
      folder = Paths.get(options.text("folder", "."));
      options.rejectOthers();
    }

    /** Lets another thread have the processor. */
    void giveWay() {
      if (virtual) {
        LockSupport.parkNanos(1); // Virtual threads that yield only to each other starve the rest.
      } else {
        Thread.yield();
      }
    }
  }

  /** A shared monitor, and how often it has been entered. */
  private static final class Monitor {
    volatile int entries;
  }

  /** A thread that also counts how long it took to get its monitors. */
  private abstract static class MonitorWorker extends Worker {
    final Histogram gets = new Histogram();

    MonitorWorker(String name) {
      super(name);
    }
  }

  /** Enters one of the shared monitors, works in it, leaves it and works outside. */
  private static final class LockWorker extends MonitorWorker {
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
        settings.giveWay();
      }
    }

    /** Returns which entry of the monitor this was. */
    private int enter(Monitor monitor, int depth) {
      if (depth > 0) {
        return enter(monitor, depth - 1);
      }
      long asked = System.nanoTime();
      synchronized (monitor) {
        gets.add(System.nanoTime() - asked);
        sink = work(sink, settings.inside);
        for (int i = 0; i < settings.yields; i++) {
          settings.giveWay();
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
  private static final class PingPongWorker extends MonitorWorker {
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
      long asked = System.nanoTime();
      synchronized (turn) {
        gets.add(System.nanoTime() - asked);
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
  private final MonitorWorker[] workers;

  private LockBench(Settings settings, MonitorWorker[] workers) {
    super(workers);
    this.settings = settings;
    this.workers = workers;
  }

  private static MonitorWorker[] workers(Settings settings) {
    return settings.workload.equals("locks") ? lockWorkers(settings) : pingPongWorkers(settings);
  }

  private static MonitorWorker[] lockWorkers(Settings settings) {
    if (settings.turns && settings.threads <= settings.monitors) {
      throw new IllegalArgumentException("turns need more threads than monitors");
    }
    Monitor[] monitors = new Monitor[settings.monitors];
    for (int i = 0; i < monitors.length; i++) {
      monitors[i] = new Monitor();
    }
    MonitorWorker[] made = new MonitorWorker[settings.threads];
    for (int i = 0; i < made.length; i++) {
      made[i] = new LockWorker(i, monitors, settings);
    }
    return made;
  }

  private static MonitorWorker[] pingPongWorkers(Settings settings) {
    if (settings.threads % 2 != 0) {
      throw new IllegalArgumentException("pingpong takes an even number of threads");
    }
    MonitorWorker[] made = new MonitorWorker[settings.threads];
    for (int i = 0; i < made.length; i += 2) {
      Turn turn = new Turn();
      made[i] = new PingPongWorker(i, turn, settings);
      made[i + 1] = new PingPongWorker(i + 1, turn, settings);
    }
    return made;
  }

  private void run() throws IOException, InterruptedException {
    compileOperation();
    ManagementFactory.getThreadMXBean().setThreadContentionMonitoringEnabled(settings.monitoring);
    openSession();
    start(settings.virtual);
    warmUp(settings.warmup);
    enterMeasuredPhase();
    serve();
    closeSession();
    stop();
  }

  /**
   * Has the operation compiled before anything contends for a monitor: under a slow agent the
   * contended operations of a whole run would be too few for that.
   */
  private void compileOperation() {
    LockWorker alone = new LockWorker(-1, new Monitor[] {new Monitor()}, settings);
    alone.endLoad(); // It has nobody to take turns with.
    for (int i = 0; i < COMPILE_ROUNDS; i++) {
      LockSupport.unpark(Thread.currentThread()); // So that its parking takes no time.
      alone.operation();
    }
  }

  /**
   * How often the VM saw the threads blocked and waiting (it does not say so of virtual ones), and
   * how long they took to get a monitor, as the counts of {@link Histogram}.
   */
  @Override
  Map<String, long[]> furtherCounters() {
    ThreadMXBean threads = ManagementFactory.getThreadMXBean();
    long blocked = 0;
    long waited = 0;
    long[] gets = new long[Histogram.SIZE];
    for (MonitorWorker worker : workers) {
      ThreadInfo info = threads.getThreadInfo(worker.thread().getId());
      if (info != null) {
        blocked += info.getBlockedCount();
        waited += info.getWaitedCount();
      }
      worker.gets.addTo(gets);
    }
    Map<String, long[]> counters = new LinkedHashMap<>();
    counters.put("blocked", new long[] {blocked});
    counters.put("waited", new long[] {waited});
    counters.put("gets", gets);
    return counters;
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
            1, "bench", SESSION_SECONDS, all, all, all, all, all, all, stacks));
    startMutexLockSummarySession(1);
  }

  /** A detail phase records the locks that the summary has met, here during the warm-up. */
  private void enterMeasuredPhase() throws InterruptedException {
    if (settings.session.equals("detail")) {
      startMutexLockDetailSession(1);
      Thread.sleep(OPENING_DETAIL_MILLIS);
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
}
