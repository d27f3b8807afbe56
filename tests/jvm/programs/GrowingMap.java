import com.korvane.twutils.nativeagent.companion.ReportAccess;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.time.Duration;
import java.util.HashMap;
import java.util.Map;
import java.util.concurrent.TimeUnit;

/**
 * Keeps byte arrays in a map at a steady rate, amid garbage, and writes what grows and who holds
 * it, until there are so many points. Usage: GrowingMap POINTS
 */
public final class GrowingMap {
  private static final Map<String, byte[]> KEPT = new HashMap<>();
  private static final int ARRAY = 4096;
  private static final int ARRAYS_A_SECOND = 200;
  private static final long LIMIT_SECONDS = 90;

  static volatile Object garbage;

  private GrowingMap() {}

  public static void main(String[] args) throws Exception {
    int points = Integer.parseInt(args[0]);
    ReportAccess.openPaths("paths.json");
    ReportAccess.openGrowth("growth.json", Duration.ofMillis(20));
    long begin = System.nanoTime();
    long passed = 0;
    while (passed < TimeUnit.SECONDS.toNanos(LIMIT_SECONDS) && points() < points) {
      passed = System.nanoTime() - begin;
      grow(passed * ARRAYS_A_SECOND / TimeUnit.SECONDS.toNanos(1));
      ReportAccess.takePoint();
      Thread.sleep(50);
    }
    ReportAccess.lastPoint();
    ReportAccess.writePaths();
    ReportAccess.closePaths();
    Facts.put("bytes a minute", 60L * ARRAYS_A_SECOND * (ARRAY + 16));
  }

  private static int points() throws Exception {
    Path file = Paths.get("growth.json");
    return Files.exists(file)
        ? new String(Files.readAllBytes(file), "UTF-8").split("\"tookMillis\"").length - 1 : 0;
  }

  private static void grow(long size) {
    while (KEPT.size() < size) {
      KEPT.put("key" + KEPT.size(), new byte[ARRAY]);
      for (int i = 0; i < 20; i++) {
        garbage = new byte[ARRAY];
      }
    }
  }
}
