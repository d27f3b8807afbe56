import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;

/** Ends with a shutdown hook that waits for the contention report, while nothing else ends it. */
public final class LongEnding {
  private LongEnding() {}

  /** Argument: the output folder. */
  public static void main(String[] args) {
    Path output = Paths.get(args[0]);
    Thread hook = new Thread(() -> awaitReport(output), "closing time");
    Runtime.getRuntime().addShutdownHook(hook);
    Facts.put("before", hasReport(output));
    System.exit(7);
  }

  private static void awaitReport(Path output) {
    Await.that("contention report", () -> hasReport(output));
    Facts.put("meanwhile", true);
  }

  private static boolean hasReport(Path output) {
    try (DirectoryStream<Path> runs = Files.newDirectoryStream(output, "run-*")) {
      for (Path run : runs) {
        if (Files.exists(run.resolve("contention-1.json"))) {
          return true;
        }
      }
      return false;
    } catch (java.io.IOException e) {
      throw new IllegalStateException(e);
    }
  }
}
