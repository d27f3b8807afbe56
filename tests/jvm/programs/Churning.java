import com.example.tracked.Tracked;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Stream;

/** Makes many objects that nobody keeps, and keeps a few. */
public final class Churning {
  private static final List<Tracked> KEPT = new ArrayList<>();
  private static volatile Tracked last;

  private Churning() {}

  /** Arguments: the output folder, sweeps to wait for, objects to keep, objects to let go. */
  public static void main(String[] args) throws Exception {
    Path output = Paths.get(args[0]);
    int sweeps = Integer.parseInt(args[1]);
    for (int i = 0; i < Integer.parseInt(args[2]); i++) {
      KEPT.add(new Tracked());
    }
    int lost = Integer.parseInt(args[3]);
    Await.that("sweeps", () -> churn(lost) && sweeps(output) >= sweeps);
    Facts.put("kept", KEPT.size());
  }

  private static boolean churn(int count) {
    for (int i = 0; i < count; i++) {
      last = new Tracked();
    }
    return true;
  }

  private static long sweeps(Path output) {
    try (Stream<Path> files = Files.walk(output)) {
      Path file = files.filter(each -> each.toString().endsWith(".sweeps")).findFirst().get();
      return Files.readAllLines(file).size();
    } catch (java.io.IOException | RuntimeException e) {
      return 0; // not yet
    }
  }
}
