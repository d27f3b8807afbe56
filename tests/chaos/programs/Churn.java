import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.BooleanSupplier;

/** Threads are born, contend once, and die. */
final class Churn implements Storm {
  private static final int BROOD = 8;
  private static final int NAMES = 100;

  private final Object nest = new Object();
  private final AtomicLong born = new AtomicLong();
  private long seen; // guarded by nest

  @Override
  public int threads() {
    return 2;
  }

  @Override
  public void rage(Random random, BooleanSupplier goesOn) throws InterruptedException {
    Thread[] brood = new Thread[BROOD];
    while (goesOn.getAsBoolean()) {
      for (int i = 0; i < BROOD; i++) {
        brood[i] = new Thread(this::live, "short-lived-" + random.nextInt(NAMES));
        brood[i].start();
      }
      for (Thread each : brood) {
        each.setName("old-" + random.nextInt(NAMES));
        each.join();
      }
      born.addAndGet(BROOD);
    }
  }

  private void live() {
    synchronized (nest) {
      seen++;
      Thread.yield();
    }
  }

  @Override
  public void verify() {
    synchronized (nest) {
      if (seen != born.get()) {
        throw new IllegalStateException(born + " threads were born, " + seen + " were seen");
      }
    }
  }

  @Override
  public String account() {
    return born + " threads";
  }
}
