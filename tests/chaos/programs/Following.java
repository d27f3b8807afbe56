import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.BooleanSupplier;

/** Objects are tagged, tagged anew again and again, and forgotten. */
final class Following implements Storm {
  private static final int KEPT = 2000;

  private final AtomicLong tagged = new AtomicLong();

  @Override
  public int threads() {
    return 4;
  }

  @Override
  public void rage(Random random, BooleanSupplier goesOn) {
    Object[] kept = new Object[KEPT];
    while (goesOn.getAsBoolean()) {
      int i = random.nextInt(KEPT);
      if (kept[i] == null || random.nextInt(4) == 0) {
        kept[i] = random.nextBoolean() ? new StringBuilder() : new int[random.nextInt(50)];
      }
      TWNativeAgentProfiling.setObjectTag(random.nextInt(500) == 0 ? null : kept[i]);
      tagged.incrementAndGet();
      if (random.nextInt(1000) == 0) {
        Thread.yield();
      }
    }
  }

  @Override
  public String account() {
    return tagged + " tags";
  }
}
