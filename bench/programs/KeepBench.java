import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.IOException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.Locale;
import java.util.concurrent.atomic.AtomicLongArray;
import javax.management.JMException;

/**
 * Keeps objects of several generations alive, while the agent tracks all of them and the flight
 * recorder samples what lives long.
 *
 * <p>Prints lines of JSON: for each turn the processor time of allocating without the recorder and
 * with it; then, for the agent's scan and for the end of the recording, the processor time in
 * nanoseconds and when it was by the clock of {@code System.nanoTime}.
 */
public final class KeepBench {
  private static final int ALLOCATIONS = 200_000;

  private static final int LONGS = 124; // in an array, which with its object is a kilobyte

  private static volatile Object sink;

  private KeepBench() {}

  /** A piece of work that may fail as the recorder does. */
  private interface Work {
    void run() throws IOException, JMException;
  }

  /** Options: objects, generations, turns (of allocating), recorder (a settings file), report. */
  public static void main(String[] args) throws IOException, JMException {
    Options options = new Options(args);
    int objects = options.integer("objects", 10_000);
    int generations = options.integer("generations", 5);
    int turns = options.integer("turns", 3);
    String settings = options.text("recorder", "default");
    String report = options.text("report", "memory-report.json");
    options.rejectOthers();
    Path recording = Paths.get("recording.jfr");
    for (int turn = 0; turn < turns; turn++) {
      allocateInTurn(turn, settings, recording);
    }
    startSession();
    Recorder recorder = new Recorder(settings);
    AtomicLongArray[] kept = new AtomicLongArray[objects];
    for (int generation = 1; generation <= generations; generation++) {
      Generations.awaitNext();
      int from = (int) ((long) objects * (generation - 1) / generations);
      int to = (int) ((long) objects * generation / generations);
      for (int i = from; i < to; i++) {
        kept[i] = new AtomicLongArray(LONGS);
        TWNativeAgentProfiling.setObjectTag(kept[i]);
      }
    }
    Generations.awaitNext(); // So that all have lived through one.
    print("library", () -> scan(report));
    print("recorder", () -> recorder.end(recording));
    sink = kept;
  }

  private static void startSession() {
    if (TWNativeAgentProfiling.startMemoryLeaksProfileSession(
            true, 60, 1, "bench", -1, "", "", "", "")
        != 1) {
      throw new IllegalStateException("no memory session");
    }
  }

  private static void scan(String report) {
    if (TWNativeAgentProfiling.stopMemoryLeaksProfileSession(1, report) != 1) {
      throw new IllegalStateException("no report");
    }
  }

  /** Prints what allocating took; every other time the one without the recorder comes first. */
  private static void allocateInTurn(int turn, String settings, Path recording)
      throws IOException, JMException {
    long without = turn % 2 == 0 ? allocate() : 0;
    Recorder recorder = new Recorder(settings);
    long with = allocate();
    recorder.end(recording);
    without += turn % 2 == 1 ? allocate() : 0;
    System.out.printf(
        Locale.ROOT, "{\"kind\": \"allocate\", \"without\": %d, \"with\": %d}%n", without, with);
  }

  /** Returns the processor time in nanoseconds. */
  private static long allocate() {
    long before = LiteralMemory.processorNanos();
    for (int i = 0; i < ALLOCATIONS; i++) {
      sink = new AtomicLongArray(LONGS);
    }
    return LiteralMemory.processorNanos() - before;
  }

  private static void print(String tool, Work work) throws IOException, JMException {
    long from = System.nanoTime();
    long before = LiteralMemory.processorNanos();
    work.run();
    long processor = LiteralMemory.processorNanos() - before;
    System.out.printf(
        Locale.ROOT,
        "{\"kind\": \"%s\", \"processor\": %d, \"from\": %d, \"to\": %d}%n",
        tool, processor, from, System.nanoTime());
  }
}
