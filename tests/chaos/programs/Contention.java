import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.BooleanSupplier;

/** Threads contend for monitors, wait and notify; no step under a monitor is ever lost. */
final class Contention implements Storm {
  private static final int MONITORS = 16;
  private static final int NAMES = 50;

  private static final class Account {
    long steps; // guarded by this
  }

  private final Account[] accounts = new Account[MONITORS];
  private final AtomicLong steps = new AtomicLong();
  private final AtomicLong waits = new AtomicLong();

  Contention() {
    for (int i = 0; i < MONITORS; i++) {
      accounts[i] = new Account();
    }
  }

  @Override
  public int threads() {
    return 64;
  }

  @Override
  public void rage(Random random, BooleanSupplier goesOn) throws InterruptedException {
    while (goesOn.getAsBoolean()) {
      Account account = accounts[random.nextInt(MONITORS)];
      synchronized (account) {
        account.steps++;
        if (random.nextInt(8) == 0) {
          Thread.yield();
        }
        if (random.nextInt(32) == 0) {
          account.wait(1 + random.nextInt(3));
          waits.incrementAndGet();
        }
        if (random.nextInt(16) == 0) {
          account.notifyAll();
        }
      }
      steps.incrementAndGet();
      if (random.nextInt(256) == 0) {
        Thread.currentThread().setName("renamed-" + random.nextInt(NAMES));
      }
    }
  }

  @Override
  public void verify() {
    long sum = 0;
    for (Account account : accounts) {
      synchronized (account) {
        sum += account.steps;
      }
    }
    if (sum != steps.get()) {
      throw new IllegalStateException(sum + " steps under the monitors, " + steps + " outside");
    }
  }

  @Override
  public String account() {
    return steps + " steps, " + waits + " waits";
  }
}
