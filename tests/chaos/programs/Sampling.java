import com.korvane.twutils.nativeagent.AllocationSession;
import com.korvane.twutils.nativeagent.AllocationSettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.IOException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayDeque;
import java.util.Deque;
import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.BooleanSupplier;

/** Allocation profiles start and stop, and their reports are written meanwhile. */
final class Sampling implements Storm {
  private static final int MOST_KEPT = 2000;

  private final Path report;
  private final AtomicLong profiles = new AtomicLong();
  private final AtomicLong reports = new AtomicLong();
  private final Deque<Object> kept = new ArrayDeque<>();

  Sampling(String folder) {
    report = Paths.get(folder, "allocations.json");
  }

  @Override
  public int threads() {
    return 1;
  }

  @Override
  public void rage(Random random, BooleanSupplier goesOn) throws InterruptedException {
    while (goesOn.getAsBoolean()) {
      AllocationSession session =
          NativeAgent.startAllocations(
              new AllocationSettings(report)
                  .interval(1024L << random.nextInt(12))
                  .samples(1000 << random.nextInt(5)));
      try {
        for (int i = random.nextInt(20); i > 0 && goesOn.getAsBoolean(); i--) {
          keep(random);
          Thread.sleep(random.nextInt(50));
          session.snapshot(random.nextInt(10) == 0);
          reports.incrementAndGet();
        }
        if (random.nextInt(5) == 0) {
          session.shutdownBegins(random.nextBoolean());
        }
        session.stop(random.nextInt(4) == 0);
      } catch (IOException e) {
        throw new IllegalStateException(e);
      }
      profiles.incrementAndGet();
    }
  }

  private void keep(Random random) {
    for (int i = 0; i < 500; ++i) {
      kept.add(new byte[1 + random.nextInt(2000)]);
      if (kept.size() > MOST_KEPT) {
        kept.remove();
      }
    }
  }

  @Override
  public String account() {
    return profiles + " allocation profiles, " + reports + " reports of them";
  }
}
