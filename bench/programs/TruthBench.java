import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadInfo;
import java.lang.management.ThreadMXBean;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.Arrays;
import java.util.Locale;
import java.util.concurrent.Phaser;
import javax.management.JMException;
import javax.management.MBeanServer;
import javax.management.ObjectName;

/**
 * Contends for one monitor so that it knows how often and for how long threads were blocked: in
 * each round one thread holds the monitor until it has seen all others blocked.
 *
 * <p>The JVM's own contention monitoring watches, and so do the flight recorder and the agent if
 * asked to. Prints one line of JSON: the true number of contended enters and the sum of their times
 * in seconds, and those of the contention monitoring. The agent's are in its report,
 * lock-report.json, the recorder's in recording.jfr.
 */
public final class TruthBench {
  private static final int HOLD_MILLIS = 8;

  /** The monitor's class, by which it is found in reports. */
  private static final class Contended {}

  private static final class Contender implements Runnable {
    private final Object monitor;
    private final Phaser phaser;
    private Thread thread;
    private long nanos;
    private volatile boolean ended;

    Contender(Object monitor, Phaser phaser) {
      this.monitor = monitor;
      this.phaser = phaser;
    }

    @Override
    public void run() {
      phaser.arriveAndAwaitAdvance();
      while (!ended) {
        long asked = System.nanoTime();
        synchronized (monitor) {
          nanos += System.nanoTime() - asked;
        }
        phaser.arriveAndAwaitAdvance(); // The round is over.
        phaser.arriveAndAwaitAdvance(); // The monitor is held again, or all is over.
      }
    }
  }

  private final Object monitor = new Contended();
  private final Contender[] contenders;
  private final Phaser phaser;

  private TruthBench(int threads) {
    phaser = new Phaser(threads + 1);
    contenders = new Contender[threads];
    for (int i = 0; i < threads; i++) {
      contenders[i] = new Contender(monitor, phaser);
    }
  }

  /**
   * Options: threads, rounds, virtual, agent (a session is to be run), recorder ("none", "default"
   * or a settings file).
   */
  public static void main(String[] args) throws Exception {
    Options options = new Options(args);
    int threads = options.integer("threads", 64);
    int rounds = options.integer("rounds", 100);
    boolean virtual = options.flag("virtual");
    boolean agent = options.flag("agent");
    String recorder = options.text("recorder", "none");
    options.rejectOthers();
    new TruthBench(threads).run(rounds, virtual, agent, recorder);
  }

  private void run(int rounds, boolean virtual, boolean agent, String recorder)
      throws IOException, JMException {
    ThreadMXBean monitoring = ManagementFactory.getThreadMXBean();
    monitoring.setThreadContentionMonitoringEnabled(true);
    for (Contender each : contenders) {
      each.thread = virtual ? Load.virtualThread(each) : new Thread(each);
      each.thread.start();
    }
    if (agent) {
      startSession();
    }
    round(); // Lets the session meet the monitor; what comes from here on counts.
    if (agent) {
      TWNativeAgentProfiling.startMutexLockDetailSession(1);
    }
    long before = blockedNanos();
    long[] monitoredBefore = monitored(monitoring);
    Recorder recording = recorder.equals("none") ? null : new Recorder(recorder);
    for (int i = 0; i < rounds; i++) {
      round();
    }
    if (recording != null) {
      recording.end(Paths.get("recording.jfr"));
    }
    long[] monitored = monitored(monitoring);
    long after = blockedNanos();
    if (agent) {
      stopSession();
    }
    end();
    System.out.printf(
        Locale.ROOT,
        "{\"count\": %d, \"seconds\": %.6f, \"monitoredCount\": %d, \"monitoredSeconds\": %.6f}%n",
        (long) rounds * contenders.length,
        (after - before) / 1e9,
        monitored[0] - monitoredBefore[0],
        (monitored[1] - monitoredBefore[1]) / 1e3);
  }

  private void round() {
    synchronized (monitor) {
      phaser.arriveAndAwaitAdvance();
      for (Contender each : contenders) {
        while (each.thread.getState() != Thread.State.BLOCKED) {
          Thread.yield();
        }
      }
      sleep(HOLD_MILLIS);
    }
    phaser.arriveAndAwaitAdvance();
  }

  /** The nanoseconds that all contenders were blocked; to be called between two rounds. */
  private long blockedNanos() {
    return Arrays.stream(contenders).mapToLong(each -> each.nanos).sum();
  }

  /** Count and milliseconds of blocking as the JVM has them; it has none for virtual threads. */
  private long[] monitored(ThreadMXBean monitoring) {
    long[] sums = new long[2];
    for (Contender each : contenders) {
      ThreadInfo info = monitoring.getThreadInfo(each.thread.getId());
      if (info != null) {
        sums[0] += info.getBlockedCount();
        sums[1] += info.getBlockedTime();
      }
    }
    return sums;
  }

  private void end() {
    for (Contender each : contenders) {
      each.ended = true;
    }
    phaser.arriveAndDeregister();
  }

  private static void sleep(int millis) {
    try {
      Thread.sleep(millis);
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

  /** A recording of the flight recorder, by its management interface: JDK 8 knows no other. */
  private static final class Recorder {
    private final MBeanServer server = ManagementFactory.getPlatformMBeanServer();
    private final ObjectName name = new ObjectName("jdk.management.jfr:type=FlightRecorder");
    private final Object id;

    /** Begins a recording with the predefined settings "default" or those of a file. */
    Recorder(String settings) throws IOException, JMException {
      id = server.invoke(name, "newRecording", new Object[0], new String[0]);
      if (settings.equals("default")) {
        invoke("setPredefinedConfiguration", settings);
      } else {
        Path file = Paths.get(settings);
        byte[] text = Files.readAllBytes(file);
        invoke("setConfiguration", new String(text, StandardCharsets.UTF_8));
      }
      invoke("startRecording");
    }

    void end(Path file) throws JMException {
      invoke("stopRecording");
      invoke("copyTo", file.toAbsolutePath().toString());
    }

    private void invoke(String operation, String... texts) throws JMException {
      Object[] arguments = texts.length == 0 ? new Object[] {id} : new Object[] {id, texts[0]};
      String[] types =
          texts.length == 0
              ? new String[] {"long"}
              : new String[] {"long", String.class.getName()};
      server.invoke(name, operation, arguments, types);
    }
  }
}
