import com.example.tracked.Tracked;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.LinkedList;
import java.util.List;
import java.util.concurrent.locks.LockSupport;
import java.util.stream.Collectors;
import java.util.stream.Stream;

/**
 * Runs out of memory again and again while sessions come and go, and recovers: they are to go on as
 * if nothing had been.
 */
public final class Starved {
  private static final List<Tracked> KEPT = new ArrayList<>();
  private static volatile boolean isOver;

  private Starved() {}

  /** Arguments: the output folder, seconds without memory. */
  public static void main(String[] args) throws Exception {
    for (int i = 0; i < 50; i++) {
      KEPT.add(new Tracked());
    }
    Thread thrower = new Thread(Starved::throwEarly, "thrower");
    thrower.start();
    Path output = Paths.get(args[0]);
    Await.that("first session", () -> count(output, "locks-") > 0 && count(output, "memory-") > 0);
    Await.that("threads", () -> threads().contains("notifications"));
    starve(System.nanoTime() + Long.parseLong(args[1]) * 1_000_000_000L);
    isOver = true;
    thrower.join();

    Facts.put("threads", threads());
    long locks = count(output, "locks-");
    long memory = count(output, "memory-");
    Await.that("locks go on", () -> count(output, "locks-") > locks + 1);
    Await.that("memory goes on", () -> count(output, "memory-") > memory + 1);
    for (int i = 0; i < 20; i++) {
      throwOne("late");
    }
    Facts.put("kept", KEPT.size());
  }

  private static void throwEarly() {
    while (!isOver) {
      try {
        throwOne("early");
        LockSupport.parkNanos(20_000_000);
      } catch (OutOfMemoryError e) {
        // As others have.
      }
    }
  }

  private static void throwOne(String message) {
    try {
      throw new IllegalStateException(message);
    } catch (IllegalStateException e) {
      Throwers.use(e);
    }
  }

  /** Takes all memory, and keeps it for a while, over and over. */
  private static void starve(long end) {
    while (System.nanoTime() < end) {
      try {
        starveOnce();
      } catch (OutOfMemoryError e) {
        // There was none to begin with.
      }
    }
  }

  private static void starveOnce() {
    LinkedList<Object> all = new LinkedList<>();
    long until = 0;
    while (until == 0 || System.nanoTime() < until) {
      try {
        while (true) {
          all.add(new long[until == 0 ? 100 : 1]);
        }
      } catch (OutOfMemoryError e) {
        until = until == 0 ? System.nanoTime() + 300_000_000 : until;
      }
    }
  }

  /** Those of the companion. */
  private static String threads() {
    return Thread.getAllStackTraces().keySet().stream()
        .map(Thread::getName)
        .filter(name -> name.startsWith("javanativeagent"))
        .sorted()
        .collect(Collectors.joining(","));
  }

  /** Reports with such names. */
  private static long count(Path output, String prefix) {
    try (Stream<Path> files = Files.walk(output)) {
      return files
          .map(file -> file.getFileName().toString())
          .filter(name -> name.startsWith(prefix) && name.endsWith(".json"))
          .count();
    } catch (java.io.IOException | java.io.UncheckedIOException e) {
      return 0;
    }
  }
}
