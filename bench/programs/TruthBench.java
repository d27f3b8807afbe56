import com.korvane.twutils.nativeagent.ContentionSession;
import com.korvane.twutils.nativeagent.ContentionSettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadInfo;
import java.lang.management.ThreadMXBean;
import java.nio.file.Paths;
import java.util.Arrays;
import java.util.Locale;
import java.util.concurrent.Phaser;
import javax.management.JMException;

/**
 * Threads that are blocked so that the program knows how often and for how long. In each round
 * either one thread holds all monitors until it has seen all others blocked, or it notifies the
 * others when it knows all to wait.
 *
 * <p>The JVM's own contention monitoring watches, and so do the flight recorder with the given
 * settings and the agent's session; then, in further rounds, the agent's contention profile and the
 * flight recorder with its usual settings. For both it prints one line of JSON: the true number of
 * contended enters (or waits) and the sum of their times in seconds, and the contended enters that
 * the contention monitoring has. The agent's numbers are in its reports, lock-report.json and
 * contention-report.json, the recorder's in recording.jfr and usual.jfr.
 */
public final class TruthBench {
  /** The monitor, whose class is how it is found in reports. */
  private static final class Contended {
    private int waiting; // both guarded by this monitor
    private int round;

    /** Waits for the next round. */
    synchronized void await() throws InterruptedException {
      waiting++;
      for (int begun = round; begun == round; ) {
        wait();
      }
    }

    /** Says that all of this many threads wait. */
    synchronized boolean hasWaiting(int threads) {
      return waiting == threads;
    }

    synchronized void nextRound() {
      waiting = 0;
      round++;
      notifyAll();
    }
  }

  private static final class Contender implements Runnable {
    private final Contended monitor;
    private final boolean waits;
    private final Phaser phaser;
    private Thread thread;
    private long nanos;
    private volatile boolean ended;

    Contender(Contended monitor, boolean waits, Phaser phaser) {
      this.monitor = monitor;
      this.waits = waits;
      this.phaser = phaser;
    }

    @Override
    public void run() {
      phaser.arriveAndAwaitAdvance();
      while (!ended) {
        nanos += waits ? nanosWaiting() : nanosEntering();
        phaser.arriveAndAwaitAdvance(); // The round is over.
        phaser.arriveAndAwaitAdvance(); // The next one has begun, or all is over.
      }
    }

    private long nanosEntering() {
      long asked = System.nanoTime();
      synchronized (monitor) {
        return System.nanoTime() - asked;
      }
    }

    private long nanosWaiting() {
      synchronized (monitor) {
        long asked = System.nanoTime();
        try {
          monitor.await();
        } catch (InterruptedException e) {
          throw new AssertionError("nobody interrupts a contender", e);
        }
        return System.nanoTime() - asked;
      }
    }
  }

  /** What was true up to a moment, and what the contention monitoring says. */
  private final class Reading {
    final long nanos = Arrays.stream(contenders).mapToLong(each -> each.nanos).sum();
    long monitoredCount;
    long monitoredMillis;

    /** To be made between two rounds. The JVM has no counts of virtual threads. */
    Reading() {
      for (Contender each : contenders) {
        ThreadInfo info = monitoring.getThreadInfo(each.thread.getId());
        if (info != null) {
          monitoredCount += info.getBlockedCount();
          monitoredMillis += info.getBlockedTime();
        }
      }
    }

    void printSince(Reading earlier, int rounds) {
      System.out.printf(
          Locale.ROOT,
          "{\"count\": %d, \"seconds\": %.6f, \"monitoredCount\": %d,"
              + " \"monitoredSeconds\": %.6f}%n",
          (long) rounds * contenders.length,
          (nanos - earlier.nanos) / 1e9,
          monitoredCount - earlier.monitoredCount,
          (monitoredMillis - earlier.monitoredMillis) / 1e3);
    }
  }

  private final ThreadMXBean monitoring = ManagementFactory.getThreadMXBean();
  private final Contended[] monitors;
  private final Contender[] contenders;
  private final boolean waits;
  private final int holdMillis;
  private final Phaser phaser;

