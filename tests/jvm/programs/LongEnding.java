import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.nio.file.StandardWatchEventKinds;
import java.nio.file.WatchEvent;
import java.nio.file.WatchKey;
import java.nio.file.WatchService;

/**
 * Ends when a shutdown hook has seen that the contention report was written twice, and has held up
 * another thread after that.
 */
public final class LongEnding {
  static final class Door {}

  private static final String REPORT = "contention-1.json";
  private static final Door DOOR = new Door();

  private LongEnding() {}

  /** Arguments: the output folder, and "halt" to end without hooks. */
  public static void main(String[] args) throws Exception {
    Path run;
    try (DirectoryStream<Path> runs = Files.newDirectoryStream(Paths.get(args[0]), "run-*")) {
      run = runs.iterator().next();
    }
    WatchService watch = run.getFileSystem().newWatchService();
    run.register(watch, StandardWatchEventKinds.ENTRY_CREATE); // also of what is moved there
    Facts.put("before", Files.exists(run.resolve(REPORT)));
    Thread hook = new Thread(() -> awaitReports(watch), "closing time");
    Runtime.getRuntime().addShutdownHook(hook);
    if (args.length > 1) {
      Runtime.getRuntime().halt(7);
    }
    System.exit(7);
  }

  private static void awaitReports(WatchService watch) {
    int[] written = {0};
    Await.that("two reports", () -> (written[0] += reportsIn(watch.poll())) == 2);
    Facts.put("written", written[0]);
    Thread late = new Thread(LongEnding::pass, "late");
    synchronized (DOOR) {
      late.start();
      Await.that("somebody at the door", () -> late.getState() == Thread.State.BLOCKED);
    }
    Await.that("nobody at the door", () -> !late.isAlive());
  }

  private static void pass() {
    synchronized (DOOR) {
      Facts.put("passed", true);
    }
  }

  private static int reportsIn(WatchKey key) {
    int count = 0;
    if (key != null) {
      for (WatchEvent<?> event : key.pollEvents()) {
        count += event.context().toString().equals(REPORT) ? event.count() : 0;
      }
      key.reset();
    }
    return count;
  }
}
