import com.korvane.twutils.nativeagent.companion.ReportAccess;
import java.time.Duration;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * Keeps byte arrays in a map, at a rate that it tells, amid garbage, and writes what grows and who
 * holds it. Usage: GrowingMap STEPS
 */
public final class GrowingMap {
  private static final Map<String, byte[]> KEPT = new HashMap<>();
  private static final int ARRAY = 4096;
  private static final int ARRAYS = 100;

  static Object garbage;

  private GrowingMap() {}

  public static void main(String[] args) throws Exception {
    int steps = Integer.parseInt(args[0]);
    ReportAccess.openPaths("paths.json");
    ReportAccess.openGrowth("growth.json", Duration.ofMillis(20));
    long begin = System.nanoTime();
    long time = begin;
    for (int step = 0; step < steps; step++) {
      grow();
      ReportAccess.takePoint();
      time = System.nanoTime();
      Thread.sleep(250);
    }
    ReportAccess.lastPoint();
    ReportAccess.writePaths();
    ReportAccess.closePaths();
    Facts.put("arrays", KEPT.size());
    Facts.put("nanos", time - begin);
  }

  private static void grow() {
    for (int i = 0; i < ARRAYS; i++) {
      KEPT.put("key" + KEPT.size(), new byte[ARRAY]);
      List<byte[]> dead = new ArrayList<>();
      for (int j = 0; j < 20; j++) {
        dead.add(new byte[ARRAY]);
      }
      garbage = dead;
    }
    garbage = null;
  }
}