  /**
   * Options: threads, monitors, hold (milliseconds that a monitor is held, or waited for, after all
   * threads were seen to block), waits (threads wait instead of entering), rounds, virtual,
   * recorder (a settings file).
   */
  private TruthBench(Options options) {
    monitors = new Contended[options.integer("monitors", 1)];
    Arrays.setAll(monitors, i -> new Contended());
    contenders = new Contender[options.integer("threads", 64)];
    waits = options.flag("waits");
    holdMillis = options.integer("hold", 10);
    phaser = new Phaser(contenders.length + 1);
    Arrays.setAll(
        contenders, i -> new Contender(monitors[i % monitors.length], waits, phaser));
  }

  public static void main(String[] args) throws IOException, JMException {
    Options options = new Options(args);
    TruthBench bench = new TruthBench(options);
    int rounds = options.integer("rounds", 80);
    boolean virtual = options.flag("virtual");
    String recorder = options.text("recorder", "default");
    options.rejectOthers();
    bench.run(rounds, virtual, recorder);
  }

  private void run(int rounds, boolean virtual, String recorder) throws IOException, JMException {
    monitoring.setThreadContentionMonitoringEnabled(true);
    for (Contender each : contenders) {
      each.thread = virtual ? Load.virtualThread(each) : new Thread(each);
      each.thread.start();
    }
    startSession();
    round(); // Lets the session meet the monitors; what comes from here on counts.
    TWNativeAgentProfiling.startMutexLockDetailSession(1);
    watch(rounds, recorder, "recording.jfr");
    stopSession();
    // Two recordings at once would share the lower of their thresholds: hence one after the other.
    // The profile begins a block when the handlers of the session are done with it: hence, too.
    ContentionSession profile =
        NativeAgent.startContention(new ContentionSettings(Paths.get("contention-report.json")));
    watch(Math.max(1, rounds / 4), "default", "usual.jfr");
    profile.stop();
    for (Contender each : contenders) {
      each.ended = true;
    }
    phaser.arriveAndDeregister();
  }

  private void watch(int rounds, String settings, String recording)
      throws IOException, JMException {
    Reading before = new Reading();
    Recorder recorder = new Recorder(settings);
    for (int i = 0; i < rounds; i++) {
      round();
    }
    recorder.end(Paths.get(recording));
    new Reading().printSince(before, rounds);
  }

  private void round() {
    if (waits) {
      phaser.arriveAndAwaitAdvance();
      letWait();
    } else {
      holdFrom(0);
    }
    phaser.arriveAndAwaitAdvance();
  }

  /** Holds the monitors from this one on until all contenders have been seen blocked. */
  private void holdFrom(int monitor) {
    if (monitor < monitors.length) {
      synchronized (monitors[monitor]) {
        holdFrom(monitor + 1);
      }
      return;
    }
    phaser.arriveAndAwaitAdvance();
    for (Contender each : contenders) {
      while (each.thread.getState() != Thread.State.BLOCKED) {
        Thread.yield();
      }
    }
    hold();
  }

  private void letWait() {
    for (int i = 0; i < monitors.length; i++) {
      int threads = (contenders.length + monitors.length - 1 - i) / monitors.length;
      while (!monitors[i].hasWaiting(threads)) {
        Thread.yield();
      }
    }
    hold();
    for (Contended each : monitors) {
      each.nextRound();
    }
  }

  private void hold() {
    try {
      Thread.sleep(holdMillis);
    } catch (InterruptedException e) {
      throw new AssertionError("nobody interrupts this thread", e);
    }
  }

  private static void startSession() {
    int all = Integer.MAX_VALUE;
    TWNativeAgentProfiling.startMutexLockProfilingSession(
        1, "truth", 600, all, all, all, all, all, all, "lock-stacks.txt");
    TWNativeAgentProfiling.startMutexLockSummarySession(1);
  }

  private static void stopSession() {
    TWNativeAgentProfiling.stopMutexLockDetailSession(1);
    if (TWNativeAgentProfiling.stopMutexLockProfilingSession(1, "lock-report.json") != 1) {
      throw new IllegalStateException("no lock report");
    }
  }
}
