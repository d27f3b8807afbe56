import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.BooleanSupplier;

/** Garbage collections, asked of the VM and of the agent. */
final class Collecting implements Storm {
  private final AtomicLong collections = new AtomicLong();

  @Override
  public int threads() {
    return 1;
  }

  @Override
  public void rage(Random random, BooleanSupplier goesOn) throws InterruptedException {
    while (goesOn.getAsBoolean()) {
      if (random.nextBoolean()) {
        System.gc();
      } else {
        TWNativeAgentProfiling.forceGarbageCollection();
      }
      collections.incrementAndGet();
      Thread.sleep(random.nextInt(50));
    }
  }

  @Override
  public String account() {
    return collections + " collections";
  }
}
