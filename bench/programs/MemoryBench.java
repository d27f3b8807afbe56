import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.io.File;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Date;
import java.util.List;
import java.util.Locale;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.atomic.AtomicReference;
import java.util.function.Supplier;

/**
 * Tags objects with both agents, then lets both scan, and both tag, in turn. The two have tags of
 * their own and see the same heap at the same time, so that their times compare. Beside the scans
 * stands one query for all generations, made alone.
 *
 * <p>Run with a collector of which {@link Generations} speaks. Prints one line of JSON for each
 * pair of scans and each round of tagging: processor time in nanoseconds, and when a scan began and
 * ended by the clock of {@code System.nanoTime}.
 */
public final class MemoryBench {
  private static final int TAGS = 100_000;

  private static final List<Supplier<Object>> MAKERS = Arrays.asList(AtomicBoolean::new,
      AtomicInteger::new, AtomicLong::new, AtomicReference::new, ArrayList::new, Date::new,
      Object::new, StringBuilder::new);

  private MemoryBench() {}

  /** Options: objects, generations, scans (rounds of them), tags (rounds of tagging), report. */
  public static void main(String[] args) {
    Options options = new Options(args);
    int objects = options.integer("objects", 10_000);
    int generations = options.integer("generations", 5);
    int scans = options.integer("scans", 4);
    int tags = options.integer("tags", 8);
    String report = options.text("report", "memory-report.json");
    options.rejectOthers();
    Object[] kept = new Object[objects];
    for (int i = 0; i < objects; i++) {
      kept[i] = MAKERS.get(i % MAKERS.size()).get();
    }
    start();
    Generations.awaitNext();
    tagByGeneration(kept, generations);
    for (int round = 0; round < scans; round++) {
      scan(round, objects, generations, report);
    }
    start();
    Generations.awaitNext();
    for (int round = 0; round < tags; round++) {
      tag(round, kept);
    }
  }

  private static void start() {
    if (TWNativeAgentProfiling.startMemoryLeaksProfileSession(
            true, 60, 1, "bench", -1, "", "", "", "")
        != 1) {
      throw new IllegalStateException("no memory session");
    }
  }

  private static void tagByGeneration(Object[] kept, int generations) {
    for (int generation = 1; generation <= generations; generation++) {
      int from = (int) ((long) kept.length * (generation - 1) / generations);
      int to = (int) ((long) kept.length * generation / generations);
      long before = Generations.count();
      for (int i = from; i < to; i++) {
        // The place of an object in a table of tags depends on who tags it first.
        if (i % 4 < 2) {
          TWNativeAgentProfiling.setObjectTag(kept[i]);
          LiteralMemory.setTag(kept[i], generation);
        } else {
          LiteralMemory.setTag(kept[i], generation);
          TWNativeAgentProfiling.setObjectTag(kept[i]);
        }
      }
      if (Generations.count() != before) {
        throw new IllegalStateException("a collection while a generation was tagged");
      }
      Generations.awaitNext();
    }
  }

  /** The processor time of one scan, and when it was. */
  private static final class Scan {
    final long from = System.nanoTime();
    private final long processorBefore = LiteralMemory.processorNanos();
    private long processor;
    private long to;

    void end() {
      processor = LiteralMemory.processorNanos() - processorBefore;
      to = System.nanoTime();
    }

    @Override
    public String toString() {
      return String.format(
          Locale.ROOT, "{\"processor\": %d, \"from\": %d, \"to\": %d}", processor, from, to);
    }
  }

  private static void scan(int round, int objects, int generations, String report) {
    Scan library = null;
    Scan literal = null;
    long[] parts = null;
    long query = 0;
    for (int turn = 0; turn < 3; turn++) {
      int subject = (turn + round) % 3;
      if (subject == 0) {
        literal = new Scan();
        parts = LiteralMemory.scan(generations);
        literal.end();
      } else if (subject == 1) {
        query = LiteralMemory.query(generations);
      } else {
        library = new Scan();
        int result = TWNativeAgentProfiling.stopMemoryLeaksProfileSession(1, report);
        library.end();
        if (result != 1 || new File(report).length() == 0) {
          throw new IllegalStateException("no report");
        }
      }
    }
    if (parts[3] != objects) {
      throw new IllegalStateException(parts[3] + " objects instead of " + objects);
    }
    if (query < 0) {
      throw new IllegalStateException("no query for all generations");
    }
    System.out.printf(
        Locale.ROOT,
        "{\"kind\": \"scan\", \"library\": %s, \"literal\": %s, \"walk\": %d, \"queries\": %d,"
            + " \"objects\": %d, \"longestQuery\": %d, \"oneQuery\": %d}%n",
        library, literal, parts[0], parts[1], parts[2], parts[4], query);
  }

  // All objects carry a tag already, as tracked objects do.
  private static void tag(int round, Object[] kept) {
    int count = Math.min(kept.length, TAGS);
    int passes = TAGS / count;
    int step = kept.length / count;
    List<Runnable> subjects = new ArrayList<>();
    subjects.add(() -> {
      for (int i = 0; i < count; i++) {
        LiteralMemory.setTag(kept[i * step], 1);
      }
    });
    subjects.add(() -> {
      for (int i = 0; i < count; i++) {
        LiteralMemory.replaceTag(kept[i * step], 1);
      }
    });
    subjects.add(() -> {
      for (int i = 0; i < count; i++) {
        TWNativeAgentProfiling.setObjectTag(kept[i * step]);
      }
    });
    long[] nanos = new long[subjects.size()];
    for (int turn = 0; turn < nanos.length; turn++) {
      int subject = (turn + round) % nanos.length;
      subjects.get(subject).run(); // Two of them share their tags in the caches, one does not.
      long start = LiteralMemory.processorNanos();
      for (int pass = 0; pass < passes; pass++) {
        subjects.get(subject).run();
      }
      nanos[subject] = LiteralMemory.processorNanos() - start;
    }
    System.out.printf(Locale.ROOT,
        "{\"kind\": \"tag\", \"count\": %d, \"set\": %d, \"replace\": %d, \"library\": %d}%n",
        passes * count, nanos[0], nanos[1], nanos[2]);
  }
}
