import java.io.File;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;

/**
 * Throws one object three times, and waits until a file of counts has that. Argument: the output
 * folder.
 */
public final class StillCounting {
  private static final long PATIENCE_NANOS = 30_000_000_000L;

  private StillCounting() {}

  static final class Thrown extends Exception {
    private static final long serialVersionUID = 1;
  }

  public static void main(String[] args) throws Exception {
    File folder = new File(args[0]).listFiles()[0];
    File counts = new File(folder, "exception-counts.json");
    Thrown thrown = new Thrown();
    for (int i = 0; i < 3; i++) {
      try {
        throw thrown;
      } catch (Thrown e) {
        // Counted.
      }
    }
    long end = System.nanoTime() + PATIENCE_NANOS;
    boolean isSeen = false;
    while (!isSeen && System.nanoTime() < end) {
      Thread.sleep(20);
      String text = new String(Files.readAllBytes(counts.toPath()), StandardCharsets.UTF_8);
      isSeen = text.contains("StillCounting$Thrown");
    }
    Facts.put("seen", isSeen);
  }
}
