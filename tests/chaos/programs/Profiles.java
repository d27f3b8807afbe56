import com.korvane.twutils.nativeagent.ContentionSession;
import com.korvane.twutils.nativeagent.ContentionSettings;
import com.korvane.twutils.nativeagent.NativeAgent;
import java.io.IOException;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.time.Duration;
import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.BooleanSupplier;

/** Contention profiles start and stop, and their reports are written meanwhile. */
final class Profiles implements Storm {
  private final Path report;
  private final AtomicLong profiles = new AtomicLong();
  private final AtomicLong reports = new AtomicLong();

  Profiles(String folder) {
    report = Paths.get(folder, "contention.json");
  }

  @Override
  public int threads() {
    return 1;
  }

  @Override
  public void rage(Random random, BooleanSupplier goesOn) throws InterruptedException {
    while (goesOn.getAsBoolean()) {
      ContentionSession session =
          NativeAgent.startContention(
              new ContentionSettings(report)
                  .locks(64 << random.nextInt(7))
                  .samples(random.nextInt(200))
                  .budget(1 + random.nextInt(20))
                  .stuck(Duration.ofMillis(100 + random.nextInt(1000))));
      try {
        for (int i = random.nextInt(20); i > 0 && goesOn.getAsBoolean(); i--) {
          Thread.sleep(random.nextInt(100));
          session.snapshot();
          reports.incrementAndGet();
        }
        session.stop();
      } catch (IOException e) {
        throw new IllegalStateException(e);
      }
      profiles.incrementAndGet();
    }
  }

  @Override
  public String account() {
    return profiles + " contention profiles, " + reports + " reports of them";
  }
}
